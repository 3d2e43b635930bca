// Instruction-file processing: reads a mailbox's .qmail file and carries out
// its lines in file order (forward, program, maildir, mbox) until one fails.
//
// Promises: a missing or empty file means "no instructions" (200) and logs
// nothing; a file others could have written is refused, so nobody but the
// owner decides where the mail goes, and so is anything but a regular file
// (a FIFO would block the open); with an execute bit set only forward and
// empty lines run. Every line carried out is marked in the delivery state
// before the next one starts, so a retry after a temporary failure resumes at
// the failing line; the record is removed when the whole file was served (or
// a program ended it with 99). Lines have no length limit. Nothing is thrown
// out of here.
#include "dotqmail/qmail_file.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <libgen.h>
#include <memory>
#include <new>
#include <sys/stat.h>
#include <unistd.h>

#include "dotqmail/deliveries.h"
#include "dotqmail/trust.h"
#include "driver/delivery_codes.h"
#include "driver/log.h"
#include "driver/run_record.h"
#include "state/delivery_state.h"
#include "util/settings.h"
#include "util/text.h"

namespace {

struct FileCloser {
    void operator()(FILE *f) const { fclose(f); }
};

// Reads the lines of an open instruction file; false at the end or on error.
bool nextLine(FILE *file, std::string &line) {
    char *buffer = nullptr;
    size_t capacity = 0;
    ssize_t length = getline(&buffer, &capacity, file);
    if (length < 0) {
        free(buffer);
        return false;
    }
    if (length > 0 && buffer[length - 1] == '\n')
        --length;
    // Built from the length, so a NUL byte inside a line stays part of it.
    try {
        line.assign(buffer, static_cast<size_t>(length));
    } catch (...) {
        free(buffer);
        throw;
    }
    free(buffer);
    return true;
}

// Runs one parsed line; 0 when it was carried out, else the result to stop with.
int carryOut(const QmailLine &line, const char *messagePath, const char *sender,
             const char *recipient, const char *workDir) {
    switch (line.kind) {
    case ForwardLine: {
        // The forwarding mailbox, for the sendmail side to name as the sender.
        setenv("QX_SENDER_EMAIL", recipient, 1);
        int rc = forwardMessage(messagePath, sender, line.value.c_str());
        unsetenv("QX_SENDER_EMAIL");
        return rc == 0 ? 0 : DR_TEMPORARY;
    }
    case ProgramLine:
        return deliverProgram(messagePath, line.value.c_str(), workDir);
    case MaildirLine:
        return deliverMaildir(messagePath, line.value.c_str()) == 0 ? 0 : DR_TEMPORARY;
    case MboxLine:
        return deliverMbox(messagePath, line.value.c_str(), sender) == 0 ? 0 : DR_TEMPORARY;
    case EmptyLine:
        break;
    }
    return 0;
}

// The summary line's account of one line, by its number in the file. Empty
// lines do nothing and are left out.
void note(int number, QmailLineKind kind, const char *word) {
    if (kind != EmptyLine)
        runRecordAdd(RUN_QMAIL, std::to_string(number).c_str(), "%s:%s", qmailLineKindName(kind), word);
}

// A look's account of one line; nothing without a look.
void seen(QmailLook *look, int number, const std::string &raw, const char *verdict, int sameAs = 0) {
    if (look != nullptr) {
        QmailLine line = parseQmailLine(raw);
        look->lines.push_back({number, line.kind, line.value, trimmed(raw), verdict, sameAs});
    }
}

// The earlier line of this run that raw repeats; 0 when none.
int repeatOf(const QmailLook *look, const std::string &raw) {
    std::string text = trimmed(raw);
    for (const QmailLineSeen &l : look->lines)
        if ((strcmp(l.verdict, "runs") == 0 || strcmp(l.verdict, "nothing-to-do") == 0) && l.text == text)
            return l.number;
    return 0;
}

int processOpenFile(FILE *file, const char *fileName, bool executable, const char *messagePath,
                    const char *sender, const char *recipient, const char *workDir, QmailLook *look) {
    deliveryManager manager(messagePath != nullptr ? messagePath : "", sender, recipient, FERNDROP_STATE_DB,
                            look != nullptr);
    if (look != nullptr) {
        look->state = manager.found();
        look->served = manager.servedCount();
        look->key = manager.deliveryKey();
    }
    int result = 0;
    std::string raw;
    int number = 1;
    for (; nextLine(file, raw); number++) {
        if (manager.isDelivered(raw)) {
            note(number, parseQmailLine(raw).kind, "skipped");
            seen(look, number, raw, "skipped", look != nullptr ? repeatOf(look, raw) : 0);
            continue;
        }
        QmailLine line = parseQmailLine(raw);
        // An executable .qmail is how qmail marks a file meant for a different
        // agent; only the harmless kinds may run from it.
        if (executable && line.kind != ForwardLine && line.kind != EmptyLine) {
            fputs(".qmail has prog delivery but has x bit set. (#4.7.0)\n", stderr);
            note(number, line.kind, "refused");
            seen(look, number, raw, "refused");
            result = DR_TEMPORARY;
            number++;
            break;
        }
        // A host that allows no programs, or confines where mail is written.
        bool noPrograms = line.kind == ProgramLine && !settingYes("allow_program_lines");
        if (noPrograms)
            LogFunction(3, "Program lines are not allowed (allow_program_lines no): %s", line.value.c_str());
        if (noPrograms || confinementOf(line) < 0) {
            note(number, line.kind, "refused");
            seen(look, number, raw, "refused");
            result = DR_TEMPORARY;
            number++;
            break;
        }
        if (look != nullptr) {
            seen(look, number, raw, line.kind == EmptyLine ? "nothing-to-do" : "runs");
            look->assumesSuccess |= line.kind != EmptyLine;
        } else {
            result = carryOut(line, messagePath, sender, recipient, workDir);
            note(number, line.kind,
                 result == 0 ? "served" : result == DR_DELIVERED_SKIP_REST ? "stopped" : "failed");
            if (result != 0)
                break;
        }
        manager.markDelivered(raw);
    }
    for (; look != nullptr && nextLine(file, raw); number++)
        seen(look, number, raw, "not-reached");
    if (ferror(file)) {
        LogFunction(3, "Error while reading file `%s'", fileName);
        return DR_LOCAL_ERROR;
    }
    if (result == DR_DELIVERED || result == DR_DELIVERED_SKIP_REST) {
        manager.complete();
        result = DR_DELIVERED;
    }
    // The transfer agent bounces these and never retries: the record would
    // only wait to expire.
    if (result == DR_PERMANENT || result == DR_OVER_QUOTA)
        manager.complete();
    return result;
}

}  // namespace

