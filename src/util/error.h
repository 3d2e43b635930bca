// Hard failures of the utility library: the message goes to standard error
// and standard output (where the transfer agent reads the status line) and,
// for a non-zero status, the process ends with it.
#pragma once
#include <cstdarg>

void util_error(int status, const char *format, ...) __attribute__((format(printf, 2, 3)));
void util_verror(int status, const char *format, va_list args);

// Never returns null: an allocation failure ends the process with status 1.
char *util_asprintf(const char *format, ...) __attribute__((format(printf, 1, 2)));
