// Contract in util/spawn.h.
#include "util/spawn.h"

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <csignal>
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include "driver/log.h"
#include "util/settings.h"
#include "util/supervise.h"
#include "util/error.h"

int redirect_fd(int fd, int target) {
    if (fd == target)
        return fd;
    if (fd == -1) {
        fd = open("/dev/null", O_RDWR);
        if (fd < 0)
            return -1;
    }
    int result = dup2(fd, target);
    close(fd);
    return result;
}

namespace {

// The child's way out when it cannot become the program. It shares the
// parent's memory (see below), so it formats on its own stack and writes
// straight to descriptor 2 rather than through the parent's stdio state.
[[noreturn]] void childFailure(const char *format, const char *path) {
    char text[4096 + 256];
    int n = path != nullptr ? snprintf(text, sizeof text, format, path, strerror(errno))
                            : snprintf(text, sizeof text, format, strerror(errno));
    if (n > 0)
        (void)!write(2, text, std::min(static_cast<size_t>(n), sizeof text - 1));
    _exit(255);
}

}  // namespace

pid_t fork_execv_pipes(int fd_in, int fd_out, int fd_err, const char *path, char *const argv[]) {
    // The child only rearranges its descriptors and executes, so it borrows
    // the parent's memory until then (vfork) instead of getting a copy of its
    // page tables: on a virtual machine that copy alone cost a millisecond of
    // every delivery into INBOX. The descriptor table is still the child's own.
    pid_t pid = vfork();
    if (pid < 0) {
        int err = errno;
        LogFunction(3, "fork_execv_pipes: fork() failed: %s", strerror(err));
        errno = err;
        return -1;
    }
    if (pid > 0)
        return pid;

    if (redirect_fd(fd_in, 0) == -1 || redirect_fd(fd_out, 1) == -1 || redirect_fd(fd_err, 2) == -1)
        childFailure("fork_execv: dup() failed: %s\n", nullptr);
    // One call instead of one per possible descriptor: where the limit is
    // high that loop alone would cost milliseconds. The loop stays for
    // kernels without close_range.
    int tableSize = getdtablesize();
    if (tableSize > 3 && close_range(3, ~0U, 0) != 0)
        for (int fd = 3; fd < tableSize; fd++)
            close(fd);
    // Ignored dispositions would survive the exec; the program is entitled
    // to the defaults (the delivery process ignores these two for itself).
    signal(SIGPIPE, SIG_DFL);
    signal(SIGXFSZ, SIG_DFL);
    superviseChildSetup();
    errno = 0;
    execv(path, argv);
    childFailure("fork_execv: execv(\"%s\") failed: %s\n", path);
}

pid_t fork_execl_pipes(int fd_in, int fd_out, int fd_err, const char *path, const char *arg0, ...) {
    size_t count = 0;
    va_list args;
    va_start(args, arg0);
    for (const char *a = arg0; a != nullptr; a = va_arg(args, const char *))
        count++;
    va_end(args);

    char **argv = static_cast<char **>(malloc((count + 1) * sizeof(char *)));
    if (argv == nullptr)
        util_error(1, "malloc() failed: %s", strerror(errno));
    size_t i = 0;
    va_start(args, arg0);
    for (const char *a = arg0; a != nullptr; a = va_arg(args, const char *))
        argv[i++] = const_cast<char *>(a);
    va_end(args);
    argv[i] = nullptr;

    pid_t pid = fork_execv_pipes(fd_in, fd_out, fd_err, path, argv);
    int err = errno;
    free(argv);
    errno = err;
    return pid;
}

int wait_for_child(pid_t pid, const char *name, ChildEnd *end) {
    ChildEnd ignored;
    if (end == nullptr)
        end = &ignored;
    *end = CHILD_NOT_WAITED;
    if (name == nullptr)
        name = "<unknown>";
    if (pid < 0) {
        // The fork's own error stays for the caller's line.
        int err = errno;
        LogFunction(3, "fork before spawning '%s' failed", name);
        errno = err;
        return -1;
    }
    int status = 0;
    errno = 0;
    long long limit = settingNumber("child_time_limit");
    int waited = superviseWait(pid, name, limit, superviseBudgetMs(limit), &status);
    pid_t got = waited < 0 ? -1 : pid;
    if (waited == 1) {
        *end = CHILD_TIMED_OUT;
        return -1;
    }
    if (got < 0) {
        LogFunction(3, "waitpid(%ld) for '%s' process failed: %s (%d)", static_cast<long>(pid), name,
                    strerror(errno), errno);
        return -1;
    }
    if (WIFEXITED(status)) {
        *end = CHILD_EXITED;
        return WEXITSTATUS(status);
    }
    if (WIFSIGNALED(status)) {
        *end = CHILD_KILLED;
        LogFunction(4, "waitpid(%ld)=%ld: process '%s' killed by signal %d", static_cast<long>(pid),
                    static_cast<long>(got), name, WTERMSIG(status));
        return -1;
    }
    if (WIFSTOPPED(status)) {
        *end = CHILD_STOPPED;
        LogFunction(4, "waitpid(%ld)=%ld: process '%s' stopped by signal %d", static_cast<long>(pid),
                    static_cast<long>(got), name, WSTOPSIG(status));
        return -1;
    }
    return -1;
}
