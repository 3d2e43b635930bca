// Contract in delivery/run.h.
#include "delivery/run.h"

#include <fcntl.h>

#include <cerrno>
#include <cstdio>
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
#include "handlers/registry.h"
#include "spool/spool.h"
#include "state/message_id.h"
#include "util/settings.h"
#include "util/supervise.h"
#include "util/text.h"

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
        runRecordMessageId(keyedMessageIdOf(spoolPath).c_str());
    } catch (...) {  // the summary goes without it rather than the run without a status
    }
    unlink(spoolPath);
    return line;
}

// The mailname before its first delimiter, when it has one after its first
// character; empty otherwise, and with extensions turned off.
std::string baseMailname(const char *mailname, std::string &extension) {
    const std::string &delimiters = settingText("recipient_delimiter");
    if (delimiters == "none" || mailname[0] == '\0')
        return "";
    size_t cut = strcspn(mailname + 1, delimiters.c_str()) + 1;
    if (mailname[cut] == '\0')
        return "";
    extension = mailname + cut + 1;
    return std::string(mailname, cut);
}

}  // namespace

// The recipient as every later step sees it: the domain in lower case
// without one trailing dot, and the mailname in lower case too unless the
// settings keep its case.
std::string canonicalRecipient(const char *received) {
    std::string address = received;
    size_t at = address.find('@');
    size_t domainStart = at == std::string::npos ? address.size() : at + 1;
    bool foldMailname = settingYes("fold_recipient_case");
    for (size_t i = 0; i < address.size(); i++)
        if (i >= domainStart || foldMailname)
            address[i] = asciiLower(address[i]);
    if (address.size() > domainStart && address.back() == '.')
        address.pop_back();
    return address;
}

