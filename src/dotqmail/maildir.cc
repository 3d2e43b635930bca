// Maildir delivery: one copy of the message as a new file in a maildir, by the
// usual tmp-then-new scheme.
//
// Promises: a reader scanning `new` sees either nothing or the whole message,
// never a partial one (the file is complete before the rename), and its name
// never reaches the disk ahead of its content: the data is written out and
// waited for before the rename (synced before it, on file systems not known
// to keep that order). Success means the message is in `new` on
// disk: the `new` directory and the file are synced after the rename (the
// most careful IMAP servers sync `new` too), so that a power loss right after
// the transfer agent forgot the message cannot leave it, whole but unseen, in
// `tmp`. Syncing after the rename rather than before lets a journaling file
// system commit the file and its name at once, one journal commit per
// delivery instead of two (on an ext4 with its journal, the sync of `new`
// alone makes that commit). A failure leaves nothing in `new` (a partial file
// may stay in `tmp`, where maildir cleaners expect leftovers); when a sync
// after the rename fails, the file is renamed back into `tmp`, so that the
// retry stores the one copy. A path too long for the name buffers is refused
// rather than cut, since a cut path would store the message somewhere nobody
// looks.
// Names: the temporary one is seconds, microseconds, pid and 64 random bits,
// so that runs in other pid namespaces (containers) or on a stepped clock
// never meet; the name in `new` adds device, inode and size (",S="), the form
// common maildir readers parse for quota. The move into `new` never replaces
// a file: a clash anywhere draws a fresh name at once, with no sleep.
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <linux/magic.h>
#include <string>
#include <sys/random.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <sys/sysmacros.h>
#include <sys/time.h>
#include <unistd.h>

#include "dotqmail/deliveries.h"
#include "driver/log.h"
#include "spool/spool.h"

namespace {

const size_t kPathSize = 512;
const size_t kHostSize = 64;
// A clash of 64 random bits is for a broken random source, not bad luck.
const int kMaxNameDraws = 100;

// Formats "<maildir>/<sub>/<name>"; false when it does not fit.
bool maildirPath(char (&out)[kPathSize], const char *maildir, const char *sub, const char *name) {
    int n = snprintf(out, sizeof out, "%s/%s/%s", maildir, sub, name);
    return n >= 0 && static_cast<size_t>(n) < sizeof out;
}

// The host part as maildir readers expect it: "/" and ":" would cut the
// name into a path or into flags.
std::string hostPart() {
    char host[kHostSize + 1];
    memset(host, 0, sizeof host);
    if (gethostname(host, kHostSize) != 0)
        memset(host, 0, sizeof host);
    std::string out;
    for (const char *c = host; *c != '\0'; c++)
        out += *c == '/' ? "\\057" : *c == ':' ? "\\072" : std::string(1, *c);
    return out;
}

unsigned long long randomPart() {
    unsigned long long r = 0;
    if (getrandom(&r, sizeof r, GRND_NONBLOCK) != static_cast<ssize_t>(sizeof r)) {
        timeval tv;
        gettimeofday(&tv, nullptr);
        r ^= static_cast<unsigned long long>(tv.tv_usec) << 32 ^ static_cast<unsigned long long>(getpid()) ^
             reinterpret_cast<unsigned long long>(&r);
    }
    return r;
}

// Moves without ever replacing: 1 moved, 0 the name is taken, -1 failed.
int moveNoReplace(const char *from, const char *to) {
    if (renameat2(AT_FDCWD, from, AT_FDCWD, to, RENAME_NOREPLACE) == 0)
        return 1;
    if (errno == EEXIST)
        return 0;
    if (errno != EINVAL && errno != ENOSYS)
        return -1;
    // A file system without the no-replace rename: a link never replaces.
    if (link(from, to) != 0)
        return errno == EEXIST ? 0 : -1;
    unlink(from);
    return 1;
}

// The rename lives in the directory, not in the file: only a synced `new`
// makes it durable.
int syncNewDirectory(const char *newPath) {
    char dir[kPathSize];
    size_t length = strrchr(newPath, '/') - newPath;
    memcpy(dir, newPath, length);
    dir[length] = '\0';
    int fd = open(dir, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0 || fsync(fd) != 0) {
        LogFunction(3, "System error: %s\n", strerror(errno));
        if (fd >= 0)
            close(fd);
        return -1;
    }
    close(fd);
    return 0;
}

// File systems whose journal cannot hold a name ahead of the size of data
// already written out (tmpfs keeps nothing over a restart anyway). Elsewhere,
// NFS above all, where a rename is durable at once while written data waits
// for a commit, only a sync before the rename keeps the order.
bool ordersDataBeforeName(long type) {
    return type == EXT4_SUPER_MAGIC || type == XFS_SUPER_MAGIC || type == TMPFS_MAGIC;
}

// The file system's type (its magic number), 0 when it cannot be told.
long fileSystemType(int fd) {
    struct statfs fs;
    return fstatfs(fd, &fs) == 0 ? static_cast<long>(fs.f_type) : 0;
}

// The data on the disk, waited for, without the journal commit a sync would
// force here: the syncs after the rename commit it together with the name.
int writeOut(int fd, bool ordered) {
    if (!ordered)
        return fsync(fd);
    const unsigned int whole = SYNC_FILE_RANGE_WAIT_BEFORE | SYNC_FILE_RANGE_WRITE | SYNC_FILE_RANGE_WAIT_AFTER;
    return sync_file_range(fd, 0, 0, whole);
}

// Whether an ext4 on this device keeps its journal in itself, as jbd2 lists
// it ("<device>-8", the journal's inode as mkfs makes it). Its commits go in
// order, each after a cache flush, so the one that makes the rename durable
// carries the file's size and blocks, allocated before it, and its flush the
// data written out before it: the file's own sync after it would only flush
// the disk's cache once more. Anything else (an external journal, no /sys or
// /proc, a journal-less ext2 or ext4, which share ext4's magic) answers
// false, and the file is synced.
bool ext4WithJournal(dev_t device) {
    char link[64];
    char target[512];
    snprintf(link, sizeof link, "/sys/dev/block/%u:%u", major(device), minor(device));
    ssize_t length = readlink(link, target, sizeof target - 1);
    if (length <= 0)
        return false;
    target[length] = '\0';
    const char *slash = strrchr(target, '/');
    char journal[600];
    snprintf(journal, sizeof journal, "/proc/fs/jbd2/%s-8", slash != nullptr ? slash + 1 : target);
    return access(journal, F_OK) == 0;
}

}  // namespace

