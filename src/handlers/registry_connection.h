// Shared pieces of the registry code: the connection's error text and the
// reading connection's open.
#pragma once

struct sqlite3;

// The connection's current error message, or the fixed text used when the
// library gave no connection object.
const char *mh_db_message(sqlite3 *db);

// Opens the registry path for reading. Null (logged) on failure.
sqlite3 *mh_open_registry();
