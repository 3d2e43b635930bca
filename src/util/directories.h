// mkdir -p, for the tools that lay out an installation.
#pragma once
#include <string>
#include <sys/types.h>

// Makes dir and its missing parents: parents 0755, dir itself with mode
// (both under the umask); existing ones are left as they are. A component
// that exists as anything but a directory fails with ENOTDIR. 0, or -1 with
// errno set and *failed (when given) naming the component.
int makeDirectories(const std::string &dir, mode_t mode, std::string *failed = nullptr);
