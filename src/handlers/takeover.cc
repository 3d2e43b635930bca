// Taking over a passing handler's output as the new message.
//
// Promises: the spool path names the old or the new message at every moment
// (rename, never copy), and the new file ends with the old file's owner,
// group and mode, so later stages and the driver's cleanup see the same
// file they created. A failed rename leaves no temporary file behind.
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <sys/stat.h>
#include <unistd.h>

#include "driver/log.h"
#include "handlers/delivery_status.h"
#include "handlers/pass_steps.h"

int mh_take_over_output(const char *tmpPath, const char *spoolPath) {
    struct stat old;
    if (stat(spoolPath, &old) != 0 || rename(tmpPath, spoolPath) != 0) {
        LogFunction(3, "Unable to rename '%s' file: %s", spoolPath, strerror(errno));
        unlink(tmpPath);
        return DS_INTERNAL_ERROR;
    }
    if (chown(spoolPath, old.st_uid, old.st_gid) != 0 || chmod(spoolPath, old.st_mode & 07777) != 0) {
        LogFunction(3, "Unable to set ownership/permissions for file: %s: %s", spoolPath, strerror(errno));
        return DS_INTERNAL_ERROR;
    }
    return DS_OK;
}
