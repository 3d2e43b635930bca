// Hostile input through the real binary: recipients that try to climb out of
// the mailnames tree, .qmail files of doubtful ownership or size, messages
// with CRLF line ends or NUL bytes, and a message far larger than memory
// should ever hold. Each gets a clear result, no crash, nothing lost.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>

#include "sandbox.h"

namespace {

const std::string kSender = "sender@example.org";
const std::string kStateDb = "/var/lib/kavra/mail/local/local.db";
const std::string kSpoolDir = "/usr/local/qrn/handlers/spool";
const std::string kTryLater = "4.2.1 Message can not be delivered at this time\n";

class HostileInputTest : public ::testing::Test {
  protected:
    void SetUp() override { sb.standardLayout(); }

    // A mailbox with an empty maildir, as a host path.
    std::string mailboxWithMaildir(const std::string &domain, const std::string &mailname) {
        std::string box = sb.mailbox(domain, mailname);
        for (const char *sub : {"/Maildir/tmp", "/Maildir/new", "/Maildir/cur"})
            sb.mkdirs(box + sub);
        return box;
    }
    RunResult deliver(const std::string &recipient, const std::string &message) {
        return sb.ferndrop({"-f", kSender, "-d", recipient, "-p", sb.mailnames()}, message);
    }
    // The contents of the files in a maildir's new, oldest name first.
    std::vector<std::string> newMail(const std::string &box) {
        std::vector<std::string> mail;
        for (const auto &name : sb.list(box + "/Maildir/new"))
            mail.push_back(sb.read(box + "/Maildir/new/" + name));
        return mail;
    }

