// Contract in driver/mailbox_dir.h.
#include "driver/mailbox_dir.h"

#include <cerrno>
#include <cstring>
#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>
#include <vector>
#include <strings.h>
#include <unistd.h>

#include "driver/log.h"

void splitAddress(char *address, char **mailname, char **domain) {
    *mailname = address;
    *domain = nullptr;
    if (address == nullptr)
        return;
    char *at = strchr(address, '@');
    if (at != nullptr) {
        *at = '\0';
        *domain = at + 1;
    }
}

int chdirCaseless(const char *name, std::string *entered) {
    if (name == nullptr) {
        errno = ENOENT;
        return -1;
    }
    if (strchr(name, '/') != nullptr) {
        LogFunction(19, "bad entry %s (contains /)", name);
        errno = ENOTDIR;
        return -1;
    }
    // A recipient "..@example.com" must not climb out of the domain directory.
    if (strcmp(name, ".") == 0 || strcmp(name, "..") == 0) {
        LogFunction(19, "bad entry %s (is . or ..)", name);
        errno = ENOTDIR;
        return -1;
    }
    if (chdir(name) == 0) {
        if (entered != nullptr)
            *entered = name;
        return 0;
    }
    if (errno != ENOENT)
        return -1;

    DIR *dir = opendir(".");
    if (dir == nullptr) {
        int saved = errno;
        LogFunction(19, "cannot opendir '.': %s", strerror(saved));
        errno = saved;
        return -1;
    }
    // Every entry matching without regard to case that is a directory when
    // looked at counts: a link to one (an alias domain) and an entry whose
    // type the file system does not report included, exactly as the exact
    // name above would be followed. The smallest name wins, so the same tree
    // always gives the same mailbox, whatever order the listing has.
    std::vector<std::string> candidates;
    int failure = 0;
    errno = 0;
    while (dirent *entry = readdir(dir)) {
        if (strcasecmp(entry->d_name, name) != 0)
            continue;
        struct stat st;
        if (entry->d_type == DT_DIR) {
            candidates.push_back(entry->d_name);
        } else if (entry->d_type == DT_LNK || entry->d_type == DT_UNKNOWN) {
            if (stat(entry->d_name, &st) == 0 && S_ISDIR(st.st_mode))
                candidates.push_back(entry->d_name);
            else if (errno != ENOENT && errno != ENOTDIR && failure == 0)
                failure = errno;  // cannot tell whether it is the mailbox
        }
        errno = 0;
    }
    // A listing cut short by an error does not show the name is missing.
    int saved = errno;
    closedir(dir);
    if (saved != 0) {
        LogFunction(19, "cannot readdir '.': %s", strerror(saved));
        errno = saved;
        return -1;
    }
    if (failure != 0) {
        LogFunction(19, "cannot look at an entry matching %s: %s", name, strerror(failure));
        errno = failure;
        return -1;
    }
    if (candidates.empty()) {
        errno = ENOENT;
        return -1;
    }
    std::sort(candidates.begin(), candidates.end());
    if (candidates.size() > 1) {
        std::string all;
        for (const std::string &c : candidates)
            all += (all.empty() ? "" : ", ") + c;
        LogFunction(4, "several directories match %s without regard to case (%s); taking %s", name, all.c_str(),
                    candidates[0].c_str());
    }
    if (chdir(candidates[0].c_str()) != 0)
        return -1;
    if (entered != nullptr)
        *entered = candidates[0];
    return 0;
}

namespace {

// A name longer than the file system allows cannot be there either.
int failureKind(int err) {
    return err == ENOENT || err == ENOTDIR || err == ENAMETOOLONG ? MAILBOX_UNKNOWN : MAILBOX_UNREACHABLE;
}

}  // namespace

int enterMailboxDir(const char *mailnamesDir, const char *domain, const char *mailname, MailboxFound *found,
                    const char *base) {
    MailboxFound own;
    if (found == nullptr)
        found = &own;
    *found = MailboxFound{};
    found->taken = 1;
    found->steps[0].given = mailnamesDir;
    // Whatever the reason (missing, not mounted), no recipient is unknown
    // while the root of the tree is out of reach.
    if (chdir(mailnamesDir) != 0) {
        found->steps[0].error = errno;
        LogFunction(19, "cannot chdir to mailnames dir %s: %s", mailnamesDir, strerror(errno));
        return MAILBOX_UNREACHABLE;
    }
    found->steps[0].entered = mailnamesDir;
    const char *const failures[] = {"cannot chdir to domain dir %s: %s", "cannot chdir to mailname dir %s: %s"};
    const char *const names[] = {domain, mailname};
    for (int i = 0; i < 2; i++) {
        MailboxStep &step = found->steps[++found->taken - 1];
        step.given = names[i] != nullptr ? names[i] : "";
        int entered = chdirCaseless(names[i], &step.entered);
        // The base mailbox of an address extension, only when the whole
        // mailname is not there.
        if (entered != 0 && i == 1 && base != nullptr && failureKind(errno) == MAILBOX_UNKNOWN) {
            entered = chdirCaseless(base, &step.entered);
            found->base = entered == 0;
        }
        if (entered != 0) {
            step.error = errno;
            step.entered.clear();
            LogFunction(19, failures[i], names[i], strerror(step.error));
            return failureKind(step.error);
        }
        step.caseless = step.entered != (found->base ? base : names[i]);
    }
    return 0;
}
