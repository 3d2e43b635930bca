// Mbox delivery: appends the message to an mbox file under the locks mail
// readers take, by default as mboxrd: a "From " separator line, every line
// matching ">*From " quoted with one more ">", and an empty line at the end
// ("mbox_format raw": the bytes as they are plus one newline).
//
// Locks: those of "mbox_locks", in its order: fcntl, the dot-lock
// "<mbox>.lock" (made by link, stale after 500 s) and flock. A directory that
// refuses the lock file leaves the kernel locks alone, with an info line.
// Waiting for all of them together is bounded by "mbox_lock_timeout"; at the
// limit the line fails (a temporary failure) and nothing is written.
//
// Promises: concurrent deliveries to one mbox never interleave (the lock is
// held from before the length is recorded until the file is closed); a failed
// delivery leaves the file at exactly its length from before the attempt, and
// nothing of the failed copy can reach it afterwards, because every byte goes
// out through writeBytes (directly, or through copyBytes in raw form) before
// the next is read, so nothing waits in the process; the message's bytes,
// NUL bytes included, are kept, but for the quoting ">" of mboxrd and the
// line feed it adds after a last line without one. Only a regular file is appended to: anything else at the path
// (a FIFO, a device) fails the line at once instead of blocking it.
#include <cerrno>
#include <cstdio>
#include <ctime>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include "dotqmail/deliveries.h"
#include "driver/log.h"
#include "spool/spool.h"
#include "util/settings.h"

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

const time_t kDotLockStaleSeconds = 500;
const useconds_t kLockPollMicroseconds = 50000;

// The locks taken so far; the dot-lock is the one that outlives the descriptor.
struct MboxLocks {
    std::string dotLock;
    ~MboxLocks() {
        // Left behind, it holds off every delivery and reader until it is stale.
        if (!dotLock.empty() && unlink(dotLock.c_str()) != 0)
            LogFunction(3, "Unable to remove lock file %s: %s", dotLock.c_str(), strerror(errno));
    }
};

// 1 taken, 0 held by another, -1 failed (errno set).
int tryKernelLock(int fd, bool fcntlKind) {
    if (fcntlKind) {
        struct flock whole {};
        whole.l_type = F_WRLCK;
        whole.l_whence = SEEK_SET;
        if (fcntl(fd, F_SETLK, &whole) == 0)
            return 1;
        return errno == EACCES || errno == EAGAIN || errno == EINTR ? 0 : -1;
    }
    if (flock(fd, LOCK_EX | LOCK_NB) == 0)
        return 1;
    return errno == EWOULDBLOCK || errno == EINTR ? 0 : -1;
}