const char *qmailLineKindName(QmailLineKind kind) {
    static const char *const kNames[] = {"forward", "program", "maildir", "mbox", "empty"};
    return kNames[kind];
}

QmailLine parseQmailLine(const std::string &raw) {
    std::string text = trimmed(raw.substr(0, raw.find('#')));
    if (text.empty())
        return {EmptyLine, ""};
    switch (text[0]) {
    case '|':
        return {ProgramLine, trimmed(text.substr(1))};
    case '&':
        // Blanks after the "&" are part of the address handed to sendmail.
        return {ForwardLine, text.substr(1)};
    case '.':
    case '/':
        return {text.back() == '/' ? MaildirLine : MboxLine, text};
    default:
        return {ForwardLine, text};
    }
}

namespace {

// What one look at the file tells: is there one, and may it be used, and
// how. A refusal is logged; a missing file is not.
enum QmailFileState { QMAIL_MISSING, QMAIL_REFUSED, QMAIL_USABLE, QMAIL_EXECUTABLE };

// Logs why the file cannot be used, and keeps the first reason for a look.
__attribute__((format(printf, 2, 3))) void refuse(QmailLook *look, const char *format, ...) {
    char text[1024];
    va_list args;
    va_start(args, format);
    vsnprintf(text, sizeof text, format, args);
    va_end(args);
    LogFunction(3, "%s", text);
    if (look != nullptr && look->refusal.empty()) {
        look->file = "refused";
        look->refusal = trimmed(text);
    }
}

QmailFileState examineQmail(const char *fileName, QmailLook *look) {
    struct stat st;
    if (stat(fileName, &st) != 0) {
        if (errno == ENOENT)
            return QMAIL_MISSING;
        refuse(look, "System error %s: %s\n", fileName, strerror(errno));
        return QMAIL_REFUSED;
    }
    // A FIFO would block the open for as long as nobody writes to it; a
    // device or a directory holds no instructions either.
    if (look != nullptr)
        look->mode = st.st_mode & 07777;
    if (!S_ISREG(st.st_mode)) {
        refuse(look, "File %s is not a regular file\n", fileName);
        return QMAIL_REFUSED;
    }
    if (st.st_mode & (S_IWGRP | S_IWOTH)) {
        refuse(look, "File %s is writable for group or others\n", fileName);
        return QMAIL_REFUSED;
    }
    return (st.st_mode & (S_IXUSR | S_IXGRP | S_IXOTH)) ? QMAIL_EXECUTABLE : QMAIL_USABLE;
}

}  // namespace

