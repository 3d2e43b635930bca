// A real full file system under each place ferndrop writes the message: the
// spool directory, the maildir and the mbox each get a small tmpfs (mounted
// inside the run's own namespace) that is filled up to one free page, so the
// 9 KB message runs out of space in the middle of its copy. The first run must
// end with 75 and leave nothing partial; once space is freed, the retry
// delivers exactly one copy everywhere. All of it happens in one namespace,
// since the tmpfs goes away with it; the results are copied back to the
// sandbox's own files for the inventory.
#include <gtest/gtest.h>

#include <memory>

#include "reliability_fixture.h"

namespace {

using namespace reliability;

struct FullPlace {
    std::string name;
    std::string status;  // the first run's status line
};

std::ostream &operator<<(std::ostream &os, const FullPlace &p) { return os << p.name; }

const std::string kOldMessage = "From: old@example.org\nSubject: earlier\n\nkept as it was\n\n";

class ReliabilityDiskFullTest : public ::testing::TestWithParam<FullPlace> {
  protected:
    void SetUp() override { job = std::make_unique<WholeJob>(sb); }

    // The path (as ferndrop sees it) that gets the full tmpfs, and whether it
    // is a directory.
    std::string target(bool &directory) const {
        directory = GetParam().name != "mbox";
        if (GetParam().name == "spool")
            return kSpoolDir;
        if (GetParam().name == "maildir")
            return job->box() + "/Maildir";
        return job->box() + "/mbox";
    }

    Sandbox sb;
    std::unique_ptr<WholeJob> job;
};

TEST_P(ReliabilityDiskFullTest, FirstRunDefersWithNothingPartialAndTheRetryDeliversOnce) {
    bool directory = false;
    const std::string place = target(directory);
    const std::string r = sb.root();
    std::string ferndrop = "'" + ferndropBinary() + "'";
    for (const auto &a : job->args())
        ferndrop += " '" + a + "'";
    ferndrop += " < " + r + "/message";
    sb.write(r + "/message", job->message());
    if (GetParam().name == "mbox")
        sb.write(place, kOldMessage);

    // The tmpfs lives at <root>/fs; the place itself is bound to a file or
    // directory on it, and the fill files sit beside that, out of sight.
    std::string onFs = r + "/fs/" + (directory ? "dir" : "file");
    std::string script =
        "set -e\n"
        "mkdir -p " + r + "/fs " + r + "/after\n"
        "mount -t tmpfs -o size=256k,mode=0755 tmpfs " + r + "/fs\n" +
        (directory ? "cp -a '" + place + "/.' " + onFs + "/ 2>/dev/null || mkdir " + onFs + "\n"
                   : "cp -a '" + place + "' " + onFs + "\n") +
        "mount --bind " + onFs + " '" + place + "'\n"
        // Everything but one page filled.
        "head -c 4096 /dev/zero > " + r + "/fs/spare\n"
        "cat /dev/zero > " + r + "/fs/fill 2>/dev/null || true\n"
        "rm " + r + "/fs/spare\n"
        "set +e\n" + ferndrop + " > " + r + "/after/out1\n"
        "echo $? > " + r + "/after/rc1\n"
        "cp -a '" + place + "' " + r + "/after/first\n"
        "rm " + r + "/fs/fill\n"
        "for n in 1 2 3; do " + ferndrop + " > " + r + "/after/out2; rc=$?; [ $rc = 0 ] && break; done\n"
        "echo $rc > " + r + "/after/rc2\n"
        "cp -a '" + place + "' " + r + "/after/final\n"
        "umount '" + place + "' && umount " + r + "/fs\n";
    RunSpec spec;
    spec.argv = {"/bin/sh", "-c", script};
    RunResult run = sb.run(spec);
    ASSERT_EQ(run.status, 0) << run.err << run.logDump();

    int rc1 = atoi(Sandbox::slurpHost(r + "/after/rc1").c_str());
    std::string out1 = Sandbox::slurpHost(r + "/after/out1");
    EXPECT_EQ(rc1, 75) << out1 << run.logDump();
    EXPECT_EQ(out1, GetParam().status + "\n") << run.logDump();
    EXPECT_TRUE(run.loggedContaining("No space left on device")) << run.logDump();
    EXPECT_EQ(atoi(Sandbox::slurpHost(r + "/after/rc2").c_str()), 0) << run.logDump();

    // After the full first run: nothing partial where readers look.
    std::string first = r + "/after/first";
    int leftInTmp = 0;
    if (GetParam().name == "spool") {
        EXPECT_EQ(sb.list(first), std::vector<std::string>{}) << "spool file left";
    } else if (GetParam().name == "maildir") {
        EXPECT_EQ(sb.list(first + "/new"), std::vector<std::string>{});
        leftInTmp = static_cast<int>(sb.list(first + "/tmp").size());
    } else {
        EXPECT_EQ(Sandbox::slurpHost(first), kOldMessage) << "mbox changed by the failed run";
    }

    // Back from the tmpfs into the sandbox's files for the inventory.
    std::string final = r + "/after/final";
    std::string restore;
    if (GetParam().name == "maildir")
        restore = "rm -rf '" + place + "' && cp -a " + final + " '" + place + "'";
    else if (GetParam().name == "mbox") {
        std::string mbox = Sandbox::slurpHost(final);
        ASSERT_EQ(mbox.compare(0, kOldMessage.size(), kOldMessage), 0) << "earlier mbox content damaged";
        sb.write(place, mbox.substr(kOldMessage.size()));
    } else {
        EXPECT_EQ(sb.list(final), std::vector<std::string>{}) << "spool file left after the retry";
    }
    if (!restore.empty()) {
        ASSERT_EQ(system(restore.c_str()), 0);
    }
    Inventory inv = job->inventory();
    // A maildir copy that ran out of space stays in tmp, as maildir readers
    // and cleaners expect; it is the only thing left over.
    EXPECT_EQ(inv.describe(), "maildir=1 maildirTmp=" + std::to_string(leftInTmp) +
                                  " mbox=1 program=1 sendmail=1 spool=0 spoolTmp=0 unchanged=0");
    EXPECT_LE(leftInTmp, 1);
    EXPECT_TRUE(job->stateKeys().empty());
    std::cout << "[reliability] disk full at the " << GetParam().name << ": first run exit " << rc1 << " '"
              << out1.substr(0, out1.empty() ? 0 : out1.size() - 1) << "', nothing partial, retry delivered one copy"
              << (leftInTmp ? ", partial copy left in Maildir/tmp" : "") << "\n";
}

INSTANTIATE_TEST_SUITE_P(Places, ReliabilityDiskFullTest,
                         ::testing::Values(FullPlace{"spool", "4.6.0 Unable to read message content"},
                                           FullPlace{"maildir", "4.2.1 Message can not be delivered at this time"},
                                           FullPlace{"mbox", "4.2.1 Message can not be delivered at this time"}),
                         [](const ::testing::TestParamInfo<FullPlace> &info) { return info.param.name; });

}  // namespace
