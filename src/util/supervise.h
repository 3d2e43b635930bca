// Children under supervision: each in a process group of its own, killed
// with ferndrop, and bounded in time by its own limit and by the run's.
//
// Promises: a child that outlives its limit (or the run's remaining time)
// gets SIGTERM on its whole process group, SIGKILL 5 seconds later if it is
// still there, and is reaped; one error line names it and the limit. A limit
// of 0 means none. A stopped child is noticed within a tenth of a second.
// Nothing here exits or throws.
#pragma once
#include <sys/types.h>

// Starts the run's clock (the setting run_time_limit); call once, early.
void superviseRunStart();
// True once the run's own limit has passed.
bool runTimeExpired();

// For a child between fork and exec: its own process group, death with its
// parent, and no blocked signal inherited.
void superviseChildSetup();

// Milliseconds a child started now may run: the lesser of limitSeconds and
// what is left of the run; -1 without either limit.
long long superviseBudgetMs(long long limitSeconds);

// Waits for pid within budgetMs (-1: no limit). 0 with *status when it ended
// or stopped by itself; 1 when it was killed at the limit (*status its end);
// -1 when the wait failed (errno set). name and limitSeconds are for the log.
int superviseWait(pid_t pid, const char *name, long long limitSeconds, long long budgetMs, int *status);

// The end of a child that outlived its budget: SIGTERM to its group, SIGKILL
// 5 seconds later, reaped into *status; logs the line named above.
void superviseKill(pid_t pid, const char *name, long long limitSeconds, int *status);
