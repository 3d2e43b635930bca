// The four deliveries as the running system sees them, driven through a small
// probe program inside the sandbox: what sendmail and delivery programs
// receive (arguments, descriptors, environment, the message), and what a full
// disk or a failing system call leaves behind in mboxes and maildirs.
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <sstream>

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
    void SetUp() override {
        sb.write(messagePath, message);
        sb.mkdirs(root + "/mailbox");
    }
    RunResult probe(const std::vector<std::string> &args, const std::vector<std::string> &env = {}) {
        RunSpec spec;
        spec.argv = {kProbe};
        spec.argv.insert(spec.argv.end(), args.begin(), args.end());
        spec.env = env;
        return sb.run(spec);
    }
    void makeMaildir(const std::string &path) {
        for (const char *sub : {"tmp", "new", "cur"})
            sb.mkdirs(path + "/" + sub);
    }
    // Error lines the delivery logged (priority 3).
    static int errorLines(const RunResult &r) {
        return static_cast<int>(
            std::count_if(r.log.begin(), r.log.end(), [](const SyslogLine &l) { return l.priority == 3; }));
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

// ---- forwarding ---------------------------------------------------------

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
        EXPECT_EQ(errorLines(r), 0) << r.logDump();
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
    sb.installSendmailRecorder(75);
    RunResult r = probe({"forward", messagePath, "s@example.org", "other@example.net"});
    EXPECT_EQ(r.status, 255);
    EXPECT_TRUE(r.logged(3, "Unable to forward original message. sendmail status: 75")) << r.logDump();
    EXPECT_TRUE(r.logged(3, "Unable to send mail for: other@example.net\n")) << r.logDump();
    EXPECT_EQ(sb.calls("sendmail").size(), 1u);

    // A sendmail that dies by a signal.
    sb.write("/usr/sbin/sendmail", "#!/bin/sh\ncat >/dev/null\nkill -9 $$\n", 0755);
    r = probe({"forward", messagePath, "s@example.org", ""});
    EXPECT_EQ(r.status, 255);
    EXPECT_TRUE(r.loggedContaining("process '/usr/sbin/sendmail' killed by signal 9")) << r.logDump();
    EXPECT_TRUE(r.loggedContaining("Unable to forward original message via sendmail: ")) << r.logDump();
    EXPECT_TRUE(r.logged(3, "Unable to send mail for: \n")) << r.logDump();

    // No message: nothing is started.
    sb.installSendmailRecorder(0);
    r = probe({"forward", root + "/absent", "s@example.org", "other@example.net"});
    EXPECT_EQ(r.status, 255);
    EXPECT_TRUE(r.logged(3, "System error: No such file or directory\n")) << r.logDump();
    EXPECT_EQ(sb.calls("sendmail").size(), 1u);
}

// ---- program delivery ---------------------------------------------------

TEST_F(DeliveriesTest, ProgramGetsMessageEnvironmentAndOnlyThreeDescriptors) {
    sb.installRecorder("/usr/local/bin/filter", "filter", 77);
    RunResult r = probe({"program", messagePath, "/usr/local/bin/filter one 'two words'", root + "/mailbox"},
                        {"DELIVERED_TO=box@example.com"});
    EXPECT_EQ(r.status, 77) << r.err << r.logDump();
    std::vector<std::string> calls = sb.calls("filter");
    ASSERT_EQ(calls.size(), 1u);
    EXPECT_EQ(Sandbox::slurpHost(calls[0] + "/argv"), "one\ntwo words\n");
    EXPECT_EQ(Sandbox::slurpHost(calls[0] + "/stdin"), message);
    EXPECT_EQ(Sandbox::slurpHost(calls[0] + "/fds"), "0\n1\n2\n");
    EXPECT_NE(Sandbox::slurpHost(calls[0] + "/env").find("\nDELIVERED_TO=box@example.com\n"), std::string::npos);
}

