// Store delivery failures that happen before any agent is looked for: an
// unreadable message file and a recipient without a domain.
#include <gtest/gtest.h>
#include <fcntl.h>
#include <unistd.h>

#include "store/lda.h"
#include "test_support.h"

namespace {

TEST(StoreDelivery, UnreadableMessageFileIsReportedOnce) {
    ScratchDir dir;
    std::string path = dir / "absent";
    LogCapture log;
    EXPECT_EQ(lda_deliver_file(path.c_str(), "user@example.com", "INBOX"), -1);
    ASSERT_EQ(log.lines().size(), 1u) << log.dump();
    EXPECT_EQ(log.lines()[0].priority, 3);
    EXPECT_EQ(log.lines()[0].text, "Unable to read mail message from '" + path +
                                       "' for delivery to 'user@example.com': No such file or directory [2]");
}

TEST(StoreDelivery, ShortAddressIsRefusedAndSummarisedWithTheFolder) {
    ScratchDir dir;
    std::string path = dir / "message";
    writeFile(path, "Subject: x\n\nbody\n");
    const std::string refused = "Unable to deliver mail message to short address 'user' - I don't know how to do it";
    struct Case {
        const char *folder;
        const char *imapName;
    };
    for (const Case &c : {Case{"INBOX", "INBOX"}, Case{nullptr, "INBOX"}, Case{".Sent", "INBOX.Sent"}}) {
        SCOPED_TRACE(c.imapName);
        LogCapture log;
        EXPECT_EQ(lda_deliver_file(path.c_str(), "user", c.folder), -1);
        ASSERT_EQ(log.lines().size(), 2u) << log.dump();
        EXPECT_EQ(log.lines()[0].priority, 3);
        EXPECT_EQ(log.lines()[0].text, refused);
        EXPECT_EQ(log.lines()[1].priority, 6);
        EXPECT_EQ(log.lines()[1].text, "Mail delivery from '" + path + "' to 'user' into '" + c.imapName +
                                           "' failed with return code -1");
    }

    int fd = open(path.c_str(), O_RDONLY);
    LogCapture log;
    EXPECT_EQ(lda_deliver_fd(fd, "user", "INBOX"), -1);
    close(fd);
    ASSERT_EQ(log.lines().size(), 1u) << log.dump();
    EXPECT_EQ(log.lines()[0].text, refused);
}

}  // namespace
