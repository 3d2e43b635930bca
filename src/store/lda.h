// Delivery of a spooled message into a mailbox's INBOX (or a "." folder)
// through the installed IMAP/POP3 server's own delivery agent.
//
// Promises: the agent gets the message on descriptor 0, /dev/null on 1 (so
// nothing it prints can be mistaken for our status line), our standard error
// on 2, nothing else open, and our environment (DELIVERED_TO included). Its
// exit status comes back unchanged so that the driver alone decides between
// quota, permanent and temporary failure. An agent that is not installed or
// not usable, could not be started, or was killed or stopped says nothing
// about the message: that is LDA_TRY_LATER, a temporary failure, never a
// bounce; a stopped agent is killed and reaped, so that it cannot keep our
// standard error (the transfer agent's pipe) open. -1 is left for a delivery
// that cannot be attempted at all. Nothing is printed on standard output.
#pragma once
#include <string>
#include <vector>

// Not delivered now, nothing said against later: no usable agent installed,
// no process for it, or it was killed or stopped. mapDeliveryCode reads it,
// like every code it does not list, as a temporary failure.
const int LDA_TRY_LATER = -2;

// The agent's command line as a delivery would start it (for LMTP the
// route), for a look. The setting store chooses between the agent ("lda")
// and an LMTP server (see store/lmtp.h).
struct StoreLook {
    const char *server = "none";  // dovecot, courier, lmtp, none
    std::vector<std::string> argv;
};

// Whose INBOX: the mailbox's address (Dovecot's user), the address the
// message was sent to when it differs (an address extension; Dovecot's
// original recipient, so that its filters see the extension), and the
// directory names the mailbox lookup entered (Courier's Maildir path is
// built from them, never from the address text).
struct StoreTarget {
    const char *sender;  // "<>" for the null sender
    const char *user;
    const char *original;  // null when it is user
    const char *domainDir;
    const char *mailnameDir;
};

// 0 delivered; the agent's non-zero exit status; LDA_TRY_LATER (above); -1
// when the delivery cannot be attempted (the message unreadable, a path too
// long) or the wait for the agent failed. With look nothing is started: the
// command line is recorded and 0 stands for whatever the agent would answer;
// path may then be null (no message at hand).
int lda_deliver_file(const char *path, const StoreTarget &to, const char *folder, StoreLook *look = nullptr);
int lda_deliver_fd(int fd, const StoreTarget &to, const char *folder, StoreLook *look = nullptr);
