// SQLite's process-wide settings, made before its first use.
//
// Every program here is one thread that opens the registry a few times and
// exits, yet Debian's SQLite is built for threads and long lives: every
// allocation takes a mutex to keep a statistic, and it has no lookaside (the
// bump allocator SQLite keeps for small objects), so parsing the registry's
// schema and its one query is hundreds of malloc and free calls. Those were a
// third of a delivery's instructions. The arena below gives SQLite its memory
// from one static block that goes with the process; what does not fit comes
// from malloc, so a large job still works, only without the saving. Memory
// freed into the arena is not reused, which costs a few more fresh pages than
// malloc touches; leaving out the page cache's bulk start more than pays for
// them.
#include <sqlite3.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "handlers/registry_connection.h"

// Under AddressSanitizer the arena would hide a use of SQLite's memory after
// it was freed, which is what that build is for.
#if defined(__SANITIZE_ADDRESS__)
#define FERNDROP_SQLITE_ARENA 0
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define FERNDROP_SQLITE_ARENA 0
#endif
#endif
#ifndef FERNDROP_SQLITE_ARENA
#define FERNDROP_SQLITE_ARENA 1
#endif

namespace {
// One delivery's registry lookups take about 100 KB of it; pages never
// touched cost no memory.
constexpr size_t kArenaBytes = 1024 * 1024;
alignas(16) char arena[kArenaBytes];
size_t arenaUsed = 0;

// Every block starts with its usable size; SQLite wants 8-byte alignment.
using Header = uint64_t;

size_t rounded(int n) { return (static_cast<size_t>(n) + 7) & ~static_cast<size_t>(7); }

bool inArena(const void *p) {
    auto *c = static_cast<const char *>(p);
    return c >= arena && c < arena + kArenaBytes;
}

Header *headerOf(void *p) { return static_cast<Header *>(p) - 1; }

void *arenaMalloc(int n) {
    if (n <= 0)
        return nullptr;
    size_t size = rounded(n), need = sizeof(Header) + size;
    Header *block;
    if (need <= kArenaBytes - arenaUsed) {
        block = reinterpret_cast<Header *>(arena + arenaUsed);
        arenaUsed += need;
    } else if ((block = static_cast<Header *>(malloc(need))) == nullptr) {
        return nullptr;
    }
    *block = size;
    return block + 1;
}

// An arena block is never reused: these processes end first, and past the
// arena's end malloc's own reuse takes over.
void arenaFree(void *p) {
    if (p != nullptr && !inArena(p))
        free(headerOf(p));
}

int arenaSize(void *p) { return p != nullptr ? static_cast<int>(*headerOf(p)) : 0; }

void *arenaRealloc(void *p, int n) {
    if (p == nullptr)
        return arenaMalloc(n);
    size_t have = *headerOf(p), want = rounded(n);
    if (want <= have)
        return p;
    void *moved = arenaMalloc(n);
    if (moved != nullptr) {
        memcpy(moved, p, have);
        arenaFree(p);
    }
    return moved;
}

int arenaRoundup(int n) { return static_cast<int>(rounded(n)); }
int arenaInit(void *) { return SQLITE_OK; }
void arenaShutdown(void *) {}

const sqlite3_mem_methods kArenaMethods = {arenaMalloc, arenaFree,   arenaRealloc,  arenaSize,
                                           arenaRoundup, arenaInit, arenaShutdown, nullptr};
}  // namespace

void mh_tune_sqlite() {
    static bool done = false;
    if (done)
        return;
    done = true;
    // Each call fails harmlessly once the library has started; then it keeps
    // its defaults.
    sqlite3_config(SQLITE_CONFIG_SINGLETHREAD);
    sqlite3_config(SQLITE_CONFIG_MEMSTATUS, 0);
    // Without it every connection starts with room for 20 pages at once, and
    // writing their headers touches every one of those memory pages, where a
    // delivery reads about six.
    sqlite3_config(SQLITE_CONFIG_PAGECACHE, nullptr, 0, 0);
    if (FERNDROP_SQLITE_ARENA)
        sqlite3_config(SQLITE_CONFIG_MALLOC, &kArenaMethods);
}
