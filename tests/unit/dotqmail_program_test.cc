// Program delivery: the command's exit code in the delivery-program language,
// the message on its standard input, output discarded, its own working
// directory, and the length limit checked before anything starts.
#include <gtest/gtest.h>

#include <climits>
#include <cstdlib>
#include <unistd.h>

#include "dotqmail/deliveries.h"
#include "test_support.h"

namespace {

class ProgramTest : public ::testing::Test {
  protected:
    // The delivery changes the working directory; the test process keeps its own.
    void SetUp() override {
        ASSERT_NE(getcwd(cwd, sizeof cwd), nullptr);
        writeFile(dir / "message", message);
    }
    void TearDown() override { ASSERT_EQ(chdir(cwd), 0); }
    int run(const std::string &command) {
        return deliverProgram((dir / "message").c_str(), command.c_str(), dir.path().c_str());
    }
    char cwd[PATH_MAX];
    ScratchDir dir;
    LogCapture log;
    std::string message = std::string("Subject: program\n\nbody\0with NUL\n", 33) + std::string(100000, 'z');
};

TEST_F(ProgramTest, ExitCodesMapToDeliveryResults) {
    struct Case {
        int exitCode;
        int result;
    };
    for (Case c : {Case{0, 0}, Case{99, 99}, Case{77, 77}, Case{100, 100}, Case{75, 111}, Case{1, 111},
                   Case{65, 100}, Case{112, 100}, Case{255, 111}}) {
        SCOPED_TRACE(c.exitCode);
        EXPECT_EQ(run("exit " + std::to_string(c.exitCode)), c.result);
    }
    EXPECT_TRUE(log.lines().empty()) << log.dump();
}

TEST_F(ProgramTest, KilledCommandIsTemporaryFailure) {
    EXPECT_EQ(run("kill -9 $$"), 111);
    EXPECT_TRUE(log.contains(3, "LOG Unable to get child exit code: Success")) << log.dump();
}

TEST_F(ProgramTest, CommandReadsWholeMessageFromFirstByte) {
    EXPECT_EQ(run("cat > copy"), 0);
    EXPECT_EQ(readFile(dir / "copy"), message);
    // A second run gets its own descriptor, again from the first byte.
    EXPECT_EQ(run("head -c 8 > head"), 0);
    EXPECT_EQ(readFile(dir / "head"), "Subject:");
}

TEST_F(ProgramTest, StandardOutputDiscardedStandardErrorKept) {
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    int rc = run("echo to-stdout; echo to-stderr >&2; cat");
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "to-stderr\n");
    EXPECT_EQ(rc, 0);
}

TEST_F(ProgramTest, RunsInTheGivenDirectory) {
    ASSERT_EQ(mkdir((dir / "sub").c_str(), 0755), 0);
    ASSERT_EQ(deliverProgram((dir / "message").c_str(), "pwd > where", (dir / "sub").c_str()), 0);
    char *real = realpath((dir / "sub").c_str(), nullptr);
    ASSERT_NE(real, nullptr);
    EXPECT_EQ(readFile(dir / "sub/where"), std::string(real) + "\n");
    free(real);
}

TEST_F(ProgramTest, CommandsThatCannotRunArePermanentFailures) {
    std::string missingDir = dir / "absent";
    EXPECT_EQ(deliverProgram((dir / "message").c_str(), "touch ran", missingDir.c_str()), 100);
    EXPECT_TRUE(log.contains(3, "Unable to change directory to " + missingDir + ": No such file or directory\n"))
        << log.dump();

    EXPECT_EQ(deliverProgram((dir / "absent-message").c_str(), "touch ran", dir.path().c_str()), 100);
    EXPECT_TRUE(log.contains(3, "Unable to open message file: No such file or directory\n")) << log.dump();
    EXPECT_FALSE(fileExists(dir / "ran"));
}

TEST_F(ProgramTest, CommandLengthLimitIs8194) {
    // The command leaves a marker, so a refused one visibly never started.
    auto commandOf = [](size_t length) {
        std::string c = "touch ran-" + std::to_string(length) + " #";
        return c + std::string(length - c.size(), 'x');
    };
    std::string longest = commandOf(8194);
    std::string tooLong = commandOf(8195);
    ASSERT_EQ(longest.size(), 8194u);
    ASSERT_EQ(tooLong.size(), 8195u);

    EXPECT_EQ(run(longest), 0) << log.dump();
    EXPECT_TRUE(fileExists(dir / "ran-8194"));

    EXPECT_EQ(run(tooLong), 100);
    EXPECT_FALSE(fileExists(dir / "ran-8195"));
    EXPECT_TRUE(log.contains(3, "The command from '" + (dir / "message") + "' too long: " + tooLong + "\n"))
        << log.dump();
}

}  // namespace
