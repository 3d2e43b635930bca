// Shared ground for the reliability tests: one mailbox that exercises the
// whole job (two handlers, one of them rewriting the message; a .qmail with a
// forward, a program, a maildir and an mbox line), and an inventory of where
// copies of the message ended up, so that every test can say "exactly one
// complete copy everywhere, nothing partial, nothing left over".
#pragma once
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdio>
#include <cstdlib>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "../registry_schema.h"
#include "sandbox.h"

namespace reliability {

const std::string kRegistry = "/var/lib/kavra/mail/handlers/handlers.db";
const std::string kStateDb = "/var/lib/kavra/mail/local/local.db";
const std::string kSpoolDir = "/usr/local/qrn/handlers/spool";
const std::string kSender = "sender@example.org";
const std::string kRecipient = "alice@example.com";
// A message of about 9 KB, so that every copy of it takes several 4096-byte
// reads and writes and a failure can strike in the middle of one.
inline std::string bigMessage(const std::string &id) {
    std::string m = "From: " + kSender + "\nTo: " + kRecipient + "\nMessage-ID: <" + id +
                    ">\nSubject: reliability\n\n";
    for (int i = 0; i < 150; i++)
        m += "body line " + std::to_string(i) + " " + std::string(48, static_cast<char>('a' + i % 26)) + "\n";
    return m;
}

// Where copies of one message went, as counts of complete copies plus
// anything that is not a complete copy.
struct Inventory {
    int maildir = 0;          // complete files in Maildir/new
    int maildirTmp = 0;       // files left in Maildir/tmp (never seen by readers)
    int mbox = 0;             // complete copies in the mbox
    int program = 0;          // complete copies the program line stored
    int sendmail = 0;         // complete copies sendmail received
    int spool = 0;            // spool files left
    int spoolTmp = 0;         // handler output files (".tmp") left
    int unchanged = 0;        // copies without the rewriting handler's header
    std::vector<std::string> problems;  // partial or foreign content, by place

    std::string describe() const {
        std::ostringstream s;
        s << "maildir=" << maildir << " maildirTmp=" << maildirTmp << " mbox=" << mbox << " program=" << program
          << " sendmail=" << sendmail << " spool=" << spool << " spoolTmp=" << spoolTmp
          << " unchanged=" << unchanged;
        for (const auto &p : problems)
            s << "\n  problem: " << p;
        return s.str();
    }
};

// The mailbox's .qmail lines, in order: forward, program, maildir, mbox.
inline const char *const kLines[] = {"&bob@example.net", "|f=$(mktemp program.XXXXXX) && cat > \"$f\"", "./Maildir/",
                                     "./mbox"};

class WholeJob {
  public:
    static constexpr const char *kStampHeader = "X-Stamped: yes\n";

    explicit WholeJob(Sandbox &sb, const std::string &messageId = "fault.1@example.org")
        : sb_(sb), messageId_(messageId), message_(bigMessage(messageId)) {
        sb_.standardLayout();
        sb_.installSendmailRecorder();
        box_ = sb_.mailbox("example.com", "alice");
        // Two handlers: the first stamps a header on the message (so every
        // store must see the handler's version), the second only reads it.
        sb_.mkdirs(sb_.root() + "/handlers");
        sb_.write(sb_.root() + "/handlers/stamp", "#!/bin/sh\nprintf '" + std::string("X-Stamped: yes\\n") +
                                                      "'\nexec cat\n",
                  0755);
        sb_.write(sb_.root() + "/handlers/reader", "#!/bin/sh\ncat > /dev/null\nprintf 'SKIP\\n' >&2\n", 0755);
        std::string sql = kRegistrySchema +
                          insertSql({2, 3, 1, 20, "stamp", "example.com", sb_.root() + "/handlers/stamp"}) +
                          insertSql({2, 4, 1, 10, "reader", "all", sb_.root() + "/handlers/reader"});
        sb_.write(sb_.root() + "/registry.sql", sql);
        std::string cmd = "sqlite3 '" + sb_.host(kRegistry) + "' < '" + sb_.root() + "/registry.sql'";
        if (system(cmd.c_str()) != 0)
            ADD_FAILURE() << "cannot create the handler registry";
        sb_.write(box_ + "/.qmail", std::string(kLines[0]) + "\n" + kLines[1] + "\n" + kLines[2] + "\n" + kLines[3] + "\n");
        reset();
    }

    const std::string &message() const { return message_; }
    std::string stamped() const { return kStampHeader + message_; }
    const std::string &box() const { return box_; }
    std::vector<std::string> args() const { return {"-f", kSender, "-d", kRecipient, "-p", sb_.mailnames()}; }

    // Back to the state before the first delivery attempt: empty stores, no
    // recorded calls, no delivery-state record, empty spool.
    void reset() {
        std::string cmd = "rm -rf '" + box_ + "/Maildir' '" + box_ + "'/program.* '" + box_ + "/mbox' '" +
                          sb_.root() + "/calls-sendmail'/* '" + sb_.host(kSpoolDir) + "'/* '" + sb_.host(kStateDb) + "' '" +
                          sb_.host(kStateDb) + "'.* && mkdir -p '" + box_ + "/Maildir/tmp' '" + box_ + "/Maildir/new' '" + box_ +
                          "/Maildir/cur'";
        if (system(cmd.c_str()) != 0)
            ADD_FAILURE() << "reset failed";
    }

    RunResult deliver() { return sb_.ferndrop(args(), message_); }

