// The delivery state across attempts of one delivery, against a scratch Tokyo
// Cabinet file: what is stored, what a retry skips, when the record goes, and
// how many times the database is opened.
#include <gtest/gtest.h>

#include <dlfcn.h>
#include <optional>
#include <string>
#include <vector>

#include "state/delivery_state.h"
#include "state_db.h"
#include "test_support.h"

namespace {

struct OpenCall {
    std::string path;
    int mode;
};
std::vector<OpenCall> opens;

}  // namespace

// Every open of the library goes through here, so the tests can count the
// opens of a run and see their modes (the tests' own opens aside).
extern "C" bool tchdbopen(TCHDB *hdb, const char *path, int omode) {
    using Open = bool (*)(TCHDB *, const char *, int);
    static Open real = reinterpret_cast<Open>(dlsym(RTLD_NEXT, "tchdbopen"));
    if (!(omode & HDBONOLCK))
        opens.push_back({path, omode});
    return real(hdb, path, omode);
}

namespace {

const char kSender[] = "Sender@Example.COM";
const char kRecipient[] = "box@example.com";
const char kKey[] = "<id.1@host> Sender@Example.COM box@example.com";

int64_t recordCount(const std::string &db) {
    TCHDB *hdb = tchdbnew();
    int64_t n = -1;
    if (tchdbopen(hdb, db.c_str(), HDBOREADER | HDBONOLCK)) {
        n = static_cast<int64_t>(tchdbrnum(hdb));
        tchdbclose(hdb);
    }
    tchdbdel(hdb);
    return n;
}

std::vector<int> modes() {
    std::vector<int> m;
    for (const auto &o : opens)
        m.push_back(o.mode);
    return m;
}

class DeliveryStateTest : public ::testing::Test {
  protected:
    void SetUp() override {
        writeFile(message, "From: a@b\nMessage-ID:  <ID.1@Host> \n\nbody\n", 0600);
        opens.clear();
    }
    std::unique_ptr<deliveryManager> manager() {
        return std::make_unique<deliveryManager>(message, kSender, kRecipient, db);
    }

