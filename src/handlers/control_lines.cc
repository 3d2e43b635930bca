// The control channel: verdict, LOG and DATA lines on a handler's stderr.
//
// Promises: keywords count only at the very start of a line and only in
// their exact case; the first verdict line decides and later ones are
// ignored; "SKIP" counts only as a whole line, so "SKIP " is no verdict at
// all; a later DATA line replaces an earlier one. A line is tested only when
// it is complete, however the pipe cut it into reads: a handler that echoes
// a long header line (text a remote sender chose) can never have the tail of
// that line read as a verdict of its own. A NUL byte is an ordinary byte of
// its line, so it cannot hide the lines after it.
#include "handlers/control_lines.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "driver/log.h"
#include "util/text.h"

namespace {

bool startsWith(const char *line, const char *keyword) { return strncmp(line, keyword, strlen(keyword)) == 0; }

// Trimmed by hand, not with trimmed(): that could throw on a failed
// allocation, where a failed strndup is only logged.
void setData(HandlerOutcome *outcome, const char *text) {
    while (isCSpace(*text))
        text++;
    size_t length = strlen(text);
    while (length > 0 && isCSpace(text[length - 1]))
        length--;
    char *data = strndup(text, length);
    if (data == nullptr) {
        LogFunction(3, "System error: %s", strerror(errno));
        return;
    }
    free(outcome->data);
    outcome->data = data;
}

void readLine(const char *line, size_t length, HandlerOutcome *outcome, bool *verdictSeen) {
    struct VerdictLine {
        const char *keyword;
        bool wholeLine;
        HandlerVerdict verdict;
    };
    static const VerdictLine kVerdictLines[] = {
        {"STOP", false, STOP},
        {"DEFER", false, DEFER},
        {"SKIP", true, SKIP},
        {"REJECT", false, REJECT},
    };
    if (!*verdictSeen) {
        for (const VerdictLine &v : kVerdictLines) {
            size_t keywordLength = strlen(v.keyword);
            bool matches = (v.wholeLine ? length == keywordLength : length >= keywordLength) &&
                           memcmp(line, v.keyword, keywordLength) == 0;
            if (matches) {
                outcome->verdict = v.verdict;
                *verdictSeen = true;
                return;
            }
        }
    }
    // The texts below are C strings: a NUL byte ends what is logged or kept.
    if (startsWith(line, "LOG")) {
        LogFunction(3, "%s", line + 3);
        return;
    }
    if (startsWith(line, "DATA"))
        setData(outcome, line + 4);
}

void completeLine(ControlChannel *channel, HandlerOutcome *outcome) {
    channel->line[channel->length] = '\0';
    if (channel->length > 0)
        readLine(channel->line, channel->length, outcome, &channel->verdictSeen);
    channel->length = 0;
}

}  // namespace

void mh_control_read(ControlChannel *channel, const char *bytes, size_t count, HandlerOutcome *outcome) {
    while (count > 0) {
        const char *newline = static_cast<const char *>(memchr(bytes, '\n', count));
        size_t segment = newline != nullptr ? static_cast<size_t>(newline - bytes) : count;
        size_t kept = std::min(segment, kControlLineMax - channel->length);
        memcpy(channel->line + channel->length, bytes, kept);
        channel->length += kept;
        if (newline == nullptr)
            return;
        completeLine(channel, outcome);
        bytes = newline + 1;
        count -= segment + 1;
    }
}

void mh_control_end(ControlChannel *channel, HandlerOutcome *outcome) { completeLine(channel, outcome); }
