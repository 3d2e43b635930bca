// What the binary cannot show cheaply: the registry's busy-retry arithmetic (the
// sleep replaced, so nothing waits), SQLite's memory past the arena, and the
// Message-ID key's edge cases.
#include <gtest/gtest.h>
#include <sqlite3.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <vector>

#include "handlers/busy_retry.h"
#include "handlers/registry_connection.h"
#include "state/message_id.h"

namespace {

std::vector<long> pauses;
int interruptAt = -1;  // the pause that fails with EINTR

int recordingSleep(const struct timespec *request, struct timespec *remain) {
    pauses.push_back(request->tv_nsec + request->tv_sec * 1000000000L);
    if (request->tv_nsec >= 1000000000L)
        return nanosleep(request, remain);  // the system itself refuses a second-long pause
    return static_cast<int>(pauses.size()) == interruptAt ? (errno = EINTR, -1) : 0;
}

int busyFor;  // answers SQLITE_BUSY this many times; negative: always
int attempts;
int attempt(void *, bool retrying) {
    EXPECT_EQ(retrying, attempts > 0);
    attempts++;
    return busyFor < 0 || attempts <= busyFor ? SQLITE_BUSY : SQLITE_OK;
}

int retry(int busy, int interrupt, int *answer) {
    mh_sleep = recordingSleep;
    pauses.clear(), busyFor = busy, attempts = 0, interruptAt = interrupt;
    return mh_retry_while_busy(attempt, nullptr, answer);
}

TEST(BusyRetry, PauseGrowsByTenMicrosecondsAndASecondEndsTheWait) {
    int answer = -1;
    EXPECT_EQ(retry(0, -1, &answer), 0);
    EXPECT_TRUE(pauses.empty());
    EXPECT_EQ(retry(3, -1, &answer), 0);
    EXPECT_EQ(answer, SQLITE_OK);
    EXPECT_EQ(pauses, (std::vector<long>{10000, 20000, 30000}));
    EXPECT_EQ(retry(-1, -1, &answer), -1);
    EXPECT_EQ(answer, SQLITE_BUSY);
    EXPECT_EQ(attempts, 100001);
    EXPECT_EQ(pauses.back(), 1000000000L);
    EXPECT_EQ(retry(-1, 3, &answer), -1);
    EXPECT_EQ(attempts, 4);
}

// A delivery never fills the arena; this fills it and goes on into malloc,
// with blocks grown by copying on both sides, and every byte must come back.
TEST(SqliteMemory, RowsAndGrownStringsReadBackWholeThroughTheArenaAndBeyond) {
    mh_tune_sqlite();
    sqlite3 *db = nullptr;
    ASSERT_EQ(sqlite3_open(":memory:", &db), SQLITE_OK);
    EXPECT_EQ(sqlite3_memory_used(), 0);  // the settings came before the library started
    ASSERT_EQ(sqlite3_exec(db, "CREATE TABLE t (k INTEGER PRIMARY KEY, v BLOB)", nullptr, nullptr, nullptr), SQLITE_OK);
    auto byteOf = [](int row, int i) { return static_cast<unsigned char>((row * 7 + i) % 251); };
    // group_concat grows one string by reallocation: in the arena while it
    // has room, in malloc once it has none.
    auto concatenationIsWhole = [db](int rows) {
        std::string sql = "SELECT group_concat(printf('%05d', k), '') FROM (SELECT k FROM t LIMIT " +
                          std::to_string(rows) + ")", want;
        sqlite3_stmt *select = nullptr;
        if (sqlite3_prepare_v2(db, sql.c_str(), -1, &select, nullptr) != SQLITE_OK || sqlite3_step(select) != SQLITE_ROW)
            return false;
        std::string joined(reinterpret_cast<const char *>(sqlite3_column_text(select, 0)));
        sqlite3_finalize(select);
        char part[16];
        for (int k = 0; k < rows; k++)
            want += (snprintf(part, sizeof part, "%05d", k), part);
        return joined == want;
    };
    sqlite3_stmt *insert = nullptr, *select = nullptr;
    ASSERT_EQ(sqlite3_prepare_v2(db, "INSERT INTO t VALUES (?, ?)", -1, &insert, nullptr), SQLITE_OK);
    const int rows = 3000;  // about 3 MB of pages
    for (int row = 0; row < rows; row++) {
        EXPECT_TRUE(row != 200 || concatenationIsWhole(row));
        std::vector<unsigned char> v(row * 37 % 2000 + 1);
        for (size_t i = 0; i < v.size(); i++)
            v[i] = byteOf(row, static_cast<int>(i));
        sqlite3_bind_int(insert, 1, row);
        sqlite3_bind_blob(insert, 2, v.data(), static_cast<int>(v.size()), SQLITE_TRANSIENT);
        ASSERT_EQ(sqlite3_step(insert), SQLITE_DONE);
        sqlite3_reset(insert);
    }
    sqlite3_finalize(insert);
    EXPECT_TRUE(concatenationIsWhole(rows));
    ASSERT_EQ(sqlite3_prepare_v2(db, "SELECT k, v FROM t ORDER BY k", -1, &select, nullptr), SQLITE_OK);
    int seen = 0;
    for (; sqlite3_step(select) == SQLITE_ROW; seen++) {
        int row = sqlite3_column_int(select, 0);
        auto *v = static_cast<const unsigned char *>(sqlite3_column_blob(select, 1));
        int n = sqlite3_column_bytes(select, 1), bad = 0;
        for (int i = 0; i < n; i++)
            bad += v[i] != byteOf(row, i);
        ASSERT_TRUE(row == seen && n == row * 37 % 2000 + 1 && bad == 0) << "row " << row;
    }
    sqlite3_finalize(select);
    EXPECT_EQ(seen, rows);
    sqlite3_close(db);
}

TEST(MessageId, WhichLineDecidesAndHowItsValueIsCleaned) {
    const std::pair<std::string, std::string> cases[] = {
        {"From: a@b\nmEsSaGe-iD: <AbC.12@Host.EXAMPLE>\n\nbody\n", "<abc.12@host.example>"},
        {"Message-ID : <decoy@x>\n Message-ID: <decoy@x>\nResent-Message-ID: <d@x>\nMessage-ID: <real@x>\n", "<real@x>"},
        {"Message-ID: <first@x>\nMessage-ID: <second@x>\n\n", "<first@x>"},
        {"Message-ID:\r\n <Folded@x>\r\n\t(c)\nMessage-ID: <later@x>\n\n", "<folded@x>\t(c)"},
        {"Message-ID:\n\nMessage-ID: <later@x>\n", ""},
        {"Subject: s\n\nMessage-ID: <body@x>\n", ""},
        {"Subject: s\r\n\r\nmessage-ID: <Body@X>\r\n", ""},
        {"Message-ID:\v\f <A@B> (C \xC4\xA0)\xA0\t \r\n\n", "<a@b> (c \xC4\xA0)\xA0"},
        {std::string("Message-ID: <a\0b@x>\n\n", 21), ""},
    };
    char path[] = "/tmp/message-id.XXXXXX";
    int fd = mkstemp(path);
    for (const auto &[message, want] : cases) {
        ASSERT_EQ(pwrite(fd, message.data(), message.size(), 0), static_cast<ssize_t>(message.size()));
        ASSERT_EQ(ftruncate(fd, static_cast<off_t>(message.size())), 0);
        std::string key;
        bool found = readMessageId(path, "S@X", "R@Y", key);
        // The digest closes the key: 32 hex digits.
        ASSERT_TRUE(found && key.size() > 33) << message;
        EXPECT_EQ(key.substr(0, key.size() - 33), (want.empty() ? "-" : want) + " S@X R@Y") << message;
    }
    close(fd);
    unlink(path);
}

}  // namespace
