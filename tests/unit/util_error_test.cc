// The fatal report reaches the transfer agent through standard output, so its
// exact shape on both streams matters.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <sys/wait.h>
#include <unistd.h>

#include "util/error.h"

namespace {

struct Captured {
    int status;
    std::string out, err;
};

// Runs fn in a child with stdout and stderr captured through pipes.
template <typename Fn> Captured inChild(Fn fn) {
    int outPipe[2], errPipe[2];
    EXPECT_EQ(pipe(outPipe), 0);
    EXPECT_EQ(pipe(errPipe), 0);
    fflush(nullptr);
    pid_t pid = fork();
    if (pid == 0) {
        dup2(outPipe[1], 1);
        dup2(errPipe[1], 2);
        close(outPipe[0]);
        close(errPipe[0]);
        fn();
        fflush(nullptr);
        _exit(0);
    }
    close(outPipe[1]);
    close(errPipe[1]);
    auto drain = [](int fd) {
        std::string s;
        char buf[4096];
        ssize_t n;
        while ((n = read(fd, buf, sizeof buf)) > 0)
            s.append(buf, n);
        close(fd);
        return s;
    };
    Captured c;
    c.out = drain(outPipe[0]);
    c.err = drain(errPipe[0]);
    int status = 0;
    waitpid(pid, &status, 0);
    c.status = WEXITSTATUS(status);
    return c;
}

TEST(UtilErrorTest, SystemErrorIsAppendedOnBothStreamsAndStatusEndsTheProcess) {
    Captured c = inChild([] {
        errno = 11;
        util_error(1, "fork_execv_pipes: fork() failed");
    });
    std::string expected = std::string("fork_execv_pipes: fork() failed\nSystem error 11: ") + strerror(11) + "\n";
    EXPECT_EQ(c.status, 1);
    EXPECT_EQ(c.err, expected);
    EXPECT_EQ(c.out, expected);
}

TEST(UtilErrorTest, BareMessageWithoutErrnoNoDoubledNewlineAndLongMessagesWhole) {
    std::string longText(10000, 'x');
    Captured c = inChild([&] {
        errno = 0;
        util_error(0, "already ends\n");
        errno = 0;
        util_error(0, "%s", "");
        errno = 2;
        util_error(0, "%s", longText.c_str());
    });
    EXPECT_EQ(c.status, 0);
    EXPECT_EQ(c.out, "already ends\n\n" + longText + "\nSystem error 2: " + strerror(2) + "\n");
}

}  // namespace
