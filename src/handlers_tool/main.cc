// ferndrop-handlers: the handler registry from the command line.
//
//   ferndrop-handlers [--registry PATH] list [ADDRESS...]
//   ferndrop-handlers [--registry PATH] add [--queue N] [--priority N] [--disabled]
//                     KIND ADDRESS NAME EXECUTABLE [CONTEXT]
//   ferndrop-handlers [--registry PATH] remove|enable|disable [--queue N] KIND ADDRESS NAME
//
// list shows, per address, the handlers in the order a delivery runs them:
// the order comes from the gathering's own query (mh_select_handlers), not
// from a second rule here. Deliveries read the registry while this writes
// it, so every change is one statement in its own short transaction; a
// missing registry is laid out by mh_create_db, never by a schema of ours.
// Exit: 0 done, 1 failed or no such handler, 64 usage.
#include <sqlite3.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <strings.h>
#include <string>
#include <vector>

#include "driver/log.h"
#include "handlers/busy_retry.h"
#include "handlers/queue.h"
#include "handlers/registry.h"
#include "handlers/registry_connection.h"
#include "version.h"

namespace {

// Waits for a delivery's read to finish; the lock itself is held for one
// statement only.
const int kWriteWaitMs = 10000;

void usage(FILE *to) {
    fprintf(to,
            "usage: ferndrop-handlers [--registry PATH] list [ADDRESS...]\n"
            "       ferndrop-handlers [--registry PATH] add [--queue N] [--priority N] [--disabled]\n"
            "                         KIND ADDRESS NAME EXECUTABLE [CONTEXT]\n"
            "       ferndrop-handlers [--registry PATH] remove|enable|disable [--queue N] KIND ADDRESS NAME\n"
            "KIND: sender, recipient, sender-domain, recipient-domain, global (ADDRESS all or all-recipients)\n");
}

struct Request {
    std::string command;
    int queue = MH_QUEUE_DELIVERY;
    int priority = 0;
    bool enabled = true;
    std::vector<std::string> words;
};

bool number(const char *text, int *value) {
    char *end = nullptr;
    errno = 0;
    long v = strtol(text, &end, 10);
    if (errno != 0 || end == text || *end != '\0' || v < -2147483647 || v > 2147483647)
        return false;
    *value = static_cast<int>(v);
    return true;
}

// Runs one statement with its values bound, waiting out readers. The
// number of rows changed, or -1 after a message.
int change(sqlite3 *db, const char *sql, const std::vector<std::string> &text, const std::vector<int> &ints) {
    sqlite3_stmt *stmt = nullptr;
    int answer = SQLITE_OK;
    if (mh_busy_prepare(db, sql, &stmt, nullptr, &answer) != 0 || answer != SQLITE_OK) {
        fprintf(stderr, "ferndrop-handlers: %s: %s\n", mh_get_db_path(), mh_db_message(db));
        sqlite3_finalize(stmt);
        return -1;
    }
    int n = 1;
    for (int v : ints)
        sqlite3_bind_int(stmt, n++, v);
    for (const std::string &t : text)
        sqlite3_bind_text(stmt, n++, t.c_str(), -1, SQLITE_TRANSIENT);
    int paused = mh_busy_step(stmt, &answer);
    int changed = sqlite3_changes(db);
    if (paused != 0 || answer != SQLITE_DONE) {
        fprintf(stderr, "ferndrop-handlers: %s: %s\n", mh_get_db_path(),
                answer == SQLITE_CONSTRAINT ? "that handler is already registered" : mh_db_message(db));
        changed = -1;
    }
    sqlite3_finalize(stmt);
    return changed;
}

sqlite3 *openForWriting() {
    struct stat st;
    if (stat(mh_get_db_path(), &st) != 0 && errno == ENOENT && mh_create_db() != 0) {
        fprintf(stderr, "ferndrop-handlers: cannot create the handler registry %s\n", mh_get_db_path());
        return nullptr;
    }
    mh_tune_sqlite();
    sqlite3 *db = nullptr;
    if (sqlite3_open_v2(mh_get_db_path(), &db, SQLITE_OPEN_READWRITE, nullptr) != SQLITE_OK) {
        fprintf(stderr, "ferndrop-handlers: cannot open %s: %s\n", mh_get_db_path(), mh_db_message(db));
        sqlite3_close(db);
        return nullptr;
    }
    sqlite3_busy_timeout(db, kWriteWaitMs);
    return db;
}

int write(const Request &r, MH_TYPE type) {
    const std::string &address = r.words[1], &name = r.words[2];
    if (type == MH_TYPE_GLOBAL && !mh_global_address(address.c_str())) {
        fprintf(stderr, "ferndrop-handlers: a global handler's address is all or all-recipients, not %s\n",
                address.c_str());
        return 64;
    }
    sqlite3 *db = openForWriting();
    if (db == nullptr)
        return 1;
    int changed;
    if (r.command == "add") {
        if (access(r.words[3].c_str(), X_OK) != 0)
            fprintf(stderr, "ferndrop-handlers: warning: %s is not an executable file yet\n", r.words[3].c_str());
        changed = change(db,
                         "INSERT INTO handlers (queue, type, enabled, priority, name, address, executable, context) "
                         "VALUES (?, ?, ?, ?, ?, ?, ?, ?)",
                         {name, address, r.words[3], r.words.size() > 4 ? r.words[4] : ""},
                         {r.queue, type, r.enabled, r.priority});
    } else if (r.command == "remove") {
        // The gathering matches addresses without regard to case; so does
        // every change, or a row list shows would stay out of reach.
        changed = change(db, "DELETE FROM handlers WHERE queue=? AND type=? AND name=? AND address=? COLLATE NOCASE",
                         {name, address}, {r.queue, type});
    } else {
        changed = change(db,
                         "UPDATE handlers SET enabled=? WHERE queue=? AND type=? AND name=? AND "
                         "address=? COLLATE NOCASE",
                         {name, address}, {r.command == "enable", r.queue, type});
    }
    mh_busy_close(db);
    if (changed == 0)
        fprintf(stderr, "ferndrop-handlers: no %s handler %s for %s in queue %d\n", mh_kind_name(type), name.c_str(),
                address.c_str(), r.queue);
    return changed > 0 ? 0 : 1;
}

struct Key {
    int queue, type;
    std::string address;
};

// The registry's own values of the row behind a gathered record.
std::string priorityOf(sqlite3 *db, const Key &k, const HandlerRecord *r) {
    sqlite3_stmt *stmt = nullptr;
    std::string priority = "?";
    if (sqlite3_prepare_v2(db,
                           "SELECT priority FROM handlers WHERE queue=? AND type=? AND address=? COLLATE NOCASE AND "
                           "name=? AND executable=? AND context=?",
                           -1, &stmt, nullptr) != SQLITE_OK)
        return priority;
    sqlite3_bind_int(stmt, 1, k.queue);
    sqlite3_bind_int(stmt, 2, k.type);
    const char *text[] = {k.address.c_str(), r->name, r->executable, r->context};
    for (int i = 0; i < 4; i++)
        sqlite3_bind_text(stmt, 3 + i, text[i] != nullptr ? text[i] : "", -1, SQLITE_STATIC);
    if (sqlite3_step(stmt) == SQLITE_ROW)
        priority = std::to_string(sqlite3_column_int(stmt, 0));
    sqlite3_finalize(stmt);
    return priority;
}

int list(const Request &r) {
    sqlite3 *db = mh_open_registry(true);
    if (db == nullptr)
        return 1;
    // One read transaction: the listing is one state of the registry.
    sqlite3_exec(db, "BEGIN", nullptr, nullptr, nullptr);
    std::vector<Key> keys;
    sqlite3_stmt *stmt = nullptr;
    if (sqlite3_prepare_v2(db,
                           "SELECT queue, type, MIN(address) FROM handlers GROUP BY queue, type, address COLLATE "
                           "NOCASE ORDER BY queue, type, address COLLATE NOCASE",
                           -1, &stmt, nullptr) == SQLITE_OK) {
        while (sqlite3_step(stmt) == SQLITE_ROW)
            keys.push_back({sqlite3_column_int(stmt, 0), sqlite3_column_int(stmt, 1),
                            reinterpret_cast<const char *>(sqlite3_column_text(stmt, 2))});
    } else if (strstr(sqlite3_errmsg(db), "no such table") == nullptr) {
        fprintf(stderr, "ferndrop-handlers: %s: %s\n", mh_get_db_path(), sqlite3_errmsg(db));
    }
    sqlite3_finalize(stmt);
    int status = 0;
    printf("QUEUE\tKIND\tADDRESS\tRUN\tPRIORITY\tNAME\tEXECUTABLE\tCONTEXT\n");
    for (const Key &k : keys) {
        bool asked = r.words.empty();
        for (const std::string &w : r.words)
            asked = asked || strcasecmp(w.c_str(), k.address.c_str()) == 0;
        if (!asked)
            continue;
        // Enabled rows in run order, then the disabled ones, which never run.
        int position = 0;
        for (bool enabled : {true, false}) {
            HandlerList found;
            HandlerRecord key{0, static_cast<MH_TYPE>(k.type), k.queue, nullptr, const_cast<char *>(k.address.c_str()),
                              nullptr, nullptr, enabled};
            if (mh_select_handlers(db, &found, &key) != 0)
                status = 1;
            for (const HandlerRecord *h : found.records) {
                std::string run = enabled ? std::to_string(++position) : "off";
                printf("%d\t%s\t%s\t%s\t%s\t%s\t%s\t%s\n", k.queue, mh_kind_name(k.type), k.address.c_str(),
                       run.c_str(), priorityOf(db, k, h).c_str(), h->name, h->executable, h->context);
            }
            mh_list_free(&found);
        }
    }
    sqlite3_exec(db, "COMMIT", nullptr, nullptr, nullptr);
    mh_busy_close(db);
    return status;
}

}  // namespace

