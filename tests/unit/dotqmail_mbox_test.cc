// Mbox delivery: exact bytes plus one empty line, and a file cut back to its
// old length whenever a delivery fails. (Concurrent appends are shown end to
// end by the load test.)
#include <gtest/gtest.h>

#include <csignal>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "dotqmail/deliveries.h"
#include "test_support.h"

namespace {

class MboxTest : public ::testing::Test {
  protected:
    std::string deliverText(const std::string &message) {
        writeFile(dir / "message", message);
        EXPECT_EQ(deliverMbox((dir / "message").c_str(), mbox.c_str()), 0) << log.dump();
        return readFile(mbox);
    }
    ScratchDir dir;
    LogCapture log;
    std::string mbox = dir / "mbox";
};

TEST_F(MboxTest, AppendsExactBytesAndOneEmptyLine) {
    std::string first = "From a@b Mon Jan  1 00:00:00 2024\nSubject: one\n\nFrom the start\n>From quoted\n";
    EXPECT_EQ(deliverText(first), first + "\n");  // created, nothing quoted or added
    struct stat st;
    ASSERT_EQ(stat(mbox.c_str(), &st), 0);
    mode_t mask = umask(0);
    umask(mask);
    EXPECT_EQ(st.st_mode & 0777, 0666u & ~mask);

    std::string noNewline = "Subject: two\n\nlast line without newline";
    EXPECT_EQ(deliverText(noNewline), first + "\n" + noNewline + "\n");

    std::string withNul = std::string("Subject: three\n\na\0b\n\0\0\nend", 27);
    ASSERT_EQ(withNul.size(), 27u);
    EXPECT_EQ(deliverText(withNul), first + "\n" + noNewline + "\n" + withNul + "\n");

    std::string big;
    for (int i = 0; i < 5000; i++)
        big += "long body line " + std::to_string(i) + "\n";
    EXPECT_EQ(deliverText(big), first + "\n" + noNewline + "\n" + withNul + "\n" + big + "\n");

    EXPECT_EQ(deliverText(""), first + "\n" + noNewline + "\n" + withNul + "\n" + big + "\n\n");
    EXPECT_TRUE(log.lines().empty()) << log.dump();
}

TEST_F(MboxTest, UnreadableMessageOrUnopenableMboxIsReportedOnBothStreams) {
    writeFile(mbox, "old content\n\n");
    testing::internal::CaptureStderr();
    EXPECT_EQ(deliverMbox((dir / "absent").c_str(), mbox.c_str()), -1);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "Unable to read message: No such file or directory. (#4.3.0)");
    EXPECT_TRUE(log.contains(3, "Unable to read message: No such file or directory. (#4.3.0)\n")) << log.dump();
    EXPECT_EQ(log.lines().size(), 1u) << log.dump();
    EXPECT_EQ(readFile(mbox), "old content\n\n");

    writeFile(dir / "message", "x\n");
    std::string bad = dir / "no-such-dir/mbox";
    testing::internal::CaptureStderr();
    EXPECT_EQ(deliverMbox((dir / "message").c_str(), bad.c_str()), -1);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "Unable to open " + bad + ": No such file or directory. (#4.2.1)");
    EXPECT_TRUE(log.contains(3, "Unable to open " + bad + ": No such file or directory. (#4.2.1)\n")) << log.dump();
}

// A file size limit makes write(2) fail for real: part way through the copy,
// after some of the message already reached the file, or only at the added
// newline. Either way the rollback must restore the old length, and the same
// message goes through once the limit is gone.
TEST_F(MboxTest, WriteFailingMidwayOrAtTheFinalNewlineCutsBackToOldLength) {
    const std::string old = "Subject: earlier\n\nkept\n\n";
    const std::string big(20000, 'x');
    for (rlim_t limit : {old.size() + 9000, old.size() + big.size()}) {
        SCOPED_TRACE(limit);
        writeFile(mbox, old);
        writeFile(dir / "message", big);
        pid_t pid = fork();
        ASSERT_GE(pid, 0);
        if (pid == 0) {
            LogCapture childLog;
            signal(SIGXFSZ, SIG_IGN);
            rlimit lim{limit, limit};
            setrlimit(RLIMIT_FSIZE, &lim);
            int rc = deliverMbox((dir / "message").c_str(), mbox.c_str());
            _exit(rc == -1 && childLog.contains(3, "Unable to write data to mailbox: File too large\n") ? 0 : 1);
        }
        int status = 0;
        ASSERT_EQ(waitpid(pid, &status, 0), pid);
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
        EXPECT_EQ(readFile(mbox), old);

        EXPECT_EQ(deliverMbox((dir / "message").c_str(), mbox.c_str()), 0);
        EXPECT_EQ(readFile(mbox), old + big + "\n");
    }
}

}  // namespace
