// The registry path setting and the reading connection's open.
//
// Promises: the path setting is the caller's string, never a copy; a failed
// open logs once with the library's text and leaves no connection behind.
#include "handlers/registry_connection.h"

#include <sqlite3.h>

#include "driver/log.h"
#include "handlers/busy_retry.h"
#include "handlers/registry.h"
#include "paths.h"

namespace {
const char *registryPath = FERNDROP_HANDLERS_DB;
}  // namespace

void mh_set_db_path(const char *path) { registryPath = path != nullptr ? path : FERNDROP_HANDLERS_DB; }

const char *mh_get_db_path() { return registryPath; }

const char *mh_db_message(sqlite3 *db) { return db != nullptr ? sqlite3_errmsg(db) : "general DB errror"; }

sqlite3 *mh_open_registry() {
    sqlite3 *db = nullptr;
    // The plain open (read-write, create): a read-only open would refuse a
    // registry whose journal must be rolled back after a panel crash.
    if (sqlite3_open(registryPath, &db) != SQLITE_OK) {
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