int main(int argc, char **argv) {
    Request r;
    int i = 1;
    for (; i < argc && argv[i][0] == '-'; i++) {
        std::string a = argv[i];
        if (a == "--version") {
            printf("ferndrop-handlers %s\n", FERNDROP_VERSION);
            return 0;
        } else if (a == "-h" || a == "--help") {
            usage(stdout);
            return 0;
        } else if (a == "--registry" && i + 1 < argc) {
            mh_set_db_path(argv[++i]);
        } else {
            usage(stderr);
            return 64;
        }
    }
    if (i == argc) {
        usage(stderr);
        return 64;
    }
    r.command = argv[i++];
    for (; i < argc; i++) {
        std::string a = argv[i];
        bool valued = i + 1 < argc && (a == "--queue" || a == "--priority");
        if (valued && number(argv[i + 1], a == "--queue" ? &r.queue : &r.priority)) {
            i++;
        } else if (a == "--disabled" && r.command == "add") {
            r.enabled = false;
        } else if (a.size() > 1 && a[0] == '-' && r.words.empty()) {
            usage(stderr);
            return 64;
        } else {
            r.words.push_back(a);
        }
    }
    // Library messages go to standard error: this is a person at a terminal.
    logInit("stderr", 6, LOG_MAIL, 0, "ferndrop-handlers");
    if (r.command == "list")
        return list(r);
    bool add = r.command == "add";
    bool known = add || r.command == "remove" || r.command == "enable" || r.command == "disable";
    MH_TYPE type = r.words.empty() ? MH_TYPE_UNSET : mh_kind_of(r.words[0].c_str());
    size_t least = add ? 4 : 3, most = add ? 5 : 3;
    if (!known || type == MH_TYPE_UNSET || r.words.size() < least || r.words.size() > most) {
        usage(stderr);
        return 64;
    }
    return write(r, type);
}
