// Calls one of the four deliveries directly, with the system log set up as the
// real program sets it up, so the deliveries can be watched end to end before
// (and apart from) the .qmail processing that normally calls them.
//
//   delivery_probe maildir <message> <maildir>
//   delivery_probe mbox    <message> <mbox>
//   delivery_probe program <message> <command> <workdir>
//   delivery_probe forward <message> <sender> <destination>
//   delivery_probe noop
//
// noop stops right after the log set-up: its system calls are the ones every
// run makes before a delivery starts (the dynamic loader's among them).
// Exit status: the delivery's result, 255 for -1; 254 for a usage error.
// Nothing is printed, so a failure injected into write(2) can only hit the
// delivery itself.
#include <syslog.h>

#include <cstdlib>
#include <cstring>

#include "dotqmail/deliveries.h"
#include "driver/log.h"

int main(int argc, char **argv) {
    logInit(nullptr, 6, LOG_MAIL, LOG_PID, "ferndrop");
    if (argc == 2 && strcmp(argv[1], "noop") == 0)
        return 0;
    if (argc < 4)
        return 254;
    const char *kind = argv[1];
    int result;
    if (strcmp(kind, "maildir") == 0 && argc == 4)
        result = deliverMaildir(argv[2], argv[3]);
    else if (strcmp(kind, "mbox") == 0 && argc == 4)
        result = deliverMbox(argv[2], argv[3]);
    else if (strcmp(kind, "program") == 0 && argc == 5)
        result = deliverProgram(argv[2], argv[3], argv[4]);
    else if (strcmp(kind, "forward") == 0 && argc == 5)
        result = forwardMessage(argv[2], argv[3], argv[4]);
    else
        return 254;
    return result == -1 ? 255 : result;
}
