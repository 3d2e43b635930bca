// Byte-copy primitives between descriptors and files: one fixed 4096-byte
// buffer, no allocation per chunk, no retries. 1 is success, 0 failure; each
// enclosing primitive adds its own log line after the inner one.
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

#include "driver/log.h"
#include "spool/spool.h"

int files_write_buf(int fd, const void *buf, size_t len) {
    if (len == 0)
        return 1;
    const char *bytes = static_cast<const char *>(buf);
    size_t offset = 0;
    size_t left = len;
    for (;;) {
        ssize_t written = write(fd, bytes + offset, left);
        if (written < 0) {
            int err = errno;
            LogFunction(3, "files: write buf %p[%zd] to fd (%d) error - (%d) %s", static_cast<const void *>(bytes),
                        static_cast<ssize_t>(left), fd, err, strerror(err));
            errno = err;
            return 0;
        }
        left -= static_cast<size_t>(written);
        if (left == 0)
            return 1;
        offset += static_cast<size_t>(written);
    }
}

int files_copy_fd(int in_fd, int out_fd, size_t limit) {
    if (in_fd < 0 || out_fd < 0)
        return 0;
    char buf[4096];
    size_t copied = 0;
    for (;;) {
        ssize_t got = read(in_fd, buf, sizeof buf);
        if (got < 0) {
            LogFunction(3, "files: cannot read file with message");
            return 0;
        }
        if (got == 0)
            return 1;
        size_t chunk = static_cast<size_t>(got);
        bool last = false;
        if (limit != 0 && copied + chunk > limit) {
            chunk = limit - copied;
            last = true;
        }
        if (!files_write_buf(out_fd, buf, chunk)) {
            int err = errno;
            LogFunction(3, "files: cannot write chuck from %d to %d - (%d) %s", in_fd, out_fd, err, strerror(err));
            errno = err;
            return 0;
        }
        if (last)
            return 1;
        copied += chunk;
    }
}

int files_copy_file(const char *path, off_t offset, size_t limit, int out_fd) {
    int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        LogFunction(3, "files: cannot open file %s with message - %s", path, strerror(errno));
        return 0;
    }
    if (lseek(fd, offset, SEEK_SET) < 0) {
        LogFunction(3, "files: cannot set pos in file %s with message - %s", path, strerror(errno));
        close(fd);
        return 0;
    }
    if (!files_copy_fd(fd, out_fd, limit)) {
        int err = errno;
        LogFunction(3, "files: cannot write file %s to %d", path, out_fd);
        close(fd);
        errno = err;
        return 0;
    }
    close(fd);
    return 1;
}
