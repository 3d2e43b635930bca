// Process-wide logging entry. Every module reports through LogFunction with a
// syslog priority (facility bits allowed: 19 is mail.err, 12 user.warning).
// Before logInit it writes to the console, so it is always safe to call.
#pragma once

typedef void (*LogFunctionType)(int priority, const char *format, ...)
    __attribute__((format(printf, 2, 3)));

extern LogFunctionType LogFunction;

// target: absent for the system log, else a console mode name ("console",
// "stderr"; anything else writes nowhere). ident must outlive the process.
void logInit(const char *target, int level, int facility, int options, const char *ident);
