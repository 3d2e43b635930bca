// Handler records and the handler list.
//
// Promises: a record owns its strings and a list owns its records, so the
// registry's key records and row text can be released right after an add;
// an add that runs out of memory leaves the list exactly as it was.
#include "handlers/handler_record.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <new>

#include "driver/log.h"

namespace {

const char *const kKinds[] = {"sender", "recipient", "sender-domain", "recipient-domain", "global"};

// An absent string stays absent; a failed copy reports false.
bool copyString(const char *source, char **target) {
    *target = nullptr;
    if (source == nullptr)
        return true;
    *target = strdup(source);
    return *target != nullptr;
}

}  // namespace

HandlerRecord *mh_record_new() {
    HandlerRecord *record = static_cast<HandlerRecord *>(malloc(sizeof(HandlerRecord)));
    if (record == nullptr) {
        LogFunction(3, "System error: %s", strerror(errno));
        return nullptr;
    }
    record->priority = 0;
    record->type = MH_TYPE_UNSET;
    record->queue = MH_QUEUE_UNSET;
    record->name = nullptr;
    record->address = nullptr;
    record->executable = nullptr;
    record->context = nullptr;
    record->enabled = false;
    return record;
}

HandlerRecord *mh_record_clone(const HandlerRecord *record) {
    HandlerRecord *copy = mh_record_new();
    if (copy == nullptr)
        return nullptr;
    copy->priority = record->priority;
    copy->type = record->type;
    copy->queue = record->queue;
    copy->enabled = record->enabled;
    if (!copyString(record->name, &copy->name) || !copyString(record->address, &copy->address) ||
        !copyString(record->executable, &copy->executable) || !copyString(record->context, &copy->context)) {
        mh_record_free(copy);
        return nullptr;
    }
    return copy;
}

void mh_record_free(HandlerRecord *record) {
    if (record == nullptr)
        return;
    free(record->name);
    free(record->address);
    free(record->executable);
    free(record->context);
    free(record);
}

int mh_list_add(HandlerList *list, const HandlerRecord *record) {
    HandlerRecord *copy = mh_record_clone(record);
    if (copy == nullptr) {
        LogFunction(3, "Unable to clone handlers data record");
        return -1;
    }
    try {
        list->records.push_front(copy);
    } catch (const std::bad_alloc &) {
        LogFunction(3, "System error: %s", strerror(ENOMEM));
        mh_record_free(copy);
        return -1;
    }
    return 0;
}

void mh_list_free(HandlerList *list) {
    for (HandlerRecord *record : list->records)
        mh_record_free(record);
    list->records.clear();
}

const char *mh_kind_name(int type) { return type >= 0 && type <= MH_TYPE_GLOBAL ? kKinds[type] : "unknown"; }

MH_TYPE mh_kind_of(const char *word) {
    for (int type = 0; type <= MH_TYPE_GLOBAL; type++)
        if (strcmp(word, kKinds[type]) == 0)
            return static_cast<MH_TYPE>(type);
    return MH_TYPE_UNSET;
}
