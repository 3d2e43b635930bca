// DeliveryState: the set of served instruction lines of one delivery and its
// record in the Tokyo Cabinet hash database.
//
// Promises: lines are stored trimmed (classic C space class, no case folding),
// unique and in byte order, joined by single line feeds; a value read back is
// split at every line feed with empty pieces kept, so a saved set reads back
// unchanged. Every operation uses a fresh handle and holds the library's file
// lock only between its open and close, which is what lets concurrent runs for
// other recipients share the file. At most two opens in init and one in save
// or erase. A new database file appears only complete (see create). Every
// operation is bounded in time (see Deadline). Database trouble is logged
// once and never stops a delivery; no exception is thrown or caught here.
#include "state/delivery_state.h"

#include <boost/algorithm/string.hpp>
#include <cerrno>
#include <cstdlib>
#include <csetjmp>
#include <csignal>
#include <cstring>
#include <tcutil.h>
#include <tchdb.h>
#include <sys/stat.h>
#include <unistd.h>

#include "driver/log.h"
#include "util/settings.h"
#include "util/text.h"

namespace {

const char *lastError(TCHDB *hdb) { return tchdberrmsg(tchdbecode(hdb)); }

// Deadline: no database operation may hold up a delivery. A damaged record
// can send the library round a loop inside a lookup, for ever, while it
// holds the file lock, and then every run on the host that needs that lock
// waits too. So each operation (open, one call, close) runs under an alarm;
// when it strikes, the operation is left by a jump out of the signal
// handler and counts as failed, with its usual log line and the error text
// "timed out", and the delivery goes on as for any unusable database.
//
// Jumping out leaves the library in the middle of a call: its handle, its
// file lock and possibly its own process-wide state are then half-way. So
// the abandoned handle is never touched again, and neither is the library:
// every later operation of this run fails at once with the same text. The
// lock goes with the process, which ends soon after. Nothing but the
// library's C code lies between the jump and its target (the bodies below
// build no objects with destructors).
const unsigned kDeadlineSeconds = 5;
const char kTimedOut[] = "timed out";

sigjmp_buf deadlineJump;
volatile sig_atomic_t deadlineArmed = 0;
bool libraryAbandoned = false;

void onDeadline(int) {
    if (deadlineArmed)
        siglongjmp(deadlineJump, 1);
}

// What one operation hands its bounded body, and what the body reports.
// What the body sets is volatile: after a jump it must read as far as the
// body got, not as a register held it.
struct Call {
    TCHDB *volatile hdb = nullptr;         // made by the body
    const char *path = nullptr;
    const char *key = nullptr;
    const char *volatile value = nullptr;  // put: the value; get: what was found (malloc'ed)
    time_t now = 0;                        // put: the sweep's clock and age limit
    long long maxAge = 0;
    volatile bool opened = false;
    volatile bool done = false;            // the call itself succeeded
};

// Runs body(call) within the deadline. False when the deadline struck (or an
// earlier one did in this run): the caller logs its line with kTimedOut.
bool withinDeadline(void (*body)(Call *), Call *call) {
    if (libraryAbandoned)
        return false;
    static bool handlerInstalled = false;
    if (!handlerInstalled) {
        struct sigaction action {};
        action.sa_handler = onDeadline;
        sigemptyset(&action.sa_mask);
        sigaction(SIGALRM, &action, nullptr);
        handlerInstalled = true;
    }
    if (sigsetjmp(deadlineJump, 1) != 0) {
        deadlineArmed = 0;
        libraryAbandoned = true;
        return false;
    }
    deadlineArmed = 1;
    alarm(kDeadlineSeconds);
    body(call);
    // Disarmed before the alarm is cancelled, so a late one returns harmlessly.
    deadlineArmed = 0;
    alarm(0);
    return true;
}

// The bodies: each makes a handle, opens, makes its one call and closes.
bool openHandle(Call *c, int mode) {
    c->hdb = tchdbnew();
    c->opened = tchdbopen(c->hdb, c->path, mode);
    return c->opened;
}

void readRecord(Call *c) {
    if (!openHandle(c, HDBOREADER))
        return;
    c->value = tchdbget2(c->hdb, c->key);
    tchdbclose(c->hdb);
}

void openWriterCreating(Call *c) {
    if (openHandle(c, HDBOWRITER | HDBOCREAT))
        c->done = tchdbclose(c->hdb);
}

// The sweep: records of deliveries the transfer agent gave up on, or from
// before the key held the digest, would otherwise stay for ever. Each save
// looks at a bounded number of them, going on where the last save stopped
// (its cursor is a record of its own), so the whole file is covered in turn
// and no save takes long.
const char kSweepCursor[] = "sweep-cursor";
const int kSweepBatch = 32;
const size_t kDigestLength = 32;

// A key from before the digest, or a record older than the limit.
bool outlived(TCHDB *hdb, const char *key, int size, time_t now, long long maxAge) {
    if (strcmp(key, kSweepCursor) == 0)
        return false;
    if (static_cast<size_t>(size) < kDigestLength + 1 || key[size - kDigestLength - 1] != ' ' ||
        strspn(key + size - kDigestLength, "0123456789abcdef") != kDigestLength)
        return true;
    int valueSize = 0;
    char *value = static_cast<char *>(tchdbget(hdb, key, size, &valueSize));
    if (value == nullptr)
        return false;
    bool old = now - strtoll(value, nullptr, 10) > maxAge;
    free(value);
    return old;
}

void sweep(Call *c) {
    char *cursor = tchdbget2(c->hdb, kSweepCursor);
    if (cursor == nullptr || !tchdbiterinit2(c->hdb, cursor, static_cast<int>(strlen(cursor))))
        tchdbiterinit(c->hdb);
    free(cursor);
    char *last = nullptr;
    for (int i = 0; i < kSweepBatch; i++) {
        int size = 0;
        char *key = static_cast<char *>(tchdbiternext(c->hdb, &size));
        if (key == nullptr)
            break;  // the end: the next save starts from the beginning
        if (outlived(c->hdb, key, size, c->now, c->maxAge))
            tchdbout(c->hdb, key, size);
        free(last);
        last = key;
    }
    if (last != nullptr && strcmp(last, kSweepCursor) != 0)
        tchdbput2(c->hdb, kSweepCursor, last);
    else
        tchdbout2(c->hdb, kSweepCursor);
    free(last);
}

void writeRecord(Call *c) {
    if (!openHandle(c, HDBOWRITER))
        return;
    c->done = tchdbput2(c->hdb, c->key, c->value);
    if (c->done)
        sweep(c);
    tchdbclose(c->hdb);
}

void removeRecord(Call *c) {
    if (!openHandle(c, HDBOWRITER))
        return;
    c->done = tchdbout2(c->hdb, c->key);
    tchdbclose(c->hdb);
}

// Releases a handle, unless a jump left it mid-call (or the body never ran):
// then it stays as it is.
void release(TCHDB *hdb, bool finished) {
    if (finished)
        tchdbdel(hdb);
}

// Runs a write or a removal of c's key: 0, or 1 after one log line naming
// the step ("save", "erase") and the change that failed ("save", "remove").
int changeRecord(void (*body)(Call *), Call &c, const char *step, const char *change) {
    bool finished = withinDeadline(body, &c);
    int result = 0;
    if (!c.opened) {
        LogFunction(3, "%s: cannot open delivery database %s: %s", step, c.path,
                    finished ? lastError(c.hdb) : kTimedOut);
        result = 1;
    } else if (!finished || !c.done) {
        LogFunction(3, "%s: cannot %s key `%s': %s", step, change, c.key, finished ? lastError(c.hdb) : kTimedOut);
        result = 1;
    }
    release(c.hdb, finished);
    return result;
}

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
void create(const std::string &databasePath) {
    const std::string building = databasePath + ".init." + std::to_string(getpid());
    // A file under this name can only be left by a dead process with the same id.
    unlink(building.c_str());
    Call c;
    c.path = building.c_str();
    bool finished = withinDeadline(openWriterCreating, &c);
    if (!finished || !c.opened) {
        LogFunction(3, "init: cannot open delivery database %s: %s", databasePath.c_str(),
                    finished ? lastError(c.hdb) : kTimedOut);
        unlink(building.c_str());
        release(c.hdb, finished);
        return;
    }
    // Served lines name the mailbox's forwards and programs: owner only.
    chmod(building.c_str(), 0600);
    // The close writes the header's final counts; a failed one may leave it torn.
    if (!c.done)
        LogFunction(3, "init: cannot open delivery database %s: %s", databasePath.c_str(),
                    lastError(c.hdb));
    else if (link(building.c_str(), databasePath.c_str()) != 0 && errno != EEXIST)
        LogFunction(3, "init: cannot open delivery database %s: %s", databasePath.c_str(),
                    strerror(errno));
    unlink(building.c_str());
    release(c.hdb, finished);
}

}  // namespace