    // ferndrop started by the given command (strace and its options), with
    // whatever it leaves running (handlers, the program, sendmail, all
    // outliving a killed ferndrop) waited for before the stores are looked at.
    RunResult traced(const std::vector<std::string> &command, int timeoutSeconds = 120) {
        RunSpec spec;
        spec.argv = command;
        spec.argv.push_back(ferndropBinary());
        for (const auto &a : args())
            spec.argv.push_back(a);
        spec.input = message_;
        spec.timeoutSeconds = timeoutSeconds;
        spec.waitForOrphans = true;
        return sb_.run(spec);
    }

    // Keys of the delivery-state records (read on the host side).
    std::vector<std::string> stateKeys() const {
        std::vector<std::string> keys;
        if (!sb_.exists(kStateDb))
            return keys;
        std::istringstream in(hostOutput("tchmgr list '" + sb_.host(kStateDb) + "' 2>&1"));
        for (std::string line; std::getline(in, line);)
            keys.push_back(line);
        return keys;
    }
    // The lines the delivery-state record of the message holds.
    std::vector<std::string> recordedLines() const {
        std::vector<std::string> lines;
        int status = 0;
        std::istringstream in(hostOutput("tchmgr get '" + sb_.host(kStateDb) + "' '<" + messageId_ + "> " + kSender +
                                             " " + kRecipient + "' 2>/dev/null",
                                         &status));
        for (std::string line; status == 0 && std::getline(in, line);)
            lines.push_back(line);
        return lines;
    }

    // Counts complete copies everywhere; anything else is a problem.
    Inventory inventory() const {
        Inventory inv;
        auto judge = [&](const std::string &where, const std::string &content) {
            if (content == stamped())
                return true;
            if (content == message_) {
                inv.unchanged++;
                return true;
            }
            inv.problems.push_back(where + ": " + std::to_string(content.size()) + " bytes, not a complete copy");
            return false;
        };
        for (const auto &name : sb_.list(box_ + "/Maildir/new"))
            inv.maildir += judge("Maildir/new/" + name, sb_.read(box_ + "/Maildir/new/" + name));
        inv.maildirTmp = static_cast<int>(sb_.list(box_ + "/Maildir/tmp").size());
        if (!sb_.list(box_ + "/Maildir/cur").empty())
            inv.problems.push_back("Maildir/cur is not empty");
        if (sb_.exists(box_ + "/mbox")) {
            std::string mbox = sb_.read(box_ + "/mbox");
            size_t pos = 0;
            while (pos < mbox.size()) {
                std::string one;
                for (const std::string &c : {stamped(), message_})
                    if (mbox.compare(pos, c.size() + 1, c + "\n") == 0) {
                        one = c;
                        break;
                    }
                if (one.empty()) {
                    inv.problems.push_back("mbox: bytes " + std::to_string(pos) + " to " +
                                           std::to_string(mbox.size()) + " are not a complete copy");
                    break;
                }
                inv.mbox++;
                if (one == message_)
                    inv.unchanged++;
                pos += one.size() + 1;
            }
        }
        for (const auto &name : sb_.list(box_))
            if (name.rfind("program.", 0) == 0)
                inv.program += judge(name, sb_.read(box_ + "/" + name));
        for (const auto &call : sb_.calls("sendmail"))
            inv.sendmail += judge("sendmail call", Sandbox::slurpHost(call + "/stdin"));
        for (const auto &name : sb_.list(kSpoolDir)) {
            if (name.size() > 4 && name.compare(name.size() - 4, 4, ".tmp") == 0)
                inv.spoolTmp++;
            else
                inv.spool++;
        }
        return inv;
    }

  private:
    Sandbox &sb_;
    std::string messageId_;
    std::string message_;
    std::string box_;
};

// Exit statuses and the status line each one must carry.
inline bool validStatusLine(int status, const std::string &out) {
    static const std::map<int, std::vector<std::string>> kTexts = {
        {0, {""}},
        {64, {"4.3.5 Local delivery is disabled due to server misconfigurations\n"}},
        {65, {"5.1.3 Invalid destination status\n", "5.1.0 Invalid envelope address(es)\n"}},
        {69, {"5.7.1 Message can't be delivered\n"}},
        {71, {"5.7.1 Message can't be delivered\n"}},
        {77, {"5.7.1 Mail quota exceeded\n"}},
        {75,
         {"4.2.1 Message can not be delivered at this time\n", "4.6.0 Unable to read message content\n",
          "4.1.0 Mail subsystem unspecified errors\n",
          "4.3.2 Local delivery is temporarily disabled due to system resources limitations\n",
          "4.4.7 Delivery time expired\n", "4.3.1 Mail system disk resources exhausted\n",
          "4.3.5 Message read error\n", "4.3.5 Configuration file read error\n", "4.4.2 Connection error\n",
          "4.4.5 Mail system is congested\n", "4.3.0 Internal mail system problems\n"}},
    };
    auto it = kTexts.find(status);
    if (it == kTexts.end())
        return false;
    for (const auto &t : it->second)
        if (t == out)
            return true;
    return false;
}

inline bool releaseBuild() {
#ifdef FERNDROP_SANITIZED
    return false;
#else
    return true;
#endif
}

// Ground of the tests that trace the release binary's system calls: the
// sanitizer runtime makes calls of its own and its leak check cannot run
// under ptrace.
template <typename Base> class TracedJobTest : public Base {
  protected:
    void SetUp() override {
        if (!releaseBuild())
            GTEST_SKIP() << "system call counts are only meaningful for the release build";
        job = std::make_unique<WholeJob>(sb);
    }
    Sandbox sb;
    std::unique_ptr<WholeJob> job;
};

inline bool longMode() {
    const char *v = getenv("FERNDROP_LONG");
    return v != nullptr && v[0] != '\0' && std::string(v) != "0";
}

}  // namespace reliability
