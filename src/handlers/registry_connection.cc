// The registry path setting and the reading connection's open.
//
// Promises: the path setting is the caller's string, never a copy; a failed
// open logs once with the library's text and leaves no connection behind.
#include "handlers/registry_connection.h"

#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "driver/log.h"
#include "handlers/busy_retry.h"
#include "handlers/registry.h"
#include "paths.h"

namespace {
const char *registryPath = FERNDROP_HANDLERS_DB;
const char *recipientBase = nullptr;
}  // namespace

void mh_set_recipient_base(const char *base) { recipientBase = base; }

const char *mh_get_recipient_base() { return recipientBase; }

void mh_set_db_path(const char *path) { registryPath = path != nullptr ? path : FERNDROP_HANDLERS_DB; }

const char *mh_get_db_path() { return registryPath; }

const char *mh_db_message(sqlite3 *db) { return db != nullptr ? sqlite3_errmsg(db) : "general DB errror"; }

sqlite3 *mh_open_registry(bool look) {
    mh_tune_sqlite();
    sqlite3 *db = nullptr;
    // What the delivery's create would make of a missing file: an empty
    // database, so an in-memory one stands for it.
    struct stat st;
    bool creatable = look && stat(registryPath, &st) != 0 && errno == ENOENT;
    if (creatable) {
        std::string dir(registryPath, strrchr(registryPath, '/') != nullptr ? strrchr(registryPath, '/') - registryPath : 0);
        creatable = access(dir.empty() ? "." : dir.c_str(), W_OK | X_OK) == 0;
    }
    // The plain open (read-write, create): a read-only open would refuse a
    // registry whose journal must be rolled back after a panel crash.
    int opened = !look ? sqlite3_open(registryPath, &db)
                 : creatable ? sqlite3_open(":memory:", &db)
                             : sqlite3_open_v2(registryPath, &db, SQLITE_OPEN_READONLY, nullptr);
    if (opened != SQLITE_OK) {
        LogFunction(3, "Unable to open database(readonly) %s: %s", registryPath, mh_db_message(db));
        if (db != nullptr)
            mh_busy_close(db);
        return nullptr;
    }
    return db;
}

sqlite3 *mh_given_or_own(sqlite3 *db, sqlite3 **own) {
    *own = db == nullptr ? mh_open_registry() : nullptr;
    return db != nullptr ? db : *own;
}
