// Concurrent load on one mailbox: 4 parallel streams of deliveries of distinct
// messages to one recipient whose .qmail holds a maildir and an mbox line, all
// runs sharing the spool directory and the delivery-state database (which none
// of them finds at the start, so the first runs race to create it). Every run
// must succeed, the maildir must hold every message once and whole, and the
// mbox every message once, whole and not interleaved with another.
#include <gtest/gtest.h>

#include <chrono>
#include <set>

#include "reliability_fixture.h"

namespace {

using namespace reliability;

const int kStreams = 4;

std::string loadMessage(int i) {
    std::string n = std::to_string(i);
    std::string m = "From: " + kSender + "\nTo: " + kRecipient + "\nMessage-ID: <load." + n +
                    "@example.org>\nSubject: load " + n + "\n\n";
    // About 6 KB: two writes each, so that interleaving would show.
    for (int k = 0; k < 100; k++)
        m += "message " + n + " line " + std::to_string(k) + " " + std::string(40, static_cast<char>('a' + (i + k) % 26)) +
             "\n";
    return m;
}

// The message number a copy starting at pos claims to be, or -1.
int claimed(const std::string &text, size_t pos) {
    size_t id = text.find("Message-ID: <load.", pos);
    if (id == std::string::npos || id > pos + 200)
        return -1;
    return atoi(text.c_str() + id + 18);
}

TEST(ReliabilityLoadTest, FourStreamsToOneMailboxLoseAndInterleaveNothing) {
    const int total = longMode() || releaseBuild() ? 1000 : 200;
    Sandbox sb;
    sb.standardLayout();
    std::string box = sb.mailbox("example.com", "alice");
    for (const char *sub : {"/Maildir/tmp", "/Maildir/new", "/Maildir/cur"})
        sb.mkdirs(box + sub);
    sb.write(box + "/.qmail", "./Maildir/\n./mbox\n");
    const std::string r = sb.root();
    sb.mkdirs(r + "/msgs");
    sb.mkdirs(r + "/out");
    std::vector<std::string> messages;
    for (int i = 0; i < total; i++) {
        messages.push_back(loadMessage(i));
        sb.write(r + "/msgs/" + std::to_string(i), messages.back());
    }
    std::string ferndrop = "'" + ferndropBinary() + "' -f " + kSender + " -d " + kRecipient + " -p " + sb.mailnames();
    std::string script = "for s in $(seq 0 " + std::to_string(kStreams - 1) +
                         "); do\n"
                         "  ( i=$s; while [ $i -lt " + std::to_string(total) + " ]; do\n"
                         "      " + ferndrop + " < " + r + "/msgs/$i > " + r + "/out/$i; echo $? >> " + r + "/out/$i\n"
                         "      i=$((i + " + std::to_string(kStreams) + ")); done ) &\n"
                         "done\n"
                         "wait\n";
    RunSpec spec;
    spec.argv = {"/bin/sh", "-c", script};
    spec.timeoutSeconds = 600;
    auto start = std::chrono::steady_clock::now();
    RunResult run = sb.run(spec);
    double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    ASSERT_EQ(run.status, 0) << run.err;

    int failed = 0;
    for (int i = 0; i < total; i++) {
        std::string out = Sandbox::slurpHost(r + "/out/" + std::to_string(i));
        if (out != "0\n" && failed++ < 5)
            ADD_FAILURE() << "delivery " << i << ": " << out;
    }
    EXPECT_EQ(failed, 0) << run.logDump();
    // Not one run may have missed the shared database, not even while the
    // first ones were creating it.
    EXPECT_FALSE(run.loggedContaining("delivery database")) << run.logDump();

    std::set<int> inMaildir;
    int maildirFiles = 0;
    for (const auto &name : sb.list(box + "/Maildir/new")) {
        maildirFiles++;
        std::string content = sb.read(box + "/Maildir/new/" + name);
        int i = claimed(content, 0);
        if (i < 0 || i >= total || content != messages[i])
            ADD_FAILURE() << "Maildir/new/" << name << " is not a complete message";
        else if (!inMaildir.insert(i).second)
            ADD_FAILURE() << "message " << i << " twice in the maildir";
    }
    EXPECT_EQ(maildirFiles, total);
    EXPECT_EQ(static_cast<int>(inMaildir.size()), total);
    EXPECT_EQ(sb.list(box + "/Maildir/tmp"), std::vector<std::string>{});

    std::string mbox = sb.read(box + "/mbox");
    std::set<int> inMbox;
    for (size_t pos = 0; pos < mbox.size();) {
        int i = claimed(mbox, pos);
        if (i < 0 || i >= total || mbox.compare(pos, messages[i].size() + 1, messages[i] + "\n") != 0) {
            ADD_FAILURE() << "mbox: bytes from " << pos << " are not one whole message";
            break;
        }
        if (!inMbox.insert(i).second)
            ADD_FAILURE() << "message " << i << " twice in the mbox";
        pos += messages[i].size() + 1;
    }
    EXPECT_EQ(static_cast<int>(inMbox.size()), total);

    EXPECT_EQ(sb.list(kSpoolDir), std::vector<std::string>{});
    // One shared database, complete, with no record left and no private
    // file of a run that lost the race to create it.
    EXPECT_EQ(sb.list("/var/lib/kavra/mail/local"), std::vector<std::string>{"local.db"});
    EXPECT_EQ(hostOutput("tchmgr list '" + sb.host(kStateDb) + "' 2>&1"), "");

    std::cout << "[reliability] load: " << total << " deliveries in " << kStreams << " parallel streams to one mailbox in "
              << static_cast<int>(seconds + 0.5) << " s, " << total - failed << " exits 0, " << inMaildir.size()
              << " distinct whole files in Maildir/new, " << inMbox.size() << " whole messages in the mbox\n";
}

}  // namespace
