// Contract in delivery/run.h.
#include "delivery/run.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <syslog.h>
#include <unistd.h>

#include "driver/delivery_codes.h"
#include "driver/log.h"
#include "driver/run_record.h"
#include "handlers/addresses.h"
#include "handlers/handler_pass.h"
#include "spool/spool.h"
#include "state/message_id.h"

RunLook::~RunLook() { mh_list_free(&handlers); }

namespace {

// Where the run stands, for the look; nothing without one.
void reached(RunLook *look, const char *stage) {
    if (look != nullptr)
        look->stage = stage;
}

// An ending the exit status alone does not tell (a discarded message and an
// unknown user exit 0 like a delivery).
void endAs(RunLook *look, const char *outcome) {
    runRecordOutcome(outcome);
    if (look != nullptr)
        look->outcome = outcome;
}

// The spool file's last use: the summary line's Message-ID, then removal.
ExitLine finish(const char *spoolPath, ExitLine line, const RunLook *look) {
    if (look != nullptr)
        return line;
    try {
        runRecordMessageId(messageIdOf(spoolPath).c_str());
    } catch (...) {  // the summary goes without it rather than the run without a status
    }
    unlink(spoolPath);
    return line;
}

}  // namespace

ExitLine runDelivery(const DeliveryRequest &request, RunLook *look) {
    if (strchr(request.recipient, '@') == nullptr) {
        LogFunction(19, "Invalid e-mail address - no domain part: %s", request.recipient);
        return kExitBadDestination;
    }
    if (strlen(request.recipient) + 1 > kAddressBufferSize) {
        LogFunction(19, "Invalid e-mail address - too long: %s", request.recipient);
        return kExitBadDestination;
    }
    char recipientCopy[kAddressBufferSize];
    strncpy(recipientCopy, request.recipient, kAddressBufferSize - 1);
    recipientCopy[kAddressBufferSize - 1] = '\0';

    if (look == nullptr && setenv("DELIVERED_TO", request.recipient, 1) != 0) {
        LogFunction(19, "Unable to set environment variable: %s\n", strerror(errno));
        return kExitResourcesLimited;
    }

    reached(look, "spool");
    std::unique_ptr<char, decltype(&free)> spooled(look == nullptr ? spool_save_stdin() : nullptr, &free);
    if (look == nullptr ? spooled == nullptr : spool_look() != 0) {
        LogFunction(19, "Unable to read message from stdin");
        return kExitUnreadableInput;
    }
    const char *spoolPath = look == nullptr ? spooled.get() : request.messageFile;
    if (look != nullptr)
        look->spoolUsable = true;

    reached(look, "handlers");
    char empty[] = "";
    char *addresses[] = {empty, empty, const_cast<char *>(request.sender), const_cast<char *>(request.recipient),
                         nullptr};
    int status = mh_run_handlers(nullptr, addresses, nullptr, spoolPath, MH_QUEUE_DELIVERY,
                                 look != nullptr ? &look->handlers : nullptr);
    if (status == DS_DISCARDED) {
        syslog(LOG_NOTICE, "message discarded by a mail handler");
        endAs(look, "discarded");
        return finish(spoolPath, kExitDone, look);
    }
    if (status != DS_OK)
        return finish(spoolPath, exitForDeliveryStatus(status), look);
    if (look != nullptr) {
        look->registryUsable = true;
        look->assumesSuccess = !look->handlers.records.empty();
    }

    reached(look, "mailbox");
    char *mailname = nullptr;
    char *domain = nullptr;
    splitAddress(recipientCopy, &mailname, &domain);
    int entered = enterMailboxDir(request.mailnamesDir, domain, mailname, look != nullptr ? &look->mailbox : nullptr);
    if (entered == MAILBOX_UNKNOWN) {
        // An unknown mailbox is not the transfer agent's problem to retry.
        syslog(19, "Unknown user: %s@%s", mailname, domain);
        endAs(look, "unknown-user");
        return finish(spoolPath, kExitDone, look);
    }
    // A tree that cannot be searched now: the mailbox may well be there.
    if (entered != 0)
        return finish(spoolPath, exitForDeliveryResult(DR_TEMPORARY), look);

    reached(look, "qmail");
    int result = processQmailFile(".qmail", spoolPath, request.sender, request.recipient,
                                  look != nullptr ? &look->qmail : nullptr);
    if (result == DR_NO_INSTRUCTIONS) {
        reached(look, "store");
        result = mapDeliveryCode(lda_deliver_file(spoolPath, request.recipient, "INBOX",
                                                  look != nullptr ? &look->store : nullptr));
        if (look != nullptr)
            look->assumesSuccess |= result == DR_DELIVERED;
    } else if (look != nullptr) {
        look->assumesSuccess |= look->qmail.assumesSuccess;
    }
    return finish(spoolPath, exitForDeliveryResult(result), look);
}
