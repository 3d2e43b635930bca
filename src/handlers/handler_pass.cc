// Contract in handlers/handler_pass.h.
#include "handlers/handler_pass.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>

#include <string>
#include <strings.h>
#include <iterator>
#include <unistd.h>

#include "driver/log.h"
#include "driver/run_record.h"
#include "handlers/addresses.h"
#include "handlers/forkexec.h"
#include "handlers/pass_steps.h"
#include "handlers/policy.h"
#include "handlers/registry.h"

namespace {

// The handler's output path: the spool path and ".tmp", terminator included.
const size_t kTmpPathBufferSize = 4096;
const char kAllRecipients[] = "all-recipients";

// A failed handler (DS_INTERNAL_ERROR) reaches here only when its failure
// defers; ferndrop's own failures and a full spool always do.
bool stopsThePass(int status) {
    return status == DS_DISCARDED || status == DS_REJECTED || status == DS_CONGESTED ||
           status == DS_INTERNAL_ERROR || status == DS_RESOURCES_LIMITED || status == DS_DISK_EXHAUSTED;
}

// Below this much room for the spool, a handler's output may have been cut
// short by the full disk, and so cannot be taken for the message.
const unsigned long long kSpoolRoomBytes = 1 << 20;

bool spoolRoomLow(const char *spoolPath) {
    struct statvfs vfs;
    return statvfs(spoolPath, &vfs) == 0 &&
           static_cast<unsigned long long>(vfs.f_bavail) * vfs.f_frsize < kSpoolRoomBytes;
}

int recipientCount(char **addresses) {
    int n = 0;
    while (recipientAt(addresses, kFirstRecipient + n) != nullptr)
        n++;
    return n;
}

// One run with [program, context, sender, every recipient, null].
int runForAllRecipients(const HandlerRecord *record, HandlerOutcomeList *outcomes, char **addresses, char **env,
                        const char *spoolPath) {
    int count = recipientCount(addresses);
    char **args = static_cast<char **>(calloc(static_cast<size_t>(count) + 4, sizeof(char *)));
    if (args == nullptr) {
        LogFunction(3, "Out of memory. %s: %d", strerror(errno), errno);
        return DS_CONGESTED;
    }
    args[0] = record->executable;
    args[1] = record->context;
    args[2] = senderOf(addresses);
    for (int i = 0; i < count; i++)
        args[3 + i] = addresses[kFirstRecipient + i];
    int status = mh_call_handler(record->name, outcomes, spoolPath, record->executable, args, env);
    free(args);
    return status;
}

// Keeps the outcome in the caller's list. False (logged) when that fails.
bool keepOutcome(HandlerOutcomeList *outcomes, HandlerOutcome *outcome, const char *name) {
    outcome->name = name != nullptr ? strdup(name) : nullptr;
    if ((name != nullptr && outcome->name == nullptr) || mh_outcome_list_append(outcomes, outcome) != 0) {
        LogFunction(3, "System error: %s", strerror(errno));
        return false;
    }
    return true;
}

// A verdict's word in the log and the run record, and what it makes of the
// message (PASS: see callHandler). Any other value counts as ERROR.
struct VerdictMeaning {
    HandlerVerdict verdict;
    const char *word;
    int status;
};
const VerdictMeaning kVerdicts[] = {
    {PASS, "PASS", DS_OK},           {SKIP, "SKIP", DS_OK},
    {STOP, "STOP", DS_DISCARDED},    {DEFER, "DEFER", DS_CONGESTED},
    {REJECT, "REJECT", DS_REJECTED}, {ERROR, "ERROR", DS_INTERNAL_ERROR},  // ERROR last
};

const VerdictMeaning &meaningOf(HandlerVerdict verdict) {
    for (const VerdictMeaning &meaning : kVerdicts)
        if (meaning.verdict == verdict)
            return meaning;
    return kVerdicts[std::size(kVerdicts) - 1];
}

// One run; verdict gets the handler's answer once there is one.
int callHandler(const char *name, HandlerOutcomeList *outcomes, const char *spoolPath, const char *program,
                char **args, char **env, HandlerVerdict &verdict) {
    char tmpPath[kTmpPathBufferSize];
    int length = snprintf(tmpPath, sizeof tmpPath, "%s.tmp", spoolPath);
    if (length < 0 || static_cast<size_t>(length) >= sizeof tmpPath) {
        LogFunction(3, "Unable to generate a tempfile name. Path too long");
        return DS_INTERNAL_ERROR;
    }
    std::string why;
    if (mh_program_problem(program, why)) {
        LogFunction(3, "The program of the '%s' handler cannot run: %s", name, why.c_str());
        return DS_INTERNAL_ERROR;
    }
    int in = open(spoolPath, O_RDONLY | O_CLOEXEC);
    if (in < 0) {
        LogFunction(3, "System error (%s): %s", spoolPath, strerror(errno));
        return DS_RESOURCES_LIMITED;
    }
    int out = open(tmpPath, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0660);
    if (out < 0) {
        LogFunction(3, "System error (%s): %s", tmpPath, strerror(errno));
        close(in);
        return DS_RESOURCES_LIMITED;
    }
    HandlerOutcome *outcome = mh_forkexec(in, out, program, args, env);
    struct stat given, made;
    bool emptied = fstat(in, &given) == 0 && fstat(out, &made) == 0 && given.st_size > 0 && made.st_size == 0;
    close(in);
    close(out);
    if (outcome != nullptr && outcome->verdict == ERROR && outcome->ownFault) {
        mh_outcome_free(outcome);
        unlink(tmpPath);
        return DS_RESOURCES_LIMITED;
    }

    // Without an outcome there is no verdict to trust: the run failed.
    verdict = outcome != nullptr ? outcome->verdict : ERROR;
    if (outcome != nullptr && outcomes != nullptr) {
        if (!keepOutcome(outcomes, outcome, name)) {
            mh_outcome_free(outcome);
            unlink(tmpPath);
            return DS_INTERNAL_ERROR;
        }
    } else {
        mh_outcome_free(outcome);
    }

    if (verdict == PASS && emptied) {
        // An empty message for a non-empty one is a broken filter, not a verdict.
        LogFunction(3, "The '%s' handler passed an empty message", name);
        verdict = ERROR;
    } else if (verdict == PASS && spoolRoomLow(spoolPath)) {
        LogFunction(3, "Less than 1 MiB left for the spool: the '%s' handler's output may be cut", name);
        unlink(tmpPath);
        return DS_DISK_EXHAUSTED;
    } else if (verdict == PASS) {
        LogFunction(7, "PASS during call '%s' handler", name);
        return mh_take_over_output(tmpPath, spoolPath) == DS_OK ? DS_OK : DS_RESOURCES_LIMITED;
    }
    int status = meaningOf(verdict).status;
    if (status == DS_INTERNAL_ERROR)
        LogFunction(3, "Error during '%s' handler", name);
    else
        LogFunction(7, "%s during call '%s' handler", meaningOf(verdict).word, name);
    unlink(tmpPath);
    return status;
}

}  // namespace

