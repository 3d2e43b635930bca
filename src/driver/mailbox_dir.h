// The recipient's mailbox directory: <mailnames>/<domain>/<mailname>, found
// without regard to ASCII case when the exact name is missing.
//
// Promises: the working directory only ever moves downwards into the
// mailnames tree: a name holding "/" or naming "." or ".." is refused, so no
// recipient can reach a directory outside it. An exact name always beats a
// case-insensitive match; without one, every entry matching without regard
// to case that is a directory when looked at (a link to one included) is a
// candidate, and the smallest name in byte order wins, with a warning line
// naming them all when there are several. Every failure logs one line at mail.err
// and leaves errno meaningful for the caller's own line. Only a name that is
// not there makes an unknown mailbox: a mailnames directory that cannot be
// entered, or a directory that cannot be entered or listed for any other
// reason (EIO, EACCES, EMFILE), says nothing about the recipient, and the
// message must wait for the tree to come back rather than be dropped.
#pragma once
#include <string>

// Cuts address at its first "@" (in place). domain is null without an "@";
// both are null for a null address.
void splitAddress(char *address, char **mailname, char **domain);

// enterMailboxDir's results besides 0 (entered).
enum {
    MAILBOX_UNKNOWN = -1,     // the domain or mailname is not there (ENOENT, ENOTDIR, ENAMETOOLONG)
    MAILBOX_UNREACHABLE = -2  // the tree cannot be searched now (any other failure)
};

// How each step down the tree went, for whoever must name the directories
// actually entered (ferndrop-explain, the store's paths).
struct MailboxStep {
    std::string given;   // the name asked for
    std::string entered; // the name entered; empty when the step failed
    bool caseless;       // entered by a match without regard to case
    int error;           // errno of a failed step, else 0
};
struct MailboxFound {
    MailboxStep steps[3];  // the mailnames directory, the domain, the mailname
    int taken = 0;         // steps tried
    bool base = false;     // the mailname step entered the base mailbox
};

// Makes the mailbox directory the working directory: 0, or one of the values
// above after one log line. found, when given, tells how each step went.
// base, when given, is the mailbox entered instead when mailname is not
// there (the address without its extension).
int enterMailboxDir(const char *mailnamesDir, const char *domain, const char *mailname,
                    MailboxFound *found = nullptr, const char *base = nullptr);

// Changes into one subdirectory of the current directory, exact name first:
// 0, or -1 with errno set. Names holding "/" and the names "." and ".." are
// refused. entered, when given, gets the name entered.
int chdirCaseless(const char *name, std::string *entered = nullptr);
