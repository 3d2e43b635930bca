// Shared pieces of the registry code: the connection's error text and the
// reading connection's open.
#pragma once

struct sqlite3;

// The connection's current error message, or the fixed text used when the
// library gave no connection object.
const char *mh_db_message(sqlite3 *db);

// SQLite set up for a short single-threaded process (no locking, no
// statistics, memory from a static arena). Called before every open here;
// only the first call before the library starts has an effect.
void mh_tune_sqlite();

// Opens the registry path for reading. Null (logged) on failure. look:
// without creating a missing file or rolling back a journal; a missing file
// the delivery could create reads as a registry without handlers.
sqlite3 *mh_open_registry(bool look = false);
// db itself, or for a null db one opened as above and also left in *own for
// the caller to close. Null (logged) on failure.
sqlite3 *mh_given_or_own(sqlite3 *db, sqlite3 **own);

// A gathering runs the main query six times or more on one connection, and
// parsing its text is most of what the gathering costs: between these two
// calls mh_select_handlers keeps the statement prepared for db and only
// rebinds it. The end finalizes it, so it must come before the close.
void mh_begin_select_reuse(sqlite3 *db);
void mh_end_select_reuse();
