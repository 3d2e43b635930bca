// Running one handler over the message under the handler protocol.
#pragma once
#include "handlers/outcome.h"

// Starts path with args (ended by null) and env (null: this process's own
// environment), fd_in as its standard input, fd_out as its standard output
// and a pipe as its standard error, reads its control lines until end of
// file, then waits for it. Neither descriptor may be 0, 1 or 2; neither is
// closed here. Returns the outcome (the caller frees it), or null (logged)
// when no outcome could be allocated, in which case nothing was started.
HandlerOutcome *mh_forkexec(int fd_in, int fd_out, const char *path, char **args, char **env);
