#include "util/directories.h"

#include <cerrno>
#include <sys/stat.h>

int makeDirectories(const std::string &dir, mode_t mode, std::string *failed) {
    for (size_t pos = dir.find('/', 1);; pos = dir.find('/', pos + 1)) {
        std::string prefix = dir.substr(0, pos);
        struct stat st;
        if (mkdir(prefix.c_str(), pos == std::string::npos ? mode : 0755) != 0 &&
            (errno != EEXIST || stat(prefix.c_str(), &st) != 0 || !S_ISDIR(st.st_mode))) {
            if (errno == EEXIST)
                errno = ENOTDIR;
            if (failed != nullptr)
                *failed = prefix;
            return -1;
        }
        if (pos == std::string::npos)
            return 0;
    }
}
