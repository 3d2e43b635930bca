// The main registry query: the enabled rows of one queue, type and address.
//
// Promises: rows come back highest priority first and each is added at the
// list's head, so the list holds them lowest priority first; every record
// carries priority 0 and the address text it was found under, not the row's
// own values; rows added before a failure stay in the list.
#include <cstdio>
#include <cstring>
#include <sqlite3.h>

#include "driver/log.h"
#include "handlers/addresses.h"
#include "handlers/busy_retry.h"
#include "handlers/registry.h"
#include "handlers/registry_connection.h"

namespace {

const char kSelect[] =
    "SELECT executable, context, name FROM handlers WHERE queue=? AND type=? AND enabled=? AND "
    "address=? COLLATE NOCASE ORDER BY priority DESC";
const char kAll[] = "all";
const char kAllRecipients[] = "all-recipients";

// The text compared with the `address` column, or false (logged) for a
// global key that names neither keyword.
bool addressText(const HandlerRecord *key, char (&text)[kAddressBufferSize]) {
    if (key->type != MH_TYPE_GLOBAL) {
        snprintf(text, sizeof text, "%s", key->address != nullptr ? key->address : "(null)");
        return true;
    }
    if (key->address == nullptr || mh_global_address(key->address)) {
        snprintf(text, sizeof text, "%s", key->address != nullptr ? key->address : kAll);
        return true;
    }
    LogFunction(3, "Incorrect recipient address for global handler `%s', expected [NULL|%s|%s]", key->address, kAll,
                kAllRecipients);
    return false;
}

// Binds the four WHERE values; false (logged) on the first failure.
bool bindKey(sqlite3 *db, sqlite3_stmt *stmt, const HandlerRecord *key, const char *address) {
    if (sqlite3_bind_int(stmt, 1, key->queue) != SQLITE_OK) {
        LogFunction(3, "Unable to bind parameter 'queue' to the 'SELECT' query: %s", mh_db_message(db));
        return false;
    }
    if (sqlite3_bind_int(stmt, 2, key->type) != SQLITE_OK) {
        LogFunction(3, "Unable to bind parameter 'type' to the 'SELECT' query: %s", mh_db_message(db));
        return false;
    }
    if (sqlite3_bind_int(stmt, 3, key->enabled ? 1 : 0) != SQLITE_OK) {
        LogFunction(3, "Unable to bind parameter 'enabled' to the 'SELECT' query: %s", mh_db_message(db));
        return false;
    }
    if (sqlite3_bind_text(stmt, 4, address, static_cast<int>(strlen(address)), SQLITE_STATIC) != SQLITE_OK) {
        LogFunction(3, "Unable to bind parameter 'address' to the 'SELECT' query: %s", mh_db_message(db));
        return false;
    }
    return true;
}

const char *columnText(sqlite3_stmt *stmt, int column) {
    return reinterpret_cast<const char *>(sqlite3_column_text(stmt, column));
}

// Adds every row; true when the rows ran out.
bool addRows(sqlite3 *db, sqlite3_stmt *stmt, HandlerList *list, const HandlerRecord *key, char *address) {
    int answer = SQLITE_OK;
    bool pauseFailed = false;
    for (;;) {
        pauseFailed = mh_busy_step(stmt, &answer) != 0;
        if (pauseFailed || answer != SQLITE_ROW)
            break;
        HandlerRecord row = {0,
                             key->type,
                             key->queue,
                             const_cast<char *>(columnText(stmt, 2)),
                             address,
                             const_cast<char *>(columnText(stmt, 0)),
                             const_cast<char *>(columnText(stmt, 1)),
                             key->enabled};
        if (mh_list_add(list, &row) != 0) {
            LogFunction(3, "Unable to save the data from SELECT query");
            answer = SQLITE_NOMEM;
            break;
        }
    }
    if (!pauseFailed && answer == SQLITE_DONE)
        return true;
    LogFunction(3, "Unable to get data from mail handlers database: %s", mh_db_message(db));
    return false;
}

// The statement kept prepared for the connection of the gathering under way.
struct ReusedSelect {
    sqlite3 *db = nullptr;
    sqlite3_stmt *stmt = nullptr;
};
ReusedSelect reused;

}  // namespace

bool mh_global_address(const char *address) {
    return address != nullptr && (strcmp(address, kAll) == 0 || strcmp(address, kAllRecipients) == 0);
}

void mh_begin_select_reuse(sqlite3 *db) {
    mh_end_select_reuse();
    reused.db = db;
}

void mh_end_select_reuse() {
    sqlite3_finalize(reused.stmt);
    reused = ReusedSelect{};
}

int mh_select_handlers(sqlite3 *db, HandlerList *list, const HandlerRecord *key) {
    char address[kAddressBufferSize];
    if (!addressText(key, address))
        return -1;

    sqlite3 *own;
    db = mh_given_or_own(db, &own);
    if (db == nullptr)
        return -1;

    int result = -1;
    bool reuse = own == nullptr && db == reused.db;
    sqlite3_stmt *stmt = reuse ? reused.stmt : nullptr;
    int answer = SQLITE_OK;
    if (stmt != nullptr) {
        sqlite3_reset(stmt);
    } else if (mh_busy_prepare(db, kSelect, &stmt, nullptr, &answer) != 0 || answer != SQLITE_OK) {
        LogFunction(3, "Unable to prepare SQL statement for query '%s': %s", kSelect, mh_db_message(db));
        sqlite3_finalize(stmt);
        stmt = nullptr;
    }
    if (stmt != nullptr && bindKey(db, stmt, key, address) && addRows(db, stmt, list, key, address))
        result = 0;
    if (reuse)
        reused.stmt = stmt;
    else
        sqlite3_finalize(stmt);
    if (own != nullptr && mh_busy_close(own) != 0)
        result = -1;
    return result;
}
