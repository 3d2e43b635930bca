// The tests' own look into a delivery-state database file. These opens go
// without locking (HDBONOLCK), which the delivery's own never do, so a test
// that counts the delivery's opens can tell the two apart.
#pragma once
#include <tcutil.h>
#include <tchdb.h>

#include <cstdlib>
#include <optional>
#include <string>

// The value stored under key; nothing when there is no file or no record.
inline std::optional<std::string> storedValue(const std::string &db, const std::string &key) {
    TCHDB *hdb = tchdbnew();
    std::optional<std::string> result;
    if (tchdbopen(hdb, db.c_str(), HDBOREADER | HDBONOLCK)) {
        if (char *v = tchdbget2(hdb, key.c_str())) {
            result = v;
            free(v);
        }
        tchdbclose(hdb);
    }
    tchdbdel(hdb);
    return result;
}

// Stores value under key, or removes the record when there is no value.
inline bool storeValue(const std::string &db, const std::string &key, const std::optional<std::string> &value) {
    TCHDB *hdb = tchdbnew();
    bool ok = tchdbopen(hdb, db.c_str(), HDBOWRITER | HDBOCREAT | HDBONOLCK) &&
              (value ? tchdbput2(hdb, key.c_str(), value->c_str()) : tchdbout2(hdb, key.c_str()));
    tchdbclose(hdb);
    tchdbdel(hdb);
    return ok;
}
