// What every libFuzzer target here shares: a log sink that formats each line
// (so that format arguments are exercised) and drops it, a property check
// that aborts with the reason, and an in-memory file for parsers that only
// take a path.
#pragma once
#include <sys/mman.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "driver/log.h"

#define FUZZ_CHECK(cond)                                                          \
    do {                                                                          \
        if (!(cond)) {                                                            \
            fprintf(stderr, "property failed: %s (%s:%d)\n", #cond, __FILE__, __LINE__); \
            abort();                                                              \
        }                                                                         \
    } while (0)

namespace fuzz {

__attribute__((format(printf, 2, 3))) inline void discardLog(int, const char *format, ...) {
    char line[1024];
    va_list args;
    va_start(args, format);
    vsnprintf(line, sizeof line, format, args);
    va_end(args);
}

// Millions of runs must neither flood the host's syslog nor the terminal.
inline void quietLog() { LogFunction = discardLog; }

inline bool isSpace(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\v' || c == '\f' || c == '\r'; }

inline bool hasOuterSpace(const std::string &s) { return !s.empty() && (isSpace(s.front()) || isSpace(s.back())); }

// A memfd reached through /proc/self/fd: a fresh open sees the current
// content from its start, and nothing touches the disk.
class MemoryFile {
  public:
    MemoryFile() : fd_(memfd_create("fuzz-input", MFD_CLOEXEC)) {
        if (fd_ < 0) {
            perror("memfd_create");
            abort();
        }
        path_ = "/proc/self/fd/" + std::to_string(fd_);
    }
    void set(const uint8_t *data, size_t size) {
        if (ftruncate(fd_, 0) != 0) {
            perror("ftruncate");
            abort();
        }
        size_t done = 0;
        while (done < size) {
            ssize_t n = pwrite(fd_, data + done, size - done, static_cast<off_t>(done));
            if (n <= 0) {
                perror("pwrite");
                abort();
            }
            done += static_cast<size_t>(n);
        }
    }
    const std::string &path() const { return path_; }

  private:
    int fd_;
    std::string path_;
};

}  // namespace fuzz
