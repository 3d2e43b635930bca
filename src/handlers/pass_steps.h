// The steps of the handler pass below mh_run_handlers (handler_pass.h).
// Each returns a DeliveryStatus.
#pragma once
#include "handlers/handler_record.h"
#include "handlers/outcome.h"

// Runs the records from the list's head; stops at the first run that
// discards, rejects or defers the message.
int mh_run_list(HandlerOutcomeList *outcomes, HandlerList *list, char **addresses, char **env,
                const char *spoolPath);

// Runs record once per recipient (a recipient-domain record only for the
// recipients of its domain), filling args (room for 5 entries) each time.
int mh_run_for_recipients(char **addresses, char **args, const HandlerRecord *record, HandlerOutcomeList *outcomes,
                          const char *spoolPath, char **env);

// One run of program over the spool file; on PASS its output replaces the
// spool file. Outcomes, when given, receives the run's outcome.
int mh_call_handler(const char *name, HandlerOutcomeList *outcomes, const char *spoolPath, const char *program,
                    char **args, char **env);

// Renames tmpPath over spoolPath, keeping the spool file's owner, group and
// mode. DS_OK or DS_INTERNAL_ERROR (logged).
int mh_take_over_output(const char *tmpPath, const char *spoolPath);