TEST_F(DeliveriesTest, ProgramOutputIsDiscardedItsErrorsKept) {
    RunResult r = probe({"program", messagePath, "echo out; echo err >&2; pwd >&2; exit 99", root + "/mailbox"});
    EXPECT_EQ(r.status, 99);
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(r.err, "err\n" + root + "/mailbox\n");
}

// ---- full disk ----------------------------------------------------------

TEST_F(DeliveriesTest, FullDiskLeavesMboxAtItsOldLengthAndMaildirNewEmpty) {
    // A 64 KiB file system, private to the namespace, already holding an mbox
    // and a maildir; the message is larger than the room left.
    std::string big;
    for (int i = 0; i < 3000; i++)
        big += "a long line of the big message, number " + std::to_string(i) + "\n";
    sb.write(root + "/big", big);
    std::string old = "Subject: already there\n\nold body\n\n";
    sb.write(root + "/old-mbox", old);
    sb.mkdirs(root + "/full");
    sb.mkdirs(root + "/after");
    std::string script = "set -u\n"
                         "R=" + root + "; P=" + kProbe + "; F=$R/full; A=$R/after\n"
                         "mount -t tmpfs -o size=64k tmpfs $F || exit 120\n"
                         "cp $R/old-mbox $F/mbox && mkdir -p $F/Maildir/tmp $F/Maildir/new || exit 121\n"
                         "$P mbox $R/big $F/mbox; echo mbox=$?\n"
                         "cp $F/mbox $A/mbox\n"
                         "$P maildir $R/big $F/Maildir; echo maildir=$?\n"
                         "ls $F/Maildir/new | wc -l | tr -d ' ' > $A/new-count\n"
                         "umount $F\n";
    RunResult r = sb.shell(script);
    EXPECT_EQ(r.out, "mbox=255\nmaildir=255\n") << r.err << r.logDump();
    EXPECT_EQ(sb.read(root + "/after/mbox"), old);
    EXPECT_TRUE(r.logged(3, "Unable to write data to mailbox: No space left on device\n")) << r.logDump();
    EXPECT_EQ(sb.read(root + "/after/new-count"), "0\n");
    EXPECT_TRUE(r.logged(3, "Unable to write message into temporary file")) << r.logDump();
    EXPECT_TRUE(sb.list(root + "/full").empty());  // the file system never reached the host
}

// ---- failing system calls -----------------------------------------------

struct Injection {
    std::string syscall, error;
    bool alwaysFails;  // false where some calls' failures are harmless (closing the message)
};

// Runs the probe under strace and makes chosen calls fail. Calls are counted
// from the start of the process, so the calls every run makes before the
// delivery (dynamic loader, log set-up: measured with "noop") are skipped and
// exactly the delivery's own calls are failed, one run each.
class InjectionTest : public DeliveriesTest {
  protected:
    void SetUp() override {
#ifdef FERNDROP_SANITIZED
        GTEST_SKIP() << "system call counts are only meaningful for the release build";
#endif
        DeliveriesTest::SetUp();
    }
    RunResult traced(const std::vector<std::string> &probeArgs, const std::vector<std::string> &options) {
        sb.remove(trace);
        RunSpec spec;
        spec.argv = {"/usr/bin/strace", "-f", "-qq", "-o", trace};
        spec.argv.insert(spec.argv.end(), options.begin(), options.end());
        spec.argv.push_back(kProbe);
        spec.argv.insert(spec.argv.end(), probeArgs.begin(), probeArgs.end());
        return sb.run(spec);
    }
    int countCalls(const std::vector<std::string> &probeArgs, const std::string &syscall) {
        RunResult r = traced(probeArgs, {"-e", "trace=" + syscall});
        EXPECT_EQ(r.status, 0) << r.err << r.logDump();
        std::istringstream in(Sandbox::slurpHost(trace));
        int count = 0;
        for (std::string line; std::getline(in, line);)
            count += line.find(" " + syscall + "(") != std::string::npos;
        return count;
    }
    // true when the run really had a call failed.
    bool injectedRun(const std::vector<std::string> &probeArgs, const std::vector<std::string> &injects, RunResult &r) {
        std::vector<std::string> options;
        for (const auto &inject : injects) {
            options.push_back("-e");
            options.push_back("inject=" + inject);
        }
        r = traced(probeArgs, options);
        return Sandbox::slurpHost(trace).find("(INJECTED)") != std::string::npos;
    }

