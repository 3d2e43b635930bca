// Forwarding as the running system sees it, driven through a small probe
// program inside the sandbox (a null sender cannot come through ferndrop's
// command line): what sendmail receives (arguments, descriptors, environment,
// the message) and how its failures are reported.
#include <gtest/gtest.h>

#include "sandbox.h"

namespace {

const char kProbe[] = FERNDROP_DELIVERY_PROBE;

std::string lines(const std::vector<std::string> &items) {
    std::string s;
    for (const auto &i : items)
        s += i + "\n";
    return s;
}

class DeliveriesTest : public ::testing::Test {
  protected:
    void SetUp() override { sb.write(messagePath, message); }
    RunResult probe(const std::vector<std::string> &args, const std::vector<std::string> &env = {}) {
        RunSpec spec;
        spec.argv = {kProbe};
        spec.argv.insert(spec.argv.end(), args.begin(), args.end());
        spec.env = env;
        return sb.run(spec);
    }

    Sandbox sb;
    std::string root = sb.root();
    std::string messagePath = root + "/message";
    std::string message = [] {
        std::string m = "Return-Path: <s@example.org>\nSubject: deliveries\n\n.\n";
        for (int i = 0; i < 400; i++)
            m += "body line " + std::to_string(i) + " " + std::string(20, 'b') + "\n";
        return m + std::string("NUL\0inside\nno final newline", 27);
    }();
};

TEST_F(DeliveriesTest, ForwardHandsTheMessageToSendmailWithExactArguments) {
    sb.installSendmailRecorder(0);
    struct Case {
        std::string sender, destination;
        std::vector<std::string> argv;
    };
    std::vector<Case> cases = {
        {"s@example.org", "other@example.net", {"-i", "-bm", "-f", "s@example.org", "other@example.net"}},
        {"s@example.org", "", {"-i", "-bm", "-f", "s@example.org", "-t"}},
        {"s@example.org", "  blanks@example.net", {"-i", "-bm", "-f", "s@example.org", "  blanks@example.net"}},
        {"", "other@example.net", {"-i", "-bm", "other@example.net"}},
        {"", "", {"-i", "-bm", "-t"}},
    };
    for (size_t i = 0; i < cases.size(); i++) {
        const Case &c = cases[i];
        SCOPED_TRACE("sender '" + c.sender + "' destination '" + c.destination + "'");
        RunResult r = probe({"forward", messagePath, c.sender, c.destination}, {"DELIVERED_TO=box@example.com"});
        EXPECT_EQ(r.status, 0) << r.err << r.logDump();
        EXPECT_TRUE(r.log.empty()) << r.logDump();
        std::vector<std::string> calls = sb.calls("sendmail");
        ASSERT_EQ(calls.size(), i + 1);
        const std::string &call = calls.back();
        EXPECT_EQ(Sandbox::slurpHost(call + "/argv"), lines(c.argv));
        EXPECT_EQ(Sandbox::slurpHost(call + "/stdin"), message);
        // The probe's own descriptors (the message, the log socket) stay behind.
        EXPECT_EQ(Sandbox::slurpHost(call + "/fds"), "0\n1\n2\n");
        EXPECT_NE(Sandbox::slurpHost(call + "/env").find("\nDELIVERED_TO=box@example.com\n"), std::string::npos);
    }
}

TEST_F(DeliveriesTest, ForwardFailuresAreReportedAsFailed) {
    // A sendmail that dies by a signal.
    sb.write("/usr/sbin/sendmail", "#!/bin/sh\ncat >/dev/null\nkill -9 $$\n", 0755);
    RunResult r = probe({"forward", messagePath, "s@example.org", ""});
    EXPECT_EQ(r.status, 255);
    EXPECT_TRUE(r.loggedContaining("process '/usr/sbin/sendmail' killed by signal 9")) << r.logDump();
    EXPECT_TRUE(r.loggedContaining("Unable to forward original message via sendmail: ")) << r.logDump();
    EXPECT_TRUE(r.logged(3, "Unable to send mail for: \n")) << r.logDump();

    // No message: nothing is started.
    sb.installSendmailRecorder(0);
    r = probe({"forward", root + "/absent", "s@example.org", "other@example.net"});
    EXPECT_EQ(r.status, 255);
    EXPECT_TRUE(r.logged(3, "System error: No such file or directory\n")) << r.logDump();
    EXPECT_TRUE(sb.calls("sendmail").empty());
}

}  // namespace
