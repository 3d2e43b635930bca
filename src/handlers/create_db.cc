// Laying out a new, empty registry for the panel: its directory, the schema,
// and owner root:popuser with mode 0640 so that only the mail group reads it.
// The delivery path never calls this.
//
// Promises: an existing registry is never overwritten (its `handlers` table
// makes the schema script fail); a file whose owner or mode could not be set
// is removed rather than left readable by the wrong people.
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <grp.h>
#include <libgen.h>
#include <sqlite3.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

#include "driver/log.h"
#include "handlers/busy_retry.h"
#include "handlers/registry.h"
#include "handlers/registry_connection.h"
#include "util/directories.h"

namespace {

const char kKind[] = "mail handlers";
const char kGroup[] = "popuser";
const int kBusyTimeoutMs = 50;
const char kCreationScript[] =
    "BEGIN TRANSACTION;"
    "CREATE TABLE handlers (queue INTEGER, type INTEGER, enabled BOOLEAN, priority INTEGER, "
    "name VARCHAR(255) NOT NULL, address VARCHAR(2048) NOT NULL, executable VARCHAR(2048) NOT NULL, "
    "context VARCHAR(2048) NOT NULL, protected BOOLEAN NOT NULL default 0, "
    "CONSTRAINT uniq_entries_constaraint PRIMARY KEY (queue, type, name, address, executable, context));"
    "CREATE INDEX idx1 ON handlers(queue, type, enabled, address);"
    "CREATE INDEX idx2 ON handlers(queue, type, enabled, address, priority);"
    "CREATE INDEX idx3 ON handlers(name, queue, type, address);"
    "CREATE INDEX idx4 ON handlers(name, queue, type);"
    "COMMIT;";
// Deliveries match addresses without regard to case; without an index in
// that collation every lookup would read all rows of its kind.
const char kCaselessIndex[] =
    "CREATE INDEX IF NOT EXISTS idx_address_nocase ON handlers(queue, type, enabled, address COLLATE NOCASE, "
    "priority);";

int createDirectory(const char *path) {
    char *copy = strdup(path);
    if (copy == nullptr) {
        LogFunction(2, "Memory allocation error");
        return -1;
    }
    int result = 0;
    errno = 0;
    const char *dir = dirname(copy);
    if (dir == nullptr) {
        LogFunction(2, "Unable to get dirname for %s database (%s): %s (%d)", kKind, path, strerror(errno), errno);
        result = -1;
    } else if (makeDirectories(dir, 0755) != 0) {
        LogFunction(2, "Unable to create directories for %s database (%s): %s (%d)", kKind, dir, strerror(errno),
                    errno);
        result = -1;
    }
    int err = errno;
    free(copy);
    errno = err;
    return result;
}

// The registry opened for a change, with the short busy wait; null (logged).
sqlite3 *openForChange(const char *path, int flags) {
    mh_tune_sqlite();
    sqlite3 *db = nullptr;
    if (sqlite3_open_v2(path, &db, flags, nullptr) != SQLITE_OK) {
        LogFunction(3, "Unable to open database %s: %s", path, mh_db_message(db));
        if (db != nullptr)
            mh_busy_close(db);
        return nullptr;
    }
    sqlite3_busy_timeout(db, kBusyTimeoutMs);
    return db;
}

int createSchema(const char *path) {
    sqlite3 *db = openForChange(path, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE);
    if (db == nullptr)
        return -1;
    char *message = nullptr;
    int answer = SQLITE_OK;
    int paused = mh_busy_exec(db, kCreationScript, &message, &answer);
    if (paused == 0 && answer == SQLITE_OK)
        paused = mh_busy_exec(db, kCaselessIndex, &message, &answer);
    if (paused != 0 || answer != SQLITE_OK) {
        if (message != nullptr) {
            LogFunction(3, "Unable to re-create %s database: %s", kKind, message);
            sqlite3_free(message);
        } else {
            LogFunction(3, "Unable to re-create %s database", kKind);
        }
        mh_busy_close(db);
        return -1;
    }
    return mh_busy_close(db);
}

int setOwnerAndMode(const char *path) {
    errno = 0;
    struct group *group = getgrnam(kGroup);
    if (group == nullptr) {
        LogFunction(2, "Unable to get mail handlers group uid: %s",
                    errno != 0 ? strerror(errno) : "no group named popuser");
        return -1;
    }
    if (chown(path, 0, group->gr_gid) != 0) {
        LogFunction(2, "Unable to set owner on %s: %s", path, strerror(errno));
        return -1;
    }
    if (chmod(path, 0640) != 0) {
        LogFunction(2, "Unable to set permissions on %s: %s", path, strerror(errno));
        return -1;
    }
    return 0;
}

}  // namespace

int mh_create_db() {
    const char *path = mh_get_db_path();
    if (createDirectory(path) != 0) {
        LogFunction(2, "Unable to create directory for mail handlers database for(%s): %s", path, strerror(errno));
        return -1;
    }
    if (createSchema(path) != 0)
        return -1;
    if (setOwnerAndMode(path) != 0) {
        unlink(path);
        return -1;
    }
    return 0;
}

int mh_add_caseless_index(const char *path) {
    sqlite3 *db = openForChange(path, SQLITE_OPEN_READWRITE);
    if (db == nullptr)
        return -1;
    char *message = nullptr;
    int answer = SQLITE_OK;
    int paused = mh_busy_exec(db, kCaselessIndex, &message, &answer);
    if (paused != 0 || answer != SQLITE_OK) {
        LogFunction(3, "Unable to add the caseless address index to %s: %s", path,
                    message != nullptr ? message : mh_db_message(db));
        sqlite3_free(message);
        mh_busy_close(db);
        return -1;
    }
    return mh_busy_close(db);
}