int deliverMaildir(const char *messagePath, const char *maildir) {
    const std::string host = hostPart();
    const long pid = static_cast<long>(getpid());
    char name[kPathSize];
    char tmpPath[kPathSize];
    char newPath[kPathSize];
    timeval tv{};
    int fd = -1;
    // No wider than the folder it lands in: a private `new` keeps its mail private.
    char newDir[kPathSize];
    struct stat dir;
    mode_t mode = maildirPath(newDir, maildir, "new", "") && stat(newDir, &dir) == 0 ? dir.st_mode & 0666 : 0600;
    for (int draw = 0; fd < 0; draw++) {
        gettimeofday(&tv, nullptr);
        snprintf(name, sizeof name, "%lld.M%06ldP%ldR%016llx.%s", static_cast<long long>(tv.tv_sec),
                 static_cast<long>(tv.tv_usec), pid, randomPart(), host.c_str());
        if (!maildirPath(tmpPath, maildir, "tmp", name)) {
            LogFunction(3, "Maildir path too long: %s", maildir);
            return -1;
        }
        fd = open(tmpPath, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, mode);
        if (fd < 0 && (errno != EEXIST || draw == kMaxNameDraws)) {
            LogFunction(3, "System error %s: %s\n", tmpPath, strerror(errno));
            return -1;
        }
    }

    if (!files_copy_file(messagePath, fd)) {
        LogFunction(3, "Unable to write message into temporary file");
        close(fd);
        return -1;
    }
    // Without this a crash after the rename could leave an empty or partial
    // file in `new`, which readers would take for the message.
    const long type = fileSystemType(fd);
    bool ordered = ordersDataBeforeName(type);
    if (writeOut(fd, ordered) != 0) {
        LogFunction(3, "System error: %s\n", strerror(errno));
        close(fd);
        return -1;
    }
    struct stat st;
    if (fstat(fd, &st) != 0) {
        LogFunction(3, "System error: %s\n", strerror(errno));
        close(fd);
        return -1;
    }
    for (int draw = 0;; draw++) {
        char final[kPathSize];
        snprintf(final, sizeof final, "%lld.M%06ldP%ldV%llxI%llxR%016llx.%s,S=%lld",
                 static_cast<long long>(tv.tv_sec), static_cast<long>(tv.tv_usec), pid,
                 static_cast<unsigned long long>(st.st_dev), static_cast<unsigned long long>(st.st_ino),
                 randomPart(), host.c_str(), static_cast<long long>(st.st_size));
        if (!maildirPath(newPath, maildir, "new", final)) {
            LogFunction(3, "Maildir path too long: %s", maildir);
            close(fd);
            return -1;
        }
        int moved = moveNoReplace(tmpPath, newPath);
        if (moved == 1)
            break;
        if (moved < 0 || draw == kMaxNameDraws) {
            LogFunction(3, "System error: %s\n", moved < 0 ? strerror(errno) : "name clash");
            close(fd);
            return -1;
        }
    }
    // `new` first: ext4 syncs a directory by committing all the journal
    // holds, this file and its name included, and the file's own sync then
    // finds nothing left to commit (with the journal on the same device it is
    // left out). The other way round, on a busy journal the sync of `new`
    // would wait for a second commit, of other runs' work.
    int synced = syncNewDirectory(newPath);
    bool committed = synced == 0 && type == EXT4_SUPER_MAGIC && ext4WithJournal(st.st_dev);
    if (synced == 0 && !committed && fsync(fd) != 0) {
        LogFunction(3, "System error: %s\n", strerror(errno));
        synced = -1;
    }
    if (close(fd) != 0 && synced == 0) {
        LogFunction(3, "System error: %s\n", strerror(errno));
        synced = -1;
    }
    if (synced != 0) {
        // Not known to be on disk, so not delivered. (A reader that already
        // took it leaves the rename nothing to do; a retry then stores it
        // again: a duplicate, never a loss.)
        if (rename(newPath, tmpPath) != 0)
            LogFunction(3, "System error: %s\n", strerror(errno));
        return -1;
    }
    return 0;
}
