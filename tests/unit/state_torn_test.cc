// Creating the delivery database cut short: the library writes a new file in
// many pieces, and a run that fails or dies in the middle must not leave a
// torn file that every later run refuses. The file size limit makes the
// creation fail for real (EFBIG, or death by SIGXFSZ) at a chosen byte.
#include <gtest/gtest.h>

#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <memory>
#include <optional>
#include <string>

#include "state/delivery_state.h"
#include "state_db.h"
#include "test_support.h"

namespace {

const char kKey[] = "<torn.1@host> s@example.org box@example.com";

// Files may grow to limit bytes while the object lives.
class FileSizeLimit {
  public:
    explicit FileSizeLimit(rlim_t limit) {
        getrlimit(RLIMIT_FSIZE, &saved_);
        rlimit lowered = saved_;
        lowered.rlim_cur = limit;
        setrlimit(RLIMIT_FSIZE, &lowered);
    }
    ~FileSizeLimit() { setrlimit(RLIMIT_FSIZE, &saved_); }

  private:
    rlimit saved_{};
};

class TornDatabaseTest : public ::testing::TestWithParam<rlim_t> {
  protected:
    void SetUp() override {
        writeFile(message, "From: s@example.org\nMessage-ID: <torn.1@host>\n\nbody\n", 0600);
    }
    std::unique_ptr<deliveryManager> manager() {
        return std::make_unique<deliveryManager>(message, "s@example.org", "box@example.com", db);
    }
    // The first attempt of a delivery whose creation of the database fails,
    // then its retry: the retry must find a usable database (or none) and
    // keep its record.
    void expectUsableAfterwards() {
        EXPECT_EQ(listDir(dir.path()), (std::vector<std::string>{"message"}))
            << "a torn or private database file was left behind";
        {
            auto m = manager();
            EXPECT_FALSE(m->isDelivered("./Maildir/"));
            m->markDelivered("./Maildir/");
        }
        EXPECT_EQ(storedValue(db, kKey), std::optional<std::string>("./Maildir/"));
        {
            auto m = manager();
            EXPECT_TRUE(m->isDelivered("./Maildir/"));
            m->complete();
        }
        EXPECT_EQ(storedValue(db, kKey), std::nullopt);
    }

    ScratchDir dir;
    std::string message = dir / "message";
    std::string db = dir / "local.db";
};

// A limit inside the 256-byte header, and one inside the bucket array after it.
TEST_P(TornDatabaseTest, FailedCreationLeavesNoFileAndTheRetryCreatesAGoodOne) {
    struct sigaction ignore {}, saved{};
    ignore.sa_handler = SIG_IGN;
    sigaction(SIGXFSZ, &ignore, &saved);
    LogCapture log;
    {
        FileSizeLimit limit(GetParam());
        auto m = manager();
        m->markDelivered("&fwd@example.net");
    }
    sigaction(SIGXFSZ, &saved, nullptr);
    ASSERT_EQ(log.lines().size(), 2u) << log.dump();
    EXPECT_EQ(log.lines()[0].text.rfind("init: cannot open delivery database " + db + ": ", 0), 0u)
        << log.dump();
    EXPECT_EQ(log.lines()[1].text.rfind("save: cannot open delivery database " + db + ": ", 0), 0u)
        << log.dump();
    expectUsableAfterwards();
}

INSTANTIATE_TEST_SUITE_P(Limits, TornDatabaseTest, ::testing::Values(100, 64 * 1024));

// The same cut as a crash: SIGXFSZ's default action kills the process in the
// middle of the library's writes, so nothing of ours runs afterwards.
TEST_F(TornDatabaseTest, RunKilledWhileCreatingLeavesNoDatabaseFile) {
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        rlimit noCore{0, 0};
        setrlimit(RLIMIT_CORE, &noCore);
        signal(SIGXFSZ, SIG_DFL);
        FileSizeLimit limit(64 * 1024);
        deliveryManager m(message, "s@example.org", "box@example.com", db);
        _exit(0);
    }
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    ASSERT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGXFSZ) << status;
    EXPECT_FALSE(fileExists(db));
    // The dead run's private file is all it left; no delivery opens it.
    std::string leftover = db + ".init." + std::to_string(pid);
    EXPECT_TRUE(fileExists(leftover));
    unlink(leftover.c_str());
    expectUsableAfterwards();
}

}  // namespace
