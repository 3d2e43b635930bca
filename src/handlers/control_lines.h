// Reading a handler's answer from what it writes on standard error.
#pragma once
#include "handlers/outcome.h"

// Applies the control lines of one chunk (NUL-terminated, modified in place)
// to outcome. *verdictSeen says whether an earlier line already decided the
// verdict; the first verdict line wins.
void mh_read_control_chunk(char *chunk, HandlerOutcome *outcome, bool *verdictSeen);
