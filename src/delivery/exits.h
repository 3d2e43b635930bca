// The exit table: every exit status the transfer agent can get from
// ferndrop, each with its RFC 3463 status line, and which one a handler-pass
// verdict or a run's delivery result ends in. The delivery and
// ferndrop-explain both read their endings from here; the libraries below
// return codes and never exit.
#pragma once
#include <string>

struct ExitLine {
    int status;        // process exit status
    const char *text;  // status line, empty for none
};

inline constexpr char kTryLater[] = "4.2.1 Message can not be delivered at this time";
inline constexpr char kCannotDeliver[] = "5.7.1 Message can't be delivered";

inline constexpr ExitLine kExitDone{0, ""};
inline constexpr ExitLine kExitMisconfigured{64, "4.3.5 Local delivery is disabled due to server misconfigurations"};
inline constexpr ExitLine kExitBadDestination{65, "5.1.3 Invalid destination status"};
inline constexpr ExitLine kExitNoMailbox{67, "5.1.1 Mailbox does not exist"};
inline constexpr ExitLine kExitBadEnvelope{65, "5.1.0 Invalid envelope address(es)"};
inline constexpr ExitLine kExitRejected{69, kCannotDeliver};
inline constexpr ExitLine kExitUndeliverable{71, kCannotDeliver};
inline constexpr ExitLine kExitResourcesLimited{
    75, "4.3.2 Local delivery is temporarily disabled due to system resources limitations"};
inline constexpr ExitLine kExitTimeExpired{75, "4.4.7 Delivery time expired"};
inline constexpr ExitLine kExitDiskExhausted{75, "4.3.1 Mail system disk resources exhausted"};
inline constexpr ExitLine kExitMessageReadError{75, "4.3.5 Message read error"};
inline constexpr ExitLine kExitConfigReadError{75, "4.3.5 Configuration file read error"};
inline constexpr ExitLine kExitConnectionError{75, "4.4.2 Connection error"};
inline constexpr ExitLine kExitCongested{75, "4.4.5 Mail system is congested"};
inline constexpr ExitLine kExitInternalError{75, "4.3.0 Internal mail system problems"};
inline constexpr ExitLine kExitUnspecified{75, "4.1.0 Mail subsystem unspecified errors"};
inline constexpr ExitLine kExitUnreadableInput{75, "4.6.0 Unable to read message content"};
inline constexpr ExitLine kExitTryLater{75, kTryLater};
inline constexpr ExitLine kExitOverQuota{77, "5.7.1 Mail quota exceeded"};

// The line for a handler pass DeliveryStatus other than DS_OK.
ExitLine exitForDeliveryStatus(int status);

// The line for the final DeliveryResult of a run.
ExitLine exitForDeliveryResult(int result);

// The enhanced code of a line ("4.2.1"), "2.0.0" for an exit 0 without text.
std::string exitCode(ExitLine line);
