// Which IMAP/POP3 server's delivery agent is installed.
//
// Promises: Courier-IMAP's agent wins whenever it exists, even over a usable
// Dovecot agent, and an unusable Courier agent fails the detection outright
// rather than silently falling through to Dovecot (a half-installed Courier
// would otherwise get its mail stored somewhere its users never look).
// Only a successful detection is remembered, so a failure is looked at again
// on the next call.
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
