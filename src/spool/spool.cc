// The spool file: the one private copy of the message that every later stage
// reads by name. A failed save never leaves a partial file behind.
#include "spool/spool.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "driver/log.h"
#include "paths.h"
#include "util/error.h"

namespace {

void digestText(XXH3_state_t *hash, char *digest) {
    XXH128_hash_t h = XXH3_128bits_digest(hash);
    snprintf(digest, 33, "%016llx%016llx", static_cast<unsigned long long>(h.high64),
             static_cast<unsigned long long>(h.low64));
}

}  // namespace

bool files_digest(const char *path, char *digest) {
    int fd = open(path, O_RDONLY | O_CLOEXEC);
    int sink = open("/dev/null", O_WRONLY | O_CLOEXEC);
    XXH3_state_t hash;
    XXH3_128bits_reset(&hash);
    bool ok = fd >= 0 && sink >= 0 && copyBytes(fd, sink, nullptr, &hash);
    if (ok)
        digestText(&hash, digest);
    if (fd >= 0)
        close(fd);
    if (sink >= 0)
        close(sink);
    return ok;
}

char *spool_save_fd(const char *spoolDir, int inFd, char *digest) {
    char *path = util_asprintf("%s/messageXXXXXX", spoolDir);
    int fd = mkstemp(path);
    if (fd < 0) {
        LogFunction(3, "cannot create temporary file - (%d) %s", errno, strerror(errno));
        free(path);
        return nullptr;
    }
    // In the copy's own pass: a second read of 10 MB would cost more than the hash.
    XXH3_state_t hash;
    XXH3_128bits_reset(&hash);
    // Not synced: the transfer agent keeps the message until ferndrop exits
    // 0, and no run ever reads another run's spool file, so after a crash
    // nothing would read the synced copy. Every store syncs what it stores.
    if (!files_copy_fd(inFd, fd, &hash)) {
        LogFunction(3, "cannot save message from stdin to temporary file");
    } else if (close(fd) != 0) {
        LogFunction(3, "cannot close temporary file - (%d) %s", errno, strerror(errno));
        unlink(path);
        free(path);
        return nullptr;
    } else {
        if (digest != nullptr)
            digestText(&hash, digest);
        return path;
    }
    close(fd);
    unlink(path);
    free(path);
    return nullptr;
}

bool inputCut(int parentAtStart) {
    int parent = static_cast<int>(getppid());
    bool cut = parent != parentAtStart;
    // A dying process closes its descriptors before its children are
    // re-parented, so the end of input can come first: its flags say it is
    // exiting (PF_EXITING, the ninth field of its stat line).
    // One read of the whole line: a stream would cost a stat and a buffer
    // on every delivery.
    char path[32];
    snprintf(path, sizeof path, "/proc/%d/stat", parent);
    int fd = cut ? -1 : open(path, O_RDONLY | O_CLOEXEC);
    if (fd >= 0) {
        char line[1024];
        ssize_t got = read(fd, line, sizeof line - 1);
        close(fd);
        line[got > 0 ? got : 0] = '\0';
        unsigned long flags = 0;
        const char *end = strrchr(line, ')');
        if (end != nullptr && sscanf(end + 1, " %*c %*d %*d %*d %*d %*d %lu", &flags) == 1)
            cut = (flags & 0x4) != 0;
    }
    if (cut)
        LogFunction(19, "Message input cut: the process that started ferndrop died before its end");
    return cut;
}

char *spool_save_stdin(char *digest) {
    return spool_save_fd(FERNDROP_SPOOL_DIR, STDIN_FILENO, digest);
}

int spool_look() {
    struct stat st;
    int err = 0;
    if (stat(FERNDROP_SPOOL_DIR, &st) != 0)
        err = errno;
    else if (!S_ISDIR(st.st_mode))
        err = ENOTDIR;
    else if (faccessat(AT_FDCWD, FERNDROP_SPOOL_DIR, W_OK | X_OK, AT_EACCESS) != 0)
        err = errno;
    if (err != 0) {
        LogFunction(3, "cannot create temporary file - (%d) %s", err, strerror(err));
        return -1;
    }
    return 0;
}
