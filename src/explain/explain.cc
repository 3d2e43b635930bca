// The look-ups behind ferndrop-explain, in the order a delivery meets them:
// the recipient's checks, the handlers, the mailbox directory, its .qmail
// with the delivery state, or the store's delivery agent.
//
// Promises: nothing is written, created, locked for writing or started: the
// mailbox directory is found by the delivery's own directory code (which
// only changes this process's working directory), the .qmail is read, the
// delivery state is read with a reader-only open, and the store's agent is
// only looked at. The message file, when given, is read for its Message-ID.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <map>
#include <set>
#include <utility>

#include "dotqmail/qmail_file.h"
#include "driver/mailbox_dir.h"
#include "driver/main_exits.h"
#include "explain/explain.h"
#include "handlers/addresses.h"
#include "paths.h"
#include "state/delivery_record.h"
#include "state/message_id.h"
#include "store/mailbox_paths.h"
#include "store/server_type.h"
#include "util/text.h"

namespace {

// An ending as the driver would exit: the status and the code of the status
// line from its exit table; "2.0.0" for an exit 0 without a line.
Ending endAs(const char *stage, const char *outcome, ExitLine exit, std::string why) {
    std::string code = exit.text[0] != '\0' ? std::string(exit.text, strcspn(exit.text, " ")) : "2.0.0";
    return Ending{stage, outcome, exit.status, code, std::move(why)};
}

std::string currentDirName() {
    char buffer[PATH_MAX];
    if (getcwd(buffer, sizeof buffer) == nullptr)
        return "";
    const char *slash = strrchr(buffer, '/');
    return slash != nullptr ? slash + 1 : buffer;
}

// One step down the mailnames tree with the delivery's own chdirCaseless;
// a look at the exact name first tells an exact match from a caseless one.
MailboxStep stepInto(const char *step, const char *name) {
    MailboxStep s{step, name, "", "failed", ""};
    struct stat st;
    bool exact = strchr(name, '/') == nullptr && stat(name, &st) == 0 && S_ISDIR(st.st_mode);
    if (chdirCaseless(name) == 0) {
        s.how = exact ? "exact" : "caseless";
        s.entered = exact ? name : currentDirName();
    } else if (strchr(name, '/') != nullptr) {
        s.error = "the name holds \"/\"";
    } else if (strcmp(name, ".") == 0 || strcmp(name, "..") == 0) {
        s.error = "\".\" and \"..\" are never entered";
    } else {
        s.error = strerror(errno);
    }
    return s;
}

MailboxLook lookAtMailbox(const std::string &mailnames, const std::string &domain, const std::string &mailname) {
    MailboxLook look;
    MailboxStep first{"mailnames", mailnames, mailnames, "exact", ""};
    if (chdir(mailnames.c_str()) != 0) {
        first = {"mailnames", mailnames, "", "failed", strerror(errno)};
        look.steps.push_back(first);
        return look;
    }
    look.steps.push_back(first);
    look.steps.push_back(stepInto("domain", domain.c_str()));
    if (look.steps.back().how == "failed")
        return look;
    look.steps.push_back(stepInto("mailname", mailname.c_str()));
    if (look.steps.back().how == "failed")
        return look;
    look.found = true;
    look.path = mailnames + "/" + look.steps[1].entered + "/" + look.steps[2].entered;
    return look;
}

// The delivery state as the .qmail processing would find it for this message.
void lookAtState(const Explanation &e, QmailLook &q, std::set<std::string> &served) {
    q.stateDatabase = FERNDROP_STATE_DB;
    if (!e.messageFile || !e.messageProblem.empty()) {
        q.stateStatus = "needs-message";
        return;
    }
    if (e.key.empty()) {
        q.stateStatus = "off";
        return;
    }
    struct stat st;
    if (stat(q.stateDatabase.c_str(), &st) != 0 && errno == ENOENT) {
        q.stateStatus = "no-database";
        return;
    }
    switch (lookAtDeliveryRecord(q.stateDatabase, e.key, served, q.stateProblem)) {
    case RECORD_FOUND:
        q.stateStatus = "record";
        q.served = static_cast<int>(served.size());
        break;
    case RECORD_ABSENT:
        q.stateStatus = "no-record";
        break;
    case RECORD_UNREADABLE:
        q.stateStatus = "unreadable";
        break;
    }
}

// The lines in file order with what the processing would do with each.
// Returns how it is bound to end, when it is.
std::optional<Ending> lookAtLines(FILE *in, QmailLook &q, const std::set<std::string> &served) {
    bool stateOn = q.stateStatus == "record" || q.stateStatus == "no-record" || q.stateStatus == "no-database";
    std::map<std::string, int> markedAt;  // what this run would mark, by line
    std::optional<Ending> ending;
    int instructions = 0, skipped = 0;
    char *buffer = nullptr;
    size_t capacity = 0;
    for (int number = 1;; number++) {
        ssize_t length = getline(&buffer, &capacity, in);
        if (length < 0)
            break;
        std::string raw(buffer, static_cast<size_t>(length));
        if (!raw.empty() && raw.back() == '\n')
            raw.pop_back();
        QmailLine line = parseQmailLine(raw);
        QmailLineLook l{number, qmailLineKindName(line.kind), line.value, "", "", 0};
        std::string key = trimmed(raw);
        if (q.stateStatus == "needs-message" || q.stateStatus == "off" || q.stateStatus == "unreadable")
            l.state = q.stateStatus == "unreadable" ? "unknown" : q.stateStatus;
        else
            l.state = served.count(key) != 0 ? "served" : "not-served";
        instructions += line.kind != EmptyLine;
        if (ending) {
            l.verdict = "not-reached";
        } else if (l.state == "served") {
            l.verdict = "skipped";
            skipped += line.kind != EmptyLine;
        } else if (stateOn && markedAt.count(key) != 0) {
            l.verdict = "skipped";
            l.sameAs = markedAt[key];
            skipped += line.kind != EmptyLine;
        } else if (q.executeBit && line.kind != ForwardLine && line.kind != EmptyLine) {
            l.verdict = "refused";
            ending = endAs("qmail", "deferred", kExitTryLater,
                            "line " + std::to_string(number) + ": .qmail has prog delivery but has x bit set");
        } else {
            l.verdict = line.kind == EmptyLine ? "nothing-to-do" : "runs";
            markedAt.emplace(key, number);
        }
        q.lines.push_back(l);
    }
    free(buffer);
    if (ferror(in)) {
        q.readProblem = "Error while reading file `.qmail'";
        if (!ending)
            ending = endAs("qmail", "deferred", kExitTryLater, q.readProblem);
    }
    if (!ending && instructions == 0)
        ending = endAs("qmail", "delivered", kExitDone, "the .qmail holds no instruction: the message is stored nowhere");
    else if (!ending && instructions == skipped)
        ending = endAs("qmail", "delivered", kExitDone, "every instruction was served before: nothing runs again");
    return ending;
}

QmailLook lookAtQmail(const Explanation &e, std::optional<Ending> &ending) {
    QmailLook q;
    struct stat st;
    stat(".qmail", &st);
    char mode[8];
    snprintf(mode, sizeof mode, "%04o", st.st_mode & 07777);
    q.mode = mode;
    q.executeBit = (st.st_mode & 0111) != 0;
    if (st.st_mode & 022) {
        q.permissions = "refused";
        q.permissionProblem = "File .qmail is writable for group or others";
        ending = endAs("qmail", "deferred", kExitTryLater, "Wrong permissions for .qmail");
        return q;
    }
    q.permissions = "accepted";
    FILE *in = fopen(".qmail", "re");
    if (in == nullptr) {
        q.readProblem = std::string("Cannot open file `.qmail' to read: ") + strerror(errno);
        ending = endAs("qmail", "deferred", kExitTryLater, q.readProblem);
        return q;
    }
    std::set<std::string> served;
    lookAtState(e, q, served);
    ending = lookAtLines(in, q, served);
    fclose(in);
    return q;
}

StoreLook lookAtStore(const std::string &recipient, const std::string &domain, const std::string &mailname,
                      std::optional<Ending> &ending) {
    StoreLook s;
    const char *unusable = nullptr;
    ServerType type = inspect_server_type(&unusable);
    s.server = type == SERVER_DOVECOT ? "dovecot" : type == SERVER_COURIER_IMAP ? "courier" : "none";
    if (type == SERVER_UNKNOWN) {
        s.problem = unusable != nullptr ? std::string("LDA is present at '") + unusable +
                                              "' but is not a regular file or is not executable"
                                        : "no LDA found";
        ending = endAs("store", "bounced", kExitUndeliverable, "Unable to detect IMAP/POP3 server type - " + s.problem);
        return s;
    }
    s.agent = server_agent(type);
    s.argv = {s.agent};
    if (type == SERVER_DOVECOT) {
        s.argv.insert(s.argv.end(), {"-d", recipient});
        return s;
    }
    char maildir[kStorePathBufferSize];
    if (build_maildir_path(maildir, sizeof maildir, mailname.c_str(), domain.c_str()) != 0) {
        s.problem = "the Maildir path is too long";
        ending = endAs("store", "bounced", kExitUndeliverable, s.problem);
        return s;
    }
    s.argv.push_back(maildir);
    return s;
}

}  // namespace

