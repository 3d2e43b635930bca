// Contract in delivery/exits.h.
#include "delivery/exits.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "driver/delivery_codes.h"
#include "handlers/delivery_status.h"

ExitLine exitForDeliveryStatus(int status) {
    static const struct {
        int status;
        ExitLine line;
    } kByStatus[] = {
        {DS_OK, kExitDone},
        {DS_DISCARDED, kExitDone},
        {DS_BAD_DESTINATION, kExitBadDestination},
        {DS_REJECTED, kExitRejected},
        {DS_RESOURCES_LIMITED, kExitResourcesLimited},
        {DS_TIME_EXPIRED, kExitTimeExpired},
        {DS_DISK_EXHAUSTED, kExitDiskExhausted},
        {DS_MESSAGE_READ_ERROR, kExitMessageReadError},
        {DS_CONFIG_READ_ERROR, kExitConfigReadError},
        {DS_CONNECTION_ERROR, kExitConnectionError},
        {DS_CONGESTED, kExitCongested},
        {DS_INTERNAL_ERROR, kExitInternalError},
        {DS_BAD_ENVELOPE, kExitBadEnvelope},
    };
    for (const auto &entry : kByStatus)
        if (entry.status == status)
            return entry.line;
    return kExitUnspecified;
}

ExitLine exitForDeliveryResult(int result) {
    switch (result) {
    case DR_DELIVERED:
        return kExitDone;
    case DR_OVER_QUOTA:
        return kExitOverQuota;
    case DR_PERMANENT:
        return kExitUndeliverable;
    default:
        return kExitTryLater;
    }
}

std::string exitCode(ExitLine line) {
    if (line.text[0] == '\0')
        return "2.0.0";
    return std::string(line.text, strcspn(line.text, " "));
}
