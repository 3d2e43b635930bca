// Contract in driver/mailbox_dir.h.
#include "driver/mailbox_dir.h"

#include <cerrno>
#include <cstring>
#include <dirent.h>
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
    errno = 0;
    while (dirent *entry = readdir(dir)) {
        // A link could point anywhere; only a real directory may stand in for a
        // differently cased name. The exact name was tried above, links included.
        if (entry->d_type != DT_DIR || strcasecmp(entry->d_name, name) != 0)
            continue;
        int result = chdir(entry->d_name);
        int saved = errno;
        if (result == 0 && entered != nullptr)
            *entered = entry->d_name;
        closedir(dir);
        errno = saved;
        return result;
    }
    // A listing cut short by an error does not show the name is missing.
    int saved = errno;
    closedir(dir);
    if (saved != 0) {
        LogFunction(19, "cannot readdir '.': %s", strerror(saved));
        errno = saved;
        return -1;
    }
    errno = ENOENT;
    return -1;
}

namespace {

// A name longer than the file system allows cannot be there either.
int failureKind(int err) {
    return err == ENOENT || err == ENOTDIR || err == ENAMETOOLONG ? MAILBOX_UNKNOWN : MAILBOX_UNREACHABLE;
}

}  // namespace

int enterMailboxDir(const char *mailnamesDir, const char *domain, const char *mailname, MailboxFound *found) {
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
        if (chdirCaseless(names[i], &step.entered) != 0) {
            step.error = errno;
            step.entered.clear();
            LogFunction(19, failures[i], names[i], strerror(step.error));
            return failureKind(step.error);
        }
        step.caseless = step.entered != names[i];
    }
    return 0;
}
