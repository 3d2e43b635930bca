// The read-only look at a delivery-state record.
//
// Promises: the database is opened with the reader flag alone, so the file
// is never created, extended or rewritten; the library's shared lock is held
// only for the one lookup. A record reads back exactly as a delivery loads
// it: split at every line feed, empty pieces kept.
#include "state/delivery_record.h"
#include "state/delivery_state.h"

#include <boost/algorithm/string.hpp>
#include <cstdlib>
#include <tcutil.h>
#include <tchdb.h>
#include <vector>

RecordLook lookAtDeliveryRecord(const std::string &databasePath, const std::string &key,
                                std::set<std::string> &lines, std::string &problem) {
    lines.clear();
    TCHDB *hdb = tchdbnew();
    if (!tchdbopen(hdb, databasePath.c_str(), HDBOREADER)) {
        problem = tchdberrmsg(tchdbecode(hdb));
        tchdbdel(hdb);
        return RECORD_UNREADABLE;
    }
    RecordLook look = RECORD_ABSENT;
    if (char *value = tchdbget2(hdb, key.c_str())) {
        std::string stored(value);
        free(value);
        splitDeliveryRecord(stored, lines);
        look = RECORD_FOUND;
    }
    tchdbclose(hdb);
    tchdbdel(hdb);
    return look;
}
