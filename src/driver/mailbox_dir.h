// The recipient's mailbox directory: <mailnames>/<domain>/<mailname>, found
// without regard to ASCII case when the exact name is missing.
#pragma once

// Cuts address at its first "@" (in place). domain is null without an "@";
// both are null for a null address.
void splitAddress(char *address, char **mailname, char **domain);

// enterMailboxDir's results besides 0 (entered).
enum {
    MAILBOX_UNKNOWN = -1,     // the domain or mailname is not there (ENOENT, ENOTDIR, ENAMETOOLONG)
    MAILBOX_UNREACHABLE = -2  // the tree cannot be searched now (any other failure)
};

// Makes the mailbox directory the working directory: 0, or one of the values
// above after one log line.
int enterMailboxDir(const char *mailnamesDir, const char *domain, const char *mailname);

// Changes into one subdirectory of the current directory, exact name first:
// 0, or -1 with errno set. Names holding "/" and the names "." and ".." are refused.
int chdirCaseless(const char *name);
