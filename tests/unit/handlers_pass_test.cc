// The handler pass over a spool file, where the command line cannot reach:
// several recipients, hand-made records, files that fail, the outcome list,
// and a takeover that keeps a foreign owner. (Run order, verdicts and broken
// handlers are shown end to end.) Handlers are /bin/sh scripts registered in
// a scratch registry.
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include "handlers/delivery_status.h"
#include "handlers/handler_pass.h"
#include "handlers/outcome.h"
#include "handlers/pass_steps.h"
#include "handlers_registry_fixture.h"

namespace {

using namespace handlers_test;

const char kMessage[] = "Subject: hello\n\nbody\n";
const std::string kSender = "s@a.org";
const std::string kRecipient = "r@b.org";

class PassTest : public ::testing::Test {
  protected:
    void SetUp() override {
        spoolDir = reg.dir() / "spool";
        mkdir(spoolDir.c_str(), 0755);
        spool = spoolDir + "/messageAbC123";
        writeFile(spool, kMessage, 0600);
    }

    std::string handler(const std::string &name, const std::string &body) {
        std::string path = reg.dir() / name;
        writeFile(path, "#!/bin/sh\n" + body, 0755);
        return path;
    }
    // A recipient handler for kRecipient at priority.
    void addRecipientHandler(const std::string &name, int priority, const std::string &body) {
        reg.add({2, MH_TYPE_RECIPIENT, 1, priority, name, kRecipient, handler(name, body)});
    }
    int pass(const std::vector<std::string> &recipients = {kRecipient}, HandlerOutcomeList *outcomes = nullptr) {
        Addresses addrs(kSender, recipients);
        return mh_run_handlers(outcomes, addrs.get(), nullptr, spool.c_str(), 2);
    }
    // Appends "name: args" to the calls file.
    std::string recordArgs(const std::string &name) {
        return "echo \"" + name + ": $*\" >> " + reg.dir() / "calls" + "\n";
    }
    std::string calls() { return readFile(reg.dir() / "calls"); }
    std::vector<std::string> spoolFiles() { return listDir(spoolDir); }

