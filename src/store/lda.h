// Delivery into a mailbox's INBOX (or a "." folder) through the installed
// IMAP/POP3 server's own delivery agent.
#pragma once

enum ServerType { SERVER_UNKNOWN = -1, SERVER_COURIER_IMAP = 0, SERVER_DOVECOT = 1 };

ServerType detect_server_type();
// What detection would find, without logging or remembering it. With
// SERVER_UNKNOWN, *unusable names an agent that is present but not an
// executable regular file, or is null when none is present.
ServerType inspect_server_type(const char **unusable);
// The remembered detection (SERVER_UNKNOWN before a successful one).
ServerType cached_server_type();
// The agent's program path; null for SERVER_UNKNOWN.
const char *server_agent(ServerType type);
bool is_inbox_folder(const char *folder);
bool is_dot_folder(const char *folder);
int build_maildir_path(char *buffer, unsigned long size, const char *mailname, const char *domain);
int build_folder_path(char *buffer, unsigned long size, const char *mailname, const char *domain,
                      const char *folder);

// Not delivered now, nothing said against later: no usable agent installed,
// no process for it, or it was killed or stopped. mapDeliveryCode reads it,
// like every code it does not list, as a temporary failure.
const int LDA_TRY_LATER = -2;

// 0 delivered; the agent's non-zero exit status; LDA_TRY_LATER (above); -1
// when the delivery cannot be attempted (the message unreadable, a path too
// long) or the wait for the agent failed.
int lda_deliver_file(const char *path, const char *recipient, const char *folder);
int lda_deliver_fd(int fd, const char *recipient, const char *folder);