time_t splitDeliveryRecord(const std::string &value, std::set<std::string> &lines) {
    size_t end = value.find('\n');
    std::string first = value.substr(0, end);
    bool timed = !first.empty() && first.find_first_not_of("0123456789") == std::string::npos;
    // token_compress_off keeps empty pieces: an empty rest is one empty line.
    std::vector<std::string> split;
    std::string rest = timed ? (end == std::string::npos ? "" : value.substr(end + 1)) : value;
    boost::algorithm::split(split, rest, boost::algorithm::is_any_of("\n"), boost::algorithm::token_compress_off);
    lines.insert(split.begin(), split.end());
    return timed ? static_cast<time_t>(strtoll(first.c_str(), nullptr, 10)) : 0;
}

DeliveryState::DeliveryState(const std::string &databasePath, const std::string &key, bool look)
    : loaded(false), look(look), key(key), databasePath(databasePath) {
    init();
}

void DeliveryState::init() {
    lines.clear();
    loaded = false;
    Call c;
    c.path = databasePath.c_str();
    c.key = key.c_str();
    foundAs = STATE_UNREADABLE;
    if (!withinDeadline(readRecord, &c)) {
        LogFunction(3, "init: cannot open delivery database %s: %s", databasePath.c_str(), kTimedOut);
        return;
    }
    int openError = c.opened ? TCESUCCESS : tchdbecode(c.hdb);
    tchdbdel(c.hdb);
    if (c.opened) {
        foundAs = c.value != nullptr ? STATE_RECORD : STATE_NO_RECORD;
        if (c.value != nullptr) {
            std::string stored(c.value);
            free(const_cast<char *>(c.value));
            savedAt = splitDeliveryRecord(stored, lines);
            loaded = true;
            forgetIfOutlived();
        }
        return;
    }
    // Usually the first run on this host: leave an empty database behind
    // so that a later save, which does not create, finds it.
    struct stat st;
    if (stat(databasePath.c_str(), &st) != 0 && errno == ENOENT) {
        foundAs = STATE_NO_DATABASE;
        if (!look)
            create(databasePath);
        return;
    }
    if (look) {
        LogFunction(3, "init: cannot open delivery database %s: %s", databasePath.c_str(), tchdberrmsg(openError));
        return;
    }
    // There but unreadable: the writer says why (or, for an empty file,
    // fills it in).
    Call w;
    w.path = databasePath.c_str();
    bool finished = withinDeadline(openWriterCreating, &w);
    if (!finished || !w.opened)
        LogFunction(3, "init: cannot open delivery database %s: %s", databasePath.c_str(),
                    finished ? lastError(w.hdb) : kTimedOut);
    release(w.hdb, finished);
}

