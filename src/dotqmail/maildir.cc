// Maildir delivery: one copy of the message as a new file in a maildir, by the
// usual tmp-then-new scheme.
//
// Promises: a reader scanning `new` sees either nothing or the whole message,
// never a partial one (the file is complete, synced and closed before the
// rename). Success means the message is in `new` on disk: the `new` directory
// is synced after the rename, as the most careful IMAP servers do, so that a
// power loss right after the transfer agent forgot the message cannot leave
// it, whole but unseen, in `tmp`. A failure leaves nothing in `new` (a partial
// file may stay in `tmp`, where maildir cleaners expect leftovers); when the
// sync of `new` fails, the file is renamed back into `tmp`, so that the retry
// stores the one copy. A path too long for the name buffers is refused rather
// than cut, since a cut path would store the message somewhere nobody looks.
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <unistd.h>

#include "dotqmail/deliveries.h"
#include "dotqmail/maildir_wait.h"
#include "driver/log.h"
#include "spool/spool.h"

unsigned (*maildirClashWait)(unsigned seconds) = sleep;

namespace {

const size_t kPathSize = 160;
const size_t kHostSize = 64;
const unsigned kClashWaitSeconds = 2;

// Formats "<maildir>/<sub>/<name>"; false when it does not fit.
bool maildirPath(char (&out)[kPathSize], const char *maildir, const char *sub, const char *name) {
    int n = snprintf(out, sizeof out, "%s/%s/%s", maildir, sub, name);
    return n >= 0 && static_cast<size_t>(n) < sizeof out;
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

}  // namespace

int deliverMaildir(const char *messagePath, const char *maildir) {
    // One byte beyond the 64 the name may have, so a 64-character name still
    // ends in a terminator; a failed query leaves the host part empty.
    char host[kHostSize + 1];
    memset(host, 0, sizeof host);
    if (gethostname(host, kHostSize) != 0)
        memset(host, 0, sizeof host);
    long pid = static_cast<long>(getpid());

    char name[kPathSize];
    char tmpPath[kPathSize];
    char newPath[kPathSize];
    int fd;
    for (;;) {
        snprintf(name, sizeof name, "%ld.%ld.%s", static_cast<long>(time(nullptr)), pid, host);
        if (!maildirPath(tmpPath, maildir, "tmp", name) || !maildirPath(newPath, maildir, "new", name)) {
            LogFunction(3, "Maildir path too long: %s", maildir);
            return -1;
        }
        // The same run may store into one maildir twice within a second (a
        // duplicated line): the earlier copy already left `tmp`, and the
        // rename would silently replace it in `new`. That is a clash too.
        if (access(newPath, F_OK) == 0) {
            maildirClashWait(kClashWaitSeconds);
            continue;
        }
        fd = open(tmpPath, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
        if (fd >= 0)
            break;
        if (errno != EEXIST) {
            LogFunction(3, "System error %s: %s\n", tmpPath, strerror(errno));
            return -1;
        }
        maildirClashWait(kClashWaitSeconds);
    }

    if (!files_copy_file(messagePath, fd)) {
        LogFunction(3, "Unable to write message into temporary file");
        close(fd);
        return -1;
    }
    // Without this a crash after the rename could leave an empty or partial
    // file in `new`, which readers would take for the message.
    if (fsync(fd) != 0) {
        LogFunction(3, "System error: %s\n", strerror(errno));
        close(fd);
        return -1;
    }
    if (close(fd) != 0) {
        LogFunction(3, "System error: %s\n", strerror(errno));
        return -1;
    }
    if (rename(tmpPath, newPath) != 0) {
        LogFunction(3, "System error: %s\n", strerror(errno));
        return -1;
    }
    if (syncNewDirectory(newPath) != 0) {
        // Not known to be on disk, so not delivered. (A reader that already
        // took it leaves the rename nothing to do; a retry then stores it
        // again: a duplicate, never a loss.)
        if (rename(newPath, tmpPath) != 0)
            LogFunction(3, "System error: %s\n", strerror(errno));
        return -1;
    }
    return 0;
}
