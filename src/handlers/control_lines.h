// Reading a handler's answer from what it writes on standard error.
#pragma once
#include <cstddef>

#include "handlers/outcome.h"

// Lines longer than this keep only their start; the rest up to the newline
// is dropped, so a line still ends where the handler ended it.
const size_t kControlLineMax = 65536;

// The control channel of one handler run, read as lines whatever chunks the
// pipe delivers: a line counts only once it is complete (its newline read,
// or the channel at its end), and a NUL byte is part of a line, never its end.
struct ControlChannel {
    char line[kControlLineMax + 1];  // the line read so far
    size_t length = 0;
    bool verdictSeen = false;  // an earlier line decided the verdict; the first one wins
};

// Applies to outcome every line that these bytes complete.
void mh_control_read(ControlChannel *channel, const char *bytes, size_t count, HandlerOutcome *outcome);

// At the end of the channel: applies the last line when it had no newline.
void mh_control_end(ControlChannel *channel, HandlerOutcome *outcome);
