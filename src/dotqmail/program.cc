// Program delivery: runs an instruction line's command through the shell with
// the message on standard input and turns its exit code into a DeliveryResult.
//
// Promises: the command sees the message from its first byte on descriptor 0,
// its standard output is discarded, its standard error is ours, and nothing
// else of ours is open in it. A command that cannot be run at all (too long,
// no working directory, no message) is a permanent failure, so the message
// bounces instead of being retried forever; trouble with the process itself
// (fork or wait failed, killed, stopped) is temporary.
#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include "dotqmail/deliveries.h"
#include "driver/delivery_codes.h"
#include "driver/log.h"
#include "paths.h"
#include "util/settings.h"
#include "util/spawn.h"
#include "util/supervise.h"

namespace {
const size_t kMaxCommand = 8194;
}

int deliverProgram(const char *messagePath, const char *command, const char *workDir) {
    if (strlen(command) > kMaxCommand) {
        LogFunction(3, "The command from '%s' too long: %s\n", messagePath, command);
        return mapDeliveryCode(-1);
    }
    if (chdir(workDir) != 0) {
        LogFunction(3, "Unable to change directory to %s: %s\n", workDir, strerror(errno));
        return DR_PERMANENT;
    }
    int message = open(messagePath, O_RDONLY | O_CLOEXEC);
    if (message < 0) {
        LogFunction(3, "Unable to open message file: %s\n", strerror(errno));
        return DR_PERMANENT;
    }
    pid_t pid = fork_execl_pipes(message, -1, 2, FERNDROP_SHELL, FERNDROP_SHELL, "-c", command, nullptr);
    close(message);
    if (pid < 0)
        return DR_TEMPORARY;  // the failed fork is logged; the command never ran

    int status = 0;
    errno = 0;
    long long limit = settingNumber("child_time_limit");
    int waited = superviseWait(pid, "the program line", limit, superviseBudgetMs(limit), &status);
    if (waited == 1)
        return DR_TEMPORARY;
    // A stopped command would hold its process group, and our standard error, for good.
    if (waited == 0 && WIFSTOPPED(status)) {
        kill(-pid, SIGKILL);
        kill(pid, SIGKILL);
        while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
        }
    }
    if (waited < 0) {
        LogFunction(3, "LOG Unable to get child exit code: %s", strerror(errno));
        return DR_TEMPORARY;
    }
    // The deferral or bounce the transfer agent reports names no program;
    // this line is where the support desk learns which one and why.
    if (WIFSIGNALED(status) || WIFSTOPPED(status))
        LogFunction(4, "program %s by signal %d: %s", WIFSIGNALED(status) ? "killed" : "stopped",
                    WIFSIGNALED(status) ? WTERMSIG(status) : WSTOPSIG(status), command);
    else if (WEXITSTATUS(status) != 0 && WEXITSTATUS(status) != 99)
        LogFunction(4, "program exited %d: %s", WEXITSTATUS(status), command);
    if (!WIFEXITED(status)) {
        // errno is still the cleared 0 here, so the line reads "Success":
        // there is no system error to name, only an abnormal end.
        LogFunction(3, "LOG Unable to get child exit code: %s", strerror(errno));
        return DR_TEMPORARY;
    }
    return mapDeliveryCode(WEXITSTATUS(status));
}
