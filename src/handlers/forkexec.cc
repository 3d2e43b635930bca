// One handler run: fork, exec without a shell or search path, read the
// control channel, wait, decode.
//
// Promises: every failure of the run itself (refused descriptors, pipe,
// fork, exec, a failed read of the answer, wait, death or stop by a signal,
// an unknown exit code) comes back as verdict ERROR with one log line; a
// verdict line decides whatever the exit code, unless a signal ends the
// handler. Standard error is drained while the handler runs, so a talkative
// handler never blocks on a full pipe; the wait comes only after end of
// file. This process never exits here; only a child whose exec failed does.
#include "handlers/forkexec.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <ctime>
#include <sys/wait.h>
#include <unistd.h>

#include "driver/log.h"
#include "handlers/control_lines.h"
#include "util/settings.h"
#include "util/supervise.h"

namespace {

const size_t kChunkSize = 4095;

[[noreturn]] void runChild(int fd_in, int fd_out, int pipeRead, int pipeWrite, const char *path, char **args,
                           char **env) {
    // The pipe's ends could sit on 0..2 only if this process runs without
    // standard streams; lift the write end clear before those are replaced.
    if (pipeWrite < 3)
        pipeWrite = fcntl(pipeWrite, F_DUPFD, 3);
    close(0);
    close(1);
    close(2);
    close(pipeRead);
    dup2(fd_in, 0);
    dup2(fd_out, 1);
    dup2(pipeWrite, 2);
    // Nothing of the transfer agent's or ours beyond the three: a descriptor a
    // background child kept could hold the transport waiting.
    if (close_range(3, ~0U, 0) != 0)
        for (int fd = 3; fd < getdtablesize(); fd++)
            close(fd);
    // The delivery process ignores these for itself; ignored dispositions
    // would survive the exec, and the handler is entitled to the defaults.
    signal(SIGPIPE, SIG_DFL);
    signal(SIGXFSZ, SIG_DFL);
    superviseChildSetup();
    if (env != nullptr)
        execve(path, args, env);
    else
        execv(path, args);
    int err = errno;
    // One write, so that the whole text reaches the parent as one chunk.
    char text[kChunkSize + 1];
    int length = snprintf(text, sizeof text, "Mail handler call failed. Error occured during execv(%s):\n%s%s", path,
                          strerror(err),
                          err == EFAULT
                              ? ", possible reason - terminated NULL parameter is absent in parameter 'char **args'.\n"
                              : ".\n");
    if (length > 0)
        (void)!write(2, text, std::min(static_cast<size_t>(length), sizeof text - 1));
    close(2);
    // _exit: the parent's buffered stdout must not be flushed into fd_out.
    _exit(255);
}

// How long the channel is still read after the handler itself has ended:
// a process it left behind may keep its standard error open for good.
const long long kLingerMs = 5000;

// Reading the answer ended: 0 at end of file, 1 when the handler was killed
// at its deadline, 2 when it ended but its standard error stayed open past
// the linger time, -1 when the channel could not be read (then whatever the
// handler answered may be lost, and a lost SKIP must never turn into a PASS
// that takes an empty output as the new message). Each chunk goes to the
// debug log as it was read; the answer is read from whole lines. *status
// gets the handler's end once it was reaped here.
int readControlChannel(int pipeRead, pid_t pid, const char *path, HandlerOutcome *outcome, bool *verdictSeen,
                       int *status, bool *reaped) {
    char chunk[kChunkSize + 1];
    ControlChannel channel;
    long long limit = settingNumber("handler_time_limit");
    long long budget = superviseBudgetMs(limit);
    timespec start;
    clock_gettime(CLOCK_MONOTONIC, &start);
    auto elapsed = [&start] {
        timespec now;
        clock_gettime(CLOCK_MONOTONIC, &now);
        return (now.tv_sec - start.tv_sec) * 1000LL + (now.tv_nsec - start.tv_nsec) / 1000000;
    };
    long long endedAt = -1;
    for (;;) {
        long long left = budget < 0 ? 100 : budget - elapsed();
        if (endedAt >= 0)
            left = std::min(left < 0 ? kLingerMs : left, kLingerMs - (elapsed() - endedAt));
        if (!*reaped) {
            pid_t got = waitpid(pid, status, WNOHANG | WUNTRACED);
            if (got == pid) {
                *reaped = true;
                endedAt = elapsed();
            }
        }
        if (budget >= 0 && elapsed() >= budget && !*reaped) {
            superviseKill(pid, path, limit, status);
            *reaped = true;
            *verdictSeen = channel.verdictSeen;
            return 1;
        }
        if (endedAt >= 0 && elapsed() - endedAt >= kLingerMs) {
            LogFunction(4, "%s(): the handler %s has ended, but a process it started keeps its standard error "
                           "open; its answer is taken from the lines read", "_mh_fork", path);
            *verdictSeen = channel.verdictSeen;
            return 2;
        }
        pollfd p{pipeRead, POLLIN, 0};
        int ready = poll(&p, 1, static_cast<int>(std::max(1LL, std::min(left, 100LL))));
        if (ready <= 0)
            continue;
        ssize_t n = read(pipeRead, chunk, kChunkSize);
        if (n < 0 && (errno == EINTR || errno == EAGAIN))
            continue;
        if (n < 0) {
            LogFunction(3, "%s(): cannot read the handler's standard error: %s", "_mh_fork", strerror(errno));
            *verdictSeen = channel.verdictSeen;
            return -1;
        }
        if (n == 0) {
            mh_control_end(&channel, outcome);
            *verdictSeen = channel.verdictSeen;
            return 0;
        }
        chunk[n] = '\0';
        LogFunction(7, "handlers_stderr: %s", chunk);
        mh_control_read(&channel, chunk, static_cast<size_t>(n), outcome);
    }
}

void decodeStatus(pid_t pid, int status, bool verdictSeen, HandlerOutcome *outcome) {
    if (WIFSIGNALED(status)) {
        LogFunction(3, "%s(): The child process with pid %d killed by signal %i\n", "_mh_fork", pid, WTERMSIG(status));
        outcome->verdict = ERROR;
    } else if (WIFSTOPPED(status)) {
        LogFunction(3, "%s(): The child process with pid %d stopped by signal %i\n", "_mh_fork", pid,
                    WSTOPSIG(status));
        outcome->verdict = ERROR;
    } else if (WIFEXITED(status)) {
        int code = WEXITSTATUS(status);
        if (code == 0 || verdictSeen) {
            if (!verdictSeen)
                outcome->verdict = PASS;
        } else {
            if (code != 255)
                LogFunction(7, "%s(): unrecognized status code '%i'", "_mh_fork", code);
            outcome->verdict = ERROR;
        }
    }
}

}  // namespace