int mh_call_handler(const char *name, HandlerOutcomeList *outcomes, const char *spoolPath, const char *program,
                    char **args, char **env) {
    HandlerVerdict verdict = ERROR;
    int status = callHandler(name, outcomes, spoolPath, program, args, env, verdict);
    // A run that failed in any way (a PASS whose output could not be taken
    // over included) counts as ERROR, as it does for the pass.
    bool failed = status == DS_INTERNAL_ERROR || status == DS_RESOURCES_LIMITED || status == DS_DISK_EXHAUSTED;
    runRecordAdd(RUN_HANDLERS, name, "%s", failed ? "ERROR" : meaningOf(verdict).word);
    if (status == DS_INTERNAL_ERROR && !mh_failure_defers(name))
        return DS_OK;
    return status;
}

int mh_run_for_recipients(char **addresses, char **args, const HandlerRecord *record, HandlerOutcomeList *outcomes,
                          const char *spoolPath, char **env) {
    int status = DS_OK;
    int count = recipientCount(addresses);
    for (int i = kFirstRecipient; i < kFirstRecipient + count; i++) {
        char *recipient = addresses[i];
        const char *at = strchr(recipient, '@');
        if (at == nullptr) {
            LogFunction(3, "Incorrect recipient mailname : %s", recipient);
            return DS_REJECTED;
        }
        if (record->type == MH_TYPE_RECIPIENT_DOMAIN &&
            (record->address == nullptr || strcasecmp(record->address, at + 1) != 0))
            continue;
        args[0] = record->executable;
        args[1] = record->context;
        args[2] = addresses[2];
        args[3] = recipient;
        args[4] = nullptr;
        status = mh_call_handler(record->name, outcomes, spoolPath, record->executable, args, env);
        if (stopsThePass(status))
            return status;
    }
    return status;
}

int mh_run_list(HandlerOutcomeList *outcomes, HandlerList *list, char **addresses, char **env,
                const char *spoolPath) {
    for (const HandlerRecord *record : list->records) {
        if (static_cast<uint32_t>(record->type) > MH_TYPE_GLOBAL) {
            LogFunction(3, "Unknown MH_TYPE: %d", static_cast<int>(record->type));
            return DS_REJECTED;
        }
        int status;
        char *args[5] = {nullptr, nullptr, nullptr, nullptr, nullptr};
        if (record->type == MH_TYPE_RECIPIENT) {
            args[0] = record->executable;
            args[1] = record->context;
            args[2] = senderOf(addresses);
            args[3] = record->address;
            status = mh_call_handler(record->name, outcomes, spoolPath, record->executable, args, env);
        } else if (record->type == MH_TYPE_GLOBAL && record->address != nullptr &&
                   strcmp(record->address, kAllRecipients) == 0) {
            status = runForAllRecipients(record, outcomes, addresses, env, spoolPath);
        } else {
            status = mh_run_for_recipients(addresses, args, record, outcomes, spoolPath, env);
        }
        if (stopsThePass(status))
            return status;
    }
    return DS_OK;
}

int mh_run_handlers(HandlerOutcomeList *outcomes, char **addresses, char **env, const char *spoolPath,
                    HandlerQueue queue, HandlerList *look) {
    HandlerList list;
    if (mh_get_handlers(look != nullptr ? look : &list, addresses, queue, look != nullptr) < 0) {
        LogFunction(3, "Unable to get full handlers list");
        mh_list_free(&list);
        return -1;
    }
    // What can be known before any runs: a program that cannot be started
    // fails its handler.
    for (const HandlerRecord *record : look != nullptr ? look->records : std::list<HandlerRecord *>{}) {
        std::string why;
        if (mh_program_problem(record->executable, why) && mh_failure_defers(record->name)) {
            LogFunction(3, "The program of the '%s' handler cannot run: %s", record->name, why.c_str());
            return DS_INTERNAL_ERROR;
        }
    }
    if (look != nullptr)
        return DS_OK;
    int status = mh_run_list(outcomes, &list, addresses, env, spoolPath);
    mh_list_free(&list);
    return status;
}
