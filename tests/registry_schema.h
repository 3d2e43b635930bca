// The handler registry as the panel lays it out: its creation script (the one
// mh_create_db runs) and one row of it as an INSERT, for tests that build a
// registry with SQLite directly.
#pragma once
#include <string>

inline const std::string kRegistrySchema =
    "BEGIN TRANSACTION;CREATE TABLE handlers (queue INTEGER, type INTEGER, enabled BOOLEAN, priority INTEGER, "
    "name VARCHAR(255) NOT NULL, address VARCHAR(2048) NOT NULL, executable VARCHAR(2048) NOT NULL, context "
    "VARCHAR(2048) NOT NULL, protected BOOLEAN NOT NULL default 0, CONSTRAINT uniq_entries_constaraint PRIMARY KEY "
    "(queue, type, name, address, executable, context));CREATE INDEX idx1 ON handlers(queue, type, enabled, "
    "address);CREATE INDEX idx2 ON handlers(queue, type, enabled, address, priority);CREATE INDEX idx3 ON "
    "handlers(name, queue, type, address);CREATE INDEX idx4 ON handlers(name, queue, type);COMMIT;";

struct RegistryRow {
    int queue;
    int type;
    int enabled;
    int priority;
    std::string name;
    std::string address;
    std::string executable = "/bin/true";
    std::string context = "ctx";
};

inline std::string sqlQuoted(const std::string &s) {
    std::string out = "'";
    for (char c : s)
        out += c == '\'' ? std::string("''") : std::string(1, c);
    return out + "'";
}

inline std::string insertSql(const RegistryRow &r) {
    return "INSERT INTO handlers (queue, type, enabled, priority, name, address, executable, context) VALUES (" +
           std::to_string(r.queue) + "," + std::to_string(r.type) + "," + std::to_string(r.enabled) + "," +
           std::to_string(r.priority) + "," + sqlQuoted(r.name) + "," + sqlQuoted(r.address) + "," +
           sqlQuoted(r.executable) + "," + sqlQuoted(r.context) + ");";
}
