// The run record behind the summary line.
//
// Promises: recording never allocates and never fails (a mail path must not
// die of its own bookkeeping): the lists have fixed room, and items that do
// not fit are counted and shown as "+N" at the list's end. Every value is
// percent-encoded (blanks, controls, bytes above 0x7e and '"' '%' ',' '=' '\'),
// so the line is plain key=value pairs separated by single blanks whatever a
// sender or a handler's name holds. The line is the same for the same run
// apart from duration_ms, which comes last.
#include "driver/run_record.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "driver/log.h"

namespace {

const size_t kListRoom = 2048;
const size_t kMessageIdRoom = 1000;
// Encoded, the command line's values could be any length; a summary keeps
// this much of each.
const size_t kValueRoom = 1536;

struct ItemList {
    char text[kListRoom];
    size_t length;
    unsigned omitted;
};

struct RunRecord {
    bool started;
    bool finished;
    timespec start;
    const char *sender;
    const char *recipient;
    const char *mailbox;
    char messageId[kMessageIdRoom];
    const char *outcome;
    ItemList lists[3];
};

RunRecord record;

const char *const kListKeys[] = {"handlers", "qmail", "store"};

bool plain(unsigned char c) {
    return c > 0x20 && c < 0x7f && c != '"' && c != '%' && c != ',' && c != '=' && c != '\\';
}

// Appends text, encoded, to buffer (length so far in *length, room size) and
// keeps it terminated. False when it did not fit whole; what fitted stays.
bool putEncoded(char *buffer, size_t size, size_t *length, const char *text) {
    static const char kHex[] = "0123456789ABCDEF";
    for (const unsigned char *p = reinterpret_cast<const unsigned char *>(text); *p != '\0'; p++) {
        size_t need = plain(*p) ? 1 : 3;
        if (*length + need >= size)
            return false;
        if (need == 1) {
            buffer[(*length)++] = static_cast<char>(*p);
        } else {
            buffer[(*length)++] = '%';
            buffer[(*length)++] = kHex[*p >> 4];
            buffer[(*length)++] = kHex[*p & 15];
        }
        buffer[*length] = '\0';
    }
    return true;
}

// printf into buffer after *length; false (and nothing added) when it does not fit.
__attribute__((format(printf, 4, 0))) bool putFormatted(char *buffer, size_t size, size_t *length,
                                                        const char *format, va_list args) {
    int n = vsnprintf(buffer + *length, size - *length, format, args);
    if (n < 0 || *length + static_cast<size_t>(n) >= size) {
        buffer[*length] = '\0';
        return false;
    }
    *length += static_cast<size_t>(n);
    return true;
}

__attribute__((format(printf, 4, 5))) bool put(char *buffer, size_t size, size_t *length, const char *format, ...) {
    va_list args;
    va_start(args, format);
    bool done = putFormatted(buffer, size, length, format, args);
    va_end(args);
    return done;
}

// key=value with the value encoded and cut to kValueRoom.
void putPair(char *line, size_t size, size_t *length, const char *key, const char *value) {
    char encoded[kValueRoom];
    size_t encodedLength = 0;
    encoded[0] = '\0';
    putEncoded(encoded, sizeof encoded, &encodedLength, value != nullptr ? value : "");
    put(line, size, length, " %s=%s", key, encoded);
}

}  // namespace

const char *runOutcomeFor(int status) {
    if (status == 0)
        return "delivered";
    return status == 75 ? "deferred" : "bounced";
}

void runRecordStart(const char *sender, const char *recipient) {
    record = RunRecord{};
    record.started = true;
    clock_gettime(CLOCK_MONOTONIC, &record.start);
    record.sender = sender;
    record.recipient = recipient;
}

void runRecordMailbox(const char *mailbox) { record.mailbox = mailbox; }

void runRecordMessageId(const char *messageId) {
    snprintf(record.messageId, sizeof record.messageId, "%s", messageId != nullptr ? messageId : "");
}

void runRecordOutcome(const char *outcome) { record.outcome = outcome; }

void runRecordAdd(RunList list, const char *name, const char *wordFormat, ...) {
    if (!record.started)
        return;
    ItemList &items = record.lists[list];
    size_t length = items.length;
    bool fits = (length == 0 || put(items.text, kListRoom, &length, ",")) &&
                putEncoded(items.text, kListRoom, &length, name != nullptr ? name : "") &&
                put(items.text, kListRoom, &length, ":");
    if (fits) {
        va_list args;
        va_start(args, wordFormat);
        fits = putFormatted(items.text, kListRoom, &length, wordFormat, args);
        va_end(args);
    }
    if (fits) {
        items.length = length;
    } else {
        items.text[items.length] = '\0';
        items.omitted++;
    }
}

void runRecordFinish(int status, const char *text) {
    if (!record.started || record.finished)
        return;
    record.finished = true;
    char line[16384];
    size_t length = 0;
    line[0] = '\0';
    putPair(line, sizeof line, &length, "to", record.recipient);
    putPair(line, sizeof line, &length, "from", record.sender);
    putPair(line, sizeof line, &length, "message_id", record.messageId);
    if (record.mailbox != nullptr)
        putPair(line, sizeof line, &length, "mailbox", record.mailbox);
    put(line, sizeof line, &length, " outcome=%s status=%d code=", record.outcome != nullptr ? record.outcome
                                                                                             : runOutcomeFor(status),
        status);
    // The enhanced status code leads the status text; no text means success.
    const char *code = text != nullptr && text[0] != '\0' ? text : "2.0.0";
    put(line, sizeof line, &length, "%.*s", static_cast<int>(strcspn(code, " ")), code);
    for (int i = 0; i < 3; i++) {
        const ItemList &items = record.lists[i];
        if (items.length == 0 && items.omitted == 0)
            continue;
        put(line, sizeof line, &length, " %s=%s", kListKeys[i], items.text);
        if (items.omitted != 0)
            put(line, sizeof line, &length, "%s+%u", items.length != 0 ? "," : "", items.omitted);
    }
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    long long ns = (now.tv_sec - record.start.tv_sec) * 1000000000LL + (now.tv_nsec - record.start.tv_nsec);
    put(line, sizeof line, &length, " duration_ms=%lld", ns / 1000000);
    // The leading blank of the first pair is not part of the line.
    LogFunction(6, "%s", line + 1);
}
