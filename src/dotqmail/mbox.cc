// Mbox delivery: appends the message, followed by one empty line, to an mbox
// file under an exclusive flock.
//
// Promises: concurrent deliveries to one mbox never interleave (the lock is
// held from before the length is recorded until the file is closed); a failed
// delivery leaves the file at exactly its length from before the attempt, and
// nothing of the failed copy can reach it afterwards, because every byte goes
// out through copyBytes, which buffers nothing in the process; the
// message is copied byte for byte, NUL bytes and a missing final newline
// included. Only a regular file is appended to: anything else at the path
// (a FIFO, a device) fails the line at once instead of blocking it.
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include "dotqmail/deliveries.h"
#include "driver/log.h"
#include "spool/spool.h"

namespace {

int openFailure(const char *mboxPath, const char *reason) {
    fprintf(stderr, "Unable to open %s: %s. (#4.2.1)", mboxPath, reason);
    LogFunction(3, "Unable to open %s: %s. (#4.2.1)\n", mboxPath, reason);
    return -1;
}

// A new mbox is no wider than its directory's read and write bits, so a
// private home keeps its mail private whatever the umask.
mode_t newFileMode(const char *path) {
    std::string dir(path);
    size_t slash = dir.rfind('/');
    dir = slash == std::string::npos ? "." : slash == 0 ? "/" : dir.substr(0, slash);
    struct stat st;
    return stat(dir.c_str(), &st) == 0 ? st.st_mode & 0666 : 0600;
}

// Cuts the mbox back while the lock is still held.
void rollback(int mbox, off_t length) {
    if (ftruncate(mbox, length) != 0)
        LogFunction(3, "System error: %s\n", strerror(errno));
}

}  // namespace

int deliverMbox(const char *messagePath, const char *mboxPath) {
    // Without blocking: a FIFO at the path would otherwise hold the delivery
    // until a reader came. Opened so, a FIFO without a reader (or a device
    // without its driver) fails with ENXIO, which only a file that is not a
    // regular one can give. O_NONBLOCK means nothing to a regular file, the
    // only kind accepted.
    int mbox = open(mboxPath, O_WRONLY | O_APPEND | O_CREAT | O_NONBLOCK | O_NOCTTY | O_CLOEXEC,
                    newFileMode(mboxPath));
    struct stat opened;
    if (mbox >= 0 && (fstat(mbox, &opened) != 0 || !S_ISREG(opened.st_mode))) {
        close(mbox);
        return openFailure(mboxPath, "not a regular file");
    }
    if (mbox < 0)
        return openFailure(mboxPath, errno == ENXIO ? "not a regular file" : strerror(errno));
    int rc;
    while ((rc = flock(mbox, LOCK_EX)) != 0 && errno == EINTR) {
    }
    struct stat st;
    if (rc != 0 || fstat(mbox, &st) != 0) {
        LogFunction(3, "System error: %s\n", strerror(errno));
        close(mbox);
        return -1;
    }
    off_t length = st.st_size;

    int message = open(messagePath, O_RDONLY | O_CLOEXEC);
    if (message < 0) {
        const char *err = strerror(errno);
        fprintf(stderr, "Unable to read message: %s. (#4.3.0)", err);
        LogFunction(3, "Unable to read message: %s. (#4.3.0)\n", err);
        close(mbox);
        return -1;
    }

    // A message that cannot be read to its end is as undeliverable as one
    // that cannot be written; both are reported as a failed copy.
    const char *failed = nullptr;
    if (!copyBytes(message, mbox) || !writeBytes(mbox, "\n", 1))
        failed = "write";
    else if (fsync(mbox) != 0)
        failed = "sync";
    if (failed != nullptr) {
        LogFunction(3, "Unable to %s data to mailbox: %s\n", failed, strerror(errno));
        close(message);
        rollback(mbox, length);
        close(mbox);
        return -1;
    }
    if (close(mbox) != 0) {
        LogFunction(3, "Unable to close mailbox %s: %s\n", mboxPath, strerror(errno));
        close(message);
        // The lock went with the descriptor; the path is all that is left.
        if (truncate(mboxPath, length) != 0)
            LogFunction(3, "System error: %s\n", strerror(errno));
        return -1;
    }
    close(message);
    return 0;
}