// The dot-lock by link, as liblockfile makes it; 1, 0 or -1 as above, and 2
// when the directory refuses the private file (kernel locks only then).
int tryDotLock(const std::string &lock, MboxLocks &held) {
    // Pids repeat across pid namespaces: the time and address make it ours.
    timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    std::string mine = lock + "." + std::to_string(getpid()) + "." + std::to_string(now.tv_nsec ^ reinterpret_cast<long>(&now));
    int fd = open(mine.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
    if (fd < 0)
        return 2;
    close(fd);
    int got = link(mine.c_str(), lock.c_str()) == 0 ? 1 : errno == EEXIST ? 0 : -1;
    struct stat st;
    // A link whose answer was lost (NFS) shows as a second name of our file.
    if (got == -1 && stat(mine.c_str(), &st) == 0 && st.st_nlink == 2)
        got = 1;
    int err = errno;
    unlink(mine.c_str());
    if (got == 1) {
        held.dotLock = lock;
    } else if (got == 0 && stat(lock.c_str(), &st) == 0 && time(nullptr) - st.st_mtime > kDotLockStaleSeconds) {
        LogFunction(6, "Removed stale lock file %s", lock.c_str());
        unlink(lock.c_str());
    }
    errno = err;
    return got;
}

// Takes every configured lock within the time limit: 0, or -1 (logged).
int takeLocks(int fd, const char *mboxPath, MboxLocks &held) {
    const long long limit = settingNumber("mbox_lock_timeout");
    timespec start;
    clock_gettime(CLOCK_MONOTONIC, &start);
    for (const std::string &kind : settingList("mbox_locks")) {
        for (;;) {
            int got = kind == "dotlock" ? tryDotLock(std::string(mboxPath) + ".lock", held)
                                        : tryKernelLock(fd, kind == "fcntl");
            if (got == 2) {
                LogFunction(6, "Unable to create a lock file beside %s: %s; kernel locks only", mboxPath,
                            strerror(errno));
                got = 1;
            }
            if (got == 1)
                break;
            if (got < 0) {
                LogFunction(3, "System error: %s\n", strerror(errno));
                return -1;
            }
            timespec now;
            clock_gettime(CLOCK_MONOTONIC, &now);
            if (now.tv_sec - start.tv_sec >= limit) {
                LogFunction(3, "Timed out after %llds waiting for the %s lock of mailbox %s", limit, kind.c_str(),
                            mboxPath);
                return -1;
            }
            usleep(kLockPollMicroseconds);
        }
    }
    return 0;
}

// The separator's envelope address: one word, so no reader can be misled
// about where the date starts or the line ends.
std::string envelopeOf(const char *sender) {
    std::string out = sender[0] == '\0' || strcmp(sender, "<>") == 0 ? "MAILER-DAEMON" : sender;
    for (char &c : out)
        if (static_cast<unsigned char>(c) <= ' ' || c == '\x7f')
            c = '_';
    return out;
}

// The message as mboxrd: a separator, the quoted lines, a final empty line.
// Each chunk goes out before the next is read, so nothing of it waits in the
// process when a write fails.
bool writeMboxrd(int in, int out, const char *sender) {
    char date[64];
    time_t now = time(nullptr);
    struct tm local;
    strftime(date, sizeof date, "%a %b %e %H:%M:%S %Y", localtime_r(&now, &local));
    std::string chunk = "From " + envelopeOf(sender) + " " + date + "\n";
    std::string pending;  // the start of a line that may still turn out to be ">*From "
    bool inLine = false;  // past the decision for the current line
    char last = '\n';
    char buf[65536];
    for (;;) {
        ssize_t got = read(in, buf, sizeof buf);
        if (got < 0 && errno == EINTR)
            continue;
        if (got < 0)
            return false;
        if (got == 0)
            break;
        last = buf[got - 1];
        for (const char *p = buf, *end = buf + got; p < end;) {
            if (inLine) {
                const char *nl = static_cast<const char *>(memchr(p, '\n', end - p));
                const char *stop = nl == nullptr ? end : nl + 1;
                chunk.append(p, stop);
                inLine = nl == nullptr;
                p = stop;
                continue;
            }
            char c = *p++;
            pending += c;
            size_t quotes = pending.find_first_not_of('>');
            std::string_view rest = std::string_view(pending).substr(quotes == std::string::npos ? pending.size()
                                                                                              : quotes);
            if (rest == "From ") {
                chunk += '>';
            } else if (std::string_view("From ").substr(0, rest.size()) == rest) {
                continue;
            }
            chunk += pending;
            pending.clear();
            inLine = c != '\n';
        }
        if (!writeBytes(out, chunk.data(), chunk.size()))
            return false;
        chunk.clear();
    }
    chunk += pending;
    chunk += last == '\n' ? "\n" : "\n\n";
    return writeBytes(out, chunk.data(), chunk.size());
}

// Cuts the mbox back while the lock is still held.
void rollback(int mbox, off_t length) {
    if (ftruncate(mbox, length) != 0)
        LogFunction(3, "System error: %s\n", strerror(errno));
}

}  // namespace

int deliverMbox(const char *messagePath, const char *mboxPath, const char *sender) {
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
    MboxLocks held;
    if (takeLocks(mbox, mboxPath, held) != 0) {
        close(mbox);
        return -1;
    }
    struct stat st;
    if (fstat(mbox, &st) != 0) {
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
    bool copied = settingText("mbox_format") == "raw" ? copyBytes(message, mbox) && writeBytes(mbox, "\n", 1)
                                                     : writeMboxrd(message, mbox, sender);
    if (!copied)
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
