// ferndrop-explain: answers "where would mail to this recipient go" by
// walking the delivery's own run sequence in its look mode, and changes
// nothing: no spool file, no child, no database or registry write.
//
//   ferndrop-explain -f SENDER -d RECIPIENT -p MAILNAMES_DIR [--json] [MESSAGE_FILE]
//
// The message file is what the delivery would read on standard input; its
// Message-ID keys the delivery state, so without it no line counts as
// served. Messages of the libraries go to standard error, never to the
// system log, so that the support desk's log stays the record of real
// deliveries.
#include <fcntl.h>
#include <getopt.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>

#include "delivery/run.h"
#include "driver/log.h"
#include "explain/print.h"
#include "version.h"

namespace {

void usage(FILE *to) {
    fprintf(to, "usage: ferndrop-explain -f SENDER -d RECIPIENT -p MAILNAMES_DIR [--json] [MESSAGE_FILE]\n");
}

}  // namespace

int main(int argc, char **argv) {
    static const option kLong[] = {{"json", no_argument, nullptr, 'j'}, {"help", no_argument, nullptr, 'h'},
                                     {"version", no_argument, nullptr, 'V'}, {}};
    std::string sender, recipient, mailnames;
    bool json = false, haveSender = false;
    for (int c; (c = getopt_long(argc, argv, "f:d:p:h", kLong, nullptr)) != -1;) {
        switch (c) {
        case 'f':
            sender = optarg;
            haveSender = true;
            break;
        case 'd':
            recipient = optarg;
            break;
        case 'p':
            mailnames = optarg;
            break;
        case 'j':
            json = true;
            break;
        case 'h':
            usage(stdout);
            return 0;
        case 'V':
            printf("ferndrop-explain %s\n", FERNDROP_VERSION);
            return 0;
        default:
            usage(stderr);
            return 64;
        }
    }
    if (!haveSender || recipient.empty() || mailnames.empty() || argc - optind > 1) {
        usage(stderr);
        return 64;
    }
    const char *messageFile = optind < argc ? argv[optind] : nullptr;
    if (messageFile != nullptr && access(messageFile, R_OK) != 0) {
        fprintf(stderr, "ferndrop-explain: cannot read %s: %s\n", messageFile, strerror(errno));
        return 66;
    }
    logInit("stderr", 6, LOG_MAIL, 0, "ferndrop-explain");
    Explained e;
    e.sender = sender, e.recipient = recipient, e.mailnames = mailnames;
    e.messageFile = messageFile != nullptr ? messageFile : "";
    e.ending = runDelivery({sender.c_str(), recipient.c_str(), mailnames.c_str(), messageFile, 0}, &e.look);
    if (json)
        printJson(e);
    else
        printText(e);
    return 0;
}
