// Folder names and the Maildir paths of a mailbox in the store's own tree
// (KAVRA_MAILNAMES_D, not the -p directory).
//
// Promises: a path is either composed completely within the caller's buffer
// (terminator included) or refused with -1 and a log line; nothing is written
// past the buffer's size. Domain and mailname are used exactly as given: the
// store's agent decides what exists. Only "INBOX" and names starting with "."
// are accepted as folders (the driver itself only ever asks for "INBOX").
#pragma once

// The store's limit on a path (4096 characters) and its terminator; also
// bounds the IMAP folder name.
const unsigned long kStorePathBufferSize = 4097;

bool is_inbox_folder(const char *folder);
bool is_dot_folder(const char *folder);
int build_maildir_path(char *buffer, unsigned long size, const char *mailname, const char *domain);
int build_folder_path(char *buffer, unsigned long size, const char *mailname, const char *domain,
                      const char *folder);
