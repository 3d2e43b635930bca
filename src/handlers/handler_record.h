// Handlers as held in memory: one record per registry row that applies, and
// the list the registry fills and the pass walks from its head.
#pragma once
#include <cstdint>
#include <list>

#include "handlers/queue.h"

// What a record's address names; also the registry's `type` column.
enum MH_TYPE : int32_t {
    MH_TYPE_SENDER = 0,
    MH_TYPE_RECIPIENT = 1,
    MH_TYPE_SENDER_DOMAIN = 2,
    MH_TYPE_RECIPIENT_DOMAIN = 3,
    MH_TYPE_GLOBAL = 4,
    MH_TYPE_UNSET = 5,
};

// The word for a type that people read and type: "sender", "recipient",
// "sender-domain", "recipient-domain", "global"; "unknown" for any other.
const char *mh_kind_name(int type);
// The type a word names, or MH_TYPE_UNSET.
MH_TYPE mh_kind_of(const char *word);

// The strings are owned by the record (malloc'd); null means absent.
struct HandlerRecord {
    int32_t priority;
    MH_TYPE type;
    HandlerQueue queue;
    char *name;
    char *address;
    char *executable;
    char *context;
    bool enabled;
};

// Each node owns one record. Adding inserts at the head, so a walk from the
// head yields the records in the reverse of the order they were added.
struct HandlerList {
    std::list<HandlerRecord *> records;
};

// priority 0, type and queue unset, no strings, not enabled. Null (logged)
// when memory runs out.
HandlerRecord *mh_record_new();
// Same numbers, own copies of the strings. Null when memory runs out.
HandlerRecord *mh_record_clone(const HandlerRecord *record);
void mh_record_free(HandlerRecord *record);

// Puts a copy of record at the head. 0, or -1 (logged) with the list unchanged.
int mh_list_add(HandlerList *list, const HandlerRecord *record);
// Frees every record; the list is empty afterwards.
void mh_list_free(HandlerList *list);
