// One delivery's run sequence, from the recipient's checks to the store:
// take the recipient in its canonical form, spool the message, find the
// mailbox directory (the base mailbox of an address extension when the whole
// address has none), run the handler pass, carry out the mailbox's .qmail or
// deliver into INBOX, and choose the exit table's line. An empty sender is
// the null sender, written "<>" everywhere inside.
//
// Promises: the same sequence serves the delivery and ferndrop-explain. Given
// a look, every step decides exactly as it would for the delivery, but
// nothing is created, written, locked for writing or started: handlers,
// programs, sendmail and the store agent count as answering success, and the
// look records what each step met. Without a look the message comes from
// standard input and every way out after spooling removes the spool file, so
// the transfer agent's retry always starts from its own copy.
#pragma once
#include <string>

#include "delivery/exits.h"
#include "dotqmail/qmail_file.h"
#include "driver/mailbox_dir.h"
#include "handlers/handler_record.h"
#include "store/lda.h"

struct DeliveryRequest {
    const char *sender;
    const char *recipient;
    const char *mailnamesDir;
    const char *messageFile;  // a look's message; null: none (nothing counts as served)
    int parentAtStart;        // the process that started ferndrop, as it was at the start
};

struct RunLook {
    // The last step reached: recipient, spool, handlers, mailbox, qmail, store.
    const char *stage = "recipient";
    std::string recipient;  // canonical
    std::string mailboxAddress;  // the base mailbox's address when an extension was cut off; else empty
    bool spoolUsable = false;
    bool registryUsable = false;
    HandlerList handlers;  // in run order
    MailboxFound mailbox;
    QmailLook qmail;
    StoreLook store;
    // Something would run (a handler, a .qmail line, the store agent) whose
    // success only running it shows: the ending holds if each one succeeds.
    bool assumesSuccess = false;
    const char *outcome = nullptr;  // the summary line's word
    RunLook() = default;
    RunLook(const RunLook &) = delete;
    RunLook &operator=(const RunLook &) = delete;
    ~RunLook();
};

// The recipient as every step sees it: the domain lower-cased without a
// trailing dot, the mailname lower-cased unless fold_recipient_case is no.
std::string canonicalRecipient(const char *received);

// The line to exit with. look null: the real delivery.
ExitLine runDelivery(const DeliveryRequest &request, RunLook *look = nullptr);
