// What one handler run answered, and the run-ordered list of those answers a
// caller of the pass may ask for.
#pragma once
#include <cstdint>
#include <list>

enum HandlerVerdict : uint32_t {
    PASS = 0,    // the handler's output is the new message; go on
    STOP = 1,    // discard the message
    DEFER = 2,   // deliver later
    REJECT = 3,  // refuse the message
    SKIP = 5,    // keep the message unchanged; go on
    ERROR = 255, // the run failed; go on
};

struct HandlerOutcome {
    HandlerVerdict verdict;
    // With ERROR: ferndrop itself could not start or hear the handler (pipe,
    // fork, reading its answer, waiting), as opposed to the handler failing.
    bool ownFault;
    char *name;  // owned; filled by the pass when it keeps the outcome
    char *data;  // owned; the last DATA line's text, trimmed
};

// Verdict ERROR, no strings. Null (logged) when memory runs out.
HandlerOutcome *mh_outcome_new();
void mh_outcome_free(HandlerOutcome *outcome);

// Outcomes in run order; each node owns its outcome.
struct HandlerOutcomeList {
    std::list<HandlerOutcome *> outcomes;
};

void mh_outcome_list_init(HandlerOutcomeList *list);
// Appends at the tail, taking ownership only on success. 0, or -1 when
// memory runs out (not logged; the caller knows what it was adding).
int mh_outcome_list_append(HandlerOutcomeList *list, HandlerOutcome *outcome);
void mh_outcome_list_free(HandlerOutcomeList *list);