HandlerOutcome *mh_forkexec(int fd_in, int fd_out, const char *path, char **args, char **env) {
    HandlerOutcome *outcome = mh_outcome_new();
    if (outcome == nullptr)
        return nullptr;
    outcome->ownFault = true;  // until the handler has run
    if (fd_in >= 0 && fd_in <= 2) {
        LogFunction(3, "%s(): values 0,1,2 not allowed for variables fd_in & fd_out\n", "mh_forkexec");
        return outcome;
    }
    if (fd_out >= 0 && fd_out <= 2) {
        LogFunction(3, "%s(): values 0,1,2 not allowed for variables fd_in & fd_out\n", "mh_forkexec");
        return outcome;
    }
    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0) {
        LogFunction(3, "%s(): pipe failed: %s", "_mh_fork", strerror(errno));
        return outcome;
    }
    pid_t pid = fork();
    if (pid < 0) {
        LogFunction(3, "%s(): Error occured during fork(): %s", "_mh_fork", strerror(errno));
        close(fds[0]);
        close(fds[1]);
        return outcome;
    }
    if (pid == 0)
        runChild(fd_in, fd_out, fds[0], fds[1], path, args, env);

    close(fds[1]);
    bool verdictSeen = false, reaped = false;
    int status = 0;
    int answer = readControlChannel(fds[0], pid, path, outcome, &verdictSeen, &status, &reaped);
    close(fds[0]);
    if (answer == 1) {  // killed at its deadline: a failed run, whatever it said
        outcome->ownFault = false;
        outcome->verdict = ERROR;
        return outcome;
    }
    pid_t waited = reaped ? pid : -1;
    while (!reaped && (waited = waitpid(pid, &status, WUNTRACED)) < 0 && errno == EINTR) {
    }
    if (waited < 0) {
        LogFunction(3, "%s(): Error occured during waiting the child process with pid: %d: %s\n", "_mh_fork", pid,
                    strerror(errno));
        outcome->verdict = ERROR;
        return outcome;
    }
    outcome->ownFault = answer < 0;
    decodeStatus(pid, status, verdictSeen, outcome);
    // A stopped handler would keep its process group, and maybe our message, for good.
    if (WIFSTOPPED(status)) {
        kill(-pid, SIGKILL);
        kill(pid, SIGKILL);
        while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
        }
    }
    if (answer < 0)
        outcome->verdict = ERROR;
    return outcome;
}
