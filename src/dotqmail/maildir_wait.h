// The pause a maildir delivery takes when its unique name is already taken in
// tmp. Kept behind a pointer so a test can watch (or shorten) the wait while
// still exercising a real name clash.
#pragma once

// Called with the number of seconds to wait; defaults to sleep(3).
extern unsigned (*maildirClashWait)(unsigned seconds);
