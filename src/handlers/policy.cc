// Contract in handlers/policy.h.
#include "handlers/policy.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "util/settings.h"

bool mh_program_problem(const char *path, std::string &why) {
    struct stat st;
    if (path == nullptr || stat(path, &st) != 0) {
        why = path == nullptr ? "no program" : strerror(errno);
        return true;
    }
    if (!S_ISREG(st.st_mode)) {
        why = "not a regular file";
        return true;
    }
    if (access(path, X_OK) != 0) {
        why = "not executable";
        return true;
    }
    return false;
}

bool mh_failure_defers(const char *name) {
    for (const std::string &open : settingList("handlers_fail_open"))
        if (name != nullptr && open == name)
            return false;
    return settingText("handler_failure") == "defer";
}
