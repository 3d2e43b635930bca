// How far a .qmail is trusted: who may write instructions, and where its
// maildir and mbox lines may write.
#pragma once
#include <sys/types.h>

#include <string>

#include "dotqmail/qmail_file.h"

// True when a .qmail owned by uid may give instructions: the delivery user
// (this process's effective user), root, or a user the setting qmail_owners
// lists (names or uids; "any" trusts every owner). Otherwise false, with the
// owner's name (or number) in owner.
bool qmailOwnerTrusted(uid_t uid, std::string &owner);

// For a maildir or mbox line, with the mailbox directory as the working
// directory: 0 when it writes inside that directory or a directory of
// allowed_paths, or confine_deliveries is off; 1 when it reaches outside and
// the setting only warns (logged); -1 when it reaches outside and the
// setting refuses (logged). Other kinds of line are 0.
int confinementOf(const QmailLine &line);
