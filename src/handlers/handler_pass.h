// The handler pass: every enabled handler that applies to the message runs in
// order over the spool file; a passing handler's output becomes the message.
#pragma once
#include "handlers/delivery_status.h"

struct HandlerOutcomeList;  // handlers/outcome.h
typedef int HandlerQueue;

// addresses: [ "", "", sender, recipient..., nullptr ]. env: null for the
// process's own environment. Returns a DeliveryStatus, or -1 when the
// registry cannot be used at all.
int mh_run_handlers(HandlerOutcomeList *outcomes, char **addresses, char **env,
                    const char *spoolPath, HandlerQueue queue);
