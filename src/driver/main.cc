// ferndrop: local delivery agent, started by the transfer agent's pipe
// transport once per recipient with the message on standard input.
//
// The run: check the command line, spool the message, run the handler pass,
// enter the mailbox directory, carry out its .qmail (or deliver into INBOX),
// and end with one sysexits status plus, for a non-zero status, one RFC 3463
// status line on standard output. Every way out after spooling removes the
// spool file, so the transfer agent's retry always starts from its own copy.
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <csignal>
#include <fcntl.h>
#include <poll.h>
#include <syslog.h>
#include <unistd.h>

#include "driver/delivery_codes.h"
#include "driver/log.h"
#include "driver/mailbox_dir.h"
#include "driver/main_exits.h"
#include "driver/run_record.h"
#include "dotqmail/qmail_file.h"
#include "handlers/addresses.h"
#include "handlers/handler_pass.h"
#include "spool/spool.h"
#include "state/message_id.h"
#include "store/lda.h"

namespace {

const char kProgramName[] = "ferndrop";

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
    if (cmd.sender == nullptr || cmd.sender[0] == '\0')
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

[[noreturn]] void finish(const char *spoolPath, ExitLine line) {
    try {
        runRecordMessageId(messageIdOf(spoolPath).c_str());
    } catch (...) {  // the summary goes without it rather than the run without a status
    }
    unlink(spoolPath);
    exitWith(line);
}

}  // namespace

int main(int argc, char **argv) {
    // Before anything else: the parent may die while the message comes in.
    const int parentAtStart = static_cast<int>(getppid());
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
    LogFunction(6, "%s: from=%s, to=%s, dirname=%s", kProgramName, cmd.sender, cmd.recipient, cmd.mailnamesDir);
    runRecordStart(cmd.sender, cmd.recipient);

    if (strchr(cmd.recipient, '@') == nullptr) {
        LogFunction(19, "Invalid e-mail address - no domain part: %s", cmd.recipient);
        exitWith(kExitBadDestination);
    }
    if (strlen(cmd.recipient) + 1 > kAddressBufferSize) {
        LogFunction(19, "Invalid e-mail address - too long: %s", cmd.recipient);
        exitWith(kExitBadDestination);
    }
    char recipientCopy[kAddressBufferSize];
    strncpy(recipientCopy, cmd.recipient, kAddressBufferSize - 1);
    recipientCopy[kAddressBufferSize - 1] = '\0';

    if (setenv("DELIVERED_TO", cmd.recipient, 1) != 0) {
        LogFunction(19, "Unable to set environment variable: %s\n", strerror(errno));
        exitWith(kExitResourcesLimited);
    }

    char digest[33] = "";
    char *spoolPath = spool_save_stdin(digest);
    if (spoolPath != nullptr && inputCut(parentAtStart)) {
        unlink(spoolPath);
        spoolPath = nullptr;
    }
    if (spoolPath == nullptr) {
        LogFunction(19, "Unable to read message from stdin");
        exitWith(kExitUnreadableInput);
    }
    // The delivery state keys on it; children may too (duplicate checks).
    setMessageDigest(digest);
    setenv("FERNDROP_MESSAGE_DIGEST", digest, 1);

    char empty[] = "";
    char *addresses[] = {empty, empty, const_cast<char *>(cmd.sender), const_cast<char *>(cmd.recipient), nullptr};
    int status = mh_run_handlers(nullptr, addresses, nullptr, spoolPath, MH_QUEUE_DELIVERY);
    if (status == DS_DISCARDED) {
        syslog(LOG_NOTICE, "message discarded by a mail handler");
        runRecordOutcome("discarded");
        finish(spoolPath, kExitDone);
    }
    if (status != DS_OK)
        finish(spoolPath, exitForDeliveryStatus(status));

    char *mailname = nullptr;
    char *domain = nullptr;
    splitAddress(recipientCopy, &mailname, &domain);
    int entered = enterMailboxDir(cmd.mailnamesDir, domain, mailname);
    if (entered == MAILBOX_UNKNOWN) {
        // An unknown mailbox is not the transfer agent's problem to retry.
        syslog(19, "Unknown user: %s@%s", mailname, domain);
        runRecordOutcome("unknown-user");
        finish(spoolPath, kExitDone);
    }
    // A tree that cannot be searched now: the mailbox may well be there.
    if (entered != 0)
        finish(spoolPath, exitForDeliveryResult(DR_TEMPORARY));

    int result = processQmailFile(".qmail", spoolPath, cmd.sender, cmd.recipient);
    if (result == DR_NO_INSTRUCTIONS)
        result = mapDeliveryCode(lda_deliver_file(spoolPath, cmd.recipient, "INBOX"));
    finish(spoolPath, exitForDeliveryResult(result));
}
