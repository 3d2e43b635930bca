// Folder names and Maildir paths of the store, including the exact edge of
// the 4097-byte buffer the delivery uses.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstring>
#include <string>

#include "paths.h"
#include "store/lda.h"
#include "test_support.h"
#include "util/conf.h"

namespace {

// Without the configuration file every root lookup logs its open failure at
// priority 12; these tests look at the store's own lines only.
std::vector<LoggedLine> storeLines(const LogCapture &log) {
    std::vector<LoggedLine> lines;
    for (const auto &l : log.lines())
        if (l.priority != 12)
            lines.push_back(l);
    return lines;
}

// The root comes from the configuration file, which the unit tests leave
// absent; the end-to-end tests cover a configured root.
class StorePathsTest : public ::testing::Test {
  protected:
    void SetUp() override {
        struct stat st;
        if (stat(FERNDROP_CONF_FILE, &st) == 0)
            GTEST_SKIP() << FERNDROP_CONF_FILE << " exists on this host";
        root = conf_get(KAVRA_MAILNAMES_D);
        ASSERT_EQ(root, "/var/qmail/mailnames");
    }
    std::string root;
};

TEST_F(StorePathsTest, InboxAndFolderPathsUseNamesAsGiven) {
    LogCapture log;
    char buffer[4097];
    ASSERT_EQ(build_maildir_path(buffer, sizeof buffer, "John.Doe", "Example.COM"), 0);
    EXPECT_STREQ(buffer, "/var/qmail/mailnames/Example.COM/John.Doe/Maildir");
    for (const char *inbox : {"INBOX", "", static_cast<const char *>(nullptr)}) {
        ASSERT_EQ(build_folder_path(buffer, sizeof buffer, "user", "example.com", inbox), 0);
        EXPECT_STREQ(buffer, "/var/qmail/mailnames/example.com/user/Maildir");
    }
    ASSERT_EQ(build_folder_path(buffer, sizeof buffer, "user", "example.com", ".Sent"), 0);
    EXPECT_STREQ(buffer, "/var/qmail/mailnames/example.com/user/Maildir/.Sent");
    ASSERT_EQ(build_folder_path(buffer, sizeof buffer, "user", "example.com", ".Archive.2024"), 0);
    EXPECT_STREQ(buffer, "/var/qmail/mailnames/example.com/user/Maildir/.Archive.2024");
    EXPECT_TRUE(storeLines(log).empty()) << log.dump();
}

TEST_F(StorePathsTest, FoldersWithoutLeadingDotAreInvalid) {
    for (const char *folder : {"Sent", "inbox", "INBOX.Sent", "/Sent"}) {
        SCOPED_TRACE(folder);
        LogCapture log;
        char buffer[4097];
        EXPECT_EQ(build_folder_path(buffer, sizeof buffer, "user", "example.com", folder), -1);
        auto lines = storeLines(log);
        ASSERT_EQ(lines.size(), 1u);
        EXPECT_EQ(lines[0].priority, 3);
        EXPECT_EQ(lines[0].text, std::string("Supplied IMAP folder name '") + folder +
                                           "' is not valid. '.' should be used as a separator");
    }
}

TEST_F(StorePathsTest, PathOf4096CharactersFitsOneMoreDoesNot) {
    const std::string fixed = root + "/example.com//Maildir";
    std::string mailname(4096 - fixed.size(), 'm');
    std::string buffer(4097 + 16, '\x7f');

    LogCapture log;
    ASSERT_EQ(build_maildir_path(buffer.data(), 4097, mailname.c_str(), "example.com"), 0);
    EXPECT_EQ(strlen(buffer.c_str()), 4096u);
    EXPECT_EQ(buffer.substr(4097), std::string(16, '\x7f'));
    EXPECT_TRUE(storeLines(log).empty());

    mailname += "m";
    EXPECT_EQ(build_maildir_path(buffer.data(), 4097, mailname.c_str(), "example.com"), -1);
    EXPECT_EQ(buffer.substr(4097), std::string(16, '\x7f')) << "nothing written past the buffer";
    auto lines = storeLines(log);
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].priority, 6);
    EXPECT_EQ(lines[0].text, "Either domain name 'example.com' or mailname '" + mailname +
                                       "' are too long to store Maildir path in the provided buffer");
}

TEST_F(StorePathsTest, FolderPathOf4096CharactersFitsOneMoreDoesNot) {
    const std::string fixed = root + "/example.com/user/Maildir/";
    std::string folder = "." + std::string(4096 - fixed.size() - 1, 'f');
    char buffer[4097];

    LogCapture log;
    ASSERT_EQ(build_folder_path(buffer, sizeof buffer, "user", "example.com", folder.c_str()), 0);
    EXPECT_EQ(strlen(buffer), 4096u);
    EXPECT_EQ(std::string(buffer), fixed + folder);

    folder += "f";
    EXPECT_EQ(build_folder_path(buffer, sizeof buffer, "user", "example.com", folder.c_str()), -1);
    auto lines = storeLines(log);
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].priority, 6);
    EXPECT_EQ(lines[0].text, "Domain name 'example.com', mailname 'user', or IMAP folder 'INBOX" + folder +
                                       "' are too long to store folder path in the provided buffer");
}

}  // namespace
