// Waiting out a locked registry: the pause grows by 10 µs after every
// attempt but the first, is slept in nanoseconds only, and the second-long
// pause the system refuses ends the wait after 100,001 attempts. The sleep is
// replaced by a recorder so that nothing here actually waits.
#include <gtest/gtest.h>

#include <cerrno>
#include <functional>
#include <sqlite3.h>

#include "handlers/busy_retry.h"
#include "handlers_registry_fixture.h"

namespace {

using namespace handlers_test;

std::vector<long> pauses;
std::function<int()> onSleep;

// Records the pause; the refused one goes to the real nanosleep so that the
// system, not this test, decides that a pause of a second is invalid.
int recordingSleep(const struct timespec *request, struct timespec *remain) {
    EXPECT_EQ(request->tv_sec, 0);
    pauses.push_back(request->tv_nsec);
    if (request->tv_nsec >= 1000000000L)
        return nanosleep(request, remain);
    return onSleep ? onSleep() : 0;
}

class BusyRetryTest : public ::testing::Test {
  protected:
    void SetUp() override {
        pauses.clear();
        onSleep = nullptr;
        mh_sleep = recordingSleep;
    }
    void TearDown() override {
        mh_sleep = nanosleep;
        onSleep = nullptr;
    }
};

struct Counter {
    int attempts = 0;
    int busyFor = 0;  // answers SQLITE_BUSY this many times; negative: always
    std::vector<bool> retrying;
};

int countedAttempt(void *context, bool retrying) {
    Counter *c = static_cast<Counter *>(context);
    c->attempts++;
    c->retrying.push_back(retrying);
    return c->busyFor < 0 || c->attempts <= c->busyFor ? SQLITE_BUSY : SQLITE_OK;
}

TEST_F(BusyRetryTest, PauseFollowsEveryAttemptButTheFirst) {
    Counter once;
    int answer = -1;
    EXPECT_EQ(mh_retry_while_busy(countedAttempt, &once, &answer), 0);
    EXPECT_EQ(answer, SQLITE_OK);
    EXPECT_EQ(once.attempts, 1);
    EXPECT_TRUE(pauses.empty());

    Counter busy;
    busy.busyFor = 5;
    EXPECT_EQ(mh_retry_while_busy(countedAttempt, &busy, &answer), 0);
    EXPECT_EQ(answer, SQLITE_OK);
    EXPECT_EQ(busy.attempts, 6);
    // The successful sixth attempt is followed by a pause too.
    EXPECT_EQ(pauses, (std::vector<long>{10000, 20000, 30000, 40000, 50000}));
    EXPECT_EQ(busy.retrying, (std::vector<bool>{false, true, true, true, true, true}));
}

TEST_F(BusyRetryTest, GivesUpWhenThePauseWouldReachOneSecond) {
    Counter forever;
    forever.busyFor = -1;
    int answer = -1;
    errno = 0;
    EXPECT_EQ(mh_retry_while_busy(countedAttempt, &forever, &answer), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(answer, SQLITE_BUSY);
    EXPECT_EQ(forever.attempts, 100001);
    ASSERT_EQ(pauses.size(), 100000u);
    for (size_t i = 0; i < pauses.size(); i++)
        ASSERT_EQ(pauses[i], 10000L * static_cast<long>(i + 1)) << i;
    EXPECT_EQ(pauses.back(), 1000000000L);
}

TEST_F(BusyRetryTest, InterruptedPauseEndsTheOperation) {
    int sleeps = 0;
    onSleep = [&] {
        if (++sleeps < 3)
            return 0;
        errno = EINTR;
        return -1;
    };
    Counter forever;
    forever.busyFor = -1;
    int answer = -1;
    EXPECT_EQ(mh_retry_while_busy(countedAttempt, &forever, &answer), -1);
    EXPECT_EQ(forever.attempts, 4);
}

// Another connection holds the registry's exclusive lock throughout.
TEST_F(BusyRetryTest, LockedRegistryIsGivenUpWithFailure) {
    ScratchRegistry reg;
    reg.add({2, 1, 1, 0, "h", "u@d.org"});
    sqlite3 *holder = nullptr;
    ASSERT_EQ(sqlite3_open(reg.path().c_str(), &holder), SQLITE_OK);
    ASSERT_EQ(sqlite3_exec(holder, "BEGIN EXCLUSIVE", nullptr, nullptr, nullptr), SQLITE_OK);

    LogCapture log;
    char user[] = "u@d.org";
    HandlerRecord key = {0, MH_TYPE_RECIPIENT, 2, nullptr, user, nullptr, nullptr, true};
    HandlerList list;
    EXPECT_EQ(mh_select_handlers(nullptr, &list, &key), -1);
    EXPECT_TRUE(list.records.empty());
    ASSERT_EQ(pauses.size(), 100000u);
    EXPECT_EQ(pauses.back(), 1000000000L);
    EXPECT_NE(log.dump().find("database is locked"), std::string::npos) << log.dump();
    sqlite3_exec(holder, "COMMIT", nullptr, nullptr, nullptr);
    sqlite3_close(holder);
}

}  // namespace
