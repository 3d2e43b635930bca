// ferndrop-explain: answers "where would mail to this recipient go" the way
// a delivery would find it, and changes nothing: no spool file, no child, no
// database or registry write.
//
//   ferndrop-explain -f SENDER -d RECIPIENT -p MAILNAMES_DIR [--json] [MESSAGE_FILE]
//
// The message file is read only for its Message-ID, which keys the delivery
// state; without it the state column says it needs one. Messages of the
// libraries go to standard error, never to the system log, so that the
// support desk's log stays the record of real deliveries.
#include <getopt.h>
#include <syslog.h>

#include <cstdio>
#include <optional>
#include <string>

#include "driver/log.h"
#include "explain/explain.h"

namespace {

void usage(FILE *to) {
    fprintf(to, "usage: ferndrop-explain -f SENDER -d RECIPIENT -p MAILNAMES_DIR [--json] [MESSAGE_FILE]\n");
}

}  // namespace

int main(int argc, char **argv) {
    static const option kLong[] = {{"json", no_argument, nullptr, 'j'}, {"help", no_argument, nullptr, 'h'}, {}};
    std::string sender, recipient, mailnames;
    bool json = false;
    for (int c; (c = getopt_long(argc, argv, "f:d:p:h", kLong, nullptr)) != -1;) {
        switch (c) {
        case 'f':
            sender = optarg;
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
        default:
            usage(stderr);
            return 64;
        }
    }
    if (sender.empty() || recipient.empty() || mailnames.empty() || argc - optind > 1) {
        usage(stderr);
        return 64;
    }
    std::optional<std::string> messageFile;
    if (optind < argc)
        messageFile = argv[optind];
    logInit("stderr", 6, LOG_MAIL, 0, "ferndrop-explain");
    Explanation e = explain(sender, recipient, mailnames, messageFile);
    if (json)
        printJson(e);
    else
        printText(e);
    return 0;
}