    // Fails each call of each syscall that the delivery makes, one run per
    // call; check() judges every run. Returns the number of runs.
    int everyCall(const std::vector<Injection> &injections, const std::vector<std::string> &probeArgs,
                  const std::function<void()> &reset, const std::function<void(const RunResult &)> &check) {
        int runs = 0;
        for (const auto &inj : injections) {
            int before = countCalls({"noop"}, inj.syscall);
            reset();
            int total = countCalls(probeArgs, inj.syscall);
            EXPECT_GT(total, before) << inj.syscall << " is never called by the delivery";
            for (int n = before + 1; n <= total; n++) {
                SCOPED_TRACE(inj.syscall + " call " + std::to_string(n - before) + " of " +
                             std::to_string(total - before));
                reset();
                RunResult r;
                EXPECT_TRUE(injectedRun(probeArgs, {inj.syscall + ":error=" + inj.error + ":when=" +
                                                    std::to_string(n)}, r));
                check(r);
                if (inj.alwaysFails) {
                    EXPECT_NE(r.status, 0) << "a failed " << inj.syscall << " went unnoticed";
                }
                runs++;
            }
        }
        return runs;
    }

    std::string trace = root + "/trace";
};

TEST_F(InjectionTest, MboxEitherHoldsTheMessageOnceOrItsOldLength) {
    std::string old = "Subject: earlier\n\nkept\n\n";
    std::string mbox = root + "/mailbox/mbox";
    std::string big = message + std::string(10000, 'q');  // several write(2) calls
    sb.write(root + "/big", big);
    int runs = everyCall(
        {{"write", "ENOSPC", true}, {"fsync", "EIO", true}, {"close", "EIO", false}}, {"mbox", root + "/big", mbox},
        [&] { sb.write(mbox, old); },
        [&](const RunResult &r) {
            std::string now = sb.read(mbox);
            if (r.status == 0) {
                EXPECT_EQ(now, old + big + "\n");
            } else {
                EXPECT_EQ(r.status, 255);
                EXPECT_EQ(now, old);
                EXPECT_GE(errorLines(r), 1) << r.logDump();
            }
        });
    EXPECT_GE(runs, 5);
    RecordProperty("injected_runs", runs);
}

TEST_F(InjectionTest, MaildirEitherHoldsTheMessageOnceOrNothingInNew) {
    std::string maildir = root + "/mailbox/Maildir";
    std::string big = message + std::string(10000, 'q');
    sb.write(root + "/big", big);
    auto check = [&](const RunResult &r) {
        std::vector<std::string> delivered = sb.list(maildir + "/new");
        if (r.status == 0) {
            ASSERT_EQ(delivered.size(), 1u) << r.logDump();
            EXPECT_EQ(sb.read(maildir + "/new/" + delivered[0]), big);
        } else {
            EXPECT_EQ(r.status, 255);
            EXPECT_TRUE(delivered.empty()) << r.logDump();
            EXPECT_GE(errorLines(r), 1) << r.logDump();
        }
    };
    auto reset = [&] {
        sb.remove(maildir);
        makeMaildir(maildir);
    };
    std::vector<Injection> injections = {
        {"write", "ENOSPC", true}, {"fsync", "EIO", true}, {"rename", "ENOSPC", true}, {"close", "EIO", false}};
    int runs = everyCall(injections, {"maildir", root + "/big", maildir}, reset, check);
    EXPECT_GE(runs, 7);
    RecordProperty("injected_runs", runs);
}

}  // namespace
