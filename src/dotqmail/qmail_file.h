// A mailbox's .qmail instructions, carried out line by line with the
// delivery state remembering what a retry must not repeat.
#pragma once
#include <string>
#include <vector>

enum QmailLineKind { ForwardLine = 0, ProgramLine = 1, MaildirLine = 2, MboxLine = 3, EmptyLine = 4 };

struct QmailLine {
    QmailLineKind kind;
    std::string value;
};

QmailLine parseQmailLine(const std::string &raw);
// "forward", "program", "maildir", "mbox" or "empty".
const char *qmailLineKindName(QmailLineKind kind);

// What the processing met, line by line, when it only looks.
struct QmailLineSeen {
    int number;
    QmailLineKind kind;
    std::string value;
    std::string text;     // the line as the delivery state keeps it
    const char *verdict;  // skipped, runs, refused, nothing-to-do, not-reached
    int sameAs;           // skipped as a repeat of this earlier line; 0 when not
};
struct QmailLook {
    const char *file = "missing";  // missing, refused, empty, usable, executable
    std::string refusal;           // the reason logged for a refused file
    unsigned mode = 0;
    int state = 0;                 // a StateFound (state/delivery_state.h)
    size_t served = 0;             // lines the record holds
    std::string key;               // the delivery-state key; empty when off
    std::vector<QmailLineSeen> lines;
    bool assumesSuccess = false;  // a line would run, and only running it shows whether it works
};

// A DeliveryResult: 0, 77, 100, 111, 200 (no instructions) or -1. With look
// it changes nothing and starts nothing: every line that would run counts as
// carried out, the delivery state is only read, and look records each
// decision. messagePath may then be null (no message: nothing is served).
int processQmailFile(const char *fileName, const char *messagePath, const char *sender,
                     const char *recipient, QmailLook *look = nullptr);
