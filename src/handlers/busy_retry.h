// Waiting out a registry that another process (the panel, a concurrent
// delivery) holds locked: every library call that may answer SQLITE_BUSY is
// repeated. No busy timeout is relied upon; the loop below alone waits.
#pragma once
#include <ctime>

struct sqlite3;
struct sqlite3_stmt;

// How the pauses are slept. nanosleep unless a test puts its own here.
typedef int (*MhSleepFunction)(const struct timespec *request, struct timespec *remain);
extern MhSleepFunction mh_sleep;

// Growth of the pause after each attempt, in nanoseconds.
const long MH_BUSY_PAUSE_STEP = 10000;

// Calls attempt(context, retrying) until it answers anything but SQLITE_BUSY;
// retrying is false only on the first call. Every attempt but the first is
// followed by a pause one step longer than the last (10, 20, ... µs). The
// pause is handed to the sleep in tv_nsec only, so the system refuses the
// pause of a full second and the registry is given up after 100,001 attempts
// instead of waited for forever. *answer gets the last answer. Returns 0, or
// -1 when a pause was refused or interrupted.
int mh_retry_while_busy(int (*attempt)(void *context, bool retrying), void *context, int *answer);

// The library calls the registry code makes, each under the loop above.
// Returns as mh_retry_while_busy; the library's own result is in *answer.
int mh_busy_prepare(sqlite3 *db, const char *sql, sqlite3_stmt **stmt, const char **tail, int *answer);
// Resets the statement before each retry.
int mh_busy_step(sqlite3_stmt *stmt, int *answer);
// *errmsg: the message of the last attempt only (release with sqlite3_free).
int mh_busy_exec(sqlite3 *db, const char *sql, char **errmsg, int *answer);
// 0 when closed, -1 when a pause failed or the connection stayed open.
int mh_busy_close(sqlite3 *db);
