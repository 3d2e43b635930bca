// The handler protocol as the delivery agent reads it: verdict, LOG and DATA
// lines on the handler's standard error, its exit status, and every way a
// run can fail. Handlers are small /bin/sh scripts.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>

#include "handlers/forkexec.h"
#include "test_support.h"

namespace {

const char kMessage[] = "Subject: hello\n\nbody\n";

class ProtocolTest : public ::testing::Test {
  protected:
    void SetUp() override { writeFile(dir / "message", kMessage, 0600); }

    std::string script(const std::string &name, const std::string &body) {
        std::string path = dir / name;
        writeFile(path, "#!/bin/sh\n" + body, 0755);
        return path;
    }

    // Runs path over the message with [path, "ctx", "s@a.org", "r@b.org"].
    HandlerOutcome *run(const std::string &path, char **env = nullptr) {
        int in = open((dir / "message").c_str(), O_RDONLY);
        int out = open((dir / "out").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        std::string p = path, ctx = "ctx", sender = "s@a.org", recipient = "r@b.org";
        char *args[] = {p.data(), ctx.data(), sender.data(), recipient.data(), nullptr};
        HandlerOutcome *outcome = mh_forkexec(in, out, path.c_str(), args, env);
        close(in);
        close(out);
        return outcome;
    }

    // The verdict of a handler with this body.
    HandlerVerdict verdictOf(const std::string &body) {
        HandlerOutcome *o = run(script("h", body));
        EXPECT_NE(o, nullptr);
        HandlerVerdict v = o != nullptr ? o->verdict : ERROR;
        mh_outcome_free(o);
        return v;
    }

    ScratchDir dir;
    LogCapture log;
};

TEST_F(ProtocolTest, VerdictLines) {
    struct Case {
        std::string body;
        HandlerVerdict verdict;
    };
    const Case cases[] = {
        {"exit 0\n", PASS},
        {"echo 'DEFER 4.2.2 Mailbox full' >&2\n", DEFER},
        {"echo STOP >&2\n", STOP},
        {"echo STOPPED >&2\n", STOP},  // the keyword is a prefix
        {"echo SKIP >&2\n", SKIP},
        {"echo 'SKIP ' >&2\n", PASS},  // SKIP only as the whole line
        {"printf 'SKIP\\r\\n' >&2\n", PASS},
        {"printf SKIP >&2\n", SKIP},  // end of file ends the line too
        {"echo REJECT >&2\n", REJECT},
        {"echo stop >&2; echo ' STOP' >&2\n", PASS},  // exact case, very start only
        {"echo STOP >&2; echo REJECT >&2\n", STOP},  // the first verdict wins
        {"echo DEFER >&2; echo SKIP >&2\n", DEFER},
        {"echo 'noise' >&2; echo >&2; echo REJECT >&2\n", REJECT},
        {"echo REJECT >&2; exit 1\n", REJECT},  // a verdict decides whatever the status
        {"echo SKIP >&2; exit 255\n", SKIP},
        {"exit 3\n", ERROR},
        {"exit 255\n", ERROR},
        {"echo 'LOG STOP' >&2; exit 1\n", ERROR},  // a LOG line is no verdict
    };
    for (const Case &c : cases)
        EXPECT_EQ(verdictOf(c.body), c.verdict) << c.body;
}

TEST_F(ProtocolTest, UnknownExitStatusIsLoggedButNot255) {
    verdictOf("exit 3\n");
    EXPECT_TRUE(log.contains(7, "_mh_fork(): unrecognized status code '3'")) << log.dump();
    size_t before = log.lines().size();
    verdictOf("exit 255\n");
    EXPECT_EQ(log.lines().size(), before) << log.dump();
}

// A handler killed by a signal is an error whatever it said (shown end to
// end); one that stops itself is neither resumed nor waited for again.
TEST_F(ProtocolTest, StoppedHandlerIsAnError) {
    HandlerOutcome *stopped = run(script("stopped", "echo STOP >&2\nexec 2>&-\nkill -STOP $$\n"));
    ASSERT_NE(stopped, nullptr);
    EXPECT_EQ(stopped->verdict, ERROR);
    mh_outcome_free(stopped);
    const std::string &last = log.lines().back().text;
    const std::string prefix = "_mh_fork(): The child process with pid ";
    ASSERT_EQ(last.find(prefix), 0u) << log.dump();
    EXPECT_NE(last.find(" stopped by signal 19\n"), std::string::npos) << last;
    pid_t pid = atoi(last.c_str() + prefix.size());
    ASSERT_GT(pid, 0);
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
}

TEST_F(ProtocolTest, DataAndLogLines) {
    HandlerOutcome *o = run(script("data", "echo 'DATA  first ' >&2\nprintf 'DATA\\t second value \\r\\n' >&2\n"
                                           "echo 'LOG  two blanks kept' >&2\necho 'LOGnone' >&2\n"));
    ASSERT_NE(o, nullptr);
    EXPECT_EQ(o->verdict, PASS);
    ASSERT_NE(o->data, nullptr);
    EXPECT_STREQ(o->data, "second value");
    EXPECT_EQ(o->name, nullptr);
    mh_outcome_free(o);
    EXPECT_TRUE(log.contains(3, "  two blanks kept")) << log.dump();
    EXPECT_TRUE(log.contains(3, "none"));
    // Everything on standard error also reaches the debug log.
    bool traced = false;
    for (const auto &l : log.lines())
        traced |= l.priority == 7 && l.text.rfind("handlers_stderr: ", 0) == 0 &&
                  l.text.find("DATA  first \n") != std::string::npos;
    EXPECT_TRUE(traced) << log.dump();

    HandlerOutcome *bare = run(script("bare", "echo DATA >&2\n"));
    ASSERT_NE(bare, nullptr);
    ASSERT_NE(bare->data, nullptr);
    EXPECT_STREQ(bare->data, "");
    mh_outcome_free(bare);

    HandlerOutcome *none = run(script("none", "echo 'data lower' >&2\n"));
    ASSERT_NE(none, nullptr);
    EXPECT_EQ(none->data, nullptr);
    mh_outcome_free(none);
}

// The pass lets handlers inherit the environment, and their arguments and
// streams are shown end to end; an environment given here replaces it.
TEST_F(ProtocolTest, GivenEnvironmentReplacesTheInheritedOne) {
    setenv("FERNDROP_PROTOCOL_TEST", "inherited", 1);
    std::string variable = "FERNDROP_PROTOCOL_TEST=given";
    char *env[] = {variable.data(), nullptr};
    HandlerOutcome *o = run(script("env", "echo \"$FERNDROP_PROTOCOL_TEST\"\n"), env);
    unsetenv("FERNDROP_PROTOCOL_TEST");
    ASSERT_NE(o, nullptr);
    EXPECT_EQ(o->verdict, PASS);
    mh_outcome_free(o);
    EXPECT_EQ(readFile(dir / "out"), "given\n");
}

TEST_F(ProtocolTest, ProgramThatCannotRun) {
    std::string missing = dir / "no/such/handler";
    HandlerOutcome *o = run(missing);
    ASSERT_NE(o, nullptr);
    EXPECT_EQ(o->verdict, ERROR);
    mh_outcome_free(o);
    EXPECT_TRUE(log.contains(7, "handlers_stderr: Mail handler call failed. Error occured during execv(" + missing +
                                    "):\nNo such file or directory.\n"))
        << log.dump();

    // No search path: a bare name is not looked up in PATH.
    EXPECT_EQ(verdictOf("exit 0\n"), PASS);
    HandlerOutcome *bare = run("true");
    ASSERT_NE(bare, nullptr);
    EXPECT_EQ(bare->verdict, ERROR);
    mh_outcome_free(bare);
}

TEST_F(ProtocolTest, StandardDescriptorsAreRefused) {
    std::string marker = dir / "ran";
    std::string path = script("marker", "touch " + marker + "\n");
    char *args[] = {path.data(), nullptr};
    int fd = open((dir / "message").c_str(), O_RDONLY);
    for (auto [in, out] : {std::pair{fd, 2}, std::pair{0, fd}, std::pair{fd, 1}}) {
        HandlerOutcome *o = mh_forkexec(in, out, path.c_str(), args, nullptr);
        ASSERT_NE(o, nullptr);
        EXPECT_EQ(o->verdict, ERROR);
        mh_outcome_free(o);
    }
    close(fd);
    EXPECT_FALSE(fileExists(marker));
    EXPECT_TRUE(log.contains(3, "mh_forkexec(): values 0,1,2 not allowed for variables fd_in & fd_out\n"))
        << log.dump();
}

TEST_F(ProtocolTest, LargeStandardErrorDoesNotBlockTheHandler) {
    // Far more than a pipe holds, then the verdict at the very end.
    HandlerVerdict v = verdictOf("i=0; while [ $i -lt 4000 ]; do echo \"noise line $i of the handler\" >&2; "
                                 "i=$((i+1)); done\necho DEFER >&2\n");
    EXPECT_EQ(v, DEFER);
}

}  // namespace
