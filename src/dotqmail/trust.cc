// Contract in dotqmail/trust.h.
#include "dotqmail/trust.h"

#include <limits.h>
#include <pwd.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <utility>
#include <vector>

#include "driver/log.h"
#include "util/settings.h"

namespace {

std::vector<std::string> split(const std::string &text, char separator) {
    std::vector<std::string> items;
    size_t start = 0;
    for (size_t at; (at = text.find(separator, start)) != std::string::npos; start = at + 1)
        items.push_back(text.substr(start, at - start));
    items.push_back(text.substr(start));
    return items;
}

// The directory's real path, or, for one that is not there (yet), the path
// with "." and ".." taken out by their text: a line cannot escape through a
// directory that does not exist. A relative path goes to realpath as it is,
// so that only its own parts are looked up, not those of the current
// directory again (cwd, from getcwd, is a real path already).
std::string resolved(const std::string &path, const char *cwd) {
    char real[PATH_MAX];
    if (realpath(path.c_str(), real) != nullptr)
        return real;
    std::vector<std::string> kept;
    for (const std::string &part : split(path[0] == '/' ? path : std::string(cwd) + "/" + path, '/')) {
        if (part.empty() || part == ".")
            continue;
        if (part == "..") {
            if (!kept.empty())
                kept.pop_back();
        } else {
            kept.push_back(part);
        }
    }
    std::string out;
    for (const std::string &part : kept)
        out += "/" + part;
    return out.empty() ? "/" : out;
}

bool within(const std::string &path, const std::string &root) {
    return path == root || (path.size() > root.size() && path.compare(0, root.size(), root) == 0 &&
                            (root == "/" || path[root.size()] == '/'));
}

}  // namespace

bool qmailOwnerTrusted(uid_t uid, std::string &owner) {
    if (uid == 0 || uid == geteuid())
        return true;
    // The user database read as a file: the static ferndrop has no name
    // service to load, and a mailbox's owner is a local account.
    std::vector<std::pair<std::string, uid_t>> users;
    if (FILE *file = fopen("/etc/passwd", "re")) {
        while (passwd *pw = fgetpwent(file))
            users.emplace_back(pw->pw_name, pw->pw_uid);
        fclose(file);
    }
    owner = std::to_string(uid);
    for (const auto &[name, id] : users)
        if (id == uid) {
            owner = name;
            break;
        }
    const std::string &listed = settingText("qmail_owners");
    if (listed == "any")
        return true;
    if (listed == "none")
        return false;
    for (const std::string &name : split(listed, ',')) {
        if (name == std::to_string(uid))
            return true;
        for (const auto &[user, id] : users)
            if (user == name && id == uid)
                return true;
    }
    return false;
}

int confinementOf(const QmailLine &line) {
    const std::string &mode = settingText("confine_deliveries");
    if ((line.kind != MaildirLine && line.kind != MboxLine) || mode == "off")
        return 0;
    char cwd[PATH_MAX];
    if (getcwd(cwd, sizeof cwd) == nullptr)
        return 0;
    std::string target = line.value;
    // An mbox writes its file's directory (and its lock file there).
    if (line.kind == MboxLine)
        target = target.substr(0, target.rfind('/') + 1);
    std::string where = resolved(target.empty() ? "." : target, cwd);
    std::vector<std::string> roots = {cwd};
    const std::string &allowed = settingText("allowed_paths");
    if (allowed != "none")
        for (const std::string &dir : split(allowed, ':'))
            if (!dir.empty())
                roots.push_back(resolved(dir, cwd));
    for (const std::string &root : roots)
        if (within(where, root))
            return 0;
    if (mode == "warn") {
        LogFunction(4, "The line %s writes outside the mailbox directory", line.value.c_str());
        return 1;
    }
    LogFunction(3, "The line %s writes outside the mailbox directory: refused", line.value.c_str());
    return -1;
}
