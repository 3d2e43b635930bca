// The .qmail instruction file: the line grammar, the permission rule, and the
// processing of a file against real maildir, mbox and program deliveries. The
// message has no Message-ID, so no delivery state is kept; what is recorded
// across retries, and forward lines (they need sendmail), are shown end to end.
#include <gtest/gtest.h>

#include <string>
#include <sys/stat.h>
#include <unistd.h>

#include "dotqmail/qmail_file.h"
#include "test_support.h"

namespace {

TEST(ParseQmailLineTest, GrammarTable) {
    struct Case {
        const char *raw;
        QmailLineKind kind;
        const char *value;
    } cases[] = {
        {"", EmptyLine, ""},
        {"   \t\r", EmptyLine, ""},
        {"# only a comment", EmptyLine, ""},
        {"  # indented comment", EmptyLine, ""},
        {"user@example.com   # a note", ForwardLine, "user@example.com"},
        {"user@example.com#no blank", ForwardLine, "user@example.com"},
        {"\tUser@Example.COM\r", ForwardLine, "User@Example.COM"},
        {"&  user@example.com", ForwardLine, "  user@example.com"},
        {"&", ForwardLine, ""},
        {"& # nothing", ForwardLine, ""},
        {"| cmd arg  ", ProgramLine, "cmd arg"},
        {"|\t cmd  \"a b\" \v", ProgramLine, "cmd  \"a b\""},
        {"|", ProgramLine, ""},
        {"|echo '#not escaped'", ProgramLine, "echo '"},
        {"./Maildir/", MaildirLine, "./Maildir/"},
        {"  /var/mail/box/  ", MaildirLine, "/var/mail/box/"},
        {"/", MaildirLine, "/"},
        {"./mbox", MboxLine, "./mbox"},
        {"/var/mail/box", MboxLine, "/var/mail/box"},
        {".", MboxLine, "."},
        {"./Maildir/ #x", MaildirLine, "./Maildir/"},
        {"Maildir/", ForwardLine, "Maildir/"},
        {"\xC3\xA9l\xC3\xA8ve@example.com", ForwardLine, "\xC3\xA9l\xC3\xA8ve@example.com"},
        {"a\xA0", ForwardLine, "a\xA0"},
    };
    for (const auto &c : cases) {
        QmailLine line = parseQmailLine(c.raw);
        EXPECT_EQ(line.kind, c.kind) << "[" << c.raw << "]";
        EXPECT_EQ(line.value, c.value) << "[" << c.raw << "]";
    }
}

TEST(CheckQmailPermissionsTest, GroupOrOtherWriteRefusedExecuteBitReported) {
    ScratchDir dir;
    std::string file = dir / ".qmail";
    struct {
        unsigned mode;
        int result;
    } cases[] = {{0644, 0}, {0600, 0}, {0400, 0}, {0744, 1}, {0610, 1}, {0601, 1},
                 {0664, -1}, {0646, -1}, {0755 | 0020, -1}};
    for (const auto &c : cases) {
        writeFile(file, "x\n", c.mode);
        LogCapture log;
        EXPECT_EQ(checkQmailPermissions(file.c_str()), c.result) << std::oct << c.mode;
        if (c.result < 0)
            EXPECT_TRUE(log.contains(3, "File " + file + " is writable for group or others\n"))
                << log.dump();
        else
            EXPECT_TRUE(log.lines().empty()) << log.dump();
    }

    // The link's own mode does not count; its target's does.
    writeFile(dir / "target", "x\n", 0600);
    ASSERT_EQ(symlink("target", (dir / "link").c_str()), 0);
    EXPECT_EQ(checkQmailPermissions((dir / "link").c_str()), 0);

    LogCapture log;
    EXPECT_EQ(checkQmailPermissions((dir / "absent").c_str()), -1);
    EXPECT_TRUE(log.contains(3, "System error " + (dir / "absent") + ": No such file or directory\n"))
        << log.dump();
}

class ProcessQmailFileTest : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_NE(getcwd(cwd, sizeof cwd), nullptr);
        // The driver runs this from inside the mailbox directory.
        ASSERT_EQ(chdir(dir.path().c_str()), 0);
        writeFile(message, "From: a@b\nSubject: no id\n\nbody line\n", 0600);
        for (const char *d : {"Maildir", "Maildir/tmp", "Maildir/new", "Maildir/cur"})
            ASSERT_EQ(mkdir((dir / d).c_str(), 0700), 0);
    }
    void TearDown() override { ASSERT_EQ(chdir(cwd), 0); }

    int run(const std::string &qmail, unsigned mode = 0600) {
        writeFile(dir / ".qmail", qmail, mode);
        return processQmailFile(".qmail", message.c_str(), sender.c_str(), recipient.c_str());
    }
    char cwd[4096];
    LogCapture deliveryLog;  // keeps the deliveries' own lines off the console
    ScratchDir dir;
    std::string message = dir / "message";
    std::string sender = "Sender@example.com";
    std::string recipient = "box@example.com";
};

TEST_F(ProcessQmailFileTest, NoInstructionFileMeansInboxDeliveryWithoutLogging) {
    LogCapture log;
    EXPECT_EQ(processQmailFile(".qmail", message.c_str(), sender.c_str(), recipient.c_str()), 200);
    ASSERT_EQ(symlink("nowhere", ".qmail"), 0);
    EXPECT_EQ(processQmailFile(".qmail", message.c_str(), sender.c_str(), recipient.c_str()), 200);
    EXPECT_TRUE(log.lines().empty()) << log.dump();
}

TEST_F(ProcessQmailFileTest, FailingMaildirOrMboxIsTemporaryAndOtherResultsPassThrough) {
    EXPECT_EQ(run("./missing/\n"), 111);
    EXPECT_EQ(run("./no-dir/mbox\n"), 111);
    EXPECT_EQ(run("|exit 77\n./mbox\n"), 77);
    EXPECT_EQ(run("|exit 100\n./mbox\n"), 100);
    EXPECT_FALSE(fileExists(dir / "mbox"));
}

TEST_F(ProcessQmailFileTest, ExecuteBitAllowsOnlyEmptyAndForwardLines) {
    testing::internal::CaptureStderr();
    EXPECT_EQ(run("# only comments\n\n", 0744), 0);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");

    for (const char *line : {"./Maildir/\n", "./mbox\n", "|echo ran >> trace\n"}) {
        testing::internal::CaptureStderr();
        EXPECT_EQ(run(std::string("# first\n") + line + "./mbox\n", 0700), 111) << line;
        EXPECT_EQ(testing::internal::GetCapturedStderr(),
                  ".qmail has prog delivery but has x bit set. (#4.7.0)\n");
    }
    EXPECT_FALSE(fileExists(dir / "trace"));
    EXPECT_FALSE(fileExists(dir / "mbox"));
    EXPECT_TRUE(listDir(dir / "Maildir/new").empty());
}

TEST_F(ProcessQmailFileTest, LongLinesAreReadWhole) {
    std::string padding(100000, ' ');
    EXPECT_EQ(run("|echo long >> trace" + padding + "# " + std::string(50000, 'c') + "\n./mbox\n"), 0);
    EXPECT_EQ(readFile(dir / "trace"), "long\n");
    EXPECT_TRUE(fileExists(dir / "mbox"));
}

}  // namespace
