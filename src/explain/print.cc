// Contract in explain/print.h. Both forms print the same facts in the same
// order, and nothing in them depends on the time or the process.
#include <sys/stat.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "driver/run_record.h"
#include "explain/print.h"
#include "handlers/registry.h"
#include "paths.h"
#include "state/delivery_state.h"
#include "state/message_id.h"
#include "util/settings.h"

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

const char *kindOf(const HandlerRecord *r) { return mh_kind_name(r->type); }

std::string str(const char *s) { return s != nullptr ? s : ""; }

// A fact about the program file, shown beside the handler; not a decision.
std::string programState(const char *path) {
    struct stat st;
    if (path == nullptr || stat(path, &st) != 0)
        return "missing";
    return S_ISREG(st.st_mode) && (st.st_mode & 0111) != 0 ? "executable" : "not executable";
}

const char *stateWord(const Explained &e) {
    static const char *const kWords[] = {"off", "no-database", "no-record", "record", "unreadable"};
    if (e.messageFile.empty())
        return "needs-message";
    return kWords[e.look.qmail.state];
}

// Where the look stopped and why, in the order the run takes the steps.
std::string why(const Explained &e) {
    const RunLook &l = e.look;
    std::string stage = l.stage;
    if (stage == "recipient")
        return "the recipient address is refused";
    if (stage == "spool")
        return "the spool directory " FERNDROP_SPOOL_DIR " cannot take the message";
    if (stage == "handlers")
        return l.outcome != nullptr ? "a handler discards the message" : "the handler registry cannot be read";
    if (stage == "mailbox")
        return l.outcome != nullptr ? "no such mailbox" : "the mailnames tree cannot be searched now";
    if (stage == "qmail") {
        if (!l.qmail.refusal.empty())
            return l.qmail.refusal;
        for (const QmailLineSeen &line : l.qmail.lines)
            if (std::string(line.verdict) == "refused")
                return "line " + std::to_string(line.number) + " is refused: the .qmail has its execute bit set";
        return e.ending.status == 0 ? "the .qmail's lines are carried out" : "the .qmail cannot be read";
    }
    return e.ending.status == 0 ? "the store's agent delivers into INBOX" : "no store agent can deliver into INBOX";
}

const char *outcome(const Explained &e) {
    return e.look.outcome != nullptr ? e.look.outcome : runOutcomeFor(e.ending.status);
}

std::string commandLine(const std::vector<std::string> &argv) {
    std::string line;
    for (const auto &a : argv)
        line += (line.empty() ? "" : " ") + shown(a);
    return line;
}

