// Contract in store/mailbox_paths.h.
#include <cstdio>
#include <cstring>

#include "driver/log.h"
#include "store/mailbox_paths.h"
#include "util/conf.h"

namespace {
bool fits(int length, unsigned long size) { return length >= 0 && static_cast<unsigned long>(length) < size; }
}  // namespace

bool is_inbox_folder(const char *folder) {
    return folder == nullptr || folder[0] == '\0' || strcmp(folder, "INBOX") == 0;
}

bool is_dot_folder(const char *folder) { return folder != nullptr && folder[0] == '.'; }

int build_maildir_path(char *buffer, unsigned long size, const char *mailname, const char *domain) {
    const char *root = conf_get(KAVRA_MAILNAMES_D);
    if (!fits(snprintf(buffer, size, "%s/%s/%s/Maildir", root, domain, mailname), size)) {
        LogFunction(6,
                    "Either domain name '%s' or mailname '%s' are too long to store Maildir path in the provided "
                    "buffer",
                    domain, mailname);
        return -1;
    }
    return 0;
}

int build_folder_path(char *buffer, unsigned long size, const char *mailname, const char *domain,
                      const char *folder) {
    if (is_inbox_folder(folder))
        return build_maildir_path(buffer, size, mailname, domain);
    if (!is_dot_folder(folder)) {
        LogFunction(3, "Supplied IMAP folder name '%s' is not valid. '.' should be used as a separator", folder);
        return -1;
    }
    const char *root = conf_get(KAVRA_MAILNAMES_D);
    if (!fits(snprintf(buffer, size, "%s/%s/%s/Maildir/%s", root, domain, mailname, folder), size)) {
        LogFunction(6,
                    "Domain name '%s', mailname '%s', or IMAP folder 'INBOX%s' are too long to store folder path in "
                    "the provided buffer",
                    domain, mailname, folder);
        return -1;
    }
    return 0;
}
