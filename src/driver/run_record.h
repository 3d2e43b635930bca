// The run's one summary line, for the support desk's "where did my mail go":
// who, which message, how it ended and what was done, as key=value pairs a
// log tool can split. The driver starts the record once the command line is
// accepted; the handler pass, the .qmail processing and the store delivery
// each add what they did; the executable's exit logs it once, at priority 6, on the
// way out. Before the start nothing is recorded and nothing is logged.
#pragma once

enum RunList { RUN_HANDLERS, RUN_QMAIL, RUN_STORE };

void runRecordStart(const char *sender, const char *recipient);

// The mailbox's address, when it is not the recipient's (an address
// extension); the line names it then.
void runRecordMailbox(const char *mailbox);

// The message's Message-ID as its header has it; empty or null for none.
void runRecordMessageId(const char *messageId);

// An outcome the exit status cannot tell: a discarded message and an unknown
// user exit 0 like a delivery.
void runRecordOutcome(const char *outcome);
// The outcome word of an exit status when no other was recorded:
// delivered, deferred or bounced.
const char *runOutcomeFor(int status);

// Appends "name:word" to a list. The name is encoded like every value; the
// word is the caller's plain text (no blanks, no commas).
void runRecordAdd(RunList list, const char *name, const char *wordFormat, ...)
    __attribute__((format(printf, 3, 4)));

// Logs the line for this exit status and status text; once, and only after
// runRecordStart.
void runRecordFinish(int status, const char *text);
