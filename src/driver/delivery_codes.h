// Result codes shared by the deliveries, and the translation of the final
// outcome into the transfer agent's language: a sysexits status plus one
// RFC 3463 status line on standard output.
#pragma once

// DeliveryResult values.
enum {
    DR_DELIVERED = 0,
    DR_OVER_QUOTA = 77,
    DR_DELIVERED_SKIP_REST = 99,
    DR_PERMANENT = 100,
    DR_TEMPORARY = 111,
    DR_NO_INSTRUCTIONS = 200,
    DR_LOCAL_ERROR = -1,
};

struct ExitOutcome {
    int status;        // process exit status
    const char *text;  // status line, empty for none
};

// A delivery program's exit code (or -1 when it could not run) as a DeliveryResult.
int mapDeliveryCode(int code);

// Exit status and text for a handler pass DeliveryStatus other than DS_OK.
ExitOutcome exitForDeliveryStatus(int status);

// Exit status and text for the final DeliveryResult of a run.
ExitOutcome exitForDeliveryResult(int result);

// Logs the run's summary line (once one was started), writes text (when
// non-empty) and a newline to standard output, then exits.
[[noreturn]] void exitWithStatus(int status, const char *text);
