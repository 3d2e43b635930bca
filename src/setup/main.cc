// ferndrop-setup: lays out the directories a delivery needs and that the
// delivery path itself never creates, for one delivery user.
//
//   spool directory          USER:popuser 0750   (spool files, handler input)
//   handler registry dir     root         0755   (made by mh_create_db)
//   handler registry         root:popuser 0640   (empty, made by mh_create_db)
//   delivery-state directory USER:popuser 0750   (the Tokyo Cabinet file)
//
// Idempotent: existing directories get their owner and mode set again, an
// existing registry keeps its rows and only gets its owner and mode back.
// --root (or DESTDIR) puts the tree under another root, for staging trees and
// test namespaces; the user and the group are always those of the running
// system. --check and --recipient-map only look (setup/checks.h).
#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "driver/log.h"
#include "handlers/registry.h"
#include "paths.h"
#include "setup/checks.h"
#include "util/directories.h"
#include "version.h"

namespace {

const char kGroup[] = "popuser";
const char kDefaultUser[] = "popuser";

void usage(FILE *to) {
    fprintf(to,
            "usage: ferndrop-setup [--root DIR] [--user USER] [--check]\n"
            "       ferndrop-setup --recipient-map MAILNAMES_DIR\n"
            "  --root DIR   lay the tree out under DIR (default: $DESTDIR, else /)\n"
            "  --user USER  the delivery user the transfer agent runs ferndrop as (default: popuser;\n"
            "               created as a system user with primary group popuser when missing)\n"
            "  --check      change nothing; one line per item, exit 1 when a delivery would fail\n"
            "  --recipient-map DIR  print \"address OK\" for every mailbox, for Postfix's virtual_mailbox_maps\n");
}

int run(const std::vector<std::string> &argv) {
    std::vector<char *> args;
    for (const auto &a : argv)
        args.push_back(const_cast<char *>(a.c_str()));
    args.push_back(nullptr);
    pid_t pid = fork();
    if (pid < 0)
        return -1;
    if (pid == 0) {
        execv(args[0], args.data());
        fprintf(stderr, "ferndrop-setup: cannot run %s: %s\n", args[0], strerror(errno));
        _exit(127);
    }
    int status = 0;
    if (waitpid(pid, &status, 0) != pid)
        return -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// mkdir -p; only the last component gets owner and mode, parents are left
// (or made) root-owned 0755 like any system directory.
bool directory(const std::string &path, uid_t uid, gid_t gid, mode_t mode) {
    std::string failed;
    if (makeDirectories(path, mode, &failed) != 0) {
        if (errno == ENOTDIR && failed == path)
            fprintf(stderr, "ferndrop-setup: %s is not a directory\n", path.c_str());
        else
            fprintf(stderr, "ferndrop-setup: mkdir %s: %s\n", failed.c_str(), strerror(errno));
        return false;
    }
    if (chown(path.c_str(), uid, gid) != 0 || chmod(path.c_str(), mode) != 0) {
        fprintf(stderr, "ferndrop-setup: owner/mode of %s: %s\n", path.c_str(), strerror(errno));
        return false;
    }
    printf("%s %04o %u:%u\n", path.c_str(), mode, uid, gid);
    return true;
}

std::string parentOf(const std::string &path) { return path.substr(0, path.rfind('/')); }

// The popuser group, added as a system group when missing; its gid, or -1
// after a message.
gid_t mailGroup() {
    if (getgrnam(kGroup) == nullptr) {
        printf("adding group %s\n", kGroup);
        if (run({"/usr/sbin/groupadd", "--system", kGroup}) != 0 || getgrnam(kGroup) == nullptr) {
            fprintf(stderr, "ferndrop-setup: cannot add group %s\n", kGroup);
            return static_cast<gid_t>(-1);
        }
    }
    return getgrnam(kGroup)->gr_gid;
}

// The delivery user's uid; only the default user is added when missing.
// Otherwise 0 with *status set to the exit status.
uid_t deliveryUser(const std::string &user, int *status) {
    if (getpwnam(user.c_str()) == nullptr) {
        if (user != kDefaultUser) {
            fprintf(stderr, "ferndrop-setup: no user %s\n", user.c_str());
            *status = 67;
            return 0;
        }
        printf("adding user %s\n", user.c_str());
        if (run({"/usr/sbin/useradd", "--system", "--gid", kGroup, "--no-create-home", "--no-log-init",
                 "--home-dir", "/nonexistent", "--shell", "/usr/sbin/nologin", user}) != 0 ||
            getpwnam(user.c_str()) == nullptr) {
            fprintf(stderr, "ferndrop-setup: cannot add user %s\n", user.c_str());
            *status = 1;
            return 0;
        }
    }
    return getpwnam(user.c_str())->pw_uid;
}

// A new, empty registry, or an existing one kept with its owner and mode put
// right. 0 or 1, the exit status.
int registry(const std::string &path, gid_t gid) {
    struct stat st;
    if (stat(path.c_str(), &st) == 0) {
        // A registry the panel already filled is kept as it is; only who may
        // read it is put right.
        if (chown(path.c_str(), 0, gid) != 0 || chmod(path.c_str(), 0640) != 0) {
            fprintf(stderr, "ferndrop-setup: owner/mode of %s: %s\n", path.c_str(), strerror(errno));
            return 1;
        }
        // Its rows stay; deliveries need the caseless index beside them.
        if (mh_add_caseless_index(path.c_str()) != 0)
            return 1;
        printf("%s 0640 0:%u (kept)\n", path.c_str(), gid);
        return 0;
    }
    mh_set_db_path(path.c_str());
    if (mh_create_db() != 0) {
        fprintf(stderr, "ferndrop-setup: cannot create the handler registry %s\n", path.c_str());
        return 1;
    }
    printf("%s 0640 0:%u (new, empty)\n", path.c_str(), gid);
    return 0;
}

}  // namespace

int main(int argc, char **argv) {
    std::string root = getenv("DESTDIR") != nullptr ? getenv("DESTDIR") : "";
    std::string user = kDefaultUser;
    bool check = false;
    for (int i = 1; i < argc; i++) {
        std::string a = argv[i];
        if ((a == "--root" || a == "--user") && i + 1 < argc) {
            (a == "--root" ? root : user) = argv[++i];
        } else if (a == "--recipient-map" && i + 1 < argc) {
            logInit("stderr", 6, LOG_MAIL, 0, "ferndrop-setup");
            return printRecipientMap(argv[i + 1]);
        } else if (a == "--check") {
            check = true;
        } else if (a == "--version") {
            printf("ferndrop-setup %s\n", FERNDROP_VERSION);
            return 0;
        } else if (a == "-h" || a == "--help") {
            usage(stdout);
            return 0;
        } else {
            usage(stderr);
            return 64;
        }
    }
    while (!root.empty() && root.back() == '/')
        root.pop_back();
    if (check) {
        logInit("stderr", 6, LOG_MAIL, 0, "ferndrop-setup");
        return checkInstallation(root, user);
    }
    if (geteuid() != 0) {
        fprintf(stderr, "ferndrop-setup: must run as root (it sets owners)\n");
        return 77;
    }
    umask(022);
    logInit("stderr", 7, LOG_MAIL, 0, "ferndrop-setup");

    gid_t gid = mailGroup();
    if (gid == static_cast<gid_t>(-1))
        return 1;
    int status = 0;
    uid_t uid = deliveryUser(user, &status);
    if (status != 0)
        return status;

    const std::string spool = root + FERNDROP_SPOOL_DIR;
    const std::string registryPath = root + FERNDROP_HANDLERS_DB;
    const std::string state = root + FERNDROP_STATE_DB;
    if (!directory(spool, uid, gid, 0750) || !directory(parentOf(registryPath), 0, 0, 0755) ||
        !directory(parentOf(state), uid, gid, 0750))
        return 1;
    return registry(registryPath, gid);
}