int processQmailFile(const char *fileName, const char *messagePath, const char *sender,
                     const char *recipient, QmailLook *look) {
    QmailFileState state = examineQmail(fileName, look);
    if (state == QMAIL_MISSING)
        return DR_NO_INSTRUCTIONS;
    if (state == QMAIL_REFUSED) {
        LogFunction(3, "Wrong permissions for %s", fileName);
        return DR_LOCAL_ERROR;
    }
    // Without blocking: the file examined above may have been replaced by a
    // FIFO since, and only the open descriptor tells what was opened.
    int fd = open(fileName, O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    if (fd < 0) {
        if (errno == ENOENT)
            return DR_NO_INSTRUCTIONS;
        refuse(look, "Cannot open file `%s' to read: %s\n", fileName, strerror(errno));
        return DR_LOCAL_ERROR;
    }
    struct stat opened;
    if (fstat(fd, &opened) != 0 || !S_ISREG(opened.st_mode)) {
        refuse(look, "File %s is not a regular file\n", fileName);
        LogFunction(3, "Wrong permissions for %s", fileName);
        close(fd);
        return DR_LOCAL_ERROR;
    }
    // Checked on what was opened, links followed: a link to another user's
    // file must not make that user's lines run as the delivery user.
    std::string owner;
    if (!qmailOwnerTrusted(opened.st_uid, owner)) {
        refuse(look, "File %s belongs to %s, who may not give this mailbox instructions\n", fileName, owner.c_str());
        LogFunction(3, "Wrong permissions for %s", fileName);
        close(fd);
        return DR_LOCAL_ERROR;
    }
    std::unique_ptr<FILE, FileCloser> file(fdopen(fd, "r"));
    if (!file) {
        refuse(look, "Cannot open file `%s' to read: %s\n", fileName, strerror(errno));
        close(fd);
        return DR_LOCAL_ERROR;
    }
    // A panel rewriting the file in place empties it first: a file without a
    // single byte holds no instructions (INBOX, as without a file), never a
    // decision to drop the mail. Only lines, even blank or comment ones, can
    // say "discard". Looked at in what is read, not in the size examined.
    int first = getc(file.get());
    if (look != nullptr)
        look->file = state == QMAIL_EXECUTABLE ? "executable" : "usable";
    if (first == EOF && !ferror(file.get())) {
        if (look != nullptr)
            look->file = "empty";
        return DR_NO_INSTRUCTIONS;
    }
    if (first != EOF)
        ungetc(first, file.get());
    // dirname() may change its argument, so it works on a copy.
    std::unique_ptr<char, decltype(&free)> nameCopy(strdup(fileName), &free);
    if (!nameCopy) {
        LogFunction(3, "System error: %s\n", strerror(errno));
        return DR_LOCAL_ERROR;
    }
    const char *workDir = dirname(nameCopy.get());
    try {
        return processOpenFile(file.get(), fileName, state == QMAIL_EXECUTABLE, messagePath, sender,
                               recipient, workDir, look);
    } catch (const std::bad_alloc &) {
        // Only memory can fail inside; the manager has already saved what was
        // marked on its way out.
        LogFunction(3, "System error: %s\n", strerror(ENOMEM));
        return DR_LOCAL_ERROR;
    }
}
