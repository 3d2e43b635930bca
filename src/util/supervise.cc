// Contract in util/supervise.h.
#include "util/supervise.h"

#include <poll.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <ctime>

#include "driver/log.h"
#include "util/settings.h"

namespace {

const long long kTickMs = 100;          // how soon a stopped child is noticed
const long long kTermGraceMs = 5000;    // between SIGTERM and SIGKILL
long long runDeadlineMs = -1;           // on the monotonic clock; -1: none

long long nowMs() {
    timespec t;
    clock_gettime(CLOCK_MONOTONIC, &t);
    return t.tv_sec * 1000LL + t.tv_nsec / 1000000;
}

// A descriptor that becomes readable when pid ends; -1 where the kernel has
// none (then the waits tick).
int pidDescriptor(pid_t pid) { return static_cast<int>(syscall(SYS_pidfd_open, pid, 0)); }

// Waits until pid ends or stops, or the time runs out: 1 ended or stopped
// (*status set), 0 time out, -1 failed.
int waitUntil(pid_t pid, int pidfd, long long deadlineMs, int *status) {
    for (;;) {
        pid_t got = waitpid(pid, status, WNOHANG | WUNTRACED);
        if (got == pid)
            return 1;
        if (got < 0 && errno != EINTR)
            return -1;
        long long left = deadlineMs < 0 ? kTickMs : deadlineMs - nowMs();
        if (left <= 0)
            return 0;
        pollfd p{pidfd, POLLIN, 0};
        poll(&p, pidfd >= 0 ? 1 : 0, static_cast<int>(left < kTickMs ? left : kTickMs));
    }
}

}  // namespace

void superviseRunStart() {
    long long limit = settingNumber("run_time_limit");
    runDeadlineMs = limit > 0 ? nowMs() + limit * 1000 : -1;
}

bool runTimeExpired() { return runDeadlineMs >= 0 && nowMs() >= runDeadlineMs; }

void superviseChildSetup() {
    setpgid(0, 0);
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
}

long long superviseBudgetMs(long long limitSeconds) {
    long long budget = limitSeconds > 0 ? limitSeconds * 1000 : -1;
    if (runDeadlineMs >= 0) {
        long long left = runDeadlineMs - nowMs();
        left = left > 0 ? left : 0;
        budget = budget < 0 || left < budget ? left : budget;
    }
    return budget;
}

void superviseKill(pid_t pid, const char *name, long long limitSeconds, int *status) {
    long long limit = limitSeconds > 0 && !runTimeExpired() ? limitSeconds : settingNumber("run_time_limit");
    LogFunction(3, "%s exceeded its time limit of %lld seconds; killed", name, limit);
    int pidfd = pidDescriptor(pid);
    kill(-pid, SIGTERM);
    kill(pid, SIGCONT);  // a stopped group hears nothing until it runs again
    kill(-pid, SIGCONT);
    if (waitUntil(pid, pidfd, nowMs() + kTermGraceMs, status) != 1 || WIFSTOPPED(*status)) {
        kill(-pid, SIGKILL);
        kill(pid, SIGKILL);
        while (waitpid(pid, status, 0) < 0 && errno == EINTR) {
        }
    }
    if (pidfd >= 0)
        close(pidfd);
}

int superviseWait(pid_t pid, const char *name, long long limitSeconds, long long budgetMs, int *status) {
    int pidfd = pidDescriptor(pid);
    int ended = waitUntil(pid, pidfd, budgetMs < 0 ? -1 : nowMs() + budgetMs, status);
    int err = errno;
    if (pidfd >= 0)
        close(pidfd);
    if (ended == 1)
        return 0;
    if (ended < 0) {
        errno = err;
        return -1;
    }
    superviseKill(pid, name, limitSeconds, status);
    return 1;
}