// A record older than the limit belongs to a delivery the transfer agent
// has given up on (its queue lifetime is shorter): it counts as absent.
void DeliveryState::forgetIfOutlived() {
    long long maxAge = settingNumber("state_max_age");
    if (time(nullptr) - savedAt <= maxAge)
        return;
    LogFunction(6, "init: delivery record `%s' is older than %lld seconds; removed", key.c_str(), maxAge);
    erase();
    lines.clear();
    loaded = false;
    savedAt = 0;
    foundAs = STATE_NO_RECORD;
}

bool DeliveryState::contains(const std::string &line) const {
    return lines.count(trimmed(line)) != 0;
}

void DeliveryState::add(const std::string &line) { lines.insert(trimmed(line)); }

int DeliveryState::save() {
    if (look || (!loaded && lines.empty()))
        return 0;
    std::string value = std::to_string(savedAt != 0 ? savedAt : time(nullptr)) + "\n" +
                        boost::algorithm::join(lines, "\n");
    Call c;
    c.now = time(nullptr);
    c.maxAge = settingNumber("state_max_age");
    c.path = databasePath.c_str();
    c.key = key.c_str();
    c.value = value.c_str();
    return changeRecord(writeRecord, c, "save", "save");
}

int DeliveryState::erase() {
    // Nothing was stored when this attempt began, and what was marked since
    // has never been written.
    if (look || !loaded)
        return 0;
    Call c;
    c.path = databasePath.c_str();
    c.key = key.c_str();
    return changeRecord(removeRecord, c, "erase", "remove");
}