Explanation explain(const std::string &sender, const std::string &recipient, const std::string &mailnames,
                    const std::optional<std::string> &messageFile) {
    Explanation e{sender, recipient, mailnames, messageFile, "", "", "", {}, {}, {}, {}, {}};
    size_t at = recipient.find('@');
    if (at == std::string::npos || recipient.size() + 1 > kAddressBufferSize) {
        e.ending = endAs("recipient", "bounced", kExitBadDestination,
                          at == std::string::npos ? "Invalid e-mail address - no domain part: " + recipient
                                                  : "Invalid e-mail address - too long: " + recipient);
        return e;
    }
    // Read before the mailbox look moves the working directory.
    if (messageFile) {
        int fd = open(messageFile->c_str(), O_RDONLY | O_CLOEXEC);
        if (fd < 0) {
            e.messageProblem = strerror(errno);
        } else {
            close(fd);
            e.messageId = messageIdOf(*messageFile);
            readMessageId(*messageFile, sender, recipient, e.key);
        }
    }
    e.handlers = lookAtHandlers(sender, recipient);

    std::string mailname = recipient.substr(0, at), domain = recipient.substr(at + 1);
    e.mailbox = lookAtMailbox(mailnames, domain, mailname);
    if (!e.mailbox->found) {
        e.ending = endAs("mailbox", "unknown-user", kExitDone, "Unknown user: " + recipient);
        return e;
    }
    struct stat st;
    if (stat(".qmail", &st) == 0)
        e.qmail = lookAtQmail(e, e.ending);
    else if (errno != ENOENT)
        e.ending = endAs("qmail", "deferred", kExitTryLater,
                          std::string("System error .qmail: ") + strerror(errno) + "; Wrong permissions for .qmail");
    else
        e.store = lookAtStore(recipient, domain, mailname, e.ending);
    return e;
}
