// The two forms of an explanation: aligned text for the support desk and one
// JSON object for scripts. Both print the same facts in the same order, and
// nothing in them depends on the time or the process.
#include <cstdio>
#include <string>
#include <vector>

#include "explain/explain.h"

namespace {

// ---- both ----------------------------------------------------------------

bool validUtf8(const std::string &s) {
    for (size_t i = 0; i < s.size();) {
        unsigned char c = s[i];
        size_t n = c < 0x80 ? 0 : (c >> 5) == 6 ? 1 : (c >> 4) == 14 ? 2 : (c >> 3) == 30 ? 3 : 9;
        if (n == 9 || i + n >= s.size())
            return false;
        for (size_t k = 1; k <= n; k++)
            if ((static_cast<unsigned char>(s[i + k]) >> 6) != 2)
                return false;
        i += n + 1;
    }
    return true;
}

// s in double quotes with '"', '\\' and a tab escaped, and every other control
// byte in hex: "\x0a" in the text form; in JSON "\u000a" (a line feed as
// "\n"), and bytes that are not UTF-8 taken as Latin-1 so the output parses.
std::string quoted(const std::string &s, bool json) {
    bool utf8 = !json || validUtf8(s);
    std::string out = "\"";
    for (unsigned char c : s) {
        char buffer[8];
        if (c == '"' || c == '\\') {
            out += '\\';
            out += static_cast<char>(c);
        } else if (json && c == '\n') {
            out += "\\n";
        } else if (c == '\t') {
            out += "\\t";
        } else if (c < 0x20 || c == 0x7f || (c >= 0x80 && !utf8)) {
            snprintf(buffer, sizeof buffer, json ? "\\u%04x" : "\\x%02x", c);
            out += buffer;
        } else {
            out += static_cast<char>(c);
        }
    }
    return out + "\"";
}

// ---- text ----------------------------------------------------------------

// Blanks at either end, control bytes and emptiness would be invisible in a
// column, so such values are shown quoted with C escapes.
std::string shown(const std::string &s) {
    bool plain = !s.empty() && s.front() != ' ' && s.back() != ' ' && s.front() != '"';
    for (unsigned char c : s)
        plain = plain && c >= 0x20 && c != 0x7f;
    return plain ? s : quoted(s, false);
}

void table(const std::vector<std::vector<std::string>> &rows) {
    std::vector<size_t> width;
    for (const auto &row : rows)
        for (size_t i = 0; i < row.size(); i++) {
            width.resize(std::max(width.size(), row.size()));
            width[i] = std::max(width[i], row[i].size());
        }
    for (const auto &row : rows) {
        std::string line = " ";
        for (size_t i = 0; i < row.size(); i++)
            line += " " + (i + 1 < row.size() ? row[i] + std::string(width[i] - row[i].size() + 1, ' ') : row[i]);
        line.erase(line.find_last_not_of(' ') + 1);
        printf("%s\n", line.c_str());
    }
}

void handlersText(const HandlerLook &h) {
    printf("\nhandlers: registry %s", h.registry.c_str());
    if (h.state == "missing") {
        printf(" is missing: no handler runs; a delivery that may create files there leaves an empty registry,\n"
               "  one that may not defers (75 4.1.0)\n");
        return;
    }
    if (h.state == "no-table") {
        printf(" has no handlers table: no handler runs\n");
        return;
    }
    if (h.state == "unreadable") {
        printf(" cannot be read (%s): a delivery that cannot read it either defers (75 4.1.0)\n",
               h.problem.c_str());
        return;
    }
    printf("; %zu would run%s\n", h.runs.size(), h.runs.empty() ? "" : ", in this order");
    if (!h.runs.empty()) {
        // Paths go last, so that no column's width depends on where the tree lives.
        std::vector<std::vector<std::string>> rows = {{"#", "kind", "name", "context", "address", "program"}};
        for (size_t i = 0; i < h.runs.size(); i++) {
            const HandlerRun &r = h.runs[i];
            std::string program = shown(r.program) + (r.programState == "executable" ? "" : " (" + r.programState + ")");
            rows.push_back({std::to_string(i + 1), r.kind, shown(r.name), shown(r.context), shown(r.address), program});
        }
        table(rows);
    }
    if (!h.idle.empty())
        printf("  rows that do not apply:\n");
    for (const IdleRow &r : h.idle) {
        std::string why;
        for (const auto &reason : r.reasons)
            why += (why.empty() ? "" : "; ") + reason;
        printf("  - %s %s (address %s, program %s): %s\n", r.kind.c_str(), shown(r.name).c_str(),
               shown(r.address).c_str(), shown(r.program).c_str(), why.c_str());
    }
    if (!h.problem.empty())
        printf("  (the rows that do not apply could not be listed: %s)\n", h.problem.c_str());
}

void mailboxText(const MailboxLook &m) {
    if (m.found)
        printf("\nmailbox: %s\n", m.path.c_str());
    else
        printf("\nmailbox: not found\n");
    for (const MailboxStep &s : m.steps) {
        std::string how = s.how == "failed" ? "cannot be entered: " + s.error
                          : s.how == "caseless" ? "no exact name; caseless match " + shown(s.entered)
                          : s.step == "mailnames" ? "entered"
                                                  : "exact name";
        printf("  %s %s: %s\n", s.step == "mailnames" ? "mailnames dir" : s.step.c_str(), shown(s.given).c_str(),
               how.c_str());
    }
}

const char *stateLine(const QmailLook &q) {
    static std::string line;
    const std::string &db = q.stateDatabase;
    if (q.stateStatus == "needs-message")
        line = "needs a message file (its Message-ID keys the record)";
    else if (q.stateStatus == "off")
        line = "off: the message has no Message-ID, so every line runs (a repeated line twice)";
    else if (q.stateStatus == "no-database")
        line = "no database at " + db + " yet: nothing served";
    else if (q.stateStatus == "no-record")
        line = "no record for this message in " + db;
    else if (q.stateStatus == "record")
        line = "the record for this message in " + db + " holds " + std::to_string(q.served) + " served line" +
               (q.served == 1 ? "" : "s");
    else
        line = db + " cannot be read: " + q.stateProblem;
    return line.c_str();
}

void qmailText(const QmailLook &q) {
    printf("\n.qmail: mode %s, permissions %s%s\n", q.mode.c_str(), q.permissions.c_str(),
           q.permissions == "refused" ? ""
           : q.executeBit             ? ", execute bit set: program, maildir and mbox lines are refused"
                                      : ", no execute bit");
    if (q.permissions == "refused") {
        printf("  %s\n", q.permissionProblem.c_str());
        return;
    }
    if (!q.stateStatus.empty())
        printf("  delivery state: %s\n", stateLine(q));
    if (!q.lines.empty()) {
        std::vector<std::vector<std::string>> rows = {{"line", "kind", "state", "verdict", "value"}};
        for (const QmailLineLook &l : q.lines) {
            std::string state = l.state == "not-served" ? "not served" : l.state == "needs-message" ? "needs message"
                                                                                                   : l.state;
            std::string verdict = l.verdict == "skipped" && l.sameAs != 0
                                      ? "skipped: same as line " + std::to_string(l.sameAs)
                                  : l.verdict == "skipped"       ? "skipped: already served"
                                  : l.verdict == "refused"       ? "refused: execute bit"
                                  : l.verdict == "not-reached"   ? "not reached"
                                  : l.verdict == "nothing-to-do" ? "nothing to do"
                                                                 : l.verdict;
            rows.push_back({std::to_string(l.number), l.kind, state, verdict, l.kind == "empty" ? "" : shown(l.value)});
        }
        table(rows);
    }
    if (!q.readProblem.empty())
        printf("  %s\n", q.readProblem.c_str());
}

std::string commandLine(const std::vector<std::string> &argv) {
    std::string line;
    for (const auto &a : argv)
        line += (line.empty() ? "" : " ") + shown(a);
    return line;
}

// ---- JSON ----------------------------------------------------------------


// A JSON string.
std::string q(const std::string &s) { return quoted(s, true); }

std::string orNull(const std::string &s) { return s.empty() ? "null" : q(s); }

std::string list(const std::vector<std::string> &items) {
    std::string out = "[";
    for (size_t i = 0; i < items.size(); i++)
        out += (i ? ", " : "") + items[i];
    return out + "]";
}

std::string strings(const std::vector<std::string> &items) {
    std::vector<std::string> quoted;
    for (const auto &s : items)
        quoted.push_back(q(s));
    return list(quoted);
}

std::string handlersJson(const HandlerLook &h) {
    std::vector<std::string> runs, idle;
    for (size_t i = 0; i < h.runs.size(); i++) {
        const HandlerRun &r = h.runs[i];
        runs.push_back("{\"order\": " + std::to_string(i + 1) + ", \"kind\": " + q(r.kind) + ", \"name\": " +
                       q(r.name) + ", \"address\": " + q(r.address) + ", \"program\": " + q(r.program) +
                       ", \"program_state\": " + q(r.programState) + ", \"context\": " + q(r.context) + "}");
    }
    for (const IdleRow &r : h.idle)
        idle.push_back("{\"kind\": " + q(r.kind) + ", \"name\": " + q(r.name) + ", \"address\": " + q(r.address) +
                       ", \"program\": " + q(r.program) + ", \"context\": " + q(r.context) + ", \"queue\": " +
                       std::to_string(r.queue) + ", \"enabled\": " + q(r.enabled) + ", \"reasons\": " +
                       strings(r.reasons) + "}");
    return "{\"registry\": " + q(h.registry) + ", \"state\": " + q(h.state) + ", \"problem\": " + orNull(h.problem) +
           ", \"run\": " + list(runs) + ", \"not_applying\": " + list(idle) + "}";
}

std::string mailboxJson(const MailboxLook &m) {
    std::vector<std::string> steps;
    for (const MailboxStep &s : m.steps)
        steps.push_back("{\"step\": " + q(s.step) + ", \"given\": " + q(s.given) + ", \"entered\": " +
                        orNull(s.entered) + ", \"how\": " + q(s.how) + ", \"error\": " + orNull(s.error) + "}");
    return "{\"found\": " + std::string(m.found ? "true" : "false") + ", \"path\": " + orNull(m.path) +
           ", \"steps\": " + list(steps) + "}";
}

std::string qmailJson(const QmailLook &ql, const std::string &key) {
    std::vector<std::string> lines;
    for (const QmailLineLook &l : ql.lines)
        lines.push_back("{\"number\": " + std::to_string(l.number) + ", \"kind\": " + q(l.kind) + ", \"value\": " +
                        q(l.value) + ", \"state\": " + q(l.state) + ", \"verdict\": " + q(l.verdict) +
                        ", \"same_as\": " + (l.sameAs != 0 ? std::to_string(l.sameAs) : "null") + "}");
    std::string state = ql.stateStatus.empty()
                            ? "null"
                            : "{\"database\": " + q(ql.stateDatabase) + ", \"status\": " + q(ql.stateStatus) +
                                  ", \"problem\": " + orNull(ql.stateProblem) + ", \"key\": " + orNull(key) +
                                  ", \"served_lines\": " + std::to_string(ql.served) + "}";
    return "{\"mode\": " + q(ql.mode) + ", \"permissions\": " + q(ql.permissions) + ", \"permission_problem\": " +
           orNull(ql.permissionProblem) + ", \"execute_bit\": " + (ql.executeBit ? "true" : "false") +
           ", \"state\": " + state + ", \"lines\": " + list(lines) + ", \"read_problem\": " +
           orNull(ql.readProblem) + "}";
}

std::string storeJson(const StoreLook &s) {
    return "{\"server\": " + q(s.server) + ", \"agent\": " + orNull(s.agent) + ", \"argv\": " + strings(s.argv) +
           ", \"problem\": " + orNull(s.problem) + "}";
}

}  // namespace

