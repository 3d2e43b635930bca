// The private copy of the message, and the byte-copy routine every reader of
// it uses. The files_ forms return 1 on success and 0 on failure.
#pragma once
#include <cstddef>
// The state lives on the stack: no allocation per message.
#define XXH_STATIC_LINKING_ONLY
#include <xxhash.h>

// Saves standard input into a new file "message" + 6 unique characters in the
// spool directory, closed (not synced: see spool.cc). Returns its path (caller owns it) or null.
// With digest: the XXH3-128 of the bytes read, 32 lower-case hex digits, made
// in the same pass as the copy (33 bytes with the terminator).
char *spool_save_stdin(char *digest = nullptr);

// Whether the input just read ended because the process that started this
// one died (it has gone, or is on its way out): then the end of the message
// is no end at all. Logs when so.
bool inputCut(int parentAtStart);

// Same for any descriptor into any directory (the spool step, made testable).
char *spool_save_fd(const char *spoolDir, int fd, char *digest = nullptr);

// The XXH3-128 of a whole file, in the form above; false when unreadable.
bool files_digest(const char *path, char *digest);

// Whether the save could create its file in the spool directory now,
// without creating one: 0, or -1 after the line the save would log.
int spool_look();

// Where a copy stopped: on the read side, or on a write of `left` bytes of
// the buffer at `at`.
struct CopyFailure {
    bool reading;
    const void *at;
    size_t left;
};

// The one byte-copy routine: the rest of in goes to out byte for byte through
// read(2) and write(2), short writes continued and interrupted calls retried,
// so nothing of it stays buffered in the process. true, or false with errno
// set and *failure (when given) saying where it stopped. Logs nothing.
// Feeds the hash through its AVX2 build; false where the processor lacks it.
bool digestUpdateAvx2(void *hash, const void *bytes, size_t length);

// With hash, every byte read is also fed to it.
bool copyBytes(int in, int out, CopyFailure *failure = nullptr, XXH3_state_t *hash = nullptr);
// All of buf to fd the same way.
bool writeBytes(int fd, const void *buf, size_t len, CopyFailure *failure = nullptr);

// copyBytes, logged; files_copy_file opens path first.
int files_copy_fd(int in_fd, int out_fd, XXH3_state_t *hash = nullptr);
int files_copy_file(const char *path, int out_fd);
