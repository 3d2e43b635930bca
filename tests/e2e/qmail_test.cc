// Forward lines of a .qmail file through the real binary: the environment the
// forward runs in, and a failing forward within a retried delivery.
#include <gtest/gtest.h>

#include "sandbox.h"

namespace {

const std::string kSender = "sender@example.org";
const std::string kRecipient = "carol@example.com";
const std::string kStateDb = "/var/lib/kavra/mail/local/local.db";
const std::string kMessage = "From: sender@example.org\nMessage-ID: <Fwd.7@Example.ORG>\n\nbody line\n";
const std::string kKey = "<fwd.7@example.org> " + kSender + " " + kRecipient;

class QmailForwardTest : public ::testing::Test {
  protected:
    void SetUp() override {
        sb.standardLayout();
        box = sb.mailbox("example.com", "carol");
        for (const char *sub : {"/Maildir/tmp", "/Maildir/new", "/Maildir/cur"})
            sb.mkdirs(box + sub);
    }
    RunResult deliver(const std::vector<std::string> &env = {}) {
        return sb.ferndrop({"-f", kSender, "-d", kRecipient, "-p", sb.mailnames()}, kMessage, env);
    }
    std::string record() {
        RunResult r = sb.shell("tchmgr get " + kStateDb + " '" + kKey + "'");
        return r.status == 0 ? r.out : "<none>";
    }

    Sandbox sb;
    std::string box;
};

TEST_F(QmailForwardTest, SenderEmailVariableHoldsTheRecipientOnlyDuringTheForward) {
    sb.installSendmailRecorder();
    sb.write(box + "/.qmail",
             "|echo \"[${QX_SENDER_EMAIL-unset}]\" > before\n"
             "&\n"
             "|echo \"[${QX_SENDER_EMAIL-unset}]\" > after\n");
    RunResult r = deliver({"QX_SENDER_EMAIL=preset@example.org"});
    EXPECT_EQ(r.status, 0) << r.logDump() << r.err;
    EXPECT_EQ(sb.read(box + "/before"), "[preset@example.org]\n");
    auto calls = sb.calls("sendmail");
    ASSERT_EQ(calls.size(), 1u);
    // A bare "&" lets sendmail take the recipients from the header.
    EXPECT_EQ(Sandbox::slurpHost(calls[0] + "/argv"), "-i\n-bm\n-f\n" + kSender + "\n-t\n");
    std::string env = Sandbox::slurpHost(calls[0] + "/env");
    EXPECT_NE(env.find("QX_SENDER_EMAIL=" + kRecipient + "\n"), std::string::npos) << env;
    EXPECT_EQ(env.find("preset@example.org"), std::string::npos) << env;
    EXPECT_EQ(Sandbox::slurpHost(calls[0] + "/stdin"), kMessage);
    // Removed after the forward, not restored to the inherited value.
    EXPECT_EQ(sb.read(box + "/after"), "[unset]\n");
}

TEST_F(QmailForwardTest, FailedForwardIsRetriedWithoutRepeatingEarlierLines) {
    sb.installSendmailRecorder(75);
    sb.write(box + "/.qmail", "./mbox\n&bob@example.net\n./Maildir/\n");
    RunResult first = deliver();
    EXPECT_EQ(first.status, 75);
    EXPECT_EQ(first.out, "4.2.1 Message can not be delivered at this time\n");
    EXPECT_TRUE(first.loggedContaining("Unable to forward original message. sendmail status: 75"))
        << first.logDump();
    EXPECT_EQ(record(), "./mbox\n");
    EXPECT_TRUE(sb.list(box + "/Maildir/new").empty());

    sb.installSendmailRecorder(0);
    RunResult second = deliver();
    EXPECT_EQ(second.status, 0) << second.logDump();
    EXPECT_EQ(sb.calls("sendmail").size(), 2u);
    EXPECT_EQ(sb.read(box + "/mbox"), kMessage + "\n");
    EXPECT_EQ(sb.list(box + "/Maildir/new").size(), 1u);
    EXPECT_EQ(record(), "<none>");
}

}  // namespace
