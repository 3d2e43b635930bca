// The handler pass through the real binary: handlers registered in the
// registry at its compiled-in path run in order over the spooled message,
// see the protocol's arguments, environment and streams, and their verdicts
// reach the transfer agent as exit statuses and status lines.
#include <gtest/gtest.h>

#include <cstdlib>

#include "../registry_schema.h"
#include "sandbox.h"

namespace {

const std::string kRegistry = "/var/lib/kavra/mail/handlers/handlers.db";
const std::string kSpoolDir = "/usr/local/qrn/handlers/spool";
const std::string kSender = "sender@from.org";
const std::string kRecipient = "alice@example.com";
const std::string kMessage = "Subject: handlers\n\nbody\n";
enum { SENDER = 0, RECIPIENT = 1, SENDER_DOMAIN = 2, RECIPIENT_DOMAIN = 3, GLOBAL = 4 };

class HandlersTest : public ::testing::Test {
  protected:
    void SetUp() override {
        sb.standardLayout();
        box = sb.mailbox("example.com", "alice");
        // The message as delivery finally sees it.
        sb.write(box + "/.qmail", "|cat > delivered\n");
        sb.mkdirs(root + "/handlers");
        sql(kRegistrySchema);
    }

    // Runs SQL on the registry with the sqlite3 program, on the host side.
    void sql(const std::string &text) {
        std::string file = root + "/registry.sql";
        sb.write(file, text);
        std::string cmd = "sqlite3 '" + sb.host(kRegistry) + "' < '" + file + "'";
        ASSERT_EQ(system(cmd.c_str()), 0) << text;
    }

    // A handler script under the sandbox root; returns its path.
    std::string handler(const std::string &name, const std::string &body, mode_t mode = 0755) {
        std::string path = root + "/handlers/" + name;
        sb.write(path, "#!/bin/sh\n" + body, mode);
        return path;
    }

    void add(int type, const std::string &address, const std::string &name, const std::string &path,
             int priority = 0, int queue = 2, int enabled = 1, const std::string &context = "ctx") {
        sql(insertSql({queue, type, enabled, priority, name, address, path, context}));
    }

    // A handler that notes its name in the calls file and passes the message
    // on with a header of its own on top.
    std::string stamping(const std::string &name) {
        return handler(name, "echo " + name + " >> " + calls + "\necho 'X-" + name + ": 1'\ncat\n");
    }

    RunResult deliver() { return sb.ferndrop({"-f", kSender, "-d", kRecipient, "-p", sb.mailnames()}, kMessage); }
    std::string delivered() { return sb.read(box + "/delivered"); }
    std::string called() { return Sandbox::slurpHost(calls); }

