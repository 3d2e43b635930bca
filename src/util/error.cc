// The utility library's fatal report. It must work when memory is short, so
// every allocation failure degrades the text instead of silencing it.
#include "util/error.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <initializer_list>

namespace {

void writeBoth(const char *text) {
    size_t len = strlen(text);
    bool endsWithNewline = len > 0 && text[len - 1] == '\n';
    for (FILE *stream : {stderr, stdout}) {
        fputs(text, stream);
        if (!endsWithNewline)
            fputc('\n', stream);
        fflush(stream);
    }
}

}  // namespace

void util_verror(int status, const char *format, va_list args) {
    int savedErrno = errno;
    size_t size = 4096;
    char *buf = static_cast<char *>(malloc(size));
    if (buf == nullptr) {
        writeBoth("Can't allocate memory for error message");
    } else {
        va_list again;
        va_copy(again, args);
        int needed = vsnprintf(buf, size, format, args);
        if (needed >= static_cast<int>(size)) {
            char *bigger = static_cast<char *>(realloc(buf, needed + 1));
            if (bigger != nullptr) {
                buf = bigger;
                size = needed + 1;
                vsnprintf(buf, size, format, again);
            }
        }
        va_end(again);
        errno = savedErrno;
        if (savedErrno != 0) {
            const char *errText = strerror(savedErrno);
            size_t used = strlen(buf);
            int suffixLen = snprintf(nullptr, 0, "\nSystem error %d: %s", savedErrno, errText);
            if (used + suffixLen + 1 > size) {
                char *bigger = static_cast<char *>(realloc(buf, used + suffixLen + 1));
                if (bigger != nullptr) {
                    buf = bigger;
                    size = used + suffixLen + 1;
                }
            }
            snprintf(buf + used, size - used, "\nSystem error %d: %s", savedErrno, errText);
        }
        writeBoth(buf);
        free(buf);
    }
    if (status != 0)
        exit(status);
}

void util_error(int status, const char *format, ...) {
    va_list args;
    va_start(args, format);
    util_verror(status, format, args);
    va_end(args);
}

char *util_asprintf(const char *format, ...) {
    va_list args;
    va_start(args, format);
    char *result = nullptr;
    int rc = vasprintf(&result, format, args);
    va_end(args);
    if (rc < 0)
        util_error(1, "Cannot allocate memory: %s", strerror(errno));
    return result;
}