void printText(const Explanation &e) {
    printf("delivery from %s to %s, mailnames %s\n", shown(e.sender).c_str(), shown(e.recipient).c_str(),
           shown(e.mailnames).c_str());
    if (!e.messageFile)
        printf("message: none given; the delivery-state column needs one (its Message-ID keys the record)\n");
    else if (!e.messageProblem.empty())
        printf("message: %s cannot be read: %s\n", e.messageFile->c_str(), e.messageProblem.c_str());
    else if (e.messageId.empty())
        printf("message: %s has no Message-ID: delivery state is off for it\n", e.messageFile->c_str());
    else
        printf("message: %s, Message-ID %s\n  delivery-state key: %s\n", e.messageFile->c_str(),
               shown(e.messageId).c_str(), e.key.c_str());
    if (e.handlers)
        handlersText(*e.handlers);
    if (e.mailbox)
        mailboxText(*e.mailbox);
    if (e.qmail)
        qmailText(*e.qmail);
    if (e.store) {
        if (e.store->problem.empty())
            printf("\nstore: no .qmail, so %s delivers into INBOX:\n  %s\n", e.store->server.c_str(),
                   commandLine(e.store->argv).c_str());
        else
            printf("\nstore: no .qmail, and no delivery agent can run: %s\n", e.store->problem.c_str());
    } else if (e.qmail) {
        printf("\nstore: not used (the mailbox has a .qmail)\n");
    }
    if (e.ending) {
        const Ending &x = *e.ending;
        printf("\nends: %s, exit %d, %s: %s%s\n", x.outcome.c_str(), x.status, x.code.c_str(), x.why.c_str(),
               x.stage == "recipient" ? "" : "\n  (unless a handler discards, defers or rejects the message first)");
    }
}

