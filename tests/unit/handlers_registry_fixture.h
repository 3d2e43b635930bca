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
#include "../registry_schema.h"
#include "test_support.h"

namespace handlers_test {

using Row = RegistryRow;

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

// A registry in a scratch directory, made the registry path for its lifetime.
class ScratchRegistry {
  public:
    explicit ScratchRegistry(bool withTable = true) : path_(dir_ / "handlers.db") {
        if (withTable)
            execSql(path_, kRegistrySchema);
        mh_set_db_path(path_.c_str());
    }
    ~ScratchRegistry() { mh_set_db_path(nullptr); }
    const std::string &path() const { return path_; }
    const ScratchDir &dir() const { return dir_; }

    void add(const Row &r) { execSql(path_, insertSql(r)); }

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
