// ferndrop-setup, the installation's layout step, run inside the sandbox (its
// /etc is an overlay, so the group and user it adds stay there): owners and
// modes the delivery user needs, a registry the delivery path can read, a
// second run that repairs modes but keeps the panel's rows, and --root.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdlib>
#include <sstream>

#include "../registry_schema.h"
#include "paths.h"
#include "sandbox.h"

namespace {

// uid, or gid, of a name in the sandbox's /etc/passwd or /etc/group (the
// host's file until something in the sandbox changed it).
long idOf(Sandbox &sb, const std::string &file, const std::string &name) {
    std::istringstream in(sb.exists(file) ? sb.read(file) : Sandbox::slurpHost(file));
    for (std::string line; std::getline(in, line);) {
        if (line.compare(0, name.size() + 1, name + ":") != 0)
            continue;
        std::istringstream fields(line);
        std::string field;
        for (int i = 0; i < 3; i++)
            std::getline(fields, field, ':');
        return atol(field.c_str());
    }
    return -1;
}

struct stat statOf(const std::string &hostPath) {
    struct stat st {};
    EXPECT_EQ(stat(hostPath.c_str(), &st), 0) << hostPath;
    return st;
}

void expectOwned(const std::string &hostPath, long uid, long gid, mode_t mode) {
    struct stat st = statOf(hostPath);
    EXPECT_EQ(st.st_uid, uid) << hostPath;
    EXPECT_EQ(st.st_gid, gid) << hostPath;
    EXPECT_EQ(st.st_mode & 07777, mode) << hostPath;
}

std::string parentOf(const std::string &path) { return path.substr(0, path.rfind('/')); }

const std::string kSetup = FERNDROP_SETUP;
const std::string kSpool = FERNDROP_SPOOL_DIR;
const std::string kRegistry = FERNDROP_HANDLERS_DB;
const std::string kState = FERNDROP_STATE_DB;

TEST(Setup, LaysOutTheTreeForTheDeliveryUserAndRunsAgainHarmlessly) {
    Sandbox sb;
    RunResult first = sb.shell(kSetup + " --user popuser");
    ASSERT_EQ(first.status, 0) << first.out << first.err;
    long uid = idOf(sb, "/etc/passwd", "popuser");
    long gid = idOf(sb, "/etc/group", "popuser");
    ASSERT_GT(uid, 0);
    ASSERT_GT(gid, 0);
    EXPECT_EQ(idOf(sb, "/etc/passwd", "popuser"), uid);

    expectOwned(sb.host(kSpool), uid, gid, 0750);
    expectOwned(sb.host(parentOf(kRegistry)), 0, 0, 0755);
    expectOwned(sb.host(kRegistry), 0, gid, 0640);
    expectOwned(sb.host(parentOf(kState)), uid, gid, 0750);

    // The registry has the exact schema of the panel's creation script; the
    // panel can add a row to it, and the delivery user (group popuser, read
    // only) can read it.
    std::string db = sb.host(kRegistry);
    std::string reference = sb.root() + "/reference.db";
    ASSERT_EQ(system(("sqlite3 '" + reference + "' \"" + kRegistrySchema + "\"").c_str()), 0);
    std::string schema = hostOutput("sqlite3 '" + db + "' .schema");
    EXPECT_NE(schema.find("CONSTRAINT uniq_entries_constaraint"), std::string::npos) << schema;
    EXPECT_EQ(schema, hostOutput("sqlite3 '" + reference + "' .schema"));
    ASSERT_EQ(system(("sqlite3 '" + db +
                      "' \"INSERT INTO handlers VALUES(2,4,1,1,'keep','all','/bin/true','',0);\"")
                         .c_str()),
              0);
    RunResult read = sb.shell("setpriv --reuid=popuser --regid=popuser --clear-groups sqlite3 -readonly " +
                              kRegistry + " 'SELECT name FROM handlers'");
    EXPECT_EQ(read.out, "keep\n") << read.err;

    // A second run puts owners and modes right again and keeps the rows.
    chmod(sb.host(kSpool).c_str(), 0777);
    chmod(db.c_str(), 0666);
    RunResult second = sb.shell(kSetup + " --user popuser");
    ASSERT_EQ(second.status, 0) << second.out << second.err;
    EXPECT_NE(second.out.find("(kept)"), std::string::npos) << second.out;
    expectOwned(sb.host(kSpool), uid, gid, 0750);
    expectOwned(db, 0, gid, 0640);
    EXPECT_EQ(idOf(sb, "/etc/passwd", "popuser"), uid);
    RunResult again = sb.shell("sqlite3 " + kRegistry + " 'SELECT count(*) FROM handlers'");
    EXPECT_EQ(again.out, "1\n");
}

TEST(Setup, RootPrefixLaysOutAStagingTreeForAnExistingUser) {
    Sandbox sb;
    std::string stage = sb.root() + "/stage";
    RunResult r = sb.shell("DESTDIR=/nowhere " + kSetup + " --root " + stage + "/ --user mail");
    ASSERT_EQ(r.status, 0) << r.out << r.err;
    long mail = idOf(sb, "/etc/passwd", "mail");
    long gid = idOf(sb, "/etc/group", "popuser");
    expectOwned(stage + kSpool, mail, gid, 0750);
    expectOwned(stage + kRegistry, 0, gid, 0640);
    expectOwned(stage + parentOf(kState), mail, gid, 0750);
    EXPECT_FALSE(sb.exists(kSpool));
    EXPECT_EQ(idOf(sb, "/etc/passwd", "popuser"), -1) << "no user is added for an existing delivery user";

    RunResult unknown = sb.shell(kSetup + " --root " + stage + " --user no-such-user");
    EXPECT_EQ(unknown.status, 67);
    RunResult usage = sb.shell(kSetup + " --bogus");
    EXPECT_EQ(usage.status, 64);
}

}  // namespace
