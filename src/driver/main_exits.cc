// The mappings onto the exit table (see main_exits.h).
#include "driver/main_exits.h"

#include <cstdio>
#include <cstdlib>

#include "driver/delivery_codes.h"
#include "driver/run_record.h"
#include "handlers/delivery_status.h"

ExitLine exitForDeliveryStatus(int status) {
    switch (status) {
    case DS_OK:
    case DS_DISCARDED:
        return kExitDone;
    case DS_BAD_DESTINATION:
        return kExitBadDestination;
    case DS_REJECTED:
        return kExitRejected;
    case DS_RESOURCES_LIMITED:
        return kExitResourcesLimited;
    case DS_TIME_EXPIRED:
        return kExitTimeExpired;
    case DS_DISK_EXHAUSTED:
        return kExitDiskExhausted;
    case DS_MESSAGE_READ_ERROR:
        return kExitMessageReadError;
    case DS_CONFIG_READ_ERROR:
        return kExitConfigReadError;
    case DS_CONNECTION_ERROR:
        return kExitConnectionError;
    case DS_CONGESTED:
        return kExitCongested;
    case DS_INTERNAL_ERROR:
        return kExitInternalError;
    case DS_BAD_ENVELOPE:
        return kExitBadEnvelope;
    default:
        return kExitUnspecified;
    }
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

void exitWith(ExitLine line) {
    runRecordFinish(line.status, line.text);
    if (line.text[0] != '\0') {
        fputs(line.text, stdout);
        fputc('\n', stdout);
    }
    exit(line.status);
}