void textSteps(const Explained &e) {
    const RunLook &l = e.look;
    printf("\nspool: %s %s\n", FERNDROP_SPOOL_DIR, l.spoolUsable ? "usable" : "cannot take a message");
    if (!l.spoolUsable)
        return;
    printf("\nhandlers: registry %s %s", mh_get_db_path(), l.registryUsable ? "usable" : "cannot be read");
    if (l.registryUsable)
        printf("; %zu would run%s\n", l.handlers.records.size(), l.handlers.records.empty() ? "" : ", in this order");
    else
        printf("\n");
    if (!l.handlers.records.empty()) {
        // Paths go last, so that no column's width depends on where the tree lives.
        std::vector<std::vector<std::string>> rows = {{"#", "kind", "name", "context", "address", "program"}};
        int n = 0;
        for (const HandlerRecord *r : l.handlers.records) {
            std::string state = programState(r->executable);
            rows.push_back({std::to_string(++n), kindOf(r), shown(str(r->name)), shown(str(r->context)),
                            shown(str(r->address)),
                            shown(str(r->executable)) + (state == "executable" ? "" : " (" + state + ")")});
        }
        table(rows);
    }
    if (!l.registryUsable)
        return;
    static const char *const kSteps[] = {"mailnames dir", "domain", "mailname"};
    for (int i = 0; i < l.mailbox.taken; i++) {
        const MailboxStep &s = l.mailbox.steps[i];
        if (i == 0)
            printf("\nmailbox:\n");
        std::string how = s.error != 0 ? std::string("cannot be entered: ") + strerror(s.error)
                          : s.caseless ? "no exact name; caseless match " + shown(s.entered)
                          : i == 0     ? "entered"
                                       : "exact name";
        printf("  %s %s: %s\n", kSteps[i], shown(s.given).c_str(), how.c_str());
    }
    if (std::string(l.stage) == "qmail" || (std::string(l.stage) == "store" && l.qmail.mode != 0)) {
        const QmailLook &q = l.qmail;
        printf("\n.qmail: %s, mode %04o\n", q.file, q.mode);
        if (!q.refusal.empty())
            printf("  refused: %s\n", q.refusal.c_str());
        if (!q.lines.empty()) {
            printf("  delivery state: %s in %s, key %s, %zu served line%s\n", stateWord(e), FERNDROP_STATE_DB,
                   q.key.empty() ? "none" : shown(q.key).c_str(), q.served, q.served == 1 ? "" : "s");
            std::vector<std::vector<std::string>> rows = {{"line", "kind", "verdict", "value"}};
            for (const QmailLineSeen &line : q.lines) {
                std::string verdict = line.verdict;
                if (line.sameAs != 0)
                    verdict += ": same as line " + std::to_string(line.sameAs);
                else if (verdict == "skipped")
                    verdict += ": already served";
                rows.push_back({std::to_string(line.number), qmailLineKindName(line.kind), verdict,
                                line.kind == EmptyLine ? "" : shown(line.value)});
            }
            table(rows);
        }
    }
    if (std::string(l.stage) == "store")
        printf("\nstore: %s delivers into INBOX:\n  %s\n", l.store.server,
               l.store.argv.empty() ? "(no agent can run)" : commandLine(l.store.argv).c_str());
}

// ---- JSON ----------------------------------------------------------------

std::string q(const std::string &s) { return quoted(s, true); }

std::string orNull(const std::string &s) { return s.empty() ? "null" : q(s); }

std::string list(const std::vector<std::string> &items) {
    std::string out = "[";
    for (size_t i = 0; i < items.size(); i++)
        out += (i ? ", " : "") + items[i];
    return out + "]";
}

std::string boolean(bool b) { return b ? "true" : "false"; }

std::string jsonSteps(const Explained &e) {
    const RunLook &l = e.look;
    std::vector<std::string> handlers, steps, lines, argv;
    for (const HandlerRecord *r : l.handlers.records)
        handlers.push_back("{\"kind\": " + q(kindOf(r)) + ", \"name\": " + q(str(r->name)) + ", \"address\": " +
                           q(str(r->address)) + ", \"program\": " + q(str(r->executable)) + ", \"program_state\": " +
                           q(programState(r->executable)) + ", \"context\": " + q(str(r->context)) + "}");
    for (int i = 0; i < l.mailbox.taken; i++) {
        const MailboxStep &s = l.mailbox.steps[i];
        steps.push_back("{\"given\": " + q(s.given) + ", \"entered\": " + orNull(s.entered) + ", \"caseless\": " +
                        boolean(s.caseless) + ", \"error\": " + (s.error ? q(strerror(s.error)) : "null") + "}");
    }
    for (const QmailLineSeen &line : l.qmail.lines)
        lines.push_back("{\"number\": " + std::to_string(line.number) + ", \"kind\": " +
                        q(qmailLineKindName(line.kind)) + ", \"value\": " + q(line.value) + ", \"verdict\": " +
                        q(line.verdict) + ", \"same_as\": " + (line.sameAs ? std::to_string(line.sameAs) : "null") +
                        "}");
    for (const std::string &a : l.store.argv)
        argv.push_back(q(a));
    return "\"spool\": {\"dir\": " + q(FERNDROP_SPOOL_DIR) + ", \"usable\": " + boolean(l.spoolUsable) +
           "},\n \"handlers\": {\"registry\": " + q(mh_get_db_path()) + ", \"usable\": " + boolean(l.registryUsable) +
           ", \"run\": " + list(handlers) + "},\n \"mailbox\": {\"steps\": " + list(steps) +
           "},\n \"qmail\": {\"file\": " + q(l.qmail.file) + ", \"mode\": " + std::to_string(l.qmail.mode) +
           ", \"refusal\": " + orNull(l.qmail.refusal) + ", \"state\": {\"database\": " + q(FERNDROP_STATE_DB) +
           ", \"status\": " + q(stateWord(e)) + ", \"key\": " + orNull(l.qmail.key) + ", \"served_lines\": " +
           std::to_string(l.qmail.served) + "}, \"lines\": " + list(lines) + "},\n \"store\": {\"server\": " +
           q(l.store.server) + ", \"argv\": " + list(argv) + "}";
}

