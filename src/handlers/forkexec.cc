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
#include <sys/wait.h>
#include <unistd.h>

#include "driver/log.h"
#include "handlers/control_lines.h"

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
    close(pipeWrite);
    // The delivery process ignores these for itself; ignored dispositions
    // would survive the exec, and the handler is entitled to the defaults.
    signal(SIGPIPE, SIG_DFL);
    signal(SIGXFSZ, SIG_DFL);
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

// False when the channel could not be read to its end: whatever the
// handler answered may then be lost, and a lost SKIP must never turn into a
// PASS that takes an empty output as the new message. Each chunk goes to the
// debug log as it was read; the answer is read from whole lines.
bool readControlChannel(int pipeRead, HandlerOutcome *outcome, bool *verdictSeen) {
    char chunk[kChunkSize + 1];
    ControlChannel channel;
    for (;;) {
        ssize_t n = read(pipeRead, chunk, kChunkSize);
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0) {
            LogFunction(3, "%s(): cannot read the handler's standard error: %s", "_mh_fork", strerror(errno));
            *verdictSeen = channel.verdictSeen;
            return false;
        }
        if (n == 0) {
            mh_control_end(&channel, outcome);
            *verdictSeen = channel.verdictSeen;
            return true;
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
    if (fd_in >= 0 && fd_in <= 2) {
        LogFunction(3, "%s(): values 0,1,2 not allowed for variables fd_in & fd_out\n", "mh_forkexec");
        return outcome;
    }
    if (fd_out >= 0 && fd_out <= 2) {
        LogFunction(3, "%s(): values 0,1,2 not allowed for variables fd_in & fd_out\n", "mh_forkexec");
        return outcome;
    }
    int fds[2];
    if (pipe(fds) != 0) {
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
    bool verdictSeen = false;
    bool answerRead = readControlChannel(fds[0], outcome, &verdictSeen);
    close(fds[0]);

    int status = 0;
    pid_t waited;
    do {
        waited = waitpid(pid, &status, WUNTRACED);
    } while (waited < 0 && errno == EINTR);
    if (waited < 0) {
        LogFunction(3, "%s(): Error occured during waiting the child process with pid: %d: %s\n", "_mh_fork", pid,
                    strerror(errno));
        outcome->verdict = ERROR;
        return outcome;
    }
    decodeStatus(pid, status, verdictSeen, outcome);
    if (!answerRead)
        outcome->verdict = ERROR;
    return outcome;
}
