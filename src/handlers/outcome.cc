// Handler outcomes and the outcome list.
//
// Promises: an outcome starts as ERROR, so a run that never got as far as a
// verdict reads as failed; the list keeps outcomes in the order they were
// appended and frees them whole (name, data, record).
#include "handlers/outcome.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <new>

#include "driver/log.h"

HandlerOutcome *mh_outcome_new() {
    HandlerOutcome *outcome = static_cast<HandlerOutcome *>(malloc(sizeof(HandlerOutcome)));
    if (outcome == nullptr) {
        LogFunction(3, "System error: %s", strerror(errno));
        return nullptr;
    }
    outcome->verdict = ERROR;
    outcome->ownFault = false;
    outcome->name = nullptr;
    outcome->data = nullptr;
    return outcome;
}

void mh_outcome_free(HandlerOutcome *outcome) {
    if (outcome == nullptr)
        return;
    free(outcome->name);
    free(outcome->data);
    free(outcome);
}

void mh_outcome_list_init(HandlerOutcomeList *list) { list->outcomes.clear(); }

int mh_outcome_list_append(HandlerOutcomeList *list, HandlerOutcome *outcome) {
    try {
        list->outcomes.push_back(outcome);
    } catch (const std::bad_alloc &) {
        errno = ENOMEM;
        return -1;
    }
    return 0;
}

void mh_outcome_list_free(HandlerOutcomeList *list) {
    for (HandlerOutcome *outcome : list->outcomes)
        mh_outcome_free(outcome);
    list->outcomes.clear();
}
