// ferndrop killed (SIGKILL) at random points of a whole delivery, then retried
// as the transfer agent would. The kill points are system calls picked at
// random from a clean run's trace, with a fixed seed so that a failure can be
// replayed; strace delivers the signal as ferndrop enters the chosen call.
// Nothing may ever be partial in Maildir/new. A kill in the middle of an mbox
// append or of a program's or sendmail's input leaves the bytes written so
// far (only a living process can roll back); those cuts are counted, and the
// retry must add a whole copy. What a kill leaves behind (the spool file, a
// handler's output, a file in Maildir/tmp) is counted; a line carried out before the kill but never
// recorded is carried out again by the retry, and such duplicates are counted
// per store. Short form: 30 kills; FERNDROP_LONG=1: 500.
#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <map>
#include <random>
#include <set>
#include <sstream>

#include "reliability_fixture.h"

namespace {

using namespace reliability;

const int kMaxRetries = 3;

// The system call names of a trace written by strace -o, in order.
std::vector<std::string> syscallSequence(const std::string &trace) {
    std::vector<std::string> names;
    std::istringstream in(trace);
    for (std::string line; std::getline(in, line);) {
        size_t paren = line.find('(');
        if (line.empty() || !(isalpha(static_cast<unsigned char>(line[0])) || line[0] == '_') ||
            paren == std::string::npos)
            continue;
        names.push_back(line.substr(0, paren));
    }
    return names;
}

bool startsWith(const std::string &s, const std::string &prefix) { return s.rfind(prefix, 0) == 0; }

class ReliabilityCrashTest : public TracedJobTest<::testing::Test> {
  protected:
    // Files the state database directory holds besides the database.
    int stateLeftovers() {
        int n = 0;
        for (const auto &name : sb.list("/var/lib/kavra/mail/local"))
            n += name != "local.db";
        return n;
    }
};

TEST_F(ReliabilityCrashTest, KilledAtRandomPointsThenRetriedNeverShowsAPartialCopy) {
    const int runs = longMode() ? 500 : 30;
    const char *seedText = getenv("FERNDROP_CRASH_SEED");
    const unsigned seed = seedText != nullptr ? static_cast<unsigned>(strtoul(seedText, nullptr, 10)) : 20261123u;
    const std::string trace = sb.root() + "/trace";

    job->reset();
    RunResult clean = job->traced({"/usr/bin/strace", "-o", trace});
    ASSERT_EQ(clean.status, 0) << clean.logDump() << clean.err;
    const std::vector<std::string> calls = syscallSequence(Sandbox::slurpHost(trace));
    ASSERT_GT(calls.size(), 100u);
    ASSERT_EQ(job->inventory().describe(),
              "maildir=1 maildirTmp=0 mbox=1 program=1 sendmail=1 spool=0 spoolTmp=0 unchanged=0");

    std::mt19937 rng(seed);
    std::uniform_int_distribution<size_t> pick(0, calls.size() - 1);
    int killed = 0, missed = 0, retries = 0, stateFiles = 0;
    std::map<std::string, int> duplicates, truncated, stray;
    std::map<std::string, int> killedIn;
    for (int run = 1; run <= runs; run++) {
        size_t k = pick(rng);
        const std::string &name = calls[k];
        int occurrence = 0;
        for (size_t i = 0; i <= k; i++)
            occurrence += calls[i] == name;
        const std::string label = "run " + std::to_string(run) + ": kill at call " + std::to_string(k + 1) + "/" +
                                  std::to_string(calls.size()) + " (" + name + " #" + std::to_string(occurrence) +
                                  ")";
        SCOPED_TRACE(label);

        job->reset();
        RunResult first = job->traced(
            {"/usr/bin/strace", "-o", "/dev/null", "-e", "inject=" + name + ":signal=KILL:when=" + std::to_string(occurrence)});
        if (!first.signalled) {
            // The run took another path than the clean one (timing of a
            // child, say) and never got that far: not a crash case.
            missed++;
            EXPECT_TRUE(first.status == 0 || validStatusLine(first.status, first.out)) << first.status;
            continue;
        }
        EXPECT_EQ(first.status, 128 + 9);
        killed++;
        killedIn[name]++;

        Inventory afterKill = job->inventory();
        const std::vector<std::string> recorded = job->recordedLines();
        auto isRecorded = [&](const char *line) {
            return std::find(recorded.begin(), recorded.end(), line) != recorded.end();
        };

        RunResult last;
        for (int retry = 0; retry < kMaxRetries && last.status != 0; retry++) {
            last = job->deliver();
            retries++;
        }
        EXPECT_EQ(last.status, 0) << last.out << last.logDump();

        // A kill in the middle of a copy leaves what was written so far where
        // no process can take it back: the input of a program or sendmail
        // reading from ferndrop's pipe, and the bytes already appended to the
        // mbox (the rollback needs a living process). Such cuts must come
        // from the kill itself, and the retry must then still add a whole copy.
        std::set<std::string> cut;
        for (const auto &problem : afterKill.problems) {
            std::string place = startsWith(problem, "program.") ? "program"
                                : startsWith(problem, "sendmail") ? "sendmail"
                                : startsWith(problem, "mbox")     ? "mbox"
                                                                  : "";
            if (place.empty())
                ADD_FAILURE() << "partial where readers look: " << problem << "\n" << afterKill.describe();
            else if (cut.insert(place).second)
                truncated[place]++;
        }
        Inventory inv = job->inventory();
        for (const auto &problem : inv.problems)
            if (!(startsWith(problem, "mbox") && cut.count("mbox")) &&
                !(startsWith(problem, "program.") && cut.count("program")) &&
                !(startsWith(problem, "sendmail") && cut.count("sendmail")))
                ADD_FAILURE() << "partial after the retry: " << problem << "\n" << inv.describe();
        if (cut.count("mbox")) {
            // The retry's copy follows the cut one.
            std::string mbox = sb.read(job->box() + "/mbox");
            std::string whole = job->stamped() + "\n";
            EXPECT_TRUE(mbox.size() > whole.size() && mbox.compare(mbox.size() - whole.size(), whole.size(), whole) == 0)
                << "no whole copy after the cut one";
            inv.mbox = 1;
        }
        // Each store: one copy, plus the one the killed run made if its line
        // had not been recorded (the record is written only when a run ends).
        auto expect = [&](const char *store, int before, int after, const char *line) {
            if (cut.count(store))
                return;  // counted above; the whole copy was checked
            int want = before + (isRecorded(line) ? 0 : 1);
            if (isRecorded(line)) {
                EXPECT_EQ(before, 1) << store << " recorded but not delivered";
            }
            EXPECT_EQ(after, want) << store << "\n" << inv.describe();
            if (after > 1)
                duplicates[store] += after - 1;
        };
        expect("sendmail", afterKill.sendmail, inv.sendmail, kLines[0]);
        expect("program", afterKill.program, inv.program, kLines[1]);
        expect("maildir", afterKill.maildir, inv.maildir, kLines[2]);
        expect("mbox", afterKill.mbox, inv.mbox, kLines[3]);
        EXPECT_EQ(inv.unchanged, 0) << inv.describe();

        // Only the killed run can have left anything, and only its own files.
        EXPECT_LE(inv.spool, 1) << inv.describe();
        EXPECT_LE(inv.spoolTmp, 1) << inv.describe();
        EXPECT_LE(inv.maildirTmp, 1) << inv.describe();
        stray["spool file"] += inv.spool;
        stray["handler output (.tmp) in the spool"] += inv.spoolTmp;
        stray["file in Maildir/tmp"] += inv.maildirTmp;
        stateFiles += stateLeftovers();
        EXPECT_LE(stateLeftovers(), 1);
        // No record is left, and the database is not torn (tchmgr would
        // print its complaint instead of an empty key list).
        EXPECT_TRUE(job->stateKeys().empty()) << ::testing::PrintToString(job->stateKeys());
        if (HasFailure())
            break;
    }

    std::ostringstream summary;
    summary << "[reliability] crash: " << runs << " kills planned (seed " << seed << "), " << killed
            << " killed, " << missed << " never reached the kill point, " << retries
            << " retries, nothing partial in Maildir/new, every delivery completed\n";
    summary << "[reliability]   duplicates after retry (line carried out, record not yet written):";
    for (const char *store : {"sendmail", "program", "maildir", "mbox"})
        summary << " " << store << " " << duplicates[store];
    summary << "\n[reliability]   copies cut short by the kill, a whole copy added by the retry:";
    for (const char *store : {"program", "sendmail", "mbox"})
        summary << " " << store << " " << truncated[store];
    summary << "\n[reliability]   left behind:";
    for (const auto &s : stray)
        summary << " " << s.first << " " << s.second << ";";
    summary << " private state-database file " << stateFiles << "\n[reliability]   kill points by call:";
    for (const auto &k : killedIn)
        summary << " " << k.first << " " << k.second;
    summary << "\n";
    std::cout << summary.str();
    RecordProperty("killed", killed);
}

}  // namespace
