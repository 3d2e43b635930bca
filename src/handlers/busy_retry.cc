// Contract in handlers/busy_retry.h.
#include "handlers/busy_retry.h"

#include <sqlite3.h>

MhSleepFunction mh_sleep = nanosleep;

int mh_retry_while_busy(int (*attempt)(void *context, bool retrying), void *context, int *answer) {
    long pause = 0;
    int rc;
    do {
        rc = attempt(context, pause > 0);
        if (pause > 0) {
            struct timespec request = {0, pause};
            if (mh_sleep(&request, nullptr) != 0) {
                *answer = rc;
                return -1;
            }
        }
        pause += MH_BUSY_PAUSE_STEP;
    } while (rc == SQLITE_BUSY);
    *answer = rc;
    return 0;
}

namespace {

struct PrepareCall {
    sqlite3 *db;
    const char *sql;
    sqlite3_stmt **stmt;
    const char **tail;
};

int prepareAttempt(void *context, bool) {
    PrepareCall *call = static_cast<PrepareCall *>(context);
    return sqlite3_prepare_v2(call->db, call->sql, -1, call->stmt, call->tail);
}

int stepAttempt(void *context, bool retrying) {
    sqlite3_stmt *stmt = static_cast<sqlite3_stmt *>(context);
    if (retrying)
        sqlite3_reset(stmt);
    return sqlite3_step(stmt);
}

struct ExecCall {
    sqlite3 *db;
    const char *sql;
    char **errmsg;
};

int execAttempt(void *context, bool) {
    ExecCall *call = static_cast<ExecCall *>(context);
    // Only the last attempt's message is kept for the caller.
    sqlite3_free(*call->errmsg);
    *call->errmsg = nullptr;
    return sqlite3_exec(call->db, call->sql, nullptr, nullptr, call->errmsg);
}

int closeAttempt(void *context, bool) { return sqlite3_close(static_cast<sqlite3 *>(context)); }

}  // namespace

int mh_busy_prepare(sqlite3 *db, const char *sql, sqlite3_stmt **stmt, const char **tail, int *answer) {
    PrepareCall call = {db, sql, stmt, tail};
    return mh_retry_while_busy(prepareAttempt, &call, answer);
}

int mh_busy_step(sqlite3_stmt *stmt, int *answer) { return mh_retry_while_busy(stepAttempt, stmt, answer); }

int mh_busy_exec(sqlite3 *db, const char *sql, char **errmsg, int *answer) {
    *errmsg = nullptr;
    ExecCall call = {db, sql, errmsg};
    return mh_retry_while_busy(execAttempt, &call, answer);
}

int mh_busy_close(sqlite3 *db) {
    int answer = SQLITE_OK;
    if (mh_retry_while_busy(closeAttempt, db, &answer) != 0)
        return -1;
    return answer == SQLITE_OK ? 0 : -1;
}
