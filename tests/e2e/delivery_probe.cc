// Calls the forward delivery directly, with the system log set up as the real
// program sets it up, so that what sendmail gets can be watched for a null
// sender too, which ferndrop's own command line refuses.
//
//   delivery_probe forward <message> <sender> <destination>
//
// Exit status: the delivery's result, 255 for -1; 254 for a usage error.
#include <syslog.h>

#include <cstring>

#include "dotqmail/deliveries.h"
#include "driver/log.h"

int main(int argc, char **argv) {
    logInit(nullptr, 6, LOG_MAIL, LOG_PID, "ferndrop");
    if (argc != 5 || strcmp(argv[1], "forward") != 0)
        return 254;
    int result = forwardMessage(argv[2], argv[3], argv[4]);
    return result == -1 ? 255 : result;
}
