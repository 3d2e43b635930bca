// The search for every handler registered under one domain, whatever its
// queue, type or state. The panel's tools use it; a delivery never does.
//
// Promises: the LIKE prefilter is only a shortcut; a row is added only when
// the text after its address's first "@" equals the domain exactly, so
// "example.com" never picks up "sub.example.com" or "EXAMPLE.COM".
#include <cstring>
#include <strings.h>
#include <sqlite3.h>

#include "driver/log.h"
#include "handlers/busy_retry.h"
#include "handlers/registry.h"
#include "handlers/registry_connection.h"

namespace {

const char kSearch[] =
    "SELECT priority, type, queue, name, address, executable, context, enabled FROM handlers "
    "WHERE address LIKE '%' || ? || '%'";

char *columnText(sqlite3_stmt *stmt, int column) {
    return const_cast<char *>(reinterpret_cast<const char *>(sqlite3_column_text(stmt, column)));
}

bool inDomain(const char *address, const char *domain) {
    const char *at = address != nullptr ? strchr(address, '@') : nullptr;
    return at != nullptr && strcasecmp(at + 1, domain) == 0;
}

// Adds the rows of the domain; true when the rows ran out.
bool addRows(sqlite3 *db, sqlite3_stmt *stmt, HandlerList *list, const char *domain) {
    int answer = SQLITE_OK;
    for (;;) {
        if (mh_busy_step(stmt, &answer) != 0) {
            answer = SQLITE_BUSY;
            break;
        }
        if (answer != SQLITE_ROW)
            break;
        if (!inDomain(columnText(stmt, 4), domain))
            continue;
        HandlerRecord row = {sqlite3_column_int(stmt, 0),
                             static_cast<MH_TYPE>(sqlite3_column_int(stmt, 1)),
                             sqlite3_column_int(stmt, 2),
                             columnText(stmt, 3),
                             columnText(stmt, 4),
                             columnText(stmt, 5),
                             columnText(stmt, 6),
                             sqlite3_column_int(stmt, 7) != 0};
        if (mh_list_add(list, &row) != 0) {
            LogFunction(3, "Unable to save the data from SELECT query");
            return false;
        }
    }
    if (answer == SQLITE_DONE)
        return true;
    LogFunction(3, "Unable to select data from handlers database: %s", mh_db_message(db));
    return false;
}

}  // namespace

int mh_find_domain_handlers(sqlite3 *db, HandlerList *list, const char *address) {
    const char *at = strchr(address, '@');
    const char *domain = at != nullptr ? at + 1 : address;

    sqlite3 *own;
    db = mh_given_or_own(db, &own);
    if (db == nullptr)
        return -1;

    int result = -1;
    sqlite3_stmt *stmt = nullptr;
    int answer = SQLITE_OK;
    if (mh_busy_prepare(db, kSearch, &stmt, nullptr, &answer) != 0 || answer != SQLITE_OK) {
        LogFunction(3, "Unable to prepare SQL statement for query '%s': %s", kSearch, mh_db_message(db));
    } else if (sqlite3_bind_text(stmt, 1, domain, static_cast<int>(strlen(domain)), SQLITE_STATIC) != SQLITE_OK) {
        LogFunction(3, "Unable to bind parameter 'address' to the 'SELECT' query: %s", mh_db_message(db));
    } else if (addRows(db, stmt, list, domain)) {
        result = 0;
    }
    sqlite3_finalize(stmt);
    if (own != nullptr && mh_busy_close(own) != 0)
        result = -1;
    return result;
}
