// Contract in store/lda.h.
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <csignal>
#include <fcntl.h>
#include <sys/wait.h>
#include <utility>
#include <unistd.h>

#include "driver/log.h"
#include "driver/run_record.h"
#include "paths.h"
#include "store/lda.h"
#include "store/lmtp.h"
#include "store/mailbox_paths.h"
#include "store/server_type.h"
#include "util/settings.h"
#include "util/spawn.h"

namespace {

// The agent's exit status, or LDA_TRY_LATER when it did not get to end by itself.
int agentResult(pid_t pid, const char *agent) {
    ChildEnd end = CHILD_NOT_WAITED;
    int code = wait_for_child(pid, agent, &end);
    if (end == CHILD_STOPPED) {
        kill(pid, SIGKILL);
        while (waitpid(pid, nullptr, 0) < 0 && errno == EINTR) {
        }
    }
    if (pid < 0 || end == CHILD_KILLED || end == CHILD_STOPPED || end == CHILD_TIMED_OUT)
        return LDA_TRY_LATER;
    return code;
}

// Starts the agent with argv (or, for a look, records it) and gives its result.
int startAgent(int fd, const char *server, std::vector<std::string> argv, StoreLook *look) {
    if (look != nullptr) {
        look->server = server;
        look->argv = std::move(argv);
        return 0;
    }
    std::vector<char *> args;
    for (std::string &a : argv)
        args.push_back(a.data());
    args.push_back(nullptr);
    pid_t pid = fork_execv_pipes(fd, -1, STDERR_FILENO, args[0], args.data());
    return agentResult(pid, args[0]);
}

int deliverCourier(int fd, const StoreTarget &to, const char *folder, StoreLook *look) {
    char maildir[kStorePathBufferSize];
    if (build_folder_path(maildir, sizeof maildir, to.mailnameDir, to.domainDir, folder) != 0)
        return -1;
    return startAgent(fd, "courier", {FERNDROP_DELIVERQUOTA, maildir}, look);
}

int deliverDovecot(int fd, const StoreTarget &to, const char *folder, StoreLook *look) {
    std::vector<std::string> argv = {FERNDROP_DOVECOT_LDA, "-d", to.user};
    if (to.original != nullptr)
        argv.insert(argv.end(), {"-a", to.original});
    if (is_inbox_folder(folder))
        return startAgent(fd, "dovecot", argv, look);
    if (!is_dot_folder(folder))
        return -1;
    char imapFolder[kStorePathBufferSize];
    int length = snprintf(imapFolder, sizeof imapFolder, "INBOX%s", folder);
    if (length < 0 || static_cast<unsigned long>(length) >= sizeof imapFolder) {
        LogFunction(3, "IMAP folder name 'INBOX%s' is too long to be present on file system", folder);
        return -1;
    }
    argv.insert(argv.end(), {"-m", imapFolder});
    return startAgent(fd, "dovecot", argv, look);
}

}  // namespace

int lda_deliver_fd(int fd, const StoreTarget &to, const char *folder, StoreLook *look) {
    const char *recipient = to.user;
    if (strchr(recipient, '@') == nullptr) {
        LogFunction(3, "Unable to deliver mail message to short address '%s' - I don't know how to do it", recipient);
        return -1;
    }
    switch (detect_server_type()) {
    case SERVER_COURIER_IMAP:
        return deliverCourier(fd, to, folder, look);
    case SERVER_DOVECOT:
        return deliverDovecot(fd, to, folder, look);
    case SERVER_UNKNOWN:
        break;
    }
    LogFunction(3, "Unable to deliver mail message to '%s' because I failed to find suitable delivery method",
                recipient);
    return LDA_TRY_LATER;
}

int lda_deliver_file(const char *path, const StoreTarget &to, const char *folder, StoreLook *look) {
    const char *recipient = to.user;
    const std::string &route = settingText("store");
    if (look != nullptr && route != "lda") {
        look->server = "lmtp";
        look->argv = {route};
        return 0;
    }
    if (look != nullptr)
        return lda_deliver_fd(-1, to, folder, look);
    if (route != "lda") {
        int fd = open(path, O_RDONLY | O_CLOEXEC);
        if (fd < 0) {
            LogFunction(3, "Unable to read mail message from '%s' for delivery to '%s': %s", path, recipient,
                        strerror(errno));
            return -1;
        }
        std::string said;
        int result = lmtpDeliver(fd, route, to.sender, recipient, said);
        close(fd);
        runRecordAdd(RUN_STORE, (route + " " + said).c_str(), "%d", result);
        return result;
    }
    int fd = open(path, O_RDONLY);
    if (fd < 0) {
        int saved = errno;
        LogFunction(3, "Unable to read mail message from '%s' for delivery to '%s': %s [%d]", path, recipient,
                    strerror(saved), saved);
        return -1;
    }
    int result = lda_deliver_fd(fd, to, folder);
    const char *agent = server_agent(cached_server_type());
    runRecordAdd(RUN_STORE, agent != nullptr ? agent : "none", "%d", result);
    if (result != 0)
        LogFunction(6, "Mail delivery from '%s' to '%s' into 'INBOX%s' failed with return code %d", path, recipient,
                    is_inbox_folder(folder) ? "" : folder, result);
    close(fd);
    return result;
}
