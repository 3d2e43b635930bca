// ferndrop-explain: what a delivery to one recipient would meet, looked up
// without changing anything. The look-ups fill an Explanation; the printers
// turn it into text for people or JSON for scripts.
#pragma once
#include <optional>
#include <string>
#include <vector>

// How a delivery is bound to end once the handlers let the message through,
// when that no longer depends on what a program or a store answers.
struct Ending {
    std::string stage;  // recipient, mailbox, qmail, store
    std::string outcome;
    int status;
    std::string code;
    std::string why;
};

struct HandlerRun {
    std::string kind, name, address, program, programState, context;
};

// A registry row a reader might take for one of this delivery's handlers.
struct IdleRow {
    std::string kind, name, address, program, context;
    long long queue;
    std::string enabled;
    std::vector<std::string> reasons;
};

struct HandlerLook {
    std::string registry;
    std::string state;  // ok, missing, unreadable, no-table
    std::string problem;
    std::vector<HandlerRun> runs;
    std::vector<IdleRow> idle;
};

struct MailboxStep {
    std::string step;     // mailnames, domain, mailname
    std::string given;    // the name as the address (or -p) has it
    std::string entered;  // the directory entered; empty when failed
    std::string how;      // exact, caseless, failed
    std::string error;
};

struct MailboxLook {
    bool found = false;
    std::string path;
    std::vector<MailboxStep> steps;
};

struct QmailLineLook {
    int number;
    std::string kind, value, state, verdict;
    int sameAs;  // skipped as a repeat of this earlier line; 0 when not
};

struct QmailLook {
    std::string mode;
    std::string permissions;  // accepted, refused
    std::string permissionProblem;
    bool executeBit = false;
    std::string stateDatabase;
    std::string stateStatus;  // needs-message, off, no-database, no-record, record, unreadable
    std::string stateProblem;
    int served = 0;  // lines the record holds
    std::vector<QmailLineLook> lines;
    std::string readProblem;
};

struct StoreLook {
    std::string server;  // dovecot, courier, none
    std::string agent;
    std::vector<std::string> argv;
    std::string problem;
};

struct Explanation {
    std::string sender, recipient, mailnames;
    std::optional<std::string> messageFile;
    std::string messageProblem, messageId, key;
    std::optional<HandlerLook> handlers;
    std::optional<MailboxLook> mailbox;
    std::optional<QmailLook> qmail;
    std::optional<StoreLook> store;
    std::optional<Ending> ending;
};

Explanation explain(const std::string &sender, const std::string &recipient, const std::string &mailnames,
                    const std::optional<std::string> &messageFile);
HandlerLook lookAtHandlers(const std::string &sender, const std::string &recipient);

void printText(const Explanation &e);
void printJson(const Explanation &e);
