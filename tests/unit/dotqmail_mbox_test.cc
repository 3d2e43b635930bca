// Mbox delivery: exact bytes plus one empty line, serialised appends between
// processes, and a file cut back to its old length whenever a delivery fails.
#include <gtest/gtest.h>

#include <csignal>
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "dotqmail/deliveries.h"
#include "test_support.h"

namespace {

// Redirects the process's standard error into a file for its lifetime.
class StderrCapture {
  public:
    explicit StderrCapture(const std::string &path) : path_(path) {
        fflush(stderr);
        saved_ = dup(2);
        int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        dup2(fd, 2);
        close(fd);
    }
    ~StderrCapture() { restore(); }
    std::string text() {
        restore();
        return readFile(path_);
    }

  private:
    void restore() {
        if (saved_ >= 0) {
            fflush(stderr);
            dup2(saved_, 2);
            close(saved_);
            saved_ = -1;
        }
    }
    std::string path_;
    int saved_ = -1;
};

off_t sizeOf(const std::string &path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0 ? st.st_size : -1;
}

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

TEST_F(MboxTest, ConcurrentDeliveriesNeverInterleave) {
    // Larger than one copy chunk, so an unlocked append would show as a split.
    std::string a, b;
    for (int i = 0; i < 2000; i++) {
        a += "A-message line " + std::to_string(i) + "\n";
        b += "B-message line " + std::to_string(i) + "\n";
    }
    writeFile(dir / "a", a);
    writeFile(dir / "b", b);
    const int perProcess = 200;
    // Both writers start together, so their appends really compete.
    int gate[2];
    ASSERT_EQ(pipe(gate), 0);
    std::vector<pid_t> children;
    for (const char *name : {"a", "b"}) {
        std::string msg = dir / name;
        pid_t pid = fork();
        ASSERT_GE(pid, 0);
        if (pid == 0) {
            close(gate[1]);
            char c;
            if (read(gate[0], &c, 1) != 0)
                _exit(2);
            int failures = 0;
            for (int i = 0; i < perProcess; i++)
                failures += deliverMbox(msg.c_str(), mbox.c_str()) != 0;
            _exit(failures == 0 ? 0 : 1);
        }
        children.push_back(pid);
    }
    close(gate[0]);
    close(gate[1]);
    for (pid_t pid : children) {
        int status = 0;
        ASSERT_EQ(waitpid(pid, &status, 0), pid);
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    }

    std::string content = readFile(mbox);
    std::string blockA = a + "\n", blockB = b + "\n";
    int countA = 0, countB = 0;
    size_t pos = 0;
    while (pos < content.size()) {
        if (content.compare(pos, blockA.size(), blockA) == 0) {
            countA++;
            pos += blockA.size();
        } else if (content.compare(pos, blockB.size(), blockB) == 0) {
            countB++;
            pos += blockB.size();
        } else {
            ADD_FAILURE() << "broken message at byte " << pos << " after " << countA + countB << " messages";
            break;
        }
    }
    EXPECT_EQ(countA, perProcess);
    EXPECT_EQ(countB, perProcess);
}

TEST_F(MboxTest, UnreadableMessageReportsAndLeavesMboxAlone) {
    writeFile(mbox, "old content\n\n");
    StderrCapture err(dir / "stderr");
    EXPECT_EQ(deliverMbox((dir / "absent").c_str(), mbox.c_str()), -1);
    EXPECT_EQ(err.text(), "Unable to read message: No such file or directory. (#4.3.0)");
    EXPECT_TRUE(log.contains(3, "Unable to read message: No such file or directory. (#4.3.0)\n")) << log.dump();
    EXPECT_EQ(log.lines().size(), 1u) << log.dump();
    EXPECT_EQ(readFile(mbox), "old content\n\n");
}

TEST_F(MboxTest, UnopenableMboxReportsWithPath) {
    writeFile(dir / "message", "x\n");
    std::string bad = dir / "no-such-dir/mbox";
    StderrCapture err(dir / "stderr");
    EXPECT_EQ(deliverMbox((dir / "message").c_str(), bad.c_str()), -1);
    EXPECT_EQ(err.text(), "Unable to open " + bad + ": No such file or directory. (#4.2.1)");
    EXPECT_TRUE(log.contains(3, "Unable to open " + bad + ": No such file or directory. (#4.2.1)\n")) << log.dump();
}

TEST_F(MboxTest, WriteFailingMidwayCutsBackToOldLength) {
    // A file size limit makes write(2) fail part way through the copy, after
    // some of the message already reached the file: the rollback must remove it.
    std::string old = "Subject: earlier\n\nkept\n\n";
    writeFile(mbox, old);
    std::string big(20000, 'x');
    writeFile(dir / "message", big);
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        LogCapture childLog;
        signal(SIGXFSZ, SIG_IGN);
        rlimit lim{static_cast<rlim_t>(old.size() + 9000), static_cast<rlim_t>(old.size() + 9000)};
        setrlimit(RLIMIT_FSIZE, &lim);
        int rc = deliverMbox((dir / "message").c_str(), mbox.c_str());
        bool logged = childLog.contains(3, "Unable to write data to mailbox: File too large\n");
        _exit(rc == -1 && logged ? 0 : 1);
    }
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    EXPECT_EQ(readFile(mbox), old);

    // The same message goes through once the limit is gone.
    EXPECT_EQ(deliverMbox((dir / "message").c_str(), mbox.c_str()), 0);
    EXPECT_EQ(sizeOf(mbox), static_cast<off_t>(old.size() + big.size() + 1));
}

TEST_F(MboxTest, FinalNewlineFailingAlsoRollsBack) {
    // The limit admits the whole message but not the added newline.
    std::string old = "earlier\n\n";
    writeFile(mbox, old);
    std::string msg(5000, 'y');
    writeFile(dir / "message", msg);
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        LogCapture childLog;
        signal(SIGXFSZ, SIG_IGN);
        rlim_t size = old.size() + msg.size();
        rlimit lim{size, size};
        setrlimit(RLIMIT_FSIZE, &lim);
        int rc = deliverMbox((dir / "message").c_str(), mbox.c_str());
        _exit(rc == -1 && childLog.contains(3, "Unable to write data to mailbox: File too large\n") ? 0 : 1);
    }
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    EXPECT_EQ(readFile(mbox), old);
}

}  // namespace
