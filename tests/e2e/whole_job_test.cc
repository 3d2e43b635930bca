// The whole job through the real binary: .qmail instructions carried out line
// by line, forwards and the environment they run in, and the delivery state
// that keeps a retry from repeating them.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "sandbox.h"

namespace {

const std::string kSender = "sender@example.org";
const std::string kRecipient = "alice@example.com";
const std::string kStateDb = "/var/lib/kavra/mail/local/local.db";
const std::string kMessage =
    "From: sender@example.org\nTo: alice@example.com\nMessage-ID: <Retry.1@Example.ORG>\nSubject: hi\n\nbody line\n";
const std::string kKey = "<retry.1@example.org> " + kSender + " " + kRecipient;

class WholeJobTest : public ::testing::Test {
  protected:
    void SetUp() override {
        sb.standardLayout();
        sb.installSendmailRecorder();
        box = sb.mailbox("example.com", "alice");
        for (const char *sub : {"/Maildir/tmp", "/Maildir/new", "/Maildir/cur"})
            sb.mkdirs(box + sub);
    }
    void qmail(const std::string &content, mode_t mode = 0644) { sb.write(box + "/.qmail", content, mode); }
    RunResult deliver(const std::string &message = kMessage) {
        return sb.ferndrop({"-f", kSender, "-d", kRecipient, "-p", sb.mailnames()}, message);
    }
    // The stored record for kKey, or "<none>".
    std::string record() {
        RunResult r = sb.shell("tchmgr get " + kStateDb + " '" + kKey + "'");
        return r.status == 0 ? r.out : "<none>";
    }
    std::vector<std::string> newMail() { return sb.list(box + "/Maildir/new"); }

