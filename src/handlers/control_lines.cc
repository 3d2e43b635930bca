// The control channel: verdict, LOG and DATA lines on a handler's stderr.
//
// Promises: keywords count only at the very start of a line and only in
// their exact case; the first verdict line decides and later ones are
// ignored; "SKIP" counts only as a whole line, so "SKIP " is no verdict at
// all; a later DATA line replaces an earlier one. Each chunk is split by
// itself, as it was read.
#include "handlers/control_lines.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "driver/log.h"

namespace {

bool startsWith(const char *line, const char *keyword) { return strncmp(line, keyword, strlen(keyword)) == 0; }

bool isBlank(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\v' || c == '\f' || c == '\r'; }

void setData(HandlerOutcome *outcome, const char *text) {
    while (isBlank(*text))
        text++;
    size_t length = strlen(text);
    while (length > 0 && isBlank(text[length - 1]))
        length--;
    char *data = strndup(text, length);
    if (data == nullptr) {
        LogFunction(3, "System error: %s", strerror(errno));
        return;
    }
    free(outcome->data);
    outcome->data = data;
}

void readLine(const char *line, HandlerOutcome *outcome, bool *verdictSeen) {
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
            bool matches = v.wholeLine ? strcmp(line, v.keyword) == 0 : startsWith(line, v.keyword);
            if (matches) {
                outcome->verdict = v.verdict;
                *verdictSeen = true;
                return;
            }
        }
    }
    if (startsWith(line, "LOG")) {
        LogFunction(3, "%s", line + 3);
        return;
    }
    if (startsWith(line, "DATA"))
        setData(outcome, line + 4);
}

}  // namespace

void mh_read_control_chunk(char *chunk, HandlerOutcome *outcome, bool *verdictSeen) {
    char *line = chunk;
    while (*line != '\0') {
        char *end = strchr(line, '\n');
        if (end != nullptr)
            *end = '\0';
        if (*line != '\0')
            readLine(line, outcome, verdictSeen);
        if (end == nullptr)
            break;
        line = end + 1;
    }
}
