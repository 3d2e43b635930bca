// Maildir delivery: the message lands whole in `new` under a time.pid.host
// name, a name clash in `tmp` is waited out, and every failure keeps `new`
// untouched.
#include <gtest/gtest.h>

#include <climits>
#include <ctime>
#include <sys/stat.h>
#include <unistd.h>

#include "dotqmail/deliveries.h"
#include "dotqmail/maildir_wait.h"
#include "test_support.h"

namespace {

std::string hostName() {
    char host[65] = {};
    gethostname(host, 64);
    return host;
}

std::string sampleMessage() {
    std::string m = "Return-Path: <a@b>\nSubject: maildir\n\n";
    for (int i = 0; i < 2000; i++)
        m += "line " + std::to_string(i) + " with a NUL:" + std::string(1, '\0') + "\n";
    return m + "no final newline";
}

class MaildirTest : public ::testing::Test {
  protected:
    void SetUp() override {
        writeFile(dir / "message", message);
        makeMaildir(dir / "Maildir");
    }
    static void makeMaildir(const std::string &path) {
        ASSERT_EQ(mkdir(path.c_str(), 0755), 0);
        for (const char *sub : {"tmp", "new", "cur"})
            ASSERT_EQ(mkdir((path + "/" + sub).c_str(), 0755), 0);
    }
    ScratchDir dir;
    LogCapture log;
    std::string message = sampleMessage();
};

TEST_F(MaildirTest, StoresOneExactCopyInNewNamedByTimePidHost) {
    // The instruction line's form: relative to the mailbox directory, trailing "/".
    char cwd[PATH_MAX];
    ASSERT_NE(getcwd(cwd, sizeof cwd), nullptr);
    ASSERT_EQ(chdir(dir.path().c_str()), 0);
    long before = time(nullptr);
    int rc = deliverMaildir((dir / "message").c_str(), "Maildir/");
    long after = time(nullptr);
    ASSERT_EQ(chdir(cwd), 0);

    EXPECT_EQ(rc, 0) << log.dump();
    EXPECT_TRUE(log.lines().empty()) << log.dump();
    EXPECT_TRUE(listDir(dir / "Maildir/tmp").empty());
    EXPECT_TRUE(listDir(dir / "Maildir/cur").empty());
    std::vector<std::string> delivered = listDir(dir / "Maildir/new");
    ASSERT_EQ(delivered.size(), 1u);
    EXPECT_EQ(readFile(dir / "Maildir/new/" + delivered[0]), message);

    const std::string &name = delivered[0];
    size_t dot1 = name.find('.');
    size_t dot2 = name.find('.', dot1 + 1);
    ASSERT_NE(dot2, std::string::npos) << name;
    std::string stamp = name.substr(0, dot1);
    ASSERT_FALSE(stamp.empty());
    EXPECT_NE(stamp[0], '0');
    long t = std::stol(stamp);
    EXPECT_GE(t, before);
    EXPECT_LE(t, after);
    EXPECT_EQ(name.substr(dot1 + 1, dot2 - dot1 - 1), std::to_string(getpid()));
    EXPECT_EQ(name.substr(dot2 + 1), hostName());

    struct stat st;
    ASSERT_EQ(stat((dir / "Maildir/new/" + name).c_str(), &st), 0);
    mode_t mask = umask(0);
    umask(mask);
    EXPECT_EQ(st.st_mode & 0777, 0644u & ~mask);
}

TEST_F(MaildirTest, MissingTmpFailsNamingTheTemporaryPath) {
    std::string maildir = dir / "NoTmp";
    ASSERT_EQ(mkdir(maildir.c_str(), 0755), 0);
    ASSERT_EQ(mkdir((maildir + "/new").c_str(), 0755), 0);
    EXPECT_EQ(deliverMaildir((dir / "message").c_str(), maildir.c_str()), -1);
    ASSERT_EQ(log.lines().size(), 1u) << log.dump();
    const LoggedLine &line = log.lines()[0];
    EXPECT_EQ(line.priority, 3);
    std::string prefix = "System error " + maildir + "/tmp/";
    std::string suffix = "." + std::to_string(getpid()) + "." + hostName() + ": No such file or directory\n";
    EXPECT_EQ(line.text.compare(0, prefix.size(), prefix), 0) << line.text;
    ASSERT_GT(line.text.size(), suffix.size());
    EXPECT_EQ(line.text.substr(line.text.size() - suffix.size()), suffix) << line.text;
    EXPECT_TRUE(listDir(maildir + "/new").empty());
    EXPECT_FALSE(fileExists(maildir + "/tmp"));  // never created
}

TEST_F(MaildirTest, FailuresAfterCreationLeaveNewEmpty) {
    // Unreadable message: the copy fails, the empty temporary file stays.
    EXPECT_EQ(deliverMaildir((dir / "absent").c_str(), (dir / "Maildir").c_str()), -1);
    EXPECT_TRUE(log.contains(3, "Unable to write message into temporary file")) << log.dump();
    EXPECT_TRUE(listDir(dir / "Maildir/new").empty());
    std::vector<std::string> left = listDir(dir / "Maildir/tmp");
    ASSERT_EQ(left.size(), 1u);
    EXPECT_EQ(readFile(dir / "Maildir/tmp/" + left[0]), "");

    // No `new`: the rename fails, the complete copy stays in `tmp`.
    std::string noNew = dir / "NoNew";
    ASSERT_EQ(mkdir(noNew.c_str(), 0755), 0);
    ASSERT_EQ(mkdir((noNew + "/tmp").c_str(), 0755), 0);
    EXPECT_EQ(deliverMaildir((dir / "message").c_str(), noNew.c_str()), -1);
    EXPECT_TRUE(log.contains(3, "System error: No such file or directory\n")) << log.dump();
    left = listDir(noNew + "/tmp");
    ASSERT_EQ(left.size(), 1u);
    EXPECT_EQ(readFile(noNew + "/tmp/" + left[0]), message);
    EXPECT_FALSE(fileExists(noNew + "/new"));
}

std::vector<unsigned> waits;
unsigned recordingWait(unsigned seconds) {
    waits.push_back(seconds);
    return sleep(seconds);
}

TEST_F(MaildirTest, NameClashInTmpIsWaitedOut) {
    // Occupy the names for this second and the next, so the delivery meets a
    // clash however the clock ticks before it starts.
    std::string suffix = "." + std::to_string(getpid()) + "." + hostName();
    long now = time(nullptr);
    std::vector<std::string> taken = {std::to_string(now) + suffix, std::to_string(now + 1) + suffix};
    for (const auto &name : taken)
        writeFile(dir / "Maildir/tmp/" + name, "someone else's\n");

    waits.clear();
    unsigned (*saved)(unsigned) = maildirClashWait;
    maildirClashWait = recordingWait;
    int rc = deliverMaildir((dir / "message").c_str(), (dir / "Maildir").c_str());
    maildirClashWait = saved;

    EXPECT_EQ(rc, 0) << log.dump();
    ASSERT_FALSE(waits.empty());
    for (unsigned w : waits)
        EXPECT_EQ(w, 2u);
    for (const auto &name : taken)
        EXPECT_EQ(readFile(dir / "Maildir/tmp/" + name), "someone else's\n");
    EXPECT_EQ(listDir(dir / "Maildir/tmp").size(), taken.size());
    std::vector<std::string> delivered = listDir(dir / "Maildir/new");
    ASSERT_EQ(delivered.size(), 1u);
    EXPECT_EQ(std::find(taken.begin(), taken.end(), delivered[0]), taken.end()) << delivered[0];
    EXPECT_EQ(readFile(dir / "Maildir/new/" + delivered[0]), message);
}

TEST_F(MaildirTest, PathTooLongForTheBufferIsRefusedNotCut) {
    // tmp path = maildir + "/tmp/" + name; it must stay within 159 characters.
    std::string name = std::to_string(time(nullptr)) + "." + std::to_string(getpid()) + "." + hostName();
    size_t room = 159 - 5 - name.size();  // characters left for the maildir path
    std::string base = dir.path() + "/";
    ASSERT_LT(base.size() + 1, room);
    std::string fits = base + std::string(room - base.size(), 'f');
    std::string tooLong = base + std::string(room - base.size() + 1, 'g');
    ASSERT_EQ(fits.size(), room);
    makeMaildir(fits);
    makeMaildir(tooLong);

    EXPECT_EQ(deliverMaildir((dir / "message").c_str(), fits.c_str()), 0) << log.dump();
    EXPECT_EQ(listDir(fits + "/new").size(), 1u);

    EXPECT_EQ(deliverMaildir((dir / "message").c_str(), tooLong.c_str()), -1);
    EXPECT_TRUE(log.contains(3, "Maildir path too long: " + tooLong)) << log.dump();
    EXPECT_TRUE(listDir(tooLong + "/tmp").empty());
    EXPECT_TRUE(listDir(tooLong + "/new").empty());
    // A cut path would have landed next to it, in a sibling named by the cut.
    EXPECT_EQ(listDir(dir.path()).size(), 4u);  // message, Maildir, fits, tooLong
}

}  // namespace