    Sandbox sb;
    std::string box;
};

TEST_F(WholeJobTest, RetrySkipsTheLinesAlreadyServed) {
    qmail("&bob@example.net\n./Maildir/\n|if [ -e ran-once ]; then exit 0; fi; touch ran-once; exit 75\n");
    RunResult first = deliver();
    EXPECT_EQ(first.status, 75) << first.logDump();
    EXPECT_EQ(first.out, "4.2.1 Message can not be delivered at this time\n");
    // tchmgr prints the value and a newline.
    EXPECT_EQ(record(), "&bob@example.net\n./Maildir/\n");
    EXPECT_EQ(sb.calls("sendmail").size(), 1u);
    EXPECT_EQ(newMail().size(), 1u);

    RunResult second = deliver();
    EXPECT_EQ(second.status, 0) << second.logDump();
    EXPECT_EQ(second.out, "");
    EXPECT_EQ(sb.calls("sendmail").size(), 1u);
    EXPECT_EQ(newMail().size(), 1u);
    EXPECT_EQ(record(), "<none>");
    EXPECT_TRUE(sb.list("/usr/local/qrn/handlers/spool").empty());
}

TEST_F(WholeJobTest, CompleteFirstRunLeavesNoRecord) {
    qmail("&bob@example.net\n./Maildir/\n./mbox\n");
    RunResult r = deliver();
    EXPECT_EQ(r.status, 0) << r.logDump() << r.err;
    EXPECT_EQ(record(), "<none>");
    EXPECT_TRUE(sb.exists(kStateDb));
    EXPECT_EQ(sb.read(box + "/mbox"), kMessage + "\n");
    ASSERT_EQ(newMail().size(), 1u);
    EXPECT_EQ(sb.read(box + "/Maildir/new/" + newMail()[0]), kMessage);
}

TEST_F(WholeJobTest, WithoutMessageIdEveryLineIsServedAndNoDatabaseTouched) {
    qmail("./Maildir/\n./Maildir/\n");
    RunResult r = deliver("Subject: no id\n\nbody\n");
    EXPECT_EQ(r.status, 0);
    EXPECT_TRUE(
        r.logged(4, "deliveryManager: Get empty message id, delivery state will be disabled for this mail"))
        << r.logDump();
    EXPECT_FALSE(sb.exists(kStateDb));
    // Without a key the duplicate line is served twice.
    EXPECT_EQ(newMail().size(), 2u);
}

TEST_F(WholeJobTest, MissingStateDirectoryIsLoggedAndChangesNothing) {
    sb.remove("/var/lib/kavra/mail/local");
    qmail("./Maildir/\n|exit 75\n");
    RunResult r = deliver();
    EXPECT_EQ(r.status, 75);
    EXPECT_TRUE(r.logged(3, "init: cannot open delivery database " + kStateDb + ": file not found")) << r.logDump();
    EXPECT_TRUE(r.logged(3, "save: cannot open delivery database " + kStateDb + ": file not found"));
    EXPECT_FALSE(sb.exists("/var/lib/kavra/mail/local"));
    EXPECT_EQ(newMail().size(), 1u);
    RunResult again = deliver();
    EXPECT_EQ(again.status, 75);
    EXPECT_EQ(newMail().size(), 2u);  // nothing remembered, so served again
}

// A .qmail that opens but cannot be read (a directory) is a local error:
// the run defers, and the record of the lines served before stays.
TEST_F(WholeJobTest, UnreadableQmailDefersAndKeepsTheRecord) {
    qmail("./mbox\n|exit 111\n");
    EXPECT_EQ(deliver().status, 75);
    EXPECT_EQ(record(), "./mbox\n");
    sb.remove(box + "/.qmail");
    sb.mkdirs(box + "/.qmail", 0600);
    RunResult r = deliver();
    EXPECT_EQ(r.status, 75);
    EXPECT_EQ(r.out, "4.2.1 Message can not be delivered at this time\n");
    EXPECT_TRUE(r.logged(3, "File .qmail is not a regular file\n")) << r.logDump();
    EXPECT_EQ(record(), "./mbox\n");
    EXPECT_EQ(sb.read(box + "/mbox"), kMessage + "\n");
}

TEST_F(WholeJobTest, LineGrammarThroughRealRuns) {
    std::string absMbox = sb.root() + "/abs.mbox";
    sb.mkdirs(box + "/dir");
    qmail("# a comment line\n"
          "\n"
          "   \t \n"
          "&  spaced@example.net\n"
          "plain@example.net   # forward with a note\n"
          "dir/\n"
          "|   cat > piped.out   \n"
          "./Maildir/\n"
          "./mbox\n" +
          absMbox);  // the last line needs no line feed
    RunResult r = deliver();
    EXPECT_EQ(r.status, 0) << r.logDump() << r.err;
    auto calls = sb.calls("sendmail");
    ASSERT_EQ(calls.size(), 3u);
    auto argvOf = [&](size_t i) { return Sandbox::slurpHost(calls[i] + "/argv"); };
    EXPECT_EQ(argvOf(0), "-i\n-bm\n-f\n" + kSender + "\n  spaced@example.net\n");
    EXPECT_EQ(argvOf(1), "-i\n-bm\n-f\n" + kSender + "\nplain@example.net\n");
    EXPECT_EQ(argvOf(2), "-i\n-bm\n-f\n" + kSender + "\ndir/\n");
    EXPECT_EQ(sb.read(box + "/piped.out"), kMessage);
    EXPECT_EQ(newMail().size(), 1u);
    EXPECT_EQ(sb.read(box + "/mbox"), kMessage + "\n");
    EXPECT_EQ(Sandbox::slurpHost(absMbox), kMessage + "\n");
}

TEST_F(WholeJobTest, ExecuteBitBlocksStoringLinesButNotForwards) {
    qmail("&bob@example.net\n./Maildir/\n", 0744);
    RunResult r = deliver();
    EXPECT_EQ(r.status, 75);
    EXPECT_EQ(r.err, ".qmail has prog delivery but has x bit set. (#4.7.0)\n");
    EXPECT_EQ(sb.calls("sendmail").size(), 1u);
    EXPECT_TRUE(newMail().empty());
    EXPECT_EQ(record(), "&bob@example.net\n");
}

// The program defers once, after the maildir line was served, then exits 99:
// the rest is skipped, and the record left by the first run goes.
TEST_F(WholeJobTest, ExitNinetyNineSkipsTheRestAndSucceeds) {
    qmail("./Maildir/\n|test -f go || exit 75; exit 99\n./mbox\n");
    EXPECT_EQ(deliver().status, 75);
    EXPECT_EQ(record(), "./Maildir/\n");
    sb.write(box + "/go", "");
    RunResult r = deliver();
    EXPECT_EQ(r.status, 0) << r.logDump();
    EXPECT_EQ(newMail().size(), 1u);
    EXPECT_FALSE(sb.exists(box + "/mbox"));
    EXPECT_EQ(record(), "<none>");
}

TEST_F(WholeJobTest, SenderEmailVariableHoldsTheRecipientOnlyDuringTheForward) {
    qmail("|echo \"[${QX_SENDER_EMAIL-unset}]\" > before\n"
          "&\n"
          "|echo \"[${QX_SENDER_EMAIL-unset}]\" > after\n");
    RunResult r = sb.ferndrop({"-f", kSender, "-d", kRecipient, "-p", sb.mailnames()}, kMessage,
                              {"QX_SENDER_EMAIL=preset@example.org"});
    EXPECT_EQ(r.status, 0) << r.logDump() << r.err;
    EXPECT_EQ(sb.read(box + "/before"), "[preset@example.org]\n");
    auto calls = sb.calls("sendmail");
    ASSERT_EQ(calls.size(), 1u);
    // A bare "&" lets sendmail take the recipients from the header.
    EXPECT_EQ(Sandbox::slurpHost(calls[0] + "/argv"), "-i\n-bm\n-f\n" + kSender + "\n-t\n");
    std::string env = Sandbox::slurpHost(calls[0] + "/env");
    EXPECT_NE(env.find("QX_SENDER_EMAIL=" + kRecipient + "\n"), std::string::npos) << env;
    EXPECT_NE(env.find("\nDELIVERED_TO=" + kRecipient + "\n"), std::string::npos) << env;
    EXPECT_EQ(Sandbox::slurpHost(calls[0] + "/fds"), "0\n1\n2\n");
    EXPECT_EQ(env.find("preset@example.org"), std::string::npos) << env;
    EXPECT_EQ(Sandbox::slurpHost(calls[0] + "/stdin"), kMessage);
    // Removed after the forward, not restored to the inherited value.
    EXPECT_EQ(sb.read(box + "/after"), "[unset]\n");
}

TEST_F(WholeJobTest, FailedForwardIsRetriedWithoutRepeatingEarlierLines) {
    sb.installSendmailRecorder(75);
    qmail("./mbox\n&bob@example.net\n./Maildir/\n");
    RunResult first = deliver();
    EXPECT_EQ(first.status, 75);
    EXPECT_EQ(first.out, "4.2.1 Message can not be delivered at this time\n");
    EXPECT_TRUE(first.logged(3, "Unable to forward original message. sendmail status: 75")) << first.logDump();
    EXPECT_TRUE(first.logged(3, "Unable to send mail for: bob@example.net\n")) << first.logDump();
    EXPECT_EQ(record(), "./mbox\n");
    EXPECT_TRUE(newMail().empty());

    sb.installSendmailRecorder(0);
    RunResult second = deliver();
    EXPECT_EQ(second.status, 0) << second.logDump();
    EXPECT_EQ(sb.calls("sendmail").size(), 2u);
    EXPECT_EQ(sb.read(box + "/mbox"), kMessage + "\n");
    EXPECT_EQ(newMail().size(), 1u);
    EXPECT_EQ(record(), "<none>");
}

TEST_F(WholeJobTest, SendmailKilledBySignalDefers) {
    sb.write("/usr/sbin/sendmail", "#!/bin/sh\ncat >/dev/null\nkill -9 $$\n", 0755);
    qmail("&bob@example.net\n");
    RunResult r = deliver();
    EXPECT_EQ(r.status, 75);
    EXPECT_EQ(r.out, "4.2.1 Message can not be delivered at this time\n");
    EXPECT_TRUE(r.loggedContaining("process '/usr/sbin/sendmail' killed by signal 9")) << r.logDump();
    EXPECT_TRUE(r.loggedContaining("Unable to forward original message via sendmail: ")) << r.logDump();
    EXPECT_TRUE(r.logged(3, "Unable to send mail for: bob@example.net\n")) << r.logDump();
}

}  // namespace
