// The private copy of the message, and the byte-copy primitives every reader
// of it uses. The files_ primitives return 1 on success and 0 on failure.
#pragma once
#include <cstddef>
#include <sys/types.h>

// Saves standard input into a new file "message" + 6 unique characters in the
// spool directory, synced and closed. Returns its path (caller owns it) or null.
char *spool_save_stdin();

// Same for any descriptor into any directory (the spool step, made testable).
char *spool_save_fd(const char *spoolDir, int fd);

int files_write_buf(int fd, const void *buf, size_t len);
int files_copy_fd(int in_fd, int out_fd, size_t limit);
int files_copy_file(const char *path, off_t offset, size_t limit, int out_fd);
