// The command line, the exit table's early rows, logging and spooling, as the
// transfer agent sees them: exit status, status line, syslog.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "../registry_schema.h"
#include "sandbox.h"

namespace {

const std::string kUsageText = "4.3.5 Local delivery is disabled due to server misconfigurations\n";

class DriverTest : public ::testing::Test {
  protected:
    void SetUp() override { sb.standardLayout(); }
    RunResult deliver(const std::string &recipient, const std::string &message = "Subject: x\n\nbody\n") {
        return sb.ferndrop({"-f", "sender@example.org", "-d", recipient, "-p", sb.mailnames()}, message);
    }
    Sandbox sb;
};

TEST_F(DriverTest, UsageErrorsExit64WithCriticalAndNoticeLines) {
    struct Case {
        std::vector<std::string> args;
        std::string problem;
    };
    std::string p = sb.mailnames();
    std::vector<Case> cases = {
        {{"-x", "-f", "a@b", "-d", "c@d", "-p", p}, "invalid option -x"},
        {{"-h"}, "invalid option -h"},
        {{"-f", "a@b", "-d", "c@d", "-p", p, "extra"}, "extra arguments"},
        {{"-d", "c@d", "-p", p}, "unspecified -f <sender>"},
        {{"-f", "", "-d", "c@d", "-p", p}, "unspecified -f <sender>"},
        {{"-f", "a@b", "-p", p}, "unspecified -d <recipient>"},
        {{"-f", "a@b", "-d", "", "-p", p}, "unspecified -d <recipient>"},
        {{"-f", "a@b", "-d", "c@d"}, "unspecified -p <mailnames dir>"},
        {{"-f", "a@b", "-d", "c@d", "-p", ""}, "unspecified -p <mailnames dir>"},
        {{"-f", "a@b", "-d", "c@d", "-p"}, "invalid option -p"},
    };
    for (const auto &c : cases) {
        RunResult r = sb.ferndrop(c.args, "x\n");
        SCOPED_TRACE(c.problem);
        EXPECT_EQ(r.status, 64);
        EXPECT_EQ(r.out, kUsageText);
        EXPECT_TRUE(r.logged(2, "ferndrop usage error: \"" + c.problem + "\"")) << r.logDump();
        EXPECT_TRUE(r.logged(5, "ferndrop usage: ferndrop -f <sender> -d <recipient> -p <mailnames dir>"));
        EXPECT_TRUE(sb.list("/usr/local/qrn/handlers/spool").empty());
    }
}

TEST_F(DriverTest, LaterOptionReplacesEarlierOne) {
    RunResult r = sb.ferndrop({"-f", "first@a", "-f", "second@a", "-d", "u@d", "-p", sb.mailnames()}, "x\n");
    EXPECT_TRUE(r.logged(6, "ferndrop: from=second@a, to=u@d, dirname=" + sb.mailnames())) << r.logDump();
}

TEST_F(DriverTest, StartLineAtMailInfoWithIdentAndPid) {
    RunResult r = deliver("user@example.com");
    ASSERT_FALSE(r.log.empty());
    const SyslogLine &first = r.log.front();
    EXPECT_EQ(first.facility, 2);
    EXPECT_EQ(first.priority, 6);
    EXPECT_EQ(first.ident, "ferndrop");
    EXPECT_GT(first.pid, 0);
    EXPECT_EQ(first.text, "ferndrop: from=sender@example.org, to=user@example.com, dirname=" + sb.mailnames());
}

TEST_F(DriverTest, RecipientChecks) {
    RunResult noAt = deliver("nodomain");
    EXPECT_EQ(noAt.status, 65);
    EXPECT_EQ(noAt.out, "5.1.3 Invalid destination status\n");
    EXPECT_TRUE(noAt.logged(3, "Invalid e-mail address - no domain part: nodomain")) << noAt.logDump();

    std::string longest = std::string(495, 'a') + "@b.com";  // 501 characters
    ASSERT_EQ(longest.size(), 501u);
    RunResult ok = deliver(longest);
    EXPECT_NE(ok.status, 65) << ok.out;

    RunResult tooLong = deliver("a" + longest);
    EXPECT_EQ(tooLong.status, 65);
    EXPECT_EQ(tooLong.out, "5.1.3 Invalid destination status\n");
    EXPECT_TRUE(tooLong.logged(3, "Invalid e-mail address - too long: a" + longest));
    EXPECT_TRUE(sb.list("/usr/local/qrn/handlers/spool").empty());
}

TEST_F(DriverTest, MissingSpoolDirectoryDefers) {
    sb.remove("/usr/local/qrn/handlers/spool");
    RunResult r = deliver("user@example.com");
    EXPECT_EQ(r.status, 75);
    EXPECT_EQ(r.out, "4.6.0 Unable to read message content\n");
    EXPECT_TRUE(r.loggedContaining("cannot create temporary file - (2) No such file or directory")) << r.logDump();
    EXPECT_TRUE(r.logged(3, "Unable to read message from stdin"));
}

// A handler for all mail that keeps what it was given: the spool file's
// bytes and mode, as every later stage would read them.
TEST_F(DriverTest, SpoolFileHoldsTheExactInputPrivately) {
    std::string keep = sb.root() + "/kept";
    sb.mkdirs(keep, 0777);
    sb.write("/usr/local/qrn/handlers/bin/keep",
             "#!/bin/sh\nstat -L -c %a /proc/self/fd/0 > " + keep + "/mode\ncat > " + keep +
                 "/bytes\necho SKIP >&2\n",
             0755);
    std::string sql = kRegistrySchema + insertSql({2, 4, 1, 0, "keep", "all", "/usr/local/qrn/handlers/bin/keep", ""});
    ASSERT_EQ(system(("sqlite3 " + sb.host("/var/lib/kavra/mail/handlers/handlers.db") + " \"" + sql + "\"").c_str()), 0);

    std::string binary;
    for (int i = 0; i < 256; i++)
        binary += static_cast<char>(i);
    std::string several(5 * 1024 * 1024 + 3, 'x');
    for (size_t i = 0; i < several.size(); i += 77)
        several[i] = '\n';
    for (const std::string &input : {std::string(), std::string("no final newline"), binary, several}) {
        RunResult r = deliver("user@example.com", input);
        EXPECT_TRUE(r.loggedContaining("Unknown user: user@example.com")) << r.logDump();
        EXPECT_EQ(Sandbox::slurpHost(keep + "/mode"), "600\n");
        EXPECT_TRUE(Sandbox::slurpHost(keep + "/bytes") == input) << "input of " << input.size() << " bytes";
        EXPECT_TRUE(sb.list("/usr/local/qrn/handlers/spool").empty());
    }
}

}  // namespace
