// Forwarding: hands the message, unchanged, to the system's sendmail interface
// for another address, keeping the envelope sender.
//
// Promises: sendmail gets the message from its first byte on descriptor 0 and
// exactly the arguments "-i", "-bm", then "-f" and the sender when there is a
// sender, then the destination as written (leading blanks kept) or "-t" when
// there is none. Any non-zero exit of sendmail, or any abnormal end, is a
// failure, so the transfer agent retries the whole delivery. A destination
// that starts with "-" would reach sendmail as an option of the mailbox
// owner's choosing: it is refused, a failure like the others.
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

#include <vector>

#include "dotqmail/deliveries.h"
#include "driver/log.h"
#include "paths.h"
#include "util/spawn.h"

int forwardMessage(const char *messagePath, const char *sender, const char *destination) {
    // sendmail would read it as an option ("-C/file", "-oQ..."): never sent.
    if (destination != nullptr && destination[0] == '-') {
        LogFunction(3, "Unable to forward original message: destination %s starts with '-'", destination);
        LogFunction(3, "Unable to send mail for: %s\n", destination);
        return -1;
    }
    int message = open(messagePath, O_RDONLY | O_CLOEXEC);
    if (message < 0) {
        LogFunction(3, "System error: %s\n", strerror(errno));
        return -1;
    }
    std::vector<char *> argv = {const_cast<char *>(FERNDROP_SENDMAIL), const_cast<char *>("-i"),
                                const_cast<char *>("-bm")};
    if (sender != nullptr && sender[0] != '\0') {
        argv.push_back(const_cast<char *>("-f"));
        argv.push_back(const_cast<char *>(sender));
    }
    bool toHeader = destination == nullptr || destination[0] == '\0';
    argv.push_back(const_cast<char *>(toHeader ? "-t" : destination));
    argv.push_back(nullptr);

    pid_t pid = fork_execv_pipes(message, 1, 2, FERNDROP_SENDMAIL, argv.data());
    int code = wait_for_child(pid, FERNDROP_SENDMAIL);
    int err = errno;
    bool failed = false;
    if (code == -1) {
        LogFunction(3, "Unable to forward original message via sendmail: %s (%d)", strerror(err), err);
        failed = true;
    } else if (code != 0) {
        LogFunction(3, "Unable to forward original message. sendmail status: %d", code);
        failed = true;
    }
    if (failed) {
        LogFunction(3, "Unable to send mail for: %s\n", destination != nullptr ? destination : "");
        close(message);
        return -1;
    }
    close(message);
    return 0;
}
