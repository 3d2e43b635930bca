// Default delivery into INBOX through the store's own delivery agent, as the
// transfer agent sees it: which agent is chosen, what it is started with, and
// how its exit status becomes ours. (Dovecot's real LDA storing a mixed-case
// recipient's mail is shown by the Postfix end to end.)
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>

#include "sandbox.h"

namespace {

const std::string kSender = "sender@example.org";
const std::string kMessage =
    "From: sender@example.org\nTo: user@example.com\nMessage-ID: <store.1@example.org>\nSubject: store\n\n"
    "first line\n\n  indented line\nlast line\n";
const std::string kCourierAgent = "/usr/bin/deliverquota";
const std::string kDovecotAgent = "/usr/libexec/dovecot/dovecot-lda";
const std::string kSpoolDir = "/usr/local/qrn/handlers/spool";

// Whether text holds line as one whole line.
bool hasLine(const std::string &text, const std::string &line) {
    return ("\n" + text).find("\n" + line + "\n") != std::string::npos;
}

class StoreTest : public ::testing::Test {
  protected:
    void SetUp() override {
        sb.standardLayout();
        sb.mailbox("example.com", "user");
    }
    RunResult deliver(const std::string &recipient, const std::string &message = kMessage) {
        return sb.ferndrop({"-f", kSender, "-d", recipient, "-p", sb.mailnames()}, message);
    }
    Sandbox sb;
};

// --- Courier-IMAP's deliverquota ------------------------------------------

TEST_F(StoreTest, CourierAgentGetsTheStoreMaildirAndOnlyTheThreeStreams) {
    sb.installRecorder(kCourierAgent, "deliverquota");
    sb.write("/etc/qrn/qrn.conf", "# panel settings\nKAVRA_MAILNAMES_D\t/srv/store   # moved\n");
    // The mailbox directory is found regardless of case; the store path keeps
    // the recipient's spelling, since the agent's tree is not searched.
    RunResult r = deliver("User@Example.COM");
    EXPECT_EQ(r.status, 0) << r.logDump() << r.err;
    EXPECT_EQ(r.out, "");

    auto calls = sb.calls("deliverquota");
    ASSERT_EQ(calls.size(), 1u) << r.logDump();
    const std::string &call = calls[0];
    EXPECT_EQ(Sandbox::slurpHost(call + "/argv"), "/srv/store/Example.COM/User/Maildir\n");
    EXPECT_EQ(Sandbox::slurpHost(call + "/stdin"), kMessage);
    EXPECT_TRUE(hasLine(Sandbox::slurpHost(call + "/env"), "DELIVERED_TO=User@Example.COM"));
    EXPECT_EQ(Sandbox::slurpHost(call + "/fds"), "0\n1\n2\n");
    std::string links = Sandbox::slurpHost(call + "/fdlinks");
    EXPECT_EQ(links.rfind("0 " + kSpoolDir + "/message", 0), 0u) << links;
    EXPECT_EQ(links.substr(links.find('\n') + 1), "1 /dev/null\n2 " + sb.root() + "/runs/1/stderr\n");
    EXPECT_TRUE(sb.list(kSpoolDir).empty());
}

TEST_F(StoreTest, AgentExitStatusBecomesOurs) {
    struct Case {
        int agentExit;
        int status;
        std::string out;
    };
    const std::string permanent = "5.7.1 Message can't be delivered\n";
    const std::string temporary = "4.2.1 Message can not be delivered at this time\n";
    for (const Case &c : {Case{0, 0, ""}, Case{77, 77, "5.7.1 Mail quota exceeded\n"}, Case{65, 71, permanent},
                          Case{100, 71, permanent}, Case{75, 75, temporary}, Case{1, 75, temporary},
                          Case{99, 75, temporary}}) {
        SCOPED_TRACE(c.agentExit);
        sb.installRecorder(kCourierAgent, "deliverquota", c.agentExit);
        RunResult r = deliver("user@example.com");
        EXPECT_EQ(r.status, c.status) << r.logDump();
        EXPECT_EQ(r.out, c.out);
        std::string summary =
            "' to 'user@example.com' into 'INBOX' failed with return code " + std::to_string(c.agentExit);
        EXPECT_EQ(r.loggedContaining(summary), c.agentExit != 0) << r.logDump();
        EXPECT_TRUE(sb.list(kSpoolDir).empty());
    }
    EXPECT_EQ(sb.calls("deliverquota").size(), 7u);
}

TEST_F(StoreTest, NoAgentInstalledCannotDeliver) {
    RunResult r = deliver("user@example.com");
    EXPECT_EQ(r.status, 75) << r.logDump();
    EXPECT_EQ(r.out, "4.2.1 Message can not be delivered at this time\n");
    EXPECT_TRUE(r.logged(3, "Unable to detect IMAP/POP3 server type - no LDA found")) << r.logDump();
    EXPECT_TRUE(r.logged(
        3, "Unable to deliver mail message to 'user@example.com' because I failed to find suitable delivery method"));
    EXPECT_TRUE(r.loggedContaining("' to 'user@example.com' into 'INBOX' failed with return code -2"));
    EXPECT_TRUE(sb.list(kSpoolDir).empty());
}

TEST_F(StoreTest, CourierAgentIsPreferredAndAnUnusableOneFailsTheDetection) {
    sb.installRecorder(kDovecotAgent, "dovecot");
    sb.installRecorder(kCourierAgent, "deliverquota");
    RunResult both = deliver("user@example.com");
    EXPECT_EQ(both.status, 0) << both.logDump();
    EXPECT_EQ(sb.calls("deliverquota").size(), 1u);
    EXPECT_EQ(sb.calls("dovecot").size(), 0u);

    const std::string unusable = "Unable to detect IMAP/POP3 server type - LDA is present at '" + kCourierAgent +
                                 "' but is not a regular file or is not executable";
    sb.write(kCourierAgent, "#!/bin/sh\nexit 0\n", 0644);
    RunResult notExecutable = deliver("user@example.com");
    EXPECT_EQ(notExecutable.status, 75);
    EXPECT_TRUE(notExecutable.logged(3, unusable)) << notExecutable.logDump();

    sb.remove(kCourierAgent);
    sb.mkdirs(kCourierAgent);
    RunResult directory = deliver("user@example.com");
    EXPECT_EQ(directory.status, 75);
    EXPECT_TRUE(directory.logged(3, unusable)) << directory.logDump();

    EXPECT_EQ(sb.calls("dovecot").size(), 0u) << "a usable Dovecot agent is not a fallback";
    EXPECT_EQ(sb.calls("deliverquota").size(), 1u);

    sb.remove(kCourierAgent);
    RunResult dovecotOnly = deliver("user@example.com");
    EXPECT_EQ(dovecotOnly.status, 0) << dovecotOnly.logDump();
    auto calls = sb.calls("dovecot");
    ASSERT_EQ(calls.size(), 1u);
    EXPECT_EQ(Sandbox::slurpHost(calls[0] + "/argv"), "-d\nuser@example.com\n");
    EXPECT_EQ(Sandbox::slurpHost(calls[0] + "/fds"), "0\n1\n2\n");
    EXPECT_TRUE(hasLine(Sandbox::slurpHost(calls[0] + "/env"), "DELIVERED_TO=user@example.com"));
    std::string links = Sandbox::slurpHost(calls[0] + "/fdlinks");
    EXPECT_EQ(links.rfind("0 " + kSpoolDir + "/message", 0), 0u) << links;
    EXPECT_EQ(links.substr(links.find('\n') + 1), "1 /dev/null\n2 " + sb.root() + "/runs/4/stderr\n");
}

// The real Courier agent (Debian's maildrop package ships it) storing into a
// real Maildir below KAVRA_MAILNAMES_D.
TEST_F(StoreTest, RealDeliverquotaStoresRefusesOverQuotaAndDefersWithoutMaildir) {
    const std::string real = "/usr/sbin/deliverquota.maildrop";
    if (access(real.c_str(), X_OK) != 0)
        GTEST_SKIP() << real << " is not installed";
    sb.write(kCourierAgent, Sandbox::slurpHost(real), 0755);
    const std::string store = sb.root() + "/store";
    sb.write("/etc/qrn/qrn.conf", "KAVRA_MAILNAMES_D " + store + "\n");
    const std::string maildir = store + "/example.com/user/Maildir";
    for (const char *sub : {"/tmp", "/new", "/cur"})
        sb.mkdirs(maildir + sub);

    RunResult stored = deliver("user@example.com");
    EXPECT_EQ(stored.status, 0) << stored.logDump() << stored.err;
    EXPECT_EQ(stored.out, "");
    auto files = sb.list(maildir + "/new");
    ASSERT_EQ(files.size(), 1u);
    EXPECT_EQ(Sandbox::slurpHost(maildir + "/new/" + files[0]), kMessage);

    // A 10-byte quota: the agent answers 77 and prints its own reason on its
    // standard output, which must not reach ours.
    sb.write(maildir + "/maildirsize", "10S\n0 0\n");
    RunResult overQuota = deliver("user@example.com");
    EXPECT_EQ(overQuota.status, 77) << overQuota.logDump();
    EXPECT_EQ(overQuota.out, "5.7.1 Mail quota exceeded\n");
    EXPECT_EQ(sb.list(maildir + "/new").size(), 1u);

    sb.mailbox("example.com", "other");
    RunResult noMaildir = deliver("other@example.com");
    EXPECT_EQ(noMaildir.status, 75) << noMaildir.logDump();
    EXPECT_EQ(noMaildir.out, "4.2.1 Message can not be delivered at this time\n");
    EXPECT_TRUE(noMaildir.loggedContaining("' to 'other@example.com' into 'INBOX' failed with return code 75"));
}

}  // namespace
