// Gathering every handler that applies to one message: one connection, tuned
// once, serves the five getters, called in the order for the queue.
//
// Promises: a getter that fails costs only its own remaining rows; the
// result is negative only when the registry cannot be opened or tuned at all
// (or a busy pause fails), so a registry without its table means "no
// handlers", not a failed delivery. Since every add goes to the head, the
// list comes out in the reverse of the gathering order.
#include <cstdlib>
#include <cstring>
#include <strings.h>
#include <sqlite3.h>

#include "driver/log.h"
#include "handlers/addresses.h"
#include "handlers/busy_retry.h"
#include "handlers/registry.h"
#include "handlers/registry_connection.h"

namespace {

const char kTuning[] = "PRAGMA temp_store=MEMORY;PRAGMA read_uncommitted=1;PRAGMA cache_size=10000;";

typedef int (*HandlerGetter)(sqlite3 *db, HandlerList *list, char **addresses, HandlerQueue queue);

const int kGettersPerOrder = 5;

// Queue 1 gathers the globals last, so they run first; every other queue
// gathers them first, so they run last.
const HandlerGetter kGatheringOrders[2][kGettersPerOrder] = {
    {mh_get_global_handlers, mh_get_recipient_domain_handlers, mh_get_sender_domain_handlers,
     mh_get_recipient_handlers, mh_get_sender_handlers},
    {mh_get_recipient_domain_handlers, mh_get_sender_domain_handlers, mh_get_recipient_handlers,
     mh_get_sender_handlers, mh_get_global_handlers},
};

// Adds the enabled rows of one key: 0, or -1 after a line naming the kind.
int selectKey(sqlite3 *db, HandlerList *list, MH_TYPE type, HandlerQueue queue, const char *address,
              const char *kind) {
    HandlerRecord key{0, type, queue, nullptr, const_cast<char *>(address), nullptr, nullptr, true};
    if (mh_select_handlers(db, list, &key) == 0)
        return 0;
    LogFunction(3, "Unable to get %s handlers from the database", kind);
    return -1;
}

// Applies the tuning statements one by one. Returns the last library answer,
// or -1 when the text cannot be prepared or a pause fails.
int tune(sqlite3 *db) {
    const char *next = kTuning;
    int answer = SQLITE_OK;
    while (next != nullptr && *next != '\0') {
        sqlite3_stmt *stmt = nullptr;
        const char *tail = nullptr;
        if (mh_busy_prepare(db, next, &stmt, &tail, &answer) != 0 || answer != SQLITE_OK) {
            LogFunction(3, "Unable to prepare SQL statement for query '%s': %s", kTuning, mh_db_message(db));
            sqlite3_finalize(stmt);
            return -1;
        }
        if (stmt == nullptr)  // only blanks or comments were left
            break;
        int paused = mh_busy_step(stmt, &answer);
        if (answer != SQLITE_DONE)
            LogFunction(3, "Tune database: %s", mh_db_message(db));
        sqlite3_finalize(stmt);
        if (paused != 0)
            return -1;
        next = tail;
    }
    return answer;
}

}  // namespace

int mh_get_recipient_handlers(sqlite3 *db, HandlerList *list, char **addresses, HandlerQueue queue) {
    for (int i = kFirstRecipient; const char *recipient = recipientAt(addresses, i); i++) {
        if (selectKey(db, list, MH_TYPE_RECIPIENT, queue, recipient, "recipient") != 0)
            return -1;
        // A base mailbox's filters apply to its extended addresses, and run
        // with the address the message was sent to.
        const char *base = mh_get_recipient_base();
        if (base == nullptr || strcasecmp(base, recipient) == 0)
            continue;
        size_t before = list->records.size();
        if (selectKey(db, list, MH_TYPE_RECIPIENT, queue, base, "recipient") != 0)
            return -1;
        auto added = list->records.begin();
        for (size_t n = list->records.size() - before; n > 0; n--, ++added) {
            char *full = strdup(recipient);
            if (full == nullptr)
                return -1;
            free((*added)->address);
            (*added)->address = full;
        }
    }
    return 0;
}

int mh_get_sender_handlers(sqlite3 *db, HandlerList *list, char **addresses, HandlerQueue queue) {
    return selectKey(db, list, MH_TYPE_SENDER, queue, senderOf(addresses), "sender");
}

int mh_get_global_handlers(sqlite3 *db, HandlerList *list, char **addresses, HandlerQueue queue) {
    for (const char *keyword : {"all", "all-recipients"}) {
        if (selectKey(db, list, MH_TYPE_GLOBAL, queue, keyword, "global") != 0)
            return -1;
    }
    return 0;
}

int mh_get_recipient_domain_handlers(sqlite3 *db, HandlerList *list, char **addresses, HandlerQueue queue) {
    for (int i = kFirstRecipient; const char *recipient = recipientAt(addresses, i); i++) {
        const char *at = strchr(recipient, '@');
        if (at == nullptr) {
            LogFunction(3, "Unable to get recipient domain by recipient mailname: %s", recipient);
            return -1;
        }
        if (selectKey(db, list, MH_TYPE_RECIPIENT_DOMAIN, queue, at + 1, "recipient-domain") != 0)
            return -1;
    }
    return 0;
}

int mh_get_sender_domain_handlers(sqlite3 *db, HandlerList *list, char **addresses, HandlerQueue queue) {
    const char *sender = senderOf(addresses);
    if (sender == nullptr) {
        LogFunction(3, "Unable to get sender domain since sender mailname is NULL");
        return -1;
    }
    // Bounces and notifications have no sender, so no sender domain either.
    if (strcmp(sender, kNullSender) == 0)
        return 0;
    const char *at = strchr(sender, '@');
    if (at == nullptr) {
        LogFunction(3, "Unable to get sender domain by sender mailname");
        return -1;
    }
    return selectKey(db, list, MH_TYPE_SENDER_DOMAIN, queue, at + 1, "sender-domain");
}

int mh_gather_handlers(sqlite3 *db, HandlerList *list, char **addresses, HandlerQueue queue) {
    int tuned = tune(db);
    if (tuned < 0)
        return -1;
    // One read transaction over all the queries: the shared lock is taken and
    // the file's change counter looked at once instead of once per query, and
    // every getter reads the same state of a registry the panel may be
    // changing. A deferred BEGIN touches no file, so it cannot be busy.
    bool inTransaction = sqlite3_exec(db, "BEGIN", nullptr, nullptr, nullptr) == SQLITE_OK;
    mh_begin_select_reuse(db);
    const HandlerGetter *order = kGatheringOrders[queue == 1 ? 1 : 0];
    for (int i = 0; i < kGettersPerOrder; i++)
        order[i](db, list, addresses, queue);
    mh_end_select_reuse();
    if (inTransaction)
        sqlite3_exec(db, "COMMIT", nullptr, nullptr, nullptr);
    return tuned;
}

int mh_get_handlers(HandlerList *list, char **addresses, HandlerQueue queue, bool look) {
    sqlite3 *db = mh_open_registry(look);
    if (db == nullptr)
        return -1;
    int gathered = mh_gather_handlers(db, list, addresses, queue);
    if (mh_busy_close(db) != 0)
        return -1;
    return gathered;
}