ExitLine runDelivery(const DeliveryRequest &request, RunLook *look) {
    superviseRunStart();
    const char *sender = request.sender[0] != '\0' ? request.sender : kNullSender;
    // Kept for the whole run: the run record and the registry keep pointers.
    static std::string canonical, mailboxAddress;
    canonical = canonicalRecipient(request.recipient);
    if (look == nullptr)
        runRecordStart(sender, canonical.c_str());
    else
        look->recipient = canonical;
    if (strchr(request.recipient, '@') == nullptr) {
        LogFunction(19, "Invalid e-mail address - no domain part: %s", request.recipient);
        return kExitBadDestination;
    }
    if (strlen(request.recipient) + 1 > kAddressBufferSize) {
        LogFunction(19, "Invalid e-mail address - too long: %s", request.recipient);
        return kExitBadDestination;
    }
    if (canonical != request.recipient)
        LogFunction(6, "recipient %s is delivered as %s", request.recipient, canonical.c_str());
    char recipientCopy[kAddressBufferSize];
    snprintf(recipientCopy, sizeof recipientCopy, "%s", canonical.c_str());

    if (look == nullptr && setenv("DELIVERED_TO", canonical.c_str(), 1) != 0) {
        LogFunction(19, "Unable to set environment variable: %s\n", strerror(errno));
        return kExitResourcesLimited;
    }

    reached(look, "spool");
    char digest[33] = "";
    std::unique_ptr<char, decltype(&free)> spooled(look == nullptr ? spool_save_stdin(digest) : nullptr, &free);
    // The end of a message whose writer died is no end: the torso is not it.
    if (spooled != nullptr && inputCut(request.parentAtStart)) {
        unlink(spooled.get());
        spooled.reset();
    }
    if (look == nullptr ? spooled == nullptr : spool_look() != 0) {
        LogFunction(19, "Unable to read message from stdin");
        return kExitUnreadableInput;
    }
    const char *spoolPath = look == nullptr ? spooled.get() : request.messageFile;
    if (look != nullptr) {
        look->spoolUsable = true;
    } else {
        // The delivery state keys on it; children may too (duplicate checks).
        setMessageDigest(digest);
        setenv("FERNDROP_MESSAGE_DIGEST", digest, 1);
    }

    // The mailbox is looked up before the handlers run, since the filters of
    // a base mailbox apply to its extended addresses; what the lookup found
    // is acted on after them, as before. The handlers run where ferndrop was
    // started, so the lookup's directory is kept as a descriptor meanwhile.
    char *mailname = nullptr;
    char *domain = nullptr;
    splitAddress(recipientCopy, &mailname, &domain);
    std::string extension;
    std::string base = mailname != nullptr ? baseMailname(mailname, extension) : "";
    MailboxFound ownFound;
    MailboxFound &found = look != nullptr ? look->mailbox : ownFound;
    // O_PATH: a directory the delivery user may pass but not list will do.
    int started = open(".", O_PATH | O_DIRECTORY | O_CLOEXEC);
    int entered = enterMailboxDir(request.mailnamesDir, domain, mailname, &found, base.empty() ? nullptr : base.c_str());
    int mailboxDir = entered == 0 ? open(".", O_PATH | O_DIRECTORY | O_CLOEXEC) : -1;
    if (started >= 0) {
        if (fchdir(started) != 0)
            LogFunction(3, "cannot return to the starting directory: %s", strerror(errno));
        close(started);
    }
    if (found.base) {
        mailboxAddress = base + "@" + domain;
        mh_set_recipient_base(mailboxAddress.c_str());
        runRecordMailbox(mailboxAddress.c_str());
        if (look != nullptr)
            look->mailboxAddress = mailboxAddress;
        else if (setenv("EXTENSION", extension.c_str(), 1) != 0) {
            LogFunction(19, "Unable to set environment variable: %s\n", strerror(errno));
            return finish(spoolPath, kExitResourcesLimited, look);
        }
    }

    reached(look, "handlers");
    char empty[] = "";
    char *addresses[] = {empty, empty, const_cast<char *>(sender), const_cast<char *>(canonical.c_str()), nullptr};
    int status = mh_run_handlers(nullptr, addresses, nullptr, spoolPath, MH_QUEUE_DELIVERY,
                                 look != nullptr ? &look->handlers : nullptr);
    if (status == DS_DISCARDED) {
        syslog(LOG_NOTICE, "message discarded by a mail handler");
        endAs(look, "discarded");
        return finish(spoolPath, kExitDone, look);
    }
    if (status != DS_OK)
        return finish(spoolPath, exitForDeliveryStatus(status), look);
    // Handlers passed over took the run's time: no store would get any.
    if (runTimeExpired())
        return finish(spoolPath, kExitTimeExpired, look);
    if (look != nullptr) {
        look->registryUsable = true;
        look->assumesSuccess = !look->handlers.records.empty();
    }

    reached(look, "mailbox");
    if (entered == MAILBOX_UNKNOWN) {
        // Once the transfer agent has accepted a message, it is delivered or
        // the sender is told: a bounce, unless the host wants none.
        syslog(19, "Unknown user: %s@%s", mailname, domain);
        endAs(look, "unknown-user");
        return finish(spoolPath, settingText("unknown_user") == "drop" ? kExitDone : kExitNoMailbox, look);
    }
    // A tree that cannot be searched now: the mailbox may well be there.
    if (entered != 0 || fchdir(mailboxDir) != 0) {
        if (mailboxDir >= 0)
            LogFunction(3, "cannot return to the mailbox directory: %s", strerror(errno));
        return finish(spoolPath, exitForDeliveryResult(DR_TEMPORARY), look);
    }
    close(mailboxDir);

    reached(look, "qmail");
    int result = processQmailFile(".qmail", spoolPath, sender, canonical.c_str(),
                                  look != nullptr ? &look->qmail : nullptr);
    if (result == DR_NO_INSTRUCTIONS) {
        reached(look, "store");
        StoreTarget to{sender, found.base ? mailboxAddress.c_str() : canonical.c_str(), found.base ? canonical.c_str() : nullptr,
                       found.steps[1].entered.c_str(), found.steps[2].entered.c_str()};
        result = mapDeliveryCode(lda_deliver_file(spoolPath, to, "INBOX", look != nullptr ? &look->store : nullptr));
        if (look != nullptr)
            look->assumesSuccess |= result == DR_DELIVERED;
    } else if (look != nullptr) {
        look->assumesSuccess |= look->qmail.assumesSuccess;
    }
    return finish(spoolPath, exitForDeliveryResult(result), look);
}
