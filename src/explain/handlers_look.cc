// The handlers a delivery would run, gathered as the delivery gathers them
// but over a read-only connection, and the rows that look as if they should
// apply but do not.
//
// Promises: the registry is opened read-only, so a missing file is not
// created and a journal is never rolled back; the run list comes from the
// delivery's own gathering code and so has its order.
#include <sqlite3.h>
#include <strings.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>

#include "explain/explain.h"
#include "handlers/registry.h"

namespace {

const char *const kKinds[] = {"sender", "recipient", "sender-domain", "recipient-domain", "global"};

std::string kindOf(long long type) {
    return type >= 0 && type <= 4 ? kKinds[type] : "type " + std::to_string(type);
}

std::string text(sqlite3_stmt *stmt, int column) {
    const unsigned char *t = sqlite3_column_text(stmt, column);
    return t != nullptr ? reinterpret_cast<const char *>(t) : "";
}

std::string programState(const char *path) {
    struct stat st;
    if (path == nullptr || stat(path, &st) != 0)
        return "missing";
    return S_ISREG(st.st_mode) && (st.st_mode & 0111) != 0 ? "executable" : "not executable";
}

std::string domainOf(const std::string &address) {
    size_t at = address.find('@');
    return at == std::string::npos ? "" : address.substr(at + 1);
}

// The keys a row of each type is looked up under, with the role they play.
struct Key {
    int type;
    std::string value;
    std::string role;
};

std::vector<Key> keysFor(const std::string &sender, const std::string &recipient) {
    std::vector<Key> keys = {{0, sender, "the sender"}, {1, recipient, "the recipient"}};
    if (sender.find('@') != std::string::npos)
        keys.push_back({2, domainOf(sender), "the sender's domain"});
    keys.push_back({3, domainOf(recipient), "the recipient's domain"});
    keys.push_back({4, "all", "the keyword of global rows"});
    keys.push_back({4, "all-recipients", "the keyword of global rows"});
    return keys;
}

std::vector<std::string> whyNot(const IdleRow &row, long long type, bool queueTwo, bool enabled,
                                const std::vector<Key> &keys) {
    std::vector<std::string> reasons;
    if (!enabled)
        reasons.push_back("disabled (enabled is " + (row.enabled.empty() ? std::string("NULL") : row.enabled) + ")");
    if (!queueTwo)
        reasons.push_back("queue " + std::to_string(row.queue) + ", deliveries read queue 2");
    if (type < 0 || type > 4) {
        reasons.push_back("type " + std::to_string(type) + " is no handler kind");
        return reasons;
    }
    bool exact = false;
    for (const Key &k : keys)
        exact = exact || (k.type == type && k.value == row.address);
    if (exact)
        return reasons;
    for (const Key &k : keys)
        if (k.type == type && strcasecmp(k.value.c_str(), row.address.c_str()) == 0) {
            reasons.push_back("address differs from " + k.value + " only in letter case");
            return reasons;
        }
    for (const Key &k : keys)
        if (strcasecmp(k.value.c_str(), row.address.c_str()) == 0) {
            reasons.push_back("a " + row.kind + " row, but " + row.address + " is " + k.role);
            break;
        }
    return reasons;
}

void lookAtIdleRows(sqlite3 *db, const std::string &sender, const std::string &recipient, HandlerLook &look) {
    const char *sql =
        "SELECT type, queue, enabled, name, address, executable, context, queue=2, enabled=1 FROM handlers "
        "WHERE lower(address) IN (lower(?1), lower(?2), lower(?3), lower(?4), 'all', 'all-recipients') "
        "ORDER BY type, address, name, priority, executable, context";
    sqlite3_stmt *stmt = nullptr;
    if (sqlite3_prepare_v2(db, sql, -1, &stmt, nullptr) != SQLITE_OK) {
        look.problem = sqlite3_errmsg(db);
        return;
    }
    std::vector<Key> keys = keysFor(sender, recipient);
    std::string senderDomain = domainOf(sender), recipientDomain = domainOf(recipient);
    sqlite3_bind_text(stmt, 1, sender.c_str(), -1, SQLITE_STATIC);
    sqlite3_bind_text(stmt, 2, recipient.c_str(), -1, SQLITE_STATIC);
    sqlite3_bind_text(stmt, 3, senderDomain.c_str(), -1, SQLITE_STATIC);
    sqlite3_bind_text(stmt, 4, recipientDomain.c_str(), -1, SQLITE_STATIC);
    while (sqlite3_step(stmt) == SQLITE_ROW) {
        long long type = sqlite3_column_int64(stmt, 0);
        IdleRow row{kindOf(type), text(stmt, 3), text(stmt, 4), text(stmt, 5), text(stmt, 6),
                    sqlite3_column_int64(stmt, 1), text(stmt, 2), {}};
        row.reasons = whyNot(row, type, sqlite3_column_int(stmt, 7) != 0, sqlite3_column_int(stmt, 8) != 0, keys);
        if (!row.reasons.empty())
            look.idle.push_back(row);
    }
    sqlite3_finalize(stmt);
}

// 1 when the table is there, 0 when not, -1 (problem set) when the schema
// cannot be read at all.
int hasHandlersTable(sqlite3 *db, std::string &problem) {
    sqlite3_stmt *stmt = nullptr;
    int answer = sqlite3_prepare_v2(db, "SELECT 1 FROM sqlite_master WHERE type='table' AND name='handlers'", -1,
                                    &stmt, nullptr);
    if (answer == SQLITE_OK)
        answer = sqlite3_step(stmt);
    if (answer != SQLITE_ROW && answer != SQLITE_DONE)
        problem = sqlite3_errmsg(db);
    sqlite3_finalize(stmt);
    return answer == SQLITE_ROW ? 1 : answer == SQLITE_DONE ? 0 : -1;
}

}  // namespace

HandlerLook lookAtHandlers(const std::string &sender, const std::string &recipient) {
    HandlerLook look;
    look.registry = mh_get_db_path();
    struct stat st;
    if (stat(look.registry.c_str(), &st) != 0 && errno == ENOENT) {
        look.state = "missing";
        return look;
    }
    sqlite3 *db = nullptr;
    if (sqlite3_open_v2(look.registry.c_str(), &db, SQLITE_OPEN_READONLY, nullptr) != SQLITE_OK) {
        look.state = "unreadable";
        look.problem = db != nullptr ? sqlite3_errmsg(db) : "no connection";
        sqlite3_close(db);
        return look;
    }
    if (int table = hasHandlersTable(db, look.problem); table != 1) {
        look.state = table == 0 ? "no-table" : "unreadable";
        sqlite3_close(db);
        return look;
    }
    char empty[] = "";
    char *addresses[] = {empty, empty, const_cast<char *>(sender.c_str()), const_cast<char *>(recipient.c_str()),
                         nullptr};
    HandlerList list;
    if (mh_gather_handlers(db, &list, addresses, 2) < 0) {
        look.state = "unreadable";
        look.problem = sqlite3_errmsg(db);
    } else {
        look.state = "ok";
        for (const HandlerRecord *r : list.records)
            look.runs.push_back({kindOf(r->type), r->name ? r->name : "", r->address ? r->address : "",
                                 r->executable ? r->executable : "", programState(r->executable),
                                 r->context ? r->context : ""});
        lookAtIdleRows(db, sender, recipient, look);
    }
    mh_list_free(&list);
    sqlite3_close(db);
    return look;
}
