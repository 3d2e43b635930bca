/* The floor for reading the handler registry once per delivery: what any
 * program pays that asks Debian's SQLite the questions a delivery must ask of
 * the panel's registry, and nothing else. It opens the file, applies the
 * panel's tuning pragmas, prepares the one lookup and runs it for the six
 * keys of a delivery (the two global keywords, the recipient's and the
 * sender's domain, the recipient, the sender) in one read transaction, then
 * closes. Linked the way ferndrop is (static), so that the instruction counts
 * of the two compare like with like.
 *
 * usage: registry_floor DATABASE SENDER RECIPIENT
 *
 * bench/minimal.c includes this file (with REGISTRY_FLOOR_NO_MAIN) for its
 * --registry form: the floor for a delivery that consults the registry.
 */
#include <sqlite3.h>
#include <stdio.h>
#include <string.h>

/* The rows that apply to the delivery, or -1. */
static int registry_lookups(const char *database, const char *sender, const char *recipient) {
    sqlite3 *db = NULL;
    sqlite3_stmt *stmt = NULL;
    if (sqlite3_open(database, &db) != SQLITE_OK ||
        sqlite3_exec(db, "PRAGMA temp_store=MEMORY;PRAGMA read_uncommitted=1;PRAGMA cache_size=10000;", NULL, NULL,
                     NULL) != SQLITE_OK ||
        sqlite3_exec(db, "BEGIN", NULL, NULL, NULL) != SQLITE_OK ||
        sqlite3_prepare_v2(db,
                           "SELECT executable, context, name FROM handlers WHERE queue=? AND type=? AND enabled=? AND "
                           "address=? COLLATE NOCASE ORDER BY priority DESC",
                           -1, &stmt, NULL) != SQLITE_OK) {
        fprintf(stderr, "registry_floor: %s\n", sqlite3_errmsg(db));
        return -1;
    }
    const char *sender_domain = strchr(sender, '@'), *recipient_domain = strchr(recipient, '@');
    const char *keys[6] = {"all", "all-recipients", recipient_domain ? recipient_domain + 1 : "",
                           sender_domain ? sender_domain + 1 : "", recipient, sender};
    const int types[6] = {4, 4, 3, 2, 1, 0};
    int rows = 0;
    for (int i = 0; i < 6; i++) {
        sqlite3_reset(stmt);
        sqlite3_bind_int(stmt, 1, 2);
        sqlite3_bind_int(stmt, 2, types[i]);
        sqlite3_bind_int(stmt, 3, 1);
        sqlite3_bind_text(stmt, 4, keys[i], -1, SQLITE_STATIC);
        while (sqlite3_step(stmt) == SQLITE_ROW)
            rows++;
    }
    sqlite3_finalize(stmt);
    sqlite3_exec(db, "COMMIT", NULL, NULL, NULL);
    sqlite3_close(db);
    return rows;
}

#ifndef REGISTRY_FLOOR_NO_MAIN
int main(int argc, char **argv) {
    if (argc != 4) {
        fprintf(stderr, "usage: registry_floor DATABASE SENDER RECIPIENT\n");
        return 64;
    }
    return registry_lookups(argv[1], argv[2], argv[3]) == 0 ? 0 : 1;
}
#endif
