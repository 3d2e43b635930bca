// Contract in setup/checks.h.
#include <dirent.h>
#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "delivery/run.h"
#include "driver/mailbox_dir.h"
#include "paths.h"
#include "setup/checks.h"
#include "store/server_type.h"
#include "util/settings.h"

namespace {

// The visible subdirectories of dir (links to directories included), or
// false when dir cannot be listed.
bool subdirectories(const std::string &dir, std::vector<std::string> *names) {
    DIR *d = opendir(dir.c_str());
    if (d == nullptr) {
        fprintf(stderr, "ferndrop-setup: cannot list %s: %s\n", dir.c_str(), strerror(errno));
        return false;
    }
    errno = 0;
    for (dirent *e; (e = readdir(d)) != nullptr; errno = 0) {
        struct stat st;
        if (e->d_name[0] != '.' && stat((dir + "/" + e->d_name).c_str(), &st) == 0 && S_ISDIR(st.st_mode))
            names->push_back(e->d_name);
    }
    int err = errno;
    closedir(d);
    if (err != 0)
        fprintf(stderr, "ferndrop-setup: cannot list %s: %s\n", dir.c_str(), strerror(err));
    return err == 0;
}

int failures = 0;

void item(bool good, const std::string &text) {
    printf("%s: %s\n", good ? "ok" : "FAIL", text.c_str());
    failures += good ? 0 : 1;
}

// Type, owner and mode of path against what setup lays out.
void layout(const std::string &what, const std::string &path, bool dir, uid_t uid, gid_t gid, mode_t mode) {
    struct stat st;
    if (stat(path.c_str(), &st) != 0)
        return item(false, what + " " + path + ": " + strerror(errno) + " (run ferndrop-setup)");
    char got[64], want[64];
    snprintf(got, sizeof got, "%u:%u %04o", st.st_uid, st.st_gid, st.st_mode & 07777);
    snprintf(want, sizeof want, "%u:%u %04o", uid, gid, mode);
    bool good = S_ISDIR(st.st_mode) == dir && strcmp(got, want) == 0;
    item(good, what + " " + path + " " + got + (good ? "" : std::string(", wanted ") + want + " (run ferndrop-setup)"));
}

// Whether user can reach path with the access mode, asked of the kernel
// under the user's own ids in a child.
bool reachable(const passwd *pw, const std::string &path, int how) {
    pid_t pid = fork();
    if (pid == 0) {
        bool ok = initgroups(pw->pw_name, pw->pw_gid) == 0 && setgid(pw->pw_gid) == 0 && setuid(pw->pw_uid) == 0 &&
                  access(path.c_str(), how) == 0;
        _exit(ok ? 0 : 1);
    }
    int status = 0;
    return pid > 0 && waitpid(pid, &status, 0) == pid && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

// The first line postconf prints for args, or empty.
std::string postconf(const char *postconfPath, const char *a, const char *b) {
    int fds[2];
    if (pipe(fds) != 0)
        return "";
    pid_t pid = fork();
    if (pid == 0) {
        dup2(fds[1], 1);
        close(fds[0]), close(fds[1]);
        execl(postconfPath, "postconf", a, b, static_cast<char *>(nullptr));
        _exit(127);
    }
    close(fds[1]);
    std::string out;
    char buf[4096];
    for (ssize_t n; (n = read(fds[0], buf, sizeof buf)) > 0;)
        out.append(buf, n);
    close(fds[0]);
    waitpid(pid, nullptr, 0);
    return out.substr(0, out.find('\n'));
}

void postfix(const std::string &root) {
    const char *postconfPath = "/usr/sbin/postconf";
    if (access(postconfPath, X_OK) != 0)
        return item(true, "postfix: not installed, not checked");
    std::string service = postconf(postconfPath, "-M", "ferndrop/unix");
    if (service.empty())
        return item(false, "postfix: master.cf has no ferndrop service (ferndrop/unix)");
    size_t argv = service.find("argv=");
    std::string program = argv == std::string::npos ? "" : service.substr(argv + 5, service.find(' ', argv) - argv - 5);
    item(!program.empty() && access((root + program).c_str(), X_OK) == 0,
         "postfix: master.cf runs " + (program.empty() ? std::string("no argv=") : program));
    std::string limit = postconf(postconfPath, "-h", "ferndrop_destination_recipient_limit");
    item(limit == "1", "postfix: ferndrop_destination_recipient_limit = " + (limit.empty() ? "(unset)" : limit) +
                           (limit == "1" ? "" : ", wanted 1 (one recipient per run)"));
}

}  // namespace

int printRecipientMap(const std::string &mailnames) {
    std::vector<std::string> domains, lines;
    char *absolute = realpath(mailnames.c_str(), nullptr);
    std::string root = absolute != nullptr ? absolute : mailnames;
    free(absolute);
    if (!subdirectories(root, &domains))
        return 1;
    for (const std::string &domain : domains) {
        std::vector<std::string> boxes;
        if (!subdirectories(root + "/" + domain, &boxes))
            return 1;
        // Only what a delivery would find: among directories that differ
        // in case alone, the one it enters decides.
        for (const std::string &box : boxes) {
            std::string address = canonicalRecipient((box + "@" + domain).c_str());
            size_t at = address.find('@');
            if (enterMailboxDir(root.c_str(), address.c_str() + at + 1, address.substr(0, at).c_str()) == 0)
                lines.push_back(address + " OK");
        }
    }
    std::sort(lines.begin(), lines.end());
    lines.erase(std::unique(lines.begin(), lines.end()), lines.end());
    for (const std::string &line : lines)
        printf("%s\n", line.c_str());
    return 0;
}

int checkInstallation(const std::string &root, const std::string &user) {
    const passwd *pw = getpwnam(user.c_str());
    const group *gr = getgrnam("popuser");
    item(pw != nullptr, "delivery user " + user + (pw != nullptr ? "" : ": no such user (run ferndrop-setup)"));
    item(gr != nullptr, std::string("group popuser") + (gr != nullptr ? "" : ": no such group (run ferndrop-setup)"));
    if (pw != nullptr && gr != nullptr) {
        std::string spool = root + FERNDROP_SPOOL_DIR, registry = root + FERNDROP_HANDLERS_DB;
        std::string state = root + FERNDROP_STATE_DB;
        state = state.substr(0, state.rfind('/'));
        layout("spool directory", spool, true, pw->pw_uid, gr->gr_gid, 0750);
        layout("handler registry", registry, false, 0, gr->gr_gid, 0640);
        layout("state directory", state, true, pw->pw_uid, gr->gr_gid, 0750);
        item(reachable(pw, registry, R_OK), user + " reads the handler registry");
        item(reachable(pw, spool, W_OK | X_OK), user + " writes the spool directory");
        item(reachable(pw, state, W_OK | X_OK), user + " writes the state directory");
    }
    const char *unusable = nullptr;
    ServerType server = inspect_server_type(&unusable);
    item(server != SERVER_UNKNOWN,
         server != SERVER_UNKNOWN ? std::string("store agent ") + server_agent(server)
         : unusable != nullptr    ? std::string("store agent ") + unusable + " is not an executable file"
                                  : std::string("store agent: none of " FERNDROP_DOVECOT_LDA ", " FERNDROP_DELIVERQUOTA));
    postfix(root);
    for (const SettingInEffect &s : settingsInEffect())
        item(strcmp(s.source, "invalid") != 0,
             "setting " + s.name + " " + s.value + " (" + s.source +
                 (strcmp(s.source, "invalid") == 0 ? ": " FERNDROP_SETTINGS_FILE " holds a value it does not accept)"
                                                   : ")"));
    return failures == 0 ? 0 : 1;
}
