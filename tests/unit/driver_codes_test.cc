// The outcome tables the transfer agent depends on: one wrong status text or
// exit status and mail bounces that should have been retried, or vice versa.
#include <gtest/gtest.h>

#include "driver/delivery_codes.h"
#include "handlers/delivery_status.h"

namespace {

TEST(DeliveryCodesTest, ProgramExitCodesSpeakTheDeliveryLanguage) {
    EXPECT_EQ(mapDeliveryCode(0), 0);
    EXPECT_EQ(mapDeliveryCode(77), 77);
    EXPECT_EQ(mapDeliveryCode(99), 99);
    for (int permanent : {-1, 65, 70, 76, 78, 100, 112})
        EXPECT_EQ(mapDeliveryCode(permanent), 100) << permanent;
    for (int temporary : {1, 64, 69, 71, 75, 101, 111, 255, -2})
        EXPECT_EQ(mapDeliveryCode(temporary), 111) << temporary;
}

TEST(DeliveryCodesTest, HandlerPassStatusesMapToTheExitTable) {
    struct Row {
        int status;
        int exit;
        std::string text;
    } rows[] = {
        {DS_BAD_DESTINATION, 65, "5.1.3 Invalid destination status"},
        {DS_REJECTED, 69, "5.7.1 Message can't be delivered"},
        {DS_RESOURCES_LIMITED, 75,
         "4.3.2 Local delivery is temporarily disabled due to system resources limitations"},
        {DS_TIME_EXPIRED, 75, "4.4.7 Delivery time expired"},
        {DS_DISK_EXHAUSTED, 75, "4.3.1 Mail system disk resources exhausted"},
        {DS_MESSAGE_READ_ERROR, 75, "4.3.5 Message read error"},
        {DS_CONFIG_READ_ERROR, 75, "4.3.5 Configuration file read error"},
        {DS_CONNECTION_ERROR, 75, "4.4.2 Connection error"},
        {DS_CONGESTED, 75, "4.4.5 Mail system is congested"},
        {DS_INTERNAL_ERROR, 75, "4.3.0 Internal mail system problems"},
        {DS_BAD_ENVELOPE, 65, "5.1.0 Invalid envelope address(es)"},
        {7, 75, "4.1.0 Mail subsystem unspecified errors"},
        {-1, 75, "4.1.0 Mail subsystem unspecified errors"},
    };
    for (const auto &row : rows) {
        ExitOutcome o = exitForDeliveryStatus(row.status);
        EXPECT_EQ(o.status, row.exit) << row.status;
        EXPECT_EQ(o.text, row.text) << row.status;
    }
}

TEST(DeliveryCodesTest, FinalResultsMapToTheExitTable) {
    EXPECT_EQ(exitForDeliveryResult(0).status, 0);
    EXPECT_STREQ(exitForDeliveryResult(0).text, "");
    EXPECT_EQ(exitForDeliveryResult(77).status, 77);
    EXPECT_STREQ(exitForDeliveryResult(77).text, "5.7.1 Mail quota exceeded");
    EXPECT_EQ(exitForDeliveryResult(100).status, 71);
    EXPECT_STREQ(exitForDeliveryResult(100).text, "5.7.1 Message can't be delivered");
    for (int other : {111, 99, -1, 200, 5}) {
        EXPECT_EQ(exitForDeliveryResult(other).status, 75) << other;
        EXPECT_STREQ(exitForDeliveryResult(other).text, "4.2.1 Message can not be delivered at this time");
    }
}

}  // namespace
