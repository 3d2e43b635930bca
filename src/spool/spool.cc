// The spool file: the one private, synced copy of the message that every later
// stage reads by name. A failed save never leaves a partial file behind.
#include "spool/spool.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "driver/log.h"
#include "paths.h"
#include "util/error.h"

char *spool_save_fd(const char *spoolDir, int inFd) {
    char *path = util_asprintf("%s/messageXXXXXX", spoolDir);
    int fd = mkstemp(path);
    if (fd < 0) {
        LogFunction(3, "cannot create temporary file - (%d) %s", errno, strerror(errno));
        free(path);
        return nullptr;
    }
    if (!files_copy_fd(inFd, fd)) {
        LogFunction(3, "cannot save message from stdin to temporary file");
    } else if (fsync(fd) != 0) {
        LogFunction(3, "cannot fsync temporary file - (%d) %s", errno, strerror(errno));
    } else if (close(fd) != 0) {
        LogFunction(3, "cannot close temporary file - (%d) %s", errno, strerror(errno));
        unlink(path);
        free(path);
        return nullptr;
    } else {
        return path;
    }
    close(fd);
    unlink(path);
    free(path);
    return nullptr;
}

char *spool_save_stdin() {
    return spool_save_fd(FERNDROP_SPOOL_DIR, STDIN_FILENO);
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
