// Spawning: the child keeps exactly descriptors 0, 1 and 2, and every way a
// child can end comes back as an exit status or -1 with one log line.
#include <gtest/gtest.h>

#include <csignal>
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include "test_support.h"
#include "util/spawn.h"

namespace {

TEST(SpawnTest, WaitForChildDecodesEveryEnd) {
    LogCapture log;
    pid_t normal = fork_execl_pipes(-1, -1, -1, "/bin/sh", "/bin/sh", "-c", "exit 77", nullptr);
    EXPECT_EQ(wait_for_child(normal, "/bin/sh"), 77);

    pid_t missing = fork_execl_pipes(-1, -1, -1, "/nonexistent/prog", "/nonexistent/prog", nullptr);
    EXPECT_EQ(wait_for_child(missing, "/nonexistent/prog"), 255);
    EXPECT_TRUE(log.lines().empty()) << log.dump();

    pid_t killed = fork_execl_pipes(-1, -1, -1, "/bin/sh", "/bin/sh", "-c", "kill -9 $$", nullptr);
    EXPECT_EQ(wait_for_child(killed, nullptr), -1);
    ASSERT_EQ(log.lines().size(), 1u);
    EXPECT_EQ(log.lines()[0].priority, 4);
    EXPECT_EQ(log.lines()[0].text, "waitpid(" + std::to_string(killed) + ")=" + std::to_string(killed) +
                                       ": process '<unknown>' killed by signal 9");

    pid_t stopped = fork_execl_pipes(-1, -1, -1, "/bin/sh", "/bin/sh", "-c", "kill -STOP $$", nullptr);
    EXPECT_EQ(wait_for_child(stopped, "stopper"), -1);
    EXPECT_NE(log.lines().back().text.find("process 'stopper' stopped by signal 19"), std::string::npos);
    kill(stopped, SIGKILL);
    waitpid(stopped, nullptr, 0);

    EXPECT_EQ(wait_for_child(-1, "sendmail"), -1);
    EXPECT_TRUE(log.contains(3, "fork before spawning 'sendmail' failed"));
    EXPECT_EQ(wait_for_child(getpid() + 100000, "ghost"), -1);
    EXPECT_NE(log.lines().back().text.find("for 'ghost' process failed: No child processes (10)"), std::string::npos);
}

TEST(SpawnTest, ChildKeepsOnlyTheThreeStandardDescriptors) {
    ScratchDir dir;
    writeFile(dir / "message", "the message\n");
    int in = open((dir / "message").c_str(), O_RDONLY);
    int out = open((dir / "out").c_str(), O_WRONLY | O_CREAT, 0600);
    int stray = open("/dev/zero", O_RDONLY);  // no O_CLOEXEC: must still not leak
    ASSERT_GE(stray, 3);
    std::string script = "cat; ls /proc/self/fd | sort -n | tr '\\n' ' '";
    pid_t pid = fork_execl_pipes(in, out, -1, "/bin/sh", "/bin/sh", "-c", script.c_str(), nullptr);
    EXPECT_EQ(wait_for_child(pid, "/bin/sh"), 0);
    close(in);
    close(out);
    close(stray);
    // ls itself opens one descriptor for the directory it lists.
    EXPECT_EQ(readFile(dir / "out"), "the message\n0 1 2 3 ");
}

}  // namespace
