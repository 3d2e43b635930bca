// What a failed handler means for the delivery, and the failure that can be
// seen before a handler is started.
#pragma once
#include <string>

// True (and why) when path cannot be run as a handler: missing, not a
// regular file, or not executable for this process. Looked at before the
// fork, so that a missing filter is a failed run, never a silent pass.
bool mh_program_problem(const char *path, std::string &why);

// Whether a failed run of the handler name defers the delivery: the setting
// handler_failure (defer, the default, or pass), unless handlers_fail_open
// lists the name (such a handler is passed over whatever happens to it).
bool mh_failure_defers(const char *name);