    ScratchDir dir;
    std::string message = dir / "message";
    std::string db = dir / "local.db";
};

TEST_F(DeliveryStateTest, FirstAttemptServingEverythingLeavesNoRecord) {
    {
        auto m = manager();
        for (const char *line : {"|prog one", "./Maildir/", "&fwd@x"}) {
            EXPECT_FALSE(m->isDelivered(line));
            m->markDelivered(line);
        }
        m->complete();
    }
    EXPECT_EQ(recordCount(db), 0);
    // The reader finds no file, the creating writer makes it, and nothing
    // else is opened: complete() had no loaded record to remove.
    EXPECT_EQ(modes(), (std::vector<int>{HDBOREADER, HDBOWRITER | HDBOCREAT}));
    EXPECT_EQ(opens[0].path, db);
}

TEST_F(DeliveryStateTest, FailedAttemptStoresServedLinesAndTheRetrySkipsThemThenRemovesTheRecord) {
    const std::string lines[] = {"\t\xC3\xA9t\xC3\xA9 \r", "  Beta line  ", "&alpha@x", "|third"};
    {
        auto m = manager();
        for (int i = 0; i < 3; ++i) {
            EXPECT_FALSE(m->isDelivered(lines[i]));
            m->markDelivered(lines[i]);
        }
        EXPECT_FALSE(m->isDelivered(lines[3]));
        // The fourth line fails: no mark, and the manager goes out of scope.
    }
    // Trimmed, unique, in unsigned byte order, joined by single line feeds.
    EXPECT_EQ(storedValue(db, kKey), std::optional<std::string>("&alpha@x\nBeta line\n\xC3\xA9t\xC3\xA9"));
    EXPECT_EQ(modes(), (std::vector<int>{HDBOREADER, HDBOWRITER | HDBOCREAT, HDBOWRITER}));

    opens.clear();
    {
        auto m = manager();
        EXPECT_TRUE(m->isDelivered(lines[0]));
        EXPECT_TRUE(m->isDelivered(lines[1]));
        EXPECT_TRUE(m->isDelivered(lines[2]));
        EXPECT_FALSE(m->isDelivered(lines[3]));
        m->markDelivered(lines[3]);
        m->complete();
    }
    EXPECT_EQ(storedValue(db, kKey), std::nullopt);
    EXPECT_EQ(recordCount(db), 0);
    EXPECT_EQ(modes(), (std::vector<int>{HDBOREADER, HDBOWRITER}));
}

TEST_F(DeliveryStateTest, AttemptMarkingNothingNewLeavesTheRecordAsItWas) {
    ASSERT_TRUE(storeValue(db, kKey, "b\na"));
    opens.clear();
    { auto m = manager(); }
    EXPECT_EQ(storedValue(db, kKey), std::optional<std::string>("b\na"));
    EXPECT_EQ(modes(), (std::vector<int>{HDBOREADER}));

    // Loaded lines are written back together with the new ones.
    {
        auto m = manager();
        m->markDelivered("c");
    }
    EXPECT_EQ(storedValue(db, kKey), std::optional<std::string>("a\nb\nc"));
}

TEST_F(DeliveryStateTest, MarkAfterCompleteSavesAgain) {
    {
        auto m = manager();
        m->markDelivered("one");
        m->complete();
        m->markDelivered("two");
    }
    EXPECT_EQ(storedValue(db, kKey), std::optional<std::string>("one\ntwo"));
}

TEST_F(DeliveryStateTest, LookupTrimsButKeepsCase) {
    ASSERT_TRUE(storeValue(db, kKey, "|Deliver To Box"));
    auto m = manager();
    EXPECT_TRUE(m->isDelivered("  |Deliver To Box \r"));
    EXPECT_TRUE(m->isDelivered("\v|Deliver To Box\f\n"));
    EXPECT_FALSE(m->isDelivered("|deliver to box"));
    EXPECT_FALSE(m->isDelivered("|Deliver  To Box"));
    // Only the C space class is trimmed.
    EXPECT_FALSE(m->isDelivered("|Deliver To Box\xA0"));

    // A line met twice in one run is served once.
    EXPECT_FALSE(m->isDelivered("&x@y"));
    m->markDelivered("&x@y");
    EXPECT_TRUE(m->isDelivered(" &x@y"));
}

TEST_F(DeliveryStateTest, StoredValueSplitsAtEveryLineFeedKeepingEmptyPieces) {
    ASSERT_TRUE(storeValue(db, kKey, ""));
    {
        auto m = manager();
        EXPECT_TRUE(m->isDelivered(""));
        EXPECT_TRUE(m->isDelivered(" \t\r"));
        EXPECT_FALSE(m->isDelivered("x"));
    }
    ASSERT_TRUE(storeValue(db, kKey, "a\n\nb"));
    {
        auto m = manager();
        EXPECT_TRUE(m->isDelivered("a"));
        EXPECT_TRUE(m->isDelivered("b"));
        EXPECT_TRUE(m->isDelivered("   "));
    }
    ASSERT_TRUE(storeValue(db, kKey, "\na\n\n\nb\n"));
    {
        auto m = manager();
        EXPECT_TRUE(m->isDelivered(""));
        m->markDelivered("c");
    }
    // The empty pieces collapse into one empty line, which sorts first.
    EXPECT_EQ(storedValue(db, kKey), std::optional<std::string>("\na\nb\nc"));
}

TEST_F(DeliveryStateTest, RecordVanishedBeforeCompleteIsLogged) {
    ASSERT_TRUE(storeValue(db, kKey, "a"));
    LogCapture log;
    {
        auto m = manager();
        ASSERT_TRUE(storeValue(db, kKey, std::nullopt));
        m->complete();
    }
    ASSERT_EQ(log.lines().size(), 1u) << log.dump();
    EXPECT_EQ(log.lines()[0].priority, 3);
    EXPECT_EQ(log.lines()[0].text,
              std::string("erase: cannot remove key `") + kKey + "': " + tchdberrmsg(TCENOREC));
}

TEST_F(DeliveryStateTest, WithoutMessageIdTheManagerWarnsOnceAndNeverTouchesTheDatabase) {
    ASSERT_TRUE(storeValue(db, "  " + std::string(kSender) + " " + kRecipient, "line"));
    opens.clear();
    writeFile(message, "Subject: no id\n\nMessage-ID: <in-body@x>\n", 0600);
    LogCapture log;
    {
        auto m = manager();
        EXPECT_FALSE(m->isDelivered("line"));
        m->markDelivered("line");
        EXPECT_FALSE(m->isDelivered("line"));
        m->complete();
        m->markDelivered("other");
    }
    EXPECT_TRUE(opens.empty());
    ASSERT_EQ(log.lines().size(), 1u) << log.dump();
    EXPECT_EQ(log.lines()[0].priority, 4);
    EXPECT_EQ(log.lines()[0].text,
              "deliveryManager: Get empty message id, delivery state will be disabled for this mail");
}

}  // namespace
