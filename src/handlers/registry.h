// The handler registry: the panel's SQLite file listing which programs see
// which mail. The delivery agent only reads it.
#pragma once
#include "handlers/handler_record.h"

struct sqlite3;

// The registry path; null restores the compiled-in default. The string is
// kept, not copied: the caller keeps it alive.
void mh_set_db_path(const char *path);
const char *mh_get_db_path();

// The base mailbox address of the recipient when it was reached through an
// address extension (bob@ for bob+shop@), else null: recipient rows of the
// base apply too. Kept, not copied, like the path.
void mh_set_recipient_base(const char *base);
const char *mh_get_recipient_base();

// Fills list with every enabled handler of queue that applies to addresses
// (["", "", sender, recipient..., null]), in run order from the head.
// Negative: the registry could not be used at all. Otherwise the list holds
// what could be gathered, possibly nothing.
int mh_get_handlers(HandlerList *list, char **addresses, HandlerQueue queue, bool look = false);
// The same over a connection the caller opened (read-only, say) and closes.
int mh_gather_handlers(sqlite3 *db, HandlerList *list, char **addresses, HandlerQueue queue);

// The five gatherings, each over the open connection; 0 or -1 (logged).
int mh_get_recipient_handlers(sqlite3 *db, HandlerList *list, char **addresses, HandlerQueue queue);
int mh_get_sender_handlers(sqlite3 *db, HandlerList *list, char **addresses, HandlerQueue queue);
int mh_get_global_handlers(sqlite3 *db, HandlerList *list, char **addresses, HandlerQueue queue);
int mh_get_recipient_domain_handlers(sqlite3 *db, HandlerList *list, char **addresses, HandlerQueue queue);
int mh_get_sender_domain_handlers(sqlite3 *db, HandlerList *list, char **addresses, HandlerQueue queue);

// Adds the enabled rows matching key's queue, type, enabled flag and address,
// highest priority first (so the list ends up lowest first). db null: opens
// and closes a connection of its own. 0 or -1 (logged); rows added before a
// failure stay.
int mh_select_handlers(sqlite3 *db, HandlerList *list, const HandlerRecord *key);

// Whether a global row's address is one the gathering asks for ("all",
// "all-recipients"); rows under any other are never run.
bool mh_global_address(const char *address);

// Adds every row, whole, whose address has exactly the domain of address
// (the text after its first "@", or all of it). 0 or -1 (logged).
int mh_find_domain_handlers(sqlite3 *db, HandlerList *list, const char *address);

// Lays out a new, empty registry at the registry path: directories, schema,
// owner root:popuser, mode 0640. 0 or -1 (logged).
int mh_create_db();
// Adds the index that caseless address lookups use to an existing registry
// (kept when there). 0 or -1 (logged).
int mh_add_caseless_index(const char *path);
