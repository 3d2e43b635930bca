// Scratch handler registries for the handlers unit tests: a registry file
// laid out with the panel's creation script straight through SQLite, rows
// inserted as the panel would, and the registry path pointed at it.
#pragma once
#include <sqlite3.h>

#include <stdexcept>
#include <string>
#include <vector>

#include "handlers/handler_record.h"
#include "handlers/registry.h"
#include "test_support.h"

namespace handlers_test {

inline const char kCreationScript[] =
    "BEGIN TRANSACTION;CREATE TABLE handlers (queue INTEGER, type INTEGER, enabled BOOLEAN, priority INTEGER, "
    "name VARCHAR(255) NOT NULL, address VARCHAR(2048) NOT NULL, executable VARCHAR(2048) NOT NULL, context "
    "VARCHAR(2048) NOT NULL, protected BOOLEAN NOT NULL default 0, CONSTRAINT uniq_entries_constaraint PRIMARY KEY "
    "(queue, type, name, address, executable, context));CREATE INDEX idx1 ON handlers(queue, type, enabled, "
    "address);CREATE INDEX idx2 ON handlers(queue, type, enabled, address, priority);CREATE INDEX idx3 ON "
    "handlers(name, queue, type, address);CREATE INDEX idx4 ON handlers(name, queue, type);COMMIT;";

struct Row {
    int queue;
    int type;
    int enabled;
    int priority;
    std::string name;
    std::string address;
    std::string executable = "/bin/true";
    std::string context = "ctx";
};

inline void execSql(const std::string &path, const std::string &sql) {
    sqlite3 *db = nullptr;
    if (sqlite3_open(path.c_str(), &db) != SQLITE_OK)
        throw std::runtime_error("open " + path);
    char *message = nullptr;
    int rc = sqlite3_exec(db, sql.c_str(), nullptr, nullptr, &message);
    std::string text = message != nullptr ? message : "";
    sqlite3_free(message);
    sqlite3_close(db);
    if (rc != SQLITE_OK)
        throw std::runtime_error(sql + ": " + text);
}

inline std::string quoted(const std::string &s) {
    std::string out = "'";
    for (char c : s)
        out += c == '\'' ? std::string("''") : std::string(1, c);
    return out + "'";
}

// A registry in a scratch directory, made the registry path for its lifetime.
class ScratchRegistry {
  public:
    explicit ScratchRegistry(bool withTable = true) : path_(dir_ / "handlers.db") {
        if (withTable)
            execSql(path_, kCreationScript);
        mh_set_db_path(path_.c_str());
    }
    ~ScratchRegistry() { mh_set_db_path(nullptr); }
    const std::string &path() const { return path_; }
    const ScratchDir &dir() const { return dir_; }

    void add(const Row &r) {
        execSql(path_, "INSERT INTO handlers (queue, type, enabled, priority, name, address, executable, context) "
                       "VALUES (" +
                           std::to_string(r.queue) + "," + std::to_string(r.type) + "," + std::to_string(r.enabled) +
                           "," + std::to_string(r.priority) + "," + quoted(r.name) + "," + quoted(r.address) + "," +
                           quoted(r.executable) + "," + quoted(r.context) + ")");
    }

  private:
    ScratchDir dir_;
    std::string path_;
};

inline std::vector<std::string> names(const HandlerList &list) {
    std::vector<std::string> out;
    for (const HandlerRecord *r : list.records)
        out.push_back(r->name != nullptr ? r->name : "<null>");
    return out;
}

// ["", "", sender, recipients..., null] with storage of its own.
class Addresses {
  public:
    Addresses(const std::string &sender, const std::vector<std::string> &recipients) {
        strings_ = {"", "", sender};
        strings_.insert(strings_.end(), recipients.begin(), recipients.end());
        for (auto &s : strings_)
            pointers_.push_back(s.data());
        pointers_.push_back(nullptr);
    }
    char **get() { return pointers_.data(); }

  private:
    std::vector<std::string> strings_;
    std::vector<char *> pointers_;
};

}  // namespace handlers_test
