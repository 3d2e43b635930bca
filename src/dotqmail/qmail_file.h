// A mailbox's .qmail instructions, carried out line by line with the
// delivery state remembering what a retry must not repeat.
#pragma once
#include <string>

enum QmailLineKind { ForwardLine = 0, ProgramLine = 1, MaildirLine = 2, MboxLine = 3, EmptyLine = 4 };

struct QmailLine {
    QmailLineKind kind;
    std::string value;
};

QmailLine parseQmailLine(const std::string &raw);
// "forward", "program", "maildir", "mbox" or "empty".
const char *qmailLineKindName(QmailLineKind kind);

// A DeliveryResult: 0, 77, 100, 111, 200 (no instructions) or -1.
int processQmailFile(const char *fileName, const char *messagePath, const char *sender,
                     const char *recipient);
