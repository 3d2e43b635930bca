// The spool file and the copy primitives: no partial file left behind by a
// failed save, and the copy edges. (Exact bytes and the private mode of the
// spool file are shown end to end.)
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "spool/spool.h"
#include "test_support.h"

namespace {

TEST(SpoolTest, FailingInputRemovesThePartialFile) {
    LogCapture log;
    ScratchDir dir;
    int wrongWay = open(dir.path().c_str(), O_RDONLY | O_DIRECTORY);  // read() gives EISDIR
    EXPECT_EQ(spool_save_fd(dir.path().c_str(), wrongWay), nullptr);
    close(wrongWay);
    EXPECT_TRUE(listDir(dir.path()).empty());
    ASSERT_EQ(log.lines().size(), 2u) << log.dump();
    EXPECT_EQ(log.lines()[0].text, "files: cannot read file with message");
    EXPECT_EQ(log.lines()[1].text, "cannot save message from stdin to temporary file");
}

TEST(FilesTest, WriteBufAndCopyEdges) {
    LogCapture log;
    EXPECT_EQ(files_write_buf(-1, "x", 0), 1);
    EXPECT_EQ(files_copy_fd(-1, 1, 0), 0);
    EXPECT_EQ(files_copy_fd(0, -1, 0), 0);
    EXPECT_TRUE(log.lines().empty());
    EXPECT_EQ(files_write_buf(-1, "x", 1), 0);
    ASSERT_EQ(log.lines().size(), 1u);
    EXPECT_NE(log.lines()[0].text.find("to fd (-1) error - (9) Bad file descriptor"), std::string::npos);
}

TEST(FilesTest, CopyFileHonoursOffsetAndLimit) {
    ScratchDir dir;
    std::string content(10000, 'a');
    for (size_t i = 0; i < content.size(); i++)
        content[i] = static_cast<char>('a' + i % 26);
    writeFile(dir / "src", content);
    struct Case {
        off_t offset;
        size_t limit;
        std::string expected;
    } cases[] = {
        {0, 0, content},
        {0, 4096, content.substr(0, 4096)},  // a chunk that ends exactly at the limit
        {0, 5000, content.substr(0, 5000)},
        {0, 20000, content},
        {9000, 0, content.substr(9000)},
        {20000, 0, ""},
    };
    for (const auto &c : cases) {
        int out = open((dir / "out").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        EXPECT_EQ(files_copy_file((dir / "src").c_str(), c.offset, c.limit, out), 1);
        close(out);
        EXPECT_EQ(readFile(dir / "out"), c.expected) << c.offset << "/" << c.limit;
    }
}

TEST(FilesTest, CopyFileFailuresLogInnermostFirst) {
    LogCapture log;
    ScratchDir dir;
    writeFile(dir / "src", "hello\n");
    EXPECT_EQ(files_copy_file((dir / "missing").c_str(), 0, 0, 1), 0);
    EXPECT_EQ(log.lines().back().text, "files: cannot open file " + (dir / "missing") + " with message - No such file or directory");

    int readOnly = open((dir / "src").c_str(), O_RDONLY);
    EXPECT_EQ(files_copy_file((dir / "src").c_str(), 0, 0, readOnly), 0);
    close(readOnly);
    size_t n = log.lines().size();
    ASSERT_GE(n, 3u);
    EXPECT_EQ(log.lines()[n - 3].text.rfind("files: write buf ", 0), 0u);
    EXPECT_EQ(log.lines()[n - 2].text.rfind("files: cannot write chuck from ", 0), 0u);
    EXPECT_EQ(log.lines()[n - 1].text, "files: cannot write file " + (dir / "src") + " to " + std::to_string(readOnly));
}

}  // namespace
