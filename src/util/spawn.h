// Starting outside programs (sendmail, the shell, the store's delivery agent)
// with exactly three descriptors, and reading back how they ended.
//
// Promises: a child never inherits anything beyond descriptors 0, 1 and 2, so
// spool and database handles cannot leak into programs a mailbox names; a
// failed fork is logged here and returned as -1 (errno set), a failure of the
// step that wanted the child, so the run still saves what it served and
// defers; every abnormal end of a child is logged once, here.
#pragma once
#include <sys/types.h>

// fd -1 means /dev/null.
pid_t fork_execv_pipes(int fd_in, int fd_out, int fd_err, const char *path, char *const argv[]);

// Same, with the arguments listed and ended by a null pointer.
pid_t fork_execl_pipes(int fd_in, int fd_out, int fd_err, const char *path, const char *arg0, ...)
    __attribute__((sentinel));

// Moves fd onto target (fd -1: /dev/null). Returns target or -1. Child side only.
int redirect_fd(int fd, int target);

// How a child waited for ended, for callers that must tell the cases apart.
enum ChildEnd { CHILD_NOT_WAITED, CHILD_EXITED, CHILD_KILLED, CHILD_STOPPED, CHILD_TIMED_OUT };

// Exit status 0..255 of a normally ended child, else -1 (logged). end, when
// given, is set to how the child ended; a stopped child is left as it is.
// The wait is bounded by child_time_limit and the run's own limit (see
// util/supervise.h): a child killed there ends as CHILD_TIMED_OUT.
int wait_for_child(pid_t pid, const char *name, ChildEnd *end = nullptr);