void printJson(const Explanation &e) {
    std::string message = !e.messageFile ? "null"
                                         : "{\"file\": " + q(*e.messageFile) + ", \"problem\": " +
                                               orNull(e.messageProblem) + ", \"message_id\": " +
                                               orNull(e.messageId) + ", \"key\": " + orNull(e.key) + "}";
    std::string ending =
        !e.ending ? "null"
                  : "{\"stage\": " + q(e.ending->stage) + ", \"outcome\": " + q(e.ending->outcome) +
                        ", \"status\": " + std::to_string(e.ending->status) + ", \"code\": " + q(e.ending->code) +
                        ", \"why\": " + q(e.ending->why) + "}";
    printf("{\"sender\": %s, \"recipient\": %s, \"mailnames_dir\": %s,\n \"message\": %s,\n \"handlers\": %s,\n"
           " \"mailbox\": %s,\n \"qmail\": %s,\n \"store\": %s,\n \"ends\": %s}\n",
           q(e.sender).c_str(), q(e.recipient).c_str(), q(e.mailnames).c_str(), message.c_str(),
           e.handlers ? handlersJson(*e.handlers).c_str() : "null", e.mailbox ? mailboxJson(*e.mailbox).c_str() : "null",
           e.qmail ? qmailJson(*e.qmail, e.key).c_str() : "null", e.store ? storeJson(*e.store).c_str() : "null",
           ending.c_str());
}
