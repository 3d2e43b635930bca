// The .qmail instruction file: the line grammar, the permission rule, and the
// processing of a file against real maildir, mbox and program deliveries with
// the delivery state in a scratch database (forward lines need sendmail and
// are covered end to end).
#include <gtest/gtest.h>

#include <cstdlib>
#include <dlfcn.h>
#include <optional>
#include <string>
#include <sys/stat.h>
#include <tcutil.h>
#include <tchdb.h>
#include <unistd.h>

#include "dotqmail/qmail_file.h"
#include "paths.h"
#include "state/message_id.h"
#include "state_db.h"
#include "test_support.h"

namespace {
// When set, the compiled-in state database is replaced by this file.
std::string stateDatabase;

// The compiled-in state database and the files named after it (the one a
// new database is built under) map to the scratch database.
std::string redirected(const char *path) {
    const std::string compiled = FERNDROP_STATE_DB;
    if (stateDatabase.empty() || std::string(path).compare(0, compiled.size(), compiled) != 0)
        return path;
    return stateDatabase + (path + compiled.size());
}

template <typename F> F realFunction(const char *name) { return reinterpret_cast<F>(dlsym(RTLD_NEXT, name)); }
}  // namespace

extern "C" bool tchdbopen(TCHDB *hdb, const char *path, int omode) {
    static auto real = realFunction<bool (*)(TCHDB *, const char *, int)>("tchdbopen");
    return real(hdb, redirected(path).c_str(), omode);
}

extern "C" int stat(const char *path, struct stat *st) {
    static auto real = realFunction<int (*)(const char *, struct stat *)>("stat");
    return real(redirected(path).c_str(), st);
}

extern "C" int link(const char *from, const char *to) {
    static auto real = realFunction<int (*)(const char *, const char *)>("link");
    return real(redirected(from).c_str(), redirected(to).c_str());
}

extern "C" int unlink(const char *path) {
    static auto real = realFunction<int (*)(const char *)>("unlink");
    return real(redirected(path).c_str());
}

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
        stateDatabase = dir / "local.db";
        writeFile(message, "From: a@b\nMessage-ID: <Q.1@host>\n\nbody line\n", 0600);
        ASSERT_TRUE(readMessageId(message, sender, recipient, key));
        for (const char *d : {"Maildir", "Maildir/tmp", "Maildir/new", "Maildir/cur"})
            ASSERT_EQ(mkdir((dir / d).c_str(), 0700), 0);
    }
    void TearDown() override {
        stateDatabase.clear();
        ASSERT_EQ(chdir(cwd), 0);
    }

    int run(const std::string &qmail, unsigned mode = 0600) {
        writeFile(dir / ".qmail", qmail, mode);
        return processQmailFile(".qmail", message.c_str(), sender.c_str(), recipient.c_str());
    }
    std::optional<std::string> record() { return storedValue(stateDatabase, key); }

    char cwd[4096];
    LogCapture deliveryLog;  // keeps the deliveries' own lines off the console
    ScratchDir dir;
    std::string message = dir / "message";
    std::string sender = "Sender@example.com";
    std::string recipient = "box@example.com";
    std::string key;
};

TEST_F(ProcessQmailFileTest, NoInstructionFileMeansInboxDeliveryWithoutLogging) {
    LogCapture log;
    EXPECT_EQ(processQmailFile(".qmail", message.c_str(), sender.c_str(), recipient.c_str()), 200);
    ASSERT_EQ(symlink("nowhere", ".qmail"), 0);
    EXPECT_EQ(processQmailFile(".qmail", message.c_str(), sender.c_str(), recipient.c_str()), 200);
    EXPECT_TRUE(log.lines().empty()) << log.dump();
    EXPECT_FALSE(fileExists(stateDatabase));
}

TEST_F(ProcessQmailFileTest, FailingMaildirOrMboxIsTemporaryAndOtherResultsPassThrough) {
    EXPECT_EQ(run("./missing/\n"), 111);
    EXPECT_EQ(record(), std::nullopt);
    EXPECT_EQ(run("./no-dir/mbox\n"), 111);
    EXPECT_EQ(run("|exit 77\n./mbox\n"), 77);
    EXPECT_EQ(run("|exit 100\n./mbox\n"), 100);
    EXPECT_FALSE(fileExists(dir / "mbox"));
    // Nothing was marked by any of these, so nothing was stored.
    EXPECT_EQ(record(), std::nullopt);
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
        EXPECT_EQ(record(), std::optional<std::string>("# first")) << line;
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

TEST_F(ProcessQmailFileTest, ReadErrorIsLocalErrorAndKeepsTheRecord) {
    EXPECT_EQ(run("./mbox\n|exit 111\n"), 111);
    ASSERT_EQ(record(), std::optional<std::string>("./mbox"));
    // A directory opens for reading but cannot be read.
    ASSERT_EQ(unlink(".qmail"), 0);
    ASSERT_EQ(mkdir(".qmail", 0600), 0);
    LogCapture log;
    EXPECT_EQ(processQmailFile(".qmail", message.c_str(), sender.c_str(), recipient.c_str()), -1);
    EXPECT_TRUE(log.contains(3, "Error while reading file `.qmail'")) << log.dump();
    EXPECT_EQ(record(), std::optional<std::string>("./mbox"));
}

}  // namespace
