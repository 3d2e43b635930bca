// The byte-copy routine (see spool.h) and its logged forms: one fixed
// 4096-byte buffer, no allocation per chunk. Each logged form adds its own
// log line after the inner one.
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

#include "driver/log.h"
#include "spool/spool.h"

bool writeBytes(int fd, const void *buf, size_t len, CopyFailure *failure) {
    const char *bytes = static_cast<const char *>(buf);
    size_t left = len;
    while (left > 0) {
        ssize_t written = write(fd, bytes + (len - left), left);
        if (written < 0 && errno == EINTR)
            continue;
        if (written < 0) {
            if (failure != nullptr)
                *failure = {false, buf, left};
            return false;
        }
        left -= static_cast<size_t>(written);
    }
    return true;
}

bool copyBytes(int in, int out, CopyFailure *failure, XXH3_state_t *hash) {
    char buf[4096];
    for (;;) {
        ssize_t got = read(in, buf, sizeof buf);
        if (got < 0 && errno == EINTR)
            continue;
        if (got < 0) {
            if (failure != nullptr)
                *failure = {true, nullptr, 0};
            return false;
        }
        if (got == 0)
            return true;
        if (hash != nullptr)
            XXH3_128bits_update(hash, buf, static_cast<size_t>(got));
        if (!writeBytes(out, buf, static_cast<size_t>(got), failure))
            return false;
    }
}

int files_copy_fd(int in_fd, int out_fd, XXH3_state_t *hash) {
    if (in_fd < 0 || out_fd < 0)
        return 0;
    CopyFailure failure;
    if (copyBytes(in_fd, out_fd, &failure, hash))
        return 1;
    int err = errno;
    if (failure.reading) {
        LogFunction(3, "files: cannot read file with message");
        return 0;
    }
    LogFunction(3, "files: write buf %p[%zd] to fd (%d) error - (%d) %s", failure.at,
                static_cast<ssize_t>(failure.left), out_fd, err, strerror(err));
    LogFunction(3, "files: cannot write chuck from %d to %d - (%d) %s", in_fd, out_fd, err, strerror(err));
    errno = err;
    return 0;
}

int files_copy_file(const char *path, int out_fd) {
    int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        LogFunction(3, "files: cannot open file %s with message - %s", path, strerror(errno));
        return 0;
    }
    if (!files_copy_fd(fd, out_fd)) {
        int err = errno;
        LogFunction(3, "files: cannot write file %s to %d", path, out_fd);
        close(fd);
        errno = err;
        return 0;
    }
    close(fd);
    return 1;
}
