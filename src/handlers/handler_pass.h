// The handler pass: every enabled handler that applies to the message runs in
// order over the spool file; a passing handler's output becomes the message.
//
// Promises: handlers run one at a time, each seeing the output of every
// earlier passing handler; the pass stops only for STOP (discarded), REJECT
// (rejected) and DEFER (congested) - a broken handler is logged and passed
// over, so one bad filter never holds mail back; the per-run ".tmp" file is
// either renamed over the spool file or removed before the run returns.
#pragma once
#include "handlers/delivery_status.h"
#include "handlers/handler_record.h"
#include "handlers/queue.h"

struct HandlerOutcomeList;  // handlers/outcome.h

// addresses: [ "", "", sender, recipient..., nullptr ]. env: null for the
// process's own environment. Returns a DeliveryStatus, or -1 when the
// registry cannot be used at all. look: gathers into *look what would run,
// runs nothing, and answers DS_OK for whatever the handlers would say.
int mh_run_handlers(HandlerOutcomeList *outcomes, char **addresses, char **env,
                    const char *spoolPath, HandlerQueue queue, HandlerList *look = nullptr);