    Sandbox sb;
    std::string root = sb.root();
    std::string box;
    std::string calls = root + "/calls";
};

TEST_F(HandlersTest, AllKindsRunInOrderAndEachPassesItsOutputOn) {
    add(GLOBAL, "all", "all-20", stamping("all-20"), 20);
    add(GLOBAL, "all", "all-10", stamping("all-10"), 10);
    add(GLOBAL, "all-recipients", "allrcpt", stamping("allrcpt"));
    add(RECIPIENT_DOMAIN, "example.com", "rdomain", stamping("rdomain"));
    add(SENDER_DOMAIN, "from.org", "sdomain", stamping("sdomain"));
    add(RECIPIENT, kRecipient, "recipient", stamping("recipient"));
    add(SENDER, kSender, "sender", stamping("sender"));
    // Never gathered: another queue, disabled, another letter case.
    add(SENDER, kSender, "queue1", stamping("queue1"), 0, 1);
    add(SENDER, kSender, "disabled", stamping("disabled"), 0, 2, 0);
    add(RECIPIENT, "Alice@example.com", "case", stamping("case"));

    RunResult r = deliver();
    EXPECT_EQ(r.status, 0) << r.out << r.logDump();
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(called(), "sender\nrecipient\nsdomain\nrdomain\nallrcpt\nall-10\nall-20\n");
    EXPECT_EQ(delivered(), "X-all-20: 1\nX-all-10: 1\nX-allrcpt: 1\nX-rdomain: 1\nX-sdomain: 1\nX-recipient: 1\n"
                           "X-sender: 1\n" +
                               kMessage);
    EXPECT_TRUE(sb.list(kSpoolDir).empty());
}

TEST_F(HandlersTest, HandlerSeesProtocolArgumentsEnvironmentAndMessage) {
    std::string seen = root + "/seen";
    add(RECIPIENT, kRecipient, "args",
        handler("args", "printf '%s|' \"$0\" \"$@\" > " + seen + "\necho \"DELIVERED_TO=$DELIVERED_TO\" >> " + seen +
                            "\ncat >> " + seen + "\necho SKIP >&2\n"),
        0, 2, 1, "the context");
    add(GLOBAL, "all-recipients", "once", handler("once", "echo \"once: $*\" >> " + calls + "\necho SKIP >&2\n"));
    RunResult r = deliver();
    EXPECT_EQ(r.status, 0) << r.logDump();
    EXPECT_EQ(Sandbox::slurpHost(seen), root + "/handlers/args|the context|" + kSender + "|" + kRecipient +
                                            "|DELIVERED_TO=" + kRecipient + "\n" + kMessage);
    EXPECT_EQ(called(), "once: ctx " + kSender + " " + kRecipient + "\n");
    EXPECT_EQ(delivered(), kMessage);
}

// A SKIP keeps the message as it was, whatever the handler wrote; "SKIP "
// with a blank is no verdict, so the handler passes its output on.
TEST_F(HandlersTest, SkipKeepsTheMessageSkipWithABlankPasses) {
    add(RECIPIENT, kRecipient, "skip", handler("skip", "echo garbage\necho SKIP >&2\n"), 1);
    add(RECIPIENT, kRecipient, "blank", handler("blank", "echo 'X-Blank: 1'\ncat\necho 'SKIP ' >&2\n"), 2);
    RunResult r = deliver();
    EXPECT_EQ(r.status, 0) << r.logDump();
    EXPECT_EQ(delivered(), "X-Blank: 1\n" + kMessage);
}

// A stopping verdict ends the pass: STOP drops the message quietly (exit 0,
// no status line, only the notice), DEFER and REJECT reach the transfer
// agent. Whatever the handler wrote is dropped and no later handler runs.
TEST_F(HandlersTest, StopDeferAndRejectEndThePass) {
    struct Case {
        std::string line;
        int exitCode;
        int status;
        std::string text;
    };
    const Case cases[] = {{"STOP spam", 0, 0, ""},
                          {"DEFER 4.2.2", 1, 75, "4.4.5 Mail system is congested\n"},
                          {"REJECT 5.7.1", 1, 69, "5.7.1 Message can't be delivered\n"}};
    add(GLOBAL, "all", "later", stamping("later"));
    for (const Case &c : cases) {
        sql("DELETE FROM handlers WHERE name='verdict';");
        add(RECIPIENT, kRecipient, "verdict",
            handler("verdict", "echo garbage\necho '" + c.line + "' >&2\nexit " + std::to_string(c.exitCode) + "\n"));
        RunResult r = deliver();
        EXPECT_EQ(r.status, c.status) << c.line << r.logDump();
        EXPECT_EQ(r.out, c.text);
        EXPECT_EQ(r.logged(5, "message discarded by a mail handler"), c.status == 0) << r.logDump();
        EXPECT_EQ(called(), "");
        EXPECT_FALSE(sb.exists(box + "/delivered"));
        EXPECT_TRUE(sb.list(kSpoolDir).empty());
    }
}

TEST_F(HandlersTest, BrokenHandlersAreLoggedAndTheNextOneRuns) {
    // Whatever a broken handler wrote is not taken as the message.
    add(RECIPIENT, kRecipient, "exits3", handler("exits3", "echo partial\necho 'LOG  exits3 speaking' >&2\nexit 3\n"),
        1);
    add(RECIPIENT, kRecipient, "plainfile", handler("plainfile", "exit 0\n", 0644), 2);
    add(RECIPIENT, kRecipient, "missing", root + "/handlers/missing", 3);
    add(RECIPIENT, kRecipient, "killed", handler("killed", "echo partial\necho STOP >&2\nkill -9 $$\n"), 4);
    add(RECIPIENT, kRecipient, "good", stamping("good"), 5);
    RunResult r = deliver();
    EXPECT_EQ(r.status, 0) << r.logDump();
    for (const char *name : {"exits3", "plainfile", "missing", "killed"})
        EXPECT_TRUE(r.logged(3, std::string("Error during '") + name + "' handler")) << name << r.logDump();
    EXPECT_TRUE(r.logged(3, "  exits3 speaking"));
    EXPECT_TRUE(r.loggedContaining(" killed by signal 9"));
    EXPECT_EQ(called(), "good\n");
    EXPECT_EQ(delivered(), "X-good: 1\n" + kMessage);
}

TEST_F(HandlersTest, RegistryWithoutTableDeliversAsIfNoHandlers) {
    sb.remove(kRegistry);
    sb.write(kRegistry, "");
    sql("CREATE TABLE other (x INTEGER);");
    RunResult r = deliver();
    EXPECT_EQ(r.status, 0) << r.out << r.logDump();
    EXPECT_EQ(delivered(), kMessage);
    EXPECT_TRUE(r.loggedContaining("no such table: handlers"));
}

TEST_F(HandlersTest, MissingRegistryDirectoryDefers) {
    sb.remove("/var/lib/kavra/mail/handlers");
    RunResult r = deliver();
    EXPECT_EQ(r.status, 75);
    EXPECT_EQ(r.out, "4.1.0 Mail subsystem unspecified errors\n");
    EXPECT_TRUE(r.logged(3, "Unable to open database(readonly) " + kRegistry + ": unable to open database file"))
        << r.logDump();
    EXPECT_TRUE(r.logged(3, "Unable to get full handlers list"));
    EXPECT_FALSE(sb.exists(box + "/delivered"));
    EXPECT_TRUE(sb.list(kSpoolDir).empty());
}

// The second handler looks at its standard input (the spool file the first
// one's output was renamed to) and at the spool directory while it runs.
TEST_F(HandlersTest, TakeoverKeepsTheSpoolFileAttributesAndLeavesNoTemporaryFile) {
    std::string seen = root + "/seen";
    add(RECIPIENT, kRecipient, "first", stamping("first"), 1);
    add(RECIPIENT, kRecipient, "second",
        handler("second", "attrs=$(stat -L -c '%u %g %a' /proc/$$/fd/0)\nin=$(readlink /proc/$$/fd/0)\n"
                          "out=$(readlink /proc/$$/fd/1)\nlisting=$(ls " + kSpoolDir + ")\n"
                          "printf '%s\\n' \"$attrs\" \"$listing\" \"$in\" \"$out\" > " + seen + "\ncat\n"),
        2);
    RunResult r = deliver();
    EXPECT_EQ(r.status, 0) << r.logDump();
    // mkstemp's file: root-owned, mode 0600 - not the 0660-less-umask of the
    // file the first handler's output was written to. Beside it only the
    // second handler's own output file.
    std::string text = Sandbox::slurpHost(seen);
    size_t from = text.find('\n') + 1;
    std::string name = text.substr(from, text.find('\n', from) - from);
    EXPECT_EQ(name.substr(0, 7), "message");
    EXPECT_EQ(name.size(), 13u);
    EXPECT_EQ(text, "0 0 600\n" + name + "\n" + name + ".tmp\n" + kSpoolDir + "/" + name + "\n" + kSpoolDir + "/" +
                        name + ".tmp\n");
    EXPECT_EQ(delivered(), "X-first: 1\n" + kMessage);
    EXPECT_TRUE(sb.list(kSpoolDir).empty());
}

// Another process holds the registry's exclusive lock from before ferndrop
// starts until ferndrop has spooled its message (or given up) and some time
// after: the delivery waits for the registry instead of failing.
TEST_F(HandlersTest, LockedRegistryIsWaitedFor) {
    add(RECIPIENT, kRecipient, "stamp", stamping("stamp"));
    std::string script =
        "set -e\n"
        "cd " + root + "\n"
        "(sqlite3 " + kRegistry + " <<'EOF'\n"
        "BEGIN EXCLUSIVE;\n"
        ".shell touch " + root + "/locked\n"
        ".shell while [ -z \"$(ls " + kSpoolDir + ")\" ] && [ ! -e " + root + "/done ]; do sleep 0.01; done; "
        "sleep 0.2\n"
        ".shell [ -e " + calls + " ] && touch " + root + "/ran-while-locked || true\n"
        "COMMIT;\n"
        "EOF\n"
        ") &\n"
        "while [ ! -e " + root + "/locked ]; do sleep 0.01; done\n"
        "status=0\n"
        "printf '" + "Subject: handlers\\n\\nbody\\n" + "' | " + ferndropBinary() + " -f " + kSender + " -d " +
        kRecipient + " -p " + sb.mailnames() + " || status=$?\n"
        "touch " + root + "/done\n"
        "wait\n"
        "exit $status\n";
    RunResult r = sb.shell(script);
    EXPECT_EQ(r.status, 0) << r.out << r.err << r.logDump();
    EXPECT_EQ(called(), "stamp\n");
    EXPECT_FALSE(sb.exists(root + "/ran-while-locked"));
    EXPECT_EQ(delivered(), "X-stamp: 1\n" + kMessage);
}

}  // namespace