    ScratchRegistry reg;
    std::string spoolDir;
    std::string spool;
    LogCapture log;
};

TEST_F(PassTest, PassingWithoutOutputLeavesAnEmptyMessage) {
    addRecipientHandler("silent", 1, "exit 0\n");
    EXPECT_EQ(pass(), DS_OK);
    EXPECT_EQ(readFile(spool), "");
}

TEST_F(PassTest, EachRecordRunsOncePerRecipientItAppliesToOrOnceForAll) {
    reg.add({2, MH_TYPE_GLOBAL, 1, 0, "everyone", "all-recipients", handler("everyone", recordArgs("everyone")),
             "ctx-e"});
    reg.add({2, MH_TYPE_GLOBAL, 1, 0, "each", "all", handler("each", recordArgs("each")), "ctx-a"});
    reg.add({2, MH_TYPE_SENDER, 1, 0, "sender", kSender, handler("sender", recordArgs("sender")), "ctx-s"});
    reg.add({2, MH_TYPE_RECIPIENT, 1, 0, "r2", "r2@c.org", handler("r2", recordArgs("r2")), "c2"});
    EXPECT_EQ(pass({"r1@b.org", "r2@c.org"}), DS_OK);
    EXPECT_EQ(calls(), "sender: ctx-s s@a.org r1@b.org\n"
                       "sender: ctx-s s@a.org r2@c.org\n"
                       "r2: c2 s@a.org r2@c.org\n"
                       "everyone: ctx-e s@a.org r1@b.org r2@c.org\n"
                       "each: ctx-a s@a.org r1@b.org\n"
                       "each: ctx-a s@a.org r2@c.org\n");
}

// Records built by hand, run without the registry.
class ListTest : public PassTest {
  protected:
    // Adds at the head: call in the reverse of the run order.
    void push(MH_TYPE type, const std::string &name, const std::string &address, const std::string &body) {
        std::string path = handler(name, body);
        HandlerRecord r = {0, type, 2, const_cast<char *>(name.c_str()), const_cast<char *>(address.c_str()), path.data(),
                           const_cast<char *>("ctx"), true};
        ASSERT_EQ(mh_list_add(&list, &r), 0);
    }
    int run(const std::vector<std::string> &recipients) {
        Addresses addrs(kSender, recipients);
        return mh_run_list(nullptr, &list, addrs.get(), nullptr, spool.c_str());
    }
    void TearDown() override { mh_list_free(&list); }
    HandlerList list;
};

TEST_F(ListTest, RecipientDomainRecordRunsOnlyForItsExactDomain) {
    push(MH_TYPE_RECIPIENT_DOMAIN, "dom", "b.org", recordArgs("dom"));
    EXPECT_EQ(run({"r1@b.org", "r2@B.ORG", "r3@sub.b.org", "r4@b.org", "r5@b.org.uk"}), DS_OK);
    EXPECT_EQ(calls(), "dom: ctx s@a.org r1@b.org\ndom: ctx s@a.org r4@b.org\n");
}

TEST_F(ListTest, UnknownTypeRejectsAndStopsTheList) {
    push(MH_TYPE_SENDER, "after", kSender, recordArgs("after"));
    push(static_cast<MH_TYPE>(7), "odd", kSender, recordArgs("odd"));
    push(MH_TYPE_SENDER, "before", kSender, recordArgs("before"));
    EXPECT_EQ(run({kRecipient}), DS_REJECTED);
    EXPECT_EQ(calls(), "before: ctx s@a.org r@b.org\n");
    EXPECT_TRUE(log.contains(3, "Unknown MH_TYPE: 7")) << log.dump();

    mh_list_free(&list);
    push(MH_TYPE_SENDER, "neg", kSender, recordArgs("neg"));
    list.records.front()->type = static_cast<MH_TYPE>(-1);
    EXPECT_EQ(run({kRecipient}), DS_REJECTED);
    EXPECT_TRUE(log.contains(3, "Unknown MH_TYPE: -1"));
}

TEST_F(ListTest, RecipientWithoutDomainRejects) {
    push(MH_TYPE_GLOBAL, "later", "all", recordArgs("later"));
    push(MH_TYPE_SENDER, "each", kSender, recordArgs("each"));
    EXPECT_EQ(run({"r@b.org", "bob", "t@b.org"}), DS_REJECTED);
    EXPECT_EQ(calls(), "each: ctx s@a.org r@b.org\n");
    EXPECT_TRUE(log.contains(3, "Incorrect recipient mailname : bob")) << log.dump();
}

TEST_F(ListTest, TemporaryFileNameMustFitInAPath) {
    push(MH_TYPE_SENDER, "h", kSender, recordArgs("h"));
    std::string longest;
    while (longest.size() < 4092)
        longest += "/d";
    longest.resize(4092);
    std::string args0 = "x";
    char *args[] = {args0.data(), nullptr};
    EXPECT_EQ(mh_call_handler("h", nullptr, longest.c_str(), "/bin/true", args, nullptr), DS_INTERNAL_ERROR);
    EXPECT_TRUE(log.contains(3, "Unable to generate a tempfile name. Path too long")) << log.dump();
    Addresses addrs(kSender, {kRecipient});
    EXPECT_EQ(mh_run_list(nullptr, &list, addrs.get(), nullptr, longest.c_str()), DS_OK);
    EXPECT_EQ(calls(), "");

    // One character less fits; the run then fails only on the missing file.
    longest.resize(4091);
    size_t before = log.lines().size();
    EXPECT_EQ(mh_call_handler("h", nullptr, longest.c_str(), "/bin/true", args, nullptr), DS_INTERNAL_ERROR);
    ASSERT_EQ(log.lines().size(), before + 1) << log.dump();
    EXPECT_EQ(log.lines().back().text, "System error (" + longest + "): No such file or directory");
}

TEST_F(PassTest, TakeoverKeepsOwnerGroupAndMode) {
    bool root = geteuid() == 0;
    uid_t uid = root ? 1234 : geteuid();
    gid_t gid = root ? 2345 : getegid();
    ASSERT_EQ(chown(spool.c_str(), uid, gid), 0);
    ASSERT_EQ(chmod(spool.c_str(), 0604), 0);
    struct stat before, after;
    ASSERT_EQ(stat(spool.c_str(), &before), 0);
    addRecipientHandler("rewrite", 1, "echo 'X-New: 1'\ncat\n");
    mode_t old = umask(0);  // the temporary file would otherwise come out 0660
    EXPECT_EQ(pass(), DS_OK);
    umask(old);
    ASSERT_EQ(stat(spool.c_str(), &after), 0);
    EXPECT_NE(before.st_ino, after.st_ino);  // replaced by rename, not rewritten
    EXPECT_EQ(after.st_uid, uid);
    EXPECT_EQ(after.st_gid, gid);
    EXPECT_EQ(after.st_mode & 07777, 0604u);
    EXPECT_EQ(readFile(spool), std::string("X-New: 1\n") + kMessage);
    EXPECT_EQ(spoolFiles(), (std::vector<std::string>{"messageAbC123"}));
}

TEST_F(PassTest, RunsThatCannotUseTheirFilesFailAlone) {
    // The handler removes the spool file, so its output has nothing to replace.
    addRecipientHandler("remover", 1, "rm -f " + spool + "\ncat\n");
    addRecipientHandler("after", 2, recordArgs("after"));
    EXPECT_EQ(pass(), DS_OK);
    EXPECT_TRUE(log.contains(3, "Unable to rename '" + spool + "' file: No such file or directory")) << log.dump();
    EXPECT_TRUE(log.contains(3, "System error (" + spool + "): No such file or directory"));
    EXPECT_EQ(spoolFiles(), std::vector<std::string>{});

    writeFile(spool, kMessage, 0600);
    mkdir((spool + ".tmp").c_str(), 0755);
    EXPECT_EQ(pass(), DS_OK);
    EXPECT_TRUE(log.contains(3, "System error (" + spool + ".tmp): Is a directory")) << log.dump();
    EXPECT_EQ(readFile(spool), kMessage);
    rmdir((spool + ".tmp").c_str());
}

TEST_F(PassTest, OutcomesAreKeptInRunOrder) {
    addRecipientHandler("one", 1, "echo 'DATA  first data ' >&2\ncat\n");
    addRecipientHandler("two", 2, "echo SKIP >&2\n");
    addRecipientHandler("three", 3, "exit 7\n");
    addRecipientHandler("four", 4, "echo 'DEFER later' >&2\necho 'DATA why' >&2\n");
    HandlerOutcomeList outcomes;
    mh_outcome_list_init(&outcomes);
    EXPECT_EQ(pass({kRecipient}, &outcomes), DS_CONGESTED);
    std::vector<std::string> seen;
    for (const HandlerOutcome *o : outcomes.outcomes)
        seen.push_back(std::string(o->name) + "=" + std::to_string(o->verdict) + ":" + (o->data ? o->data : "-"));
    EXPECT_EQ(seen, (std::vector<std::string>{"one=0:first data", "two=5:-", "three=255:-", "four=2:why"}));
    mh_outcome_list_free(&outcomes);
    EXPECT_TRUE(outcomes.outcomes.empty());
}

}  // namespace
