// Logging: one entry point (LogFunction) whose sink is chosen once by logInit.
// Without a target the sink is syslog itself, so a log call costs no more than
// syslog(3); the console modes exist for tools and tests.
#include "driver/log.h"

#include <cstdarg>
#include <cstdio>
#include <strings.h>
#include <syslog.h>

namespace {

const char *logTarget = nullptr;
int logLevel = 6;
int logFacility = LOG_MAIL;

__attribute__((format(printf, 2, 3))) void consoleLog(int priority, const char *format, ...) {
    // Compared unchanged, facility bits included: 19 is above any usual level.
    if (priority > logLevel)
        return;
    bool toStdout = logTarget == nullptr || strcasecmp(logTarget, "console") == 0;
    if (logTarget != nullptr && !toStdout && strcasecmp(logTarget, "stderr") != 0)
        return;
    va_list args;
    va_start(args, format);
    vfprintf(stderr, format, args);
    va_end(args);
    fputc('\n', stderr);
    fflush(stderr);
    if (toStdout) {
        va_start(args, format);
        vfprintf(stdout, format, args);
        va_end(args);
        fputc('\n', stdout);
        fflush(stdout);
    }
}

}  // namespace

LogFunctionType LogFunction = consoleLog;

void logInit(const char *target, int level, int facility, int options, const char *ident) {
    logFacility = facility;
    logTarget = target;
    if (target != nullptr) {
        LogFunction = consoleLog;
    } else {
        closelog();
        openlog(ident, options | LOG_PID, logFacility);
        LogFunction = syslog;
    }
    logLevel = level < 1 ? 0 : level;
    if (target == nullptr)
        setlogmask((1 << (logLevel + 1)) - 1);
}