    Sandbox sb;
};

// Every file of the sandbox (run records and overlay work directories aside)
// with its size and modification time; directories by name only, since the
// spool directory's own time changes with every run.
std::string snapshot(const Sandbox &sb) {
    const std::string r = sb.root();
    return hostOutput("find " + r + " \\( -path " + r + "/runs -o -path " + r + "/work -o -path " + r +
                      "/olddev \\) -prune -o -type d -printf '%p dir\\n' -o -printf '%p %s %T@\\n' | sort");
}

TEST_F(HostileInputTest, RecipientsCannotLeaveTheMailnamesTree) {
    std::string box = mailboxWithMaildir("d", "u");
    sb.write(box + "/.qmail", "./Maildir/\n");
    // A .qmail wherever a recipient that got out would land; each would append
    // to an mbox beside it.
    const std::vector<std::string> traps = {
        sb.mailnames() + "/.qmail",        // ..@d: d/.. is the mailnames directory
        sb.root() + "/u/.qmail",           // u@..: the directory above the tree
        sb.mailnames() + "/u/.qmail",      // u@. and ../u@d
        sb.mailnames() + "/d/x/u/.qmail",  // u@d/x
        sb.root() + "/.qmail",             // ..@..
    };
    for (const auto &trap : traps)
        sb.write(trap, "./escaped\n");
    // The handler registry file appears on the first run of any delivery.
    RunResult warmUp = deliver("nobody@d", "Message-ID: <climb@example.org>\n\nbody\n");
    ASSERT_TRUE(warmUp.logged(3, "Unknown user: nobody@d")) << warmUp.logDump();
    const std::string before = snapshot(sb);
    ASSERT_NE(before.find(sb.mailnames() + "/.qmail "), std::string::npos) << before;

    struct Case {
        std::string recipient;
        std::string detail;
    };
    for (const Case &c : {
             Case{"..@d", "bad entry .. (is . or ..)"},
             Case{"u@..", "bad entry .. (is . or ..)"},
             Case{"u@d/x", "bad entry d/x (contains /)"},
             Case{"u@.", "bad entry . (is . or ..)"},
             Case{"../u@d", "bad entry ../u (contains /)"},
             Case{"..@..", "bad entry .. (is . or ..)"},
             Case{".@d", "bad entry . (is . or ..)"},
             Case{"nobody@d", "cannot chdir to mailname dir nobody: No such file or directory"},
             Case{"u@", "cannot chdir to domain dir : No such file or directory"},
         }) {
        SCOPED_TRACE(c.recipient);
        RunResult r = deliver(c.recipient, "Message-ID: <climb@example.org>\n\nbody\n");
        EXPECT_EQ(r.status, 0);
        EXPECT_EQ(r.out, "");
        EXPECT_FALSE(r.signalled);
        EXPECT_TRUE(r.logged(3, "Unknown user: " + c.recipient)) << r.logDump();
        EXPECT_TRUE(r.logged(3, c.detail)) << r.logDump();
        // Not a byte written anywhere: no mbox beside a trap, no spool file
        // left, no delivery-state database, the mailbox untouched.
        EXPECT_EQ(snapshot(sb), before);
    }

    // The same message to the mailbox itself does arrive.
    RunResult good = deliver("u@d", "Message-ID: <climb@example.org>\n\nbody\n");
    EXPECT_EQ(good.status, 0) << good.logDump();
    EXPECT_EQ(newMail(box).size(), 1u);
    for (const auto &trap : traps)
        EXPECT_FALSE(sb.exists(trap.substr(0, trap.rfind('/')) + "/escaped")) << trap;
}

// Only the mode counts: a .qmail owned by another user is followed as long as
// neither its group nor others could have written it.
TEST_F(HostileInputTest, ForeignQmailIsFollowedWritableOneRefused) {
    struct Case {
        mode_t mode;
        bool refused;
    };
    const std::string message = "Message-ID: <owner@example.org>\n\nbody\n";
    int n = 0;
    for (const Case &c : {Case{0644, false}, Case{0444, false}, Case{0664, true}, Case{0646, true},
                          Case{0666, true}}) {
        std::string mailname = "box" + std::to_string(++n);
        std::string box = mailboxWithMaildir("example.com", mailname);
        std::string qmail = box + "/.qmail";
        sb.write(qmail, "./Maildir/\n./mbox\n", c.mode);
        ASSERT_EQ(chown(qmail.c_str(), 4321, 4321), 0);
        SCOPED_TRACE(std::to_string(c.mode));
        RunResult r = deliver(mailname + "@example.com", message);
        if (c.refused) {
            EXPECT_EQ(r.status, 75);
            EXPECT_EQ(r.out, kTryLater);
            EXPECT_TRUE(r.logged(3, "File .qmail is writable for group or others\n")) << r.logDump();
            EXPECT_TRUE(r.logged(3, "Wrong permissions for .qmail"));
            EXPECT_TRUE(newMail(box).empty());
            EXPECT_FALSE(sb.exists(box + "/mbox"));
        } else {
            EXPECT_EQ(r.status, 0) << r.logDump();
            EXPECT_EQ(r.out, "");
            EXPECT_EQ(newMail(box), std::vector<std::string>{message});
            EXPECT_EQ(sb.read(box + "/mbox"), message + "\n");
        }
        EXPECT_TRUE(sb.list(kSpoolDir).empty());
    }
}

// 99,999 comment and blank lines before the one maildir line. The first run
// finds no maildir and defers, so the delivery state must keep every served
// line; the retry skips them all and delivers once.
TEST_F(HostileInputTest, HundredThousandLineQmail) {
    std::string box = sb.mailbox("example.com", "many");
    std::string content;
    for (int i = 1; i < 100000; i++)
        content += i % 2 ? "# note " + std::to_string(i) + "\n" : std::string(i % 4 ? "\t\n" : "\n");
    content += "./Maildir/\n";
    sb.write(box + "/.qmail", content);
    const std::string message = "Message-ID: <Many.Lines@example.org>\n\nbody\n";
    const std::string key = "<many.lines@example.org> " + kSender + " many@example.com";

    auto started = std::chrono::steady_clock::now();
    RunResult first = deliver("many@example.com", message);
    auto firstTook = std::chrono::steady_clock::now() - started;
    EXPECT_EQ(first.status, 75) << first.logDump();
    EXPECT_EQ(first.out, kTryLater);
    RunResult stored = sb.shell("tchmgr get " + kStateDb + " '" + key + "' | wc -l");
    // 50,000 distinct comments and the empty line that every blank one trims to.
    EXPECT_EQ(stored.out, "50001\n");

    for (const char *sub : {"/Maildir/tmp", "/Maildir/new", "/Maildir/cur"})
        sb.mkdirs(box + sub);
    started = std::chrono::steady_clock::now();
    RunResult second = deliver("many@example.com", message);
    auto secondTook = std::chrono::steady_clock::now() - started;
    EXPECT_EQ(second.status, 0) << second.logDump();
    EXPECT_EQ(newMail(box), std::vector<std::string>{message});
    EXPECT_NE(sb.shell("tchmgr get " + kStateDb + " '" + key + "'").status, 0);
    EXPECT_TRUE(sb.list(kSpoolDir).empty());
    using ms = std::chrono::milliseconds;
    printf("100,000-line .qmail: deferring run %lld ms, delivering retry %lld ms\n",
           static_cast<long long>(std::chrono::duration_cast<ms>(firstTook).count()),
           static_cast<long long>(std::chrono::duration_cast<ms>(secondTook).count()));
}

TEST_F(HostileInputTest, CrlfAndNulMessagesAreStoredByteExact) {
    std::string binary;
    for (int i = 0; i < 4096; i++)
        binary += static_cast<char>(i * 7);
    const std::vector<std::pair<std::string, std::string>> messages = {
        {"crlf", "From: a@example.org\r\nMessage-ID: <CRLF.1@example.org>\r\nSubject: s\r\n\r\n"
                 "line 1\r\n.\r\nFrom the start\r\n\r\n"},
        {"nul", std::string(65536, '\0')},
        {"nul-lines", std::string("Message-ID: <nul.lines@example.org>\n\n") + std::string(1000, '\0') + "\n\n" +
                          std::string(3, '\0')},
        {"binary", "Message-ID: <binary@example.org>\n\n" + binary},
    };
    for (const auto &[name, message] : messages) {
        SCOPED_TRACE(name);
        std::string box = mailboxWithMaildir("example.com", name);
        sb.write(box + "/.qmail", "./Maildir/\n./mbox\n");
        RunResult r = deliver(name + "@example.com", message);
        EXPECT_EQ(r.status, 0) << r.logDump() << r.err;
        EXPECT_FALSE(r.signalled);
        std::vector<std::string> mail = newMail(box);
        ASSERT_EQ(mail.size(), 1u);
        EXPECT_TRUE(mail[0] == message) << mail[0].size() << " bytes stored of " << message.size();
        EXPECT_TRUE(sb.read(box + "/mbox") == message + "\n");
        EXPECT_TRUE(sb.list(kSpoolDir).empty());
    }
}

// A Message-ID holding a NUL byte cannot be a database key without being cut
// short of the sender and recipient that keep deliveries apart. One recipient's
// half-served record must never make another recipient's delivery skip lines.
TEST_F(HostileInputTest, MessageIdWithNulKeepsRecipientsApart) {
    const std::string message = std::string("Message-ID: <shared") + '\0' + "x@example.org>\n\nbody\n";
    std::string alice = mailboxWithMaildir("example.com", "alice");
    std::string bob = mailboxWithMaildir("example.com", "bob");
    sb.write(alice + "/.qmail", "./Maildir/\n|exit 75\n");
    sb.write(bob + "/.qmail", "./Maildir/\n");

    RunResult first = deliver("alice@example.com", message);
    EXPECT_EQ(first.status, 75) << first.logDump();
    EXPECT_EQ(newMail(alice).size(), 1u);
    RunResult second = deliver("bob@example.com", message);
    EXPECT_EQ(second.status, 0) << second.logDump();
    EXPECT_EQ(newMail(bob), std::vector<std::string>{message});
    EXPECT_TRUE(second.logged(
        4, "deliveryManager: Get empty message id, delivery state will be disabled for this mail"))
        << second.logDump();
}

// A message through a pipe, as the transfer agent hands it over: 64 MiB here,
// 1 GiB with FERNDROP_LONG=1. It must land whole (size and SHA-256) while the
// delivery's peak memory stays that of a small message.
TEST_F(HostileInputTest, LargeMessageThroughAPipe) {
    const bool longRun = getenv("FERNDROP_LONG") != nullptr && std::string(getenv("FERNDROP_LONG")) == "1";
    const long long size = longRun ? 1LL << 30 : 64LL << 20;
    std::string box = mailboxWithMaildir("example.com", "big");
    sb.write(box + "/.qmail", "./Maildir/\n");
    // Numbered lines: a lost, doubled or moved block changes the checksum.
    auto source = [](long long bytes) {
        return "{ printf 'Message-ID: <big@example.org>\\n\\n'; seq 1 1000000000000; } 2>/dev/null | head -c " +
               std::to_string(bytes);
    };
    auto deliverPiped = [&](long long bytes) {
        RunSpec spec;
        spec.argv = {"/bin/sh", "-c",
                     source(bytes) + " | " + ferndropBinary() + " -f " + kSender + " -d big@example.com -p " +
                         sb.mailnames()};
        spec.timeoutSeconds = longRun ? 1800 : 300;
        return sb.run(spec);
    };

    RunResult small = deliverPiped(64 << 10);
    ASSERT_EQ(small.status, 0) << small.logDump();
    ASSERT_EQ(newMail(box).size(), 1u);
    sb.remove(box + "/Maildir/new");
    sb.mkdirs(box + "/Maildir/new");

    RunResult large = deliverPiped(size);
    EXPECT_EQ(large.status, 0) << large.logDump() << large.err;
    EXPECT_EQ(large.out, "");
    std::vector<std::string> files = sb.list(box + "/Maildir/new");
    ASSERT_EQ(files.size(), 1u);
    std::string stored = box + "/Maildir/new/" + files[0];
    struct stat st;
    ASSERT_EQ(stat(stored.c_str(), &st), 0);
    EXPECT_EQ(st.st_size, size);
    std::string expected = hostOutput(source(size) + " | sha256sum");
    EXPECT_EQ(hostOutput("sha256sum < '" + stored + "'"), expected);
    EXPECT_TRUE(sb.list(kSpoolDir).empty());
    EXPECT_TRUE(sb.list(box + "/Maildir/tmp").empty());
    // Peak of the whole pipeline (the shell waits for every stage), against
    // the same pipeline with a 64 KiB message.
    EXPECT_LT(large.maxRssKb, small.maxRssKb + 8 * 1024)
        << "peak " << large.maxRssKb << " KiB against " << small.maxRssKb << " KiB";
    printf("%lld-byte message through a pipe: peak memory %ld KiB (64 KiB message: %ld KiB)\n", size,
           large.maxRssKb, small.maxRssKb);
}

}  // namespace
