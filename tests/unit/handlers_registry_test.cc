// Gathering from the handler registry: which rows apply to a message, the
// order they come out in, what a record holds, and how a registry that is
// empty or tableless is treated. Also the domain search and the failures of
// laying out a new registry (a new one's schema, owner and mode are shown
// end to end by the installation's setup test).
#include <gtest/gtest.h>

#include <sys/stat.h>

#include <cstring>
#include <grp.h>

#include "handlers/registry.h"
#include "handlers_registry_fixture.h"

namespace {

using namespace handlers_test;

const std::string kSender = "s@sdom.org";
const std::string kRecipient = "r@rdom.org";

// Two priorities of each of the five kinds for one queue, plus rows that must
// never be gathered for this sender and recipient.
void fillQueue(ScratchRegistry &reg, int queue, const std::string &p) {
    struct Kind {
        int type;
        std::string address;
        std::string name;
    };
    const Kind kinds[] = {{0, kSender, "sender"},      {1, kRecipient, "recipient"},
                          {2, "sdom.org", "sdomain"},  {3, "rdom.org", "rdomain"},
                          {4, "all-recipients", "allrcpt"}, {4, "all", "all"}};
    for (const Kind &k : kinds) {
        // Inserted high priority first, so the query's ORDER BY has to work.
        reg.add({queue, k.type, 1, 20, p + k.name + "-20", k.address});
        reg.add({queue, k.type, 1, 10, p + k.name + "-10", k.address});
        reg.add({queue, k.type, 0, 15, p + k.name + "-disabled", k.address});
        reg.add({queue, k.type, 2, 15, p + k.name + "-enabled2", k.address});
    }
    // Letter case differs only.
    reg.add({queue, 0, 1, 1, p + "case-sender", "S@sdom.org"});
    reg.add({queue, 1, 1, 1, p + "case-recipient", "r@RDOM.org"});
    reg.add({queue, 2, 1, 1, p + "case-sdomain", "SDOM.ORG"});
    reg.add({queue, 3, 1, 1, p + "case-rdomain", "rdom.ORG"});
    reg.add({queue, 4, 1, 1, p + "case-all", "ALL"});
    // A global row under neither keyword, and an address under the wrong type.
    reg.add({queue, 4, 1, 1, p + "global-everyone", "everyone"});
    reg.add({queue, 1, 1, 1, p + "wrong-type", kSender});
    reg.add({queue, 5, 1, 1, p + "type5", "all"});
}

TEST(HandlersRegistryTest, RunOrderOverAllKindsForEachQueue) {
    ScratchRegistry reg;
    fillQueue(reg, 1, "q1-");
    fillQueue(reg, 2, "q2-");
    fillQueue(reg, 7, "q7-");
    Addresses addrs(kSender, {kRecipient});

    LogCapture log;
    HandlerList two;
    EXPECT_GE(mh_get_handlers(&two, addrs.get(), 2), 0);
    EXPECT_EQ(names(two), (std::vector<std::string>{
                              "q2-sender-10", "q2-sender-20", "q2-recipient-10", "q2-recipient-20", "q2-sdomain-10",
                              "q2-sdomain-20", "q2-rdomain-10", "q2-rdomain-20", "q2-allrcpt-10", "q2-allrcpt-20",
                              "q2-all-10", "q2-all-20"}));
    mh_list_free(&two);

    HandlerList one;
    EXPECT_GE(mh_get_handlers(&one, addrs.get(), 1), 0);
    EXPECT_EQ(names(one), (std::vector<std::string>{
                              "q1-allrcpt-10", "q1-allrcpt-20", "q1-all-10", "q1-all-20", "q1-sender-10",
                              "q1-sender-20", "q1-recipient-10", "q1-recipient-20", "q1-sdomain-10",
                              "q1-sdomain-20", "q1-rdomain-10", "q1-rdomain-20"}));
    mh_list_free(&one);

    // Any queue but 1 is gathered in the order of queue 2.
    HandlerList seven;
    EXPECT_GE(mh_get_handlers(&seven, addrs.get(), 7), 0);
    ASSERT_EQ(seven.records.size(), 12u);
    EXPECT_EQ(names(seven).front(), "q7-sender-10");
    EXPECT_EQ(names(seven).back(), "q7-all-20");
    mh_list_free(&seven);
    EXPECT_TRUE(log.lines().empty()) << log.dump();
}

TEST(HandlersRegistryTest, LaterRecipientsRunFirstAndEachRecipientHasItsDomain) {
    ScratchRegistry reg;
    reg.add({2, 1, 1, 0, "r1", "r1@one.org"});
    reg.add({2, 1, 1, 0, "r2", "r2@two.org"});
    reg.add({2, 3, 1, 0, "d1", "one.org"});
    reg.add({2, 3, 1, 0, "d2", "two.org"});
    Addresses addrs(kSender, {"r1@one.org", "r2@two.org"});
    HandlerList list;
    EXPECT_GE(mh_get_handlers(&list, addrs.get(), 2), 0);
    EXPECT_EQ(names(list), (std::vector<std::string>{"r2", "r1", "d2", "d1"}));
    mh_list_free(&list);
}

// A record as "priority type queue enabled address executable context".
std::string fields(const HandlerRecord *r) {
    auto text = [](const char *s) { return s != nullptr ? std::string(s) : std::string("<null>"); };
    return std::to_string(r->priority) + " " + std::to_string(r->type) + " " + std::to_string(r->queue) + " " +
           (r->enabled ? "on " : "off ") + text(r->address) + " " + text(r->executable) + " [" + text(r->context) +
           "]";
}

TEST(HandlersRegistryTest, RecordsCarryPriorityZeroAndTheAddressFoundUnder) {
    ScratchRegistry reg;
    reg.add({2, 3, 1, 42, "dom", "rdom.org", "/usr/bin/dom-filter", "dom context"});
    reg.add({2, 4, 1, -5, "glob", "all-recipients", "/usr/bin/glob", ""});
    Addresses addrs(kSender, {kRecipient});
    HandlerList list;
    ASSERT_GE(mh_get_handlers(&list, addrs.get(), 2), 0);
    ASSERT_EQ(list.records.size(), 2u);
    EXPECT_EQ(fields(list.records.front()), "0 3 2 on rdom.org /usr/bin/dom-filter [dom context]");
    EXPECT_EQ(fields(list.records.back()), "0 4 2 on all-recipients /usr/bin/glob []");
    mh_list_free(&list);
}

TEST(HandlersRegistryTest, EmptyOrTablelessRegistryGivesAnEmptyListNotAFailure) {
    Addresses addrs(kSender, {kRecipient});
    {
        ScratchRegistry empty;
        LogCapture log;
        HandlerList list;
        EXPECT_GE(mh_get_handlers(&list, addrs.get(), 2), 0);
        EXPECT_TRUE(list.records.empty());
        EXPECT_TRUE(log.lines().empty()) << log.dump();
    }
    {
        ScratchRegistry tableless(false);
        LogCapture log;
        HandlerList list;
        EXPECT_GE(mh_get_handlers(&list, addrs.get(), 2), 0);
        EXPECT_TRUE(list.records.empty());
        for (const char *getter : {"global", "recipient-domain", "sender-domain", "recipient", "sender"})
            EXPECT_TRUE(log.contains(3, std::string("Unable to get ") + getter + " handlers from the database"))
                << getter << "\n"
                << log.dump();
        EXPECT_TRUE(log.contains(
            3, "Unable to prepare SQL statement for query 'SELECT executable, context, name FROM handlers WHERE "
               "queue=? AND type=? AND enabled=? AND address=? ORDER BY priority DESC': no such table: handlers"));
    }
}

TEST(HandlersRegistryTest, BadAddressesCostOnlyTheirOwnGetter) {
    ScratchRegistry reg;
    reg.add({2, 0, 1, 0, "sender", "nodomain"});
    reg.add({2, 1, 1, 0, "recipient", "alsonodomain"});
    reg.add({2, 4, 1, 0, "all", "all"});
    {
        LogCapture log;
        Addresses addrs("nodomain", {"alsonodomain"});
        HandlerList list;
        EXPECT_GE(mh_get_handlers(&list, addrs.get(), 2), 0);
        EXPECT_EQ(names(list), (std::vector<std::string>{"sender", "recipient", "all"}));
        EXPECT_TRUE(log.contains(3, "Unable to get sender domain by sender mailname")) << log.dump();
        EXPECT_EQ(log.lines().size(), 2u) << log.dump();  // and one for the recipient's domain
        mh_list_free(&list);
    }
    {
        // The vector ends before the sender: nothing to gather for anyone
        // but everyone.
        LogCapture log;
        char empty[] = "";
        char *addrs[] = {empty, empty, nullptr};
        HandlerList list;
        EXPECT_GE(mh_get_handlers(&list, addrs, 2), 0);
        EXPECT_EQ(names(list), (std::vector<std::string>{"all"}));
        EXPECT_TRUE(log.contains(3, "Unable to get sender domain since sender mailname is NULL")) << log.dump();
        mh_list_free(&list);
    }
}

TEST(HandlersRegistryTest, MainQueryKeys) {
    ScratchRegistry reg;
    std::string longAddress = std::string(490, 'x') + "@example.com";  // 502 characters
    reg.add({2, 1, 1, 0, "cut", longAddress.substr(0, 501)});
    reg.add({2, 4, 1, 0, "all", "all"});
    LogCapture log;

    HandlerList list;
    HandlerRecord key = {0, MH_TYPE_RECIPIENT, 2, nullptr, longAddress.data(), nullptr, nullptr, true};
    EXPECT_EQ(mh_select_handlers(nullptr, &list, &key), 0);
    ASSERT_EQ(names(list), (std::vector<std::string>{"cut"}));
    EXPECT_EQ(std::string(list.records.front()->address), longAddress.substr(0, 501));

    HandlerRecord global = {0, MH_TYPE_GLOBAL, 2, nullptr, nullptr, nullptr, nullptr, true};
    EXPECT_EQ(mh_select_handlers(nullptr, &list, &global), 0);
    EXPECT_EQ(names(list), (std::vector<std::string>{"all", "cut"}));
    EXPECT_STREQ(list.records.front()->address, "all");

    char everyone[] = "everyone";
    global.address = everyone;
    EXPECT_EQ(mh_select_handlers(nullptr, &list, &global), -1);
    EXPECT_TRUE(log.contains(3, "Incorrect recipient address for global handler `everyone', expected "
                                "[NULL|all|all-recipients]"))
        << log.dump();

    // Disabled keys find disabled rows: the flag is part of the key.
    reg.add({2, 1, 1, 0, "on", "u@d.org"});
    reg.add({2, 1, 0, 0, "off", "u@d.org"});
    char user[] = "u@d.org";
    HandlerRecord disabled = {0, MH_TYPE_RECIPIENT, 2, nullptr, user, nullptr, nullptr, false};
    HandlerList off;
    EXPECT_EQ(mh_select_handlers(nullptr, &off, &disabled), 0);
    EXPECT_EQ(names(off), (std::vector<std::string>{"off"}));
    mh_list_free(&off);
    mh_list_free(&list);
}

TEST(HandlersRegistryTest, DomainSearchMatchesTheDomainExactly) {
    ScratchRegistry reg;
    reg.add({3, 0, 0, 7, "match", "u@dom.org", "/bin/m", "mc"});
    reg.add({2, 1, 1, 1, "upper", "v@DOM.ORG"});
    reg.add({2, 1, 1, 1, "sub", "w@sub.dom.org"});
    reg.add({2, 3, 1, 1, "bare", "dom.org"});
    reg.add({2, 1, 1, 1, "longer", "x@dom.org.uk"});
    reg.add({2, 1, 1, 1, "two-ats", "y@dom.org@dom.org"});
    for (const char *address : {"someone@dom.org", "dom.org"}) {
        HandlerList list;
        EXPECT_EQ(mh_find_domain_handlers(nullptr, &list, address), 0);
        ASSERT_EQ(names(list), (std::vector<std::string>{"match"})) << address;
        EXPECT_EQ(fields(list.records.front()), "7 0 3 off u@dom.org /bin/m [mc]");
        mh_list_free(&list);
    }
}

TEST(HandlersRegistryTest, ListAddsCopiesAtTheHead) {
    HandlerList list;
    std::string name = "first";
    HandlerRecord r = {3, MH_TYPE_SENDER, 2, name.data(), nullptr, nullptr, nullptr, true};
    ASSERT_EQ(mh_list_add(&list, &r), 0);
    name = "later";
    r.name = name.data();
    ASSERT_EQ(mh_list_add(&list, &r), 0);
    name = "xxxxx";  // the list holds copies
    EXPECT_EQ(names(list), (std::vector<std::string>{"later", "first"}));
    EXPECT_EQ(list.records.front()->address, nullptr);
    EXPECT_EQ(list.records.front()->priority, 3);
    mh_list_free(&list);
    EXPECT_TRUE(list.records.empty());
}

TEST(HandlersCreateDbTest, DirectoriesMadeButNoFileLeftWithoutTheMailGroup) {
    if (getgrnam("popuser") != nullptr)
        GTEST_SKIP() << "this host has a popuser group";
    ScratchDir dir;
    std::string path = dir / "a/b/handlers.db";
    mh_set_db_path(path.c_str());
    LogCapture log;
    EXPECT_EQ(mh_create_db(), -1);
    struct stat st;
    for (const char *sub : {"a", "a/b"}) {
        ASSERT_EQ(stat((dir / sub).c_str(), &st), 0) << sub;
        EXPECT_TRUE(S_ISDIR(st.st_mode));
        EXPECT_EQ(st.st_mode & 0777, 0755u & ~[] { mode_t m = umask(0); umask(m); return m; }());
    }
    EXPECT_TRUE(log.contains(2, "Unable to get mail handlers group uid: no group named popuser")) << log.dump();
    // A registry nobody may own correctly is not left behind.
    EXPECT_FALSE(fileExists(path));
    mh_set_db_path(nullptr);
}

TEST(HandlersCreateDbTest, PathThroughAFileFailsWithNotADirectory) {
    ScratchDir dir;
    writeFile(dir / "file", "x");
    std::string path = dir / "file/sub/handlers.db";
    mh_set_db_path(path.c_str());
    LogCapture log;
    EXPECT_EQ(mh_create_db(), -1);
    EXPECT_TRUE(log.contains(2, "Unable to create directories for mail handlers database (" + dir / "file/sub" +
                                    "): Not a directory (20)"))
        << log.dump();
    EXPECT_TRUE(log.contains(
        2, "Unable to create directory for mail handlers database for(" + path + "): Not a directory"));
    mh_set_db_path(nullptr);
}

TEST(HandlersCreateDbTest, ExistingRegistryIsNotRecreated) {
    ScratchRegistry reg;
    reg.add({2, 1, 1, 0, "kept", "u@d.org"});
    LogCapture log;
    EXPECT_EQ(mh_create_db(), -1);
    EXPECT_TRUE(log.contains(3, "Unable to re-create mail handlers database: table handlers already exists"))
        << log.dump();
    char user[] = "u@d.org";
    HandlerRecord key = {0, MH_TYPE_RECIPIENT, 2, nullptr, user, nullptr, nullptr, true};
    HandlerList list;
    EXPECT_EQ(mh_select_handlers(nullptr, &list, &key), 0);
    EXPECT_EQ(names(list), (std::vector<std::string>{"kept"}));
    mh_list_free(&list);
}

}  // namespace
