// ferndrop: local delivery agent, started by the transfer agent's pipe
// transport once per recipient with the message on standard input.
//
// The run: check the command line, then the run sequence (delivery/run.h),
// and end with one sysexits status plus, for a non-zero status, one RFC 3463
// status line on standard output.
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <csignal>
#include <fcntl.h>
#include <poll.h>
#include <syslog.h>
#include <unistd.h>

#include "delivery/exits.h"
#include "delivery/run.h"
#include "driver/log.h"
#include "driver/run_record.h"
#include "version.h"

namespace {

const char kProgramName[] = "ferndrop";

// Logs the run's summary line (once one was started), writes the status
// line (when there is one) to standard output, then exits.
[[noreturn]] void exitWith(ExitLine line) {
    runRecordFinish(line.status, line.text);
    if (line.text[0] != '\0') {
        fputs(line.text, stdout);
        fputc('\n', stdout);
    }
    exit(line.status);
}

struct CommandLine {
    const char *sender = nullptr;
    const char *recipient = nullptr;
    const char *mailnamesDir = nullptr;
};

[[noreturn]] void usageError(const char *problem) {
    LogFunction(2, "%s usage error: \"%s\"", kProgramName, problem);
    LogFunction(5, "%s usage: %s -f <sender> -d <recipient> -p <mailnames dir>", kProgramName, kProgramName);
    exitWith(kExitMisconfigured);
}

CommandLine parseCommandLine(int argc, char **argv) {
    CommandLine cmd;
    int c;
    while ((c = getopt(argc, argv, "d:f:p:h?")) != -1) {
        switch (c) {
        case 'f':
            cmd.sender = optarg;
            break;
        case 'd':
            cmd.recipient = optarg;
            break;
        case 'p':
            cmd.mailnamesDir = optarg;
            break;
        default: {
            char problem[32];
            snprintf(problem, sizeof problem, "invalid option -%c", c == '?' ? optopt : c);
            usageError(problem);
        }
        }
    }
    if (optind != argc)
        usageError("extra arguments");
    // An empty sender is the null sender of bounces and notifications.
    if (cmd.sender == nullptr)
        usageError("unspecified -f <sender>");
    if (cmd.recipient == nullptr || cmd.recipient[0] == '\0')
        usageError("unspecified -d <recipient>");
    if (cmd.mailnamesDir == nullptr || cmd.mailnamesDir[0] == '\0')
        usageError("unspecified -p <mailnames dir>");
    return cmd;
}

// Descriptors 0, 1 and 2 closed at start would be taken by the first file or
// socket opened (the syslog socket, say): the spool step would then wait on
// the log socket for a message, and status lines or a child's output would go
// into it. 1 and 2 get the null device; 0 gets it write-only, so that reading
// the message fails and a closed standard input counts as an unreadable
// message, never as an empty one.
void occupyStandardDescriptors() {
    // One call asks about all three: a closed one reports POLLNVAL.
    pollfd fds[3] = {{0, 0, 0}, {1, 0, 0}, {2, 0, 0}};
    if (poll(fds, 3, 0) <= 0)
        return;
    for (int fd = 0; fd <= 2; fd++) {
        if (!(fds[fd].revents & POLLNVAL))
            continue;
        // Opened in order, so the lowest free number is this very one.
        if (open("/dev/null", fd == 0 ? O_WRONLY : O_RDWR) != fd)
            exit(75);  // nothing can be reported safely without them
    }
}

}  // namespace

int main(int argc, char **argv) {
    // Before anything else: the parent may die while the message comes in.
    const int parentAtStart = static_cast<int>(getppid());
    // Asked by people, not by the transfer agent: no log line, no run.
    if (argc == 2 && strcmp(argv[1], "--version") == 0) {
        printf("%s %s\n", kProgramName, FERNDROP_VERSION);
        return 0;
    }
    occupyStandardDescriptors();
    // A write beyond the file size limit must fail with EFBIG, so that the
    // mbox rollback and the spool clean-up run, rather than kill the process
    // halfway through; a reader of standard error that went away must not
    // kill it before the served lines are recorded. Every child gets the
    // default dispositions back before it executes.
    signal(SIGXFSZ, SIG_IGN);
    signal(SIGPIPE, SIG_IGN);
    logInit(nullptr, 6, LOG_MAIL, LOG_PID, kProgramName);
    CommandLine cmd = parseCommandLine(argc, argv);
    LogFunction(6, "%s: from=%s, to=%s, dirname=%s", kProgramName, cmd.sender[0] != '\0' ? cmd.sender : "<>",
                cmd.recipient, cmd.mailnamesDir);

    exitWith(runDelivery({cmd.sender, cmd.recipient, cmd.mailnamesDir, nullptr, parentAtStart}));
}
