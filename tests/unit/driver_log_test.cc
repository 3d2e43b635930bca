// Console modes of the log: which stream each target reaches, and the level
// comparison that keeps facility bits (so 19 is dropped at level 6).
#include <gtest/gtest.h>
#include <syslog.h>

#include "driver/log.h"

namespace {

struct Streams {
    std::string out, err;
};

Streams logWith(const char *target, int level, int priority) {
    logInit(target, level, LOG_MAIL, 0, "ferndrop-test");
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    LogFunction(priority, "message %d", 42);
    Streams s;
    s.out = testing::internal::GetCapturedStdout();
    s.err = testing::internal::GetCapturedStderr();
    return s;
}

TEST(LogTest, ConsoleTargetsChooseStreamsWithoutRegardToCase) {
    Streams stderrOnly = logWith("STDERR", 6, 3);
    EXPECT_EQ(stderrOnly.err, "message 42\n");
    EXPECT_EQ(stderrOnly.out, "");

    Streams both = logWith("Console", 6, 3);
    EXPECT_EQ(both.err, "message 42\n");
    EXPECT_EQ(both.out, "message 42\n");

    Streams nowhere = logWith("/var/log/some.file", 6, 3);
    EXPECT_EQ(nowhere.err, "");
    EXPECT_EQ(nowhere.out, "");
}

TEST(LogTest, LevelComparesThePriorityWithFacilityBits) {
    EXPECT_EQ(logWith("console", 6, 19).err, "");
    EXPECT_EQ(logWith("console", 6, 6).err, "message 42\n");
    EXPECT_EQ(logWith("console", 6, 7).err, "");
    EXPECT_EQ(logWith("console", 0, 0).err, "message 42\n");
    EXPECT_EQ(logWith("console", 0, 1).err, "");
    // A negative level counts as 0.
    EXPECT_EQ(logWith("console", -5, 1).err, "");
}

TEST(LogTest, NewlineIsAddedEvenAfterOne) {
    logInit("stderr", 6, LOG_MAIL, 0, "ferndrop-test");
    testing::internal::CaptureStderr();
    LogFunction(3, "ends with newline\n");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "ends with newline\n\n");
}

}  // namespace
