// Splitting the recipient and entering its mailbox directory: case-insensitive
// fallback, preference for exact names, links, and the log line of each step
// that fails. (Names that would leave the mailnames tree are refused end to
// end, in hostile_input_test.cc.)
#include <gtest/gtest.h>
#include <dirent.h>
#include <fcntl.h>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <string>

#include "driver/mailbox_dir.h"
#include "test_support.h"

namespace {

TEST(SplitAddress, CutsAtTheFirstAt) {
    struct Case {
        const char *address;
        const char *mailname;
        const char *domain;
    };
    for (const Case &c : {Case{"user@example.com", "user", "example.com"}, Case{"a@b@c", "a", "b@c"},
                          Case{"user@", "user", ""}, Case{"@example.com", "", "example.com"},
                          Case{"nodomain", "nodomain", nullptr}}) {
        SCOPED_TRACE(c.address);
        std::string text = c.address;
        char *mailname = nullptr;
        char *domain = reinterpret_cast<char *>(1);
        splitAddress(text.data(), &mailname, &domain);
        EXPECT_EQ(mailname, text.data()) << "mailname is the start of the same text";
        EXPECT_STREQ(mailname, c.mailname);
        if (c.domain == nullptr) {
            EXPECT_EQ(domain, nullptr);
        } else {
            ASSERT_NE(domain, nullptr);
            EXPECT_EQ(domain, text.data() + strlen(c.mailname) + 1);
            EXPECT_STREQ(domain, c.domain);
        }
    }
    char *mailname = reinterpret_cast<char *>(1);
    char *domain = reinterpret_cast<char *>(1);
    splitAddress(nullptr, &mailname, &domain);
    EXPECT_EQ(mailname, nullptr);
    EXPECT_EQ(domain, nullptr);
}

class MailboxDirTest : public ::testing::Test {
  protected:
    void SetUp() override {
        saved = open(".", O_RDONLY | O_DIRECTORY);
        char *real = realpath(scratch.path().c_str(), nullptr);
        root = real;
        free(real);
        ASSERT_EQ(chdir(root.c_str()), 0);
    }
    void TearDown() override {
        if (fchdir(saved) != 0)
            ADD_FAILURE() << "cannot return to the original directory";
        close(saved);
    }
    void mkdirs(const std::string &relative) {
        std::string path = root;
        size_t start = 0;
        while (start <= relative.size()) {
            size_t slash = relative.find('/', start);
            if (slash == std::string::npos)
                slash = relative.size();
            path += "/" + relative.substr(start, slash - start);
            mkdir(path.c_str(), 0755);
            start = slash + 1;
        }
    }
    static std::string cwd() {
        char buf[PATH_MAX];
        return getcwd(buf, sizeof buf) ? buf : "";
    }

    ScratchDir scratch;
    std::string root;
    int saved = -1;
};

TEST_F(MailboxDirTest, ExactNameBeatsCaseMatchOtherwiseFirstInListingOrder) {
    mkdirs("Box");
    mkdirs("box");
    mkdirs("bOx");
    for (const char *name : {"Box", "box", "bOx"}) {
        ASSERT_EQ(chdirCaseless(name), 0);
        EXPECT_EQ(cwd(), root + "/" + name);
        ASSERT_EQ(chdir(root.c_str()), 0);
    }
    std::string first;
    DIR *d = opendir(".");
    while (dirent *e = readdir(d))
        if (first.empty() && strcasecmp(e->d_name, "BOX") == 0)
            first = e->d_name;
    closedir(d);
    ASSERT_EQ(chdirCaseless("BOX"), 0);
    EXPECT_EQ(cwd(), root + "/" + first);
}

TEST_F(MailboxDirTest, LinksAndFilesMatchOnlyByExactName) {
    mkdirs("target");
    ASSERT_EQ(symlink("target", (root + "/Linked").c_str()), 0);
    writeFile(root + "/Plain", "not a directory");

    errno = 0;
    EXPECT_EQ(chdirCaseless("linked"), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(cwd(), root);
    ASSERT_EQ(chdirCaseless("Linked"), 0);
    EXPECT_EQ(cwd(), root + "/target");
    ASSERT_EQ(chdir(root.c_str()), 0);

    errno = 0;
    EXPECT_EQ(chdirCaseless("plain"), -1);
    EXPECT_EQ(errno, ENOENT);
    // The exact change fails with an error other than ENOENT: no listing, no log.
    LogCapture log;
    errno = 0;
    EXPECT_EQ(chdirCaseless("Plain"), -1);
    EXPECT_EQ(errno, ENOTDIR);
    EXPECT_TRUE(log.lines().empty()) << log.dump();
}

TEST_F(MailboxDirTest, EachStepLogsItsOwnFailure) {
    mkdirs("mailnames/example.com/user");
    std::string mailnames = root + "/mailnames";
    struct Case {
        std::string dir;
        const char *domain;
        const char *mailname;
        std::string logged;
    };
    for (const Case &c : {
             Case{root + "/absent", "example.com", "user",
                  "cannot chdir to mailnames dir " + root + "/absent: No such file or directory"},
             Case{mailnames, "", "user", "cannot chdir to domain dir : No such file or directory"},
             Case{mailnames, "example.org", "user",
                  "cannot chdir to domain dir example.org: No such file or directory"},
             Case{mailnames, "EXAMPLE.COM", "nobody", "cannot chdir to mailname dir nobody: No such file or directory"},
         }) {
        SCOPED_TRACE(c.logged);
        LogCapture log;
        errno = 0;
        EXPECT_EQ(enterMailboxDir(c.dir.c_str(), c.domain, c.mailname), c.dir == mailnames ? -1 : -2);
        ASSERT_EQ(log.lines().size(), 1u) << log.dump();
        EXPECT_EQ(log.lines()[0].priority, 19);
        EXPECT_EQ(log.lines()[0].text, c.logged);
    }
}

}  // namespace
