// Contract in store/server_type.h.
#include <sys/stat.h>

#include "driver/log.h"
#include "paths.h"
#include "store/server_type.h"

namespace {
ServerType cachedType = SERVER_UNKNOWN;
}

ServerType inspect_server_type(const char **unusable) {
    struct stat st;
    ServerType candidate;
    const char *path;
    *unusable = nullptr;
    if (stat(FERNDROP_DELIVERQUOTA, &st) == 0) {
        candidate = SERVER_COURIER_IMAP;
        path = FERNDROP_DELIVERQUOTA;
    } else if (stat(FERNDROP_DOVECOT_LDA, &st) == 0) {
        candidate = SERVER_DOVECOT;
        path = FERNDROP_DOVECOT_LDA;
    } else {
        return SERVER_UNKNOWN;
    }
    if (!S_ISREG(st.st_mode) || (st.st_mode & (S_IXUSR | S_IXGRP | S_IXOTH)) == 0) {
        *unusable = path;
        return SERVER_UNKNOWN;
    }
    return candidate;
}

const char *server_agent(ServerType type) {
    switch (type) {
    case SERVER_COURIER_IMAP:
        return FERNDROP_DELIVERQUOTA;
    case SERVER_DOVECOT:
        return FERNDROP_DOVECOT_LDA;
    default:
        return nullptr;
    }
}

ServerType cached_server_type() { return cachedType; }

ServerType detect_server_type() {
    if (cachedType != SERVER_UNKNOWN)
        return cachedType;
    const char *unusable = nullptr;
    ServerType type = inspect_server_type(&unusable);
    if (type == SERVER_UNKNOWN && unusable == nullptr) {
        LogFunction(3, "Unable to detect IMAP/POP3 server type - no LDA found");
    } else if (type == SERVER_UNKNOWN) {
        LogFunction(3,
                    "Unable to detect IMAP/POP3 server type - LDA is present at '%s' but is not a regular file or "
                    "is not executable",
                    unusable);
    }
    cachedType = type;
    return type;
}
