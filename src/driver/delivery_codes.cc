// The outcome tables: what a delivery program's exit code means, and which
// exit status and RFC 3463 status line the transfer agent gets for a result.
#include "driver/delivery_codes.h"

#include <cstdio>
#include <cstdlib>

#include "driver/run_record.h"
#include "handlers/delivery_status.h"

namespace {
const char kTryLater[] = "4.2.1 Message can not be delivered at this time";
const char kCannotDeliver[] = "5.7.1 Message can't be delivered";
const char kBadDestination[] = "5.1.3 Invalid destination status";
const char kResourcesLimited[] =
    "4.3.2 Local delivery is temporarily disabled due to system resources limitations";
}  // namespace

int mapDeliveryCode(int code) {
    switch (code) {
    case 0:
        return DR_DELIVERED;
    case 77:
        return DR_OVER_QUOTA;
    case 99:
        return DR_DELIVERED_SKIP_REST;
    case -1:
    case 65:
    case 70:
    case 76:
    case 78:
    case 100:
    case 112:
        return DR_PERMANENT;
    default:
        return DR_TEMPORARY;
    }
}

ExitOutcome exitForDeliveryStatus(int status) {
    switch (status) {
    case DS_OK:
    case DS_DISCARDED:
        return {0, ""};
    case DS_BAD_DESTINATION:
        return {65, kBadDestination};
    case DS_REJECTED:
        return {69, kCannotDeliver};
    case DS_RESOURCES_LIMITED:
        return {75, kResourcesLimited};
    case DS_TIME_EXPIRED:
        return {75, "4.4.7 Delivery time expired"};
    case DS_DISK_EXHAUSTED:
        return {75, "4.3.1 Mail system disk resources exhausted"};
    case DS_MESSAGE_READ_ERROR:
        return {75, "4.3.5 Message read error"};
    case DS_CONFIG_READ_ERROR:
        return {75, "4.3.5 Configuration file read error"};
    case DS_CONNECTION_ERROR:
        return {75, "4.4.2 Connection error"};
    case DS_CONGESTED:
        return {75, "4.4.5 Mail system is congested"};
    case DS_INTERNAL_ERROR:
        return {75, "4.3.0 Internal mail system problems"};
    case DS_BAD_ENVELOPE:
        return {65, "5.1.0 Invalid envelope address(es)"};
    default:
        return {75, "4.1.0 Mail subsystem unspecified errors"};
    }
}

ExitOutcome exitForDeliveryResult(int result) {
    switch (result) {
    case DR_DELIVERED:
        return {0, ""};
    case DR_OVER_QUOTA:
        return {77, "5.7.1 Mail quota exceeded"};
    case DR_PERMANENT:
        return {71, kCannotDeliver};
    default:
        return {75, kTryLater};
    }
}

void exitWithStatus(int status, const char *text) {
    runRecordFinish(status, text);
    if (text != nullptr && text[0] != '\0') {
        fputs(text, stdout);
        fputc('\n', stdout);
    }
    exit(status);
}