std::string settingsJson() {
    std::vector<std::string> items;
    for (const SettingInEffect &s : settingsInEffect())
        items.push_back(q(s.name) + ": {\"value\": " + q(s.value) + ", \"source\": " + q(s.source) + "}");
    std::string joined = list(items);
    return "{" + joined.substr(1, joined.size() - 2) + "}";
}

}  // namespace

void printText(const Explained &e) {
    printf("delivery from %s to %s, mailnames %s\n", shown(e.sender).c_str(), shown(e.recipient).c_str(),
           shown(e.mailnames).c_str());
    printf("settings (%s):\n", FERNDROP_SETTINGS_FILE);
    for (const SettingInEffect &s : settingsInEffect())
        printf("  %s %s%s\n", s.name.c_str(), shown(s.value).c_str(),
               std::string(s.source) == "file"      ? ""
               : std::string(s.source) == "default" ? " (default)"
                                                    : " (default: the file's value is invalid)");
    if (e.look.recipient != e.recipient)
        printf("recipient: delivered as %s\n", shown(e.look.recipient).c_str());
    if (!e.look.mailboxAddress.empty())
        printf("mailbox: %s, the recipient's address without its extension\n", shown(e.look.mailboxAddress).c_str());
    if (e.messageFile.empty())
        printf("message: none given; no line counts as served (the message keys the delivery state)\n");
    else
        printf("message: %s, Message-ID %s\n", e.messageFile.c_str(), shown(messageIdOf(e.messageFile)).c_str());
    textSteps(e);
    printf("\nends at %s: %s, exit %d, %s: %s\n", e.look.stage, outcome(e), e.ending.status,
           exitCode(e.ending).c_str(), why(e).c_str());
    if (e.look.assumesSuccess)
        printf("  (if every handler, .qmail line and store agent on the way succeeds)\n");
}

void printJson(const Explained &e) {
    printf("{\"sender\": %s, \"recipient\": %s, \"canonical_recipient\": %s, \"mailbox_address\": %s, "
           "\"mailnames_dir\": %s,\n \"settings\": %s,\n \"message\": %s,\n %s,\n"
           " \"ends\": {\"stage\": %s, \"outcome\": %s, \"status\": %d, \"code\": %s, \"text\": %s, \"why\": %s, "
           "\"assumes_success\": %s}}\n",
           q(e.sender).c_str(), q(e.recipient).c_str(), q(e.look.recipient).c_str(),
           orNull(e.look.mailboxAddress).c_str(), q(e.mailnames).c_str(), settingsJson().c_str(),
           e.messageFile.empty() ? "null"
                                 : ("{\"file\": " + q(e.messageFile) + ", \"message_id\": " +
                                    orNull(messageIdOf(e.messageFile)) + "}").c_str(),
           jsonSteps(e).c_str(), q(e.look.stage).c_str(), q(outcome(e)).c_str(), e.ending.status,
           q(exitCode(e.ending)).c_str(), orNull(e.ending.text).c_str(), q(why(e)).c_str(),
           boolean(e.look.assumesSuccess).c_str());
}
