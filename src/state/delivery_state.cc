// DeliveryState: the set of served instruction lines of one delivery and its
// record in the Tokyo Cabinet hash database.
//
// Promises: lines are stored trimmed (classic C space class, no case folding),
// unique and in byte order, joined by single line feeds; a value read back is
// split at every line feed with empty pieces kept, so a saved set reads back
// unchanged. Every operation uses a fresh handle and holds the library's file
// lock only between its open and close, which is what lets concurrent runs for
// other recipients share the file. At most two opens in init and one in save
// or erase. A new database file appears only complete (see create). Database
// trouble is logged once and never stops a delivery; no exception is thrown or
// caught here.
#include "state/delivery_state.h"

#include <boost/algorithm/string.hpp>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <locale>
#include <tcutil.h>
#include <tchdb.h>
#include <sys/stat.h>
#include <unistd.h>

#include "driver/log.h"

namespace {

std::string trimmed(const std::string &line) {
    return boost::algorithm::trim_copy(line, std::locale::classic());
}

const char *lastError(TCHDB *hdb) { return tchdberrmsg(tchdbecode(hdb)); }

// The library builds a new file in place: a 256-byte header and then half a
// megabyte of bucket array in many writes. Cut short (disk full, an I/O
// error, the process killed), that leaves a file which every later open,
// reader or writer, refuses ("read error", "invalid meta data"), so delivery
// state would be lost for every delivery on the host until someone removed
// the file. Removing the file after a failed open is not enough (a killed
// process removes nothing) and not safe (another run may have created the
// file meanwhile). So a missing file is built under a name of this process's
// own and linked into place only once it is complete; link never replaces a
// file another run put there first. A killed run leaves at most that private
// file, which no delivery reads.
void create(TCHDB *hdb, const std::string &databasePath) {
    const std::string building = databasePath + ".init." + std::to_string(getpid());
    // A file under this name can only be left by a dead process with the same id.
    unlink(building.c_str());
    if (!tchdbopen(hdb, building.c_str(), HDBOWRITER | HDBOCREAT)) {
        LogFunction(3, "init: cannot open delivery database %s: %s", databasePath.c_str(),
                    lastError(hdb));
        unlink(building.c_str());
        return;
    }
    // The close writes the header's final counts; a failed one may leave it torn.
    bool complete = tchdbclose(hdb);
    if (!complete)
        LogFunction(3, "init: cannot open delivery database %s: %s", databasePath.c_str(),
                    lastError(hdb));
    else if (link(building.c_str(), databasePath.c_str()) != 0 && errno != EEXIST)
        LogFunction(3, "init: cannot open delivery database %s: %s", databasePath.c_str(),
                    strerror(errno));
    unlink(building.c_str());
}

}  // namespace

DeliveryState::DeliveryState(const std::string &databasePath, const std::string &key)
    : loaded(false), key(key), databasePath(databasePath) {
    init();
}

void DeliveryState::init() {
    lines.clear();
    loaded = false;
    TCHDB *hdb = tchdbnew();
    if (tchdbopen(hdb, databasePath.c_str(), HDBOREADER)) {
        if (char *value = tchdbget2(hdb, key.c_str())) {
            std::string stored(value);
            free(value);
            // token_compress_off keeps empty pieces: an empty value is one empty line.
            std::vector<std::string> split;
            boost::algorithm::split(split, stored, boost::algorithm::is_any_of("\n"),
                                    boost::algorithm::token_compress_off);
            lines.insert(split.begin(), split.end());
            loaded = true;
        }
        tchdbclose(hdb);
    } else {
        // Usually the first run on this host: leave an empty database behind
        // so that a later save, which does not create, finds it.
        tchdbdel(hdb);
        hdb = tchdbnew();
        struct stat st;
        if (stat(databasePath.c_str(), &st) != 0 && errno == ENOENT) {
            create(hdb, databasePath);
        } else if (tchdbopen(hdb, databasePath.c_str(), HDBOWRITER | HDBOCREAT)) {
            // There but unreadable: the writer says why (or, for an empty
            // file, fills it in).
            tchdbclose(hdb);
        } else {
            LogFunction(3, "init: cannot open delivery database %s: %s", databasePath.c_str(),
                        lastError(hdb));
        }
    }
    tchdbdel(hdb);
}

bool DeliveryState::contains(const std::string &line) const {
    return lines.count(trimmed(line)) != 0;
}

void DeliveryState::add(const std::string &line) { lines.insert(trimmed(line)); }

int DeliveryState::save() {
    if (!loaded && lines.empty())
        return 0;
    TCHDB *hdb = tchdbnew();
    if (!tchdbopen(hdb, databasePath.c_str(), HDBOWRITER)) {
        LogFunction(3, "save: cannot open delivery database %s: %s", databasePath.c_str(),
                    lastError(hdb));
        tchdbdel(hdb);
        return 1;
    }
    std::string value = boost::algorithm::join(lines, "\n");
    int result = 0;
    if (!tchdbput2(hdb, key.c_str(), value.c_str())) {
        LogFunction(3, "save: cannot save key `%s': %s", key.c_str(), lastError(hdb));
        result = 1;
    }
    tchdbclose(hdb);
    tchdbdel(hdb);
    return result;
}

int DeliveryState::erase() {
    // Nothing was stored when this attempt began, and what was marked since
    // has never been written.
    if (!loaded)
        return 0;
    TCHDB *hdb = tchdbnew();
    if (!tchdbopen(hdb, databasePath.c_str(), HDBOWRITER)) {
        LogFunction(3, "erase: cannot open delivery database %s: %s", databasePath.c_str(),
                    lastError(hdb));
        tchdbdel(hdb);
        return 1;
    }
    int result = 0;
    if (!tchdbout2(hdb, key.c_str())) {
        LogFunction(3, "erase: cannot remove key `%s': %s", key.c_str(), lastError(hdb));
        result = 1;
    }
    tchdbclose(hdb);
    tchdbdel(hdb);
    return result;
}
