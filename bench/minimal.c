/* The floor for one local delivery: the work no delivery agent can skip and
 * nothing else. The message is read from standard input into a private spool
 * file (not synced: the transfer agent keeps the message until success), copied
 * into the maildir's tmp, its data written out and waited for, renamed into
 * new, then the new directory and the file synced (so that the file and the
 * rename are on disk before success is reported; a journaling file system
 * commits both at once, and on an ext4 with its journal the sync of new
 * alone does, so there the file's is left out), and the spool file is
 * removed. This is ferndrop's order; a sync before the rename would cost a
 * second journal commit. No logging, no configuration, no locale, no stdio.
 *
 * The copy buffer is 4096 bytes, as in ferndrop's copy primitive, so that the
 * comparison shows what ferndrop adds around the copy rather than a different
 * choice of buffer size.
 *
 * usage: minimal SPOOL_DIR MAILDIR < message
 *        minimal --no-new-sync SPOOL_DIR MAILDIR < message
 *        minimal --registry DATABASE SENDER RECIPIENT SPOOL_DIR MAILDIR < message
 *        minimal --duties SETTINGS STATE_DB INSTRUCTIONS --registry DATABASE SENDER RECIPIENT
 *                [--no-new-sync] SPOOL_DIR MAILDIR < message
 *        minimal --duties ... --registry ... SPOOL_DIR --then PROGRAM [ARG...] < message
 *        minimal SPOOL_DIR --then PROGRAM [ARG...] < message
 *        minimal --lmtp SOCKET RECIPIENT < message
 *        minimal --duties ... --registry ... SPOOL_DIR --lmtp SOCKET RECIPIENT < message
 *
 * The second leaves out the sync of new (which procmail does not make), to
 * show what that sync alone costs. The --registry form (built with
 * -DREGISTRY, static and with SQLite, as ferndrop is) first asks the handler
 * registry what bench/registry_floor.c asks: the floor for a delivery that
 * consults the registry.
 *
 * The --duties form (built with -DDUTIES as well, with Tokyo Cabinet and
 * libxxhash) adds what every ferndrop run must do beyond the copy and the
 * registry, each the plainest way the libraries allow: a start line and a
 * summary line to syslog, the settings file and the mailbox's instruction
 * file read, the input digested while it is spooled, the parent's stat line
 * read (an input cut by a dying parent is no message), the Message-ID read
 * from the spool and the delivery-state database asked for the record of
 * that key. It is the floor for a delivery with ferndrop's duties; with
 * --no-new-sync, for one that leaves out the sync of new as procmail does;
 * with --then in place of the maildir and no instruction file (so no state
 * to look up), for ferndrop's way into INBOX through the LDA.
 *
 * The third form is the floor for an agent that hands the message on to
 * another program (the IMAP server's delivery agent): the spool file
 * becomes PROGRAM's standard input, and its exit status is returned.
 *
 * The fourth is the smallest LMTP client: standard input straight to the
 * server (LHLO, MAIL FROM:<>, RCPT TO, DATA with CRLF and dot-stuffing), 0
 * when the server took the message. The last sends the spool file the same
 * way after the duties, with no instruction file: the floor for ferndrop's
 * way into INBOX through LMTP, which must spool and do its duties before the
 * message may leave.
 */
#define _GNU_SOURCE
#include <errno.h>
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#ifdef REGISTRY
#define REGISTRY_FLOOR_NO_MAIN
#include "registry_floor.c"
#endif

#ifdef DUTIES
#include <ctype.h>
#include <syslog.h>
#include <tchdb.h>
#define XXH_STATIC_LINKING_ONLY
#include <xxhash.h>

static XXH3_state_t *digest; /* of the input, while it is spooled */
#endif

static int copy_fd(int in, int out) {
    char buf[4096];
    for (;;) {
        ssize_t got = read(in, buf, sizeof buf);
        if (got == 0)
            return 0;
        if (got < 0)
            return -1;
#ifdef DUTIES
        if (digest != NULL)
            XXH3_128bits_update(digest, buf, (size_t)got);
#endif
        for (ssize_t done = 0; done < got;) {
            ssize_t n = write(out, buf + done, (size_t)(got - done));
            if (n < 0)
                return -1;
            done += n;
        }
    }
}

/* One reply's code; the reply is read to its last line. */
static int reply(int s, char *buf, size_t *have) {
    for (;;) {
        char *line = buf;
        for (char *nl; (nl = memchr(line, '\n', (size_t)(buf + *have - line))) != NULL; line = nl + 1) {
            if (nl - line >= 4 && line[3] == ' ') {
                int code = atoi(line);
                *have -= (size_t)(nl + 1 - buf);
                memmove(buf, nl + 1, *have);
                return code;
            }
        }
        ssize_t n = read(s, buf + *have, 4095 - *have);
        if (n <= 0)
            return -1;
        *have += (size_t)n;
    }
}

static int lmtp(int in_fd, const char *path, const char *rcpt) {
    struct sockaddr_un a = {.sun_family = AF_UNIX};
    strncpy(a.sun_path, path, sizeof a.sun_path - 1);
    int s = socket(AF_UNIX, SOCK_STREAM, 0);
    char buf[4096], cmd[600];
    size_t have = 0;
    if (s < 0 || connect(s, (struct sockaddr *)&a, sizeof a) != 0 || reply(s, buf, &have) != 220)
        return 75;
    int n = snprintf(cmd, sizeof cmd, "LHLO minimal\r\nMAIL FROM:<>\r\nRCPT TO:<%s>\r\nDATA\r\n", rcpt);
    if (write(s, cmd, (size_t)n) != n || reply(s, buf, &have) != 250 || reply(s, buf, &have) != 250 ||
        reply(s, buf, &have) != 250 || reply(s, buf, &have) != 354)
        return 75;
    char in[4096], out[8200];
    int start = 1;
    for (ssize_t got; (got = read(in_fd, in, sizeof in)) > 0;) {
        size_t o = 0;
        for (ssize_t i = 0; i < got; i++) {
            if (start && in[i] == '.')
                out[o++] = '.';
            if (in[i] == '\n')
                out[o++] = '\r';
            out[o++] = in[i];
            start = in[i] == '\n';
        }
        if (write(s, out, o) != (ssize_t)o)
            return 75;
    }
    const char *end = start ? ".\r\n" : "\r\n.\r\n";
    if (write(s, end, strlen(end)) != (ssize_t)strlen(end))
        return 75;
    int rc = reply(s, buf, &have) / 100 == 2 ? 0 : 75;
    (void)!write(s, "QUIT\r\n", 6);
    close(s);
    return rc;
}

#ifdef DUTIES
/* A small file read whole and forgotten: what a run pays for its settings
 * and for the mailbox's instructions. 1 when there is no such file. */
static int read_whole(const char *path) {
    char buf[4096];
    int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0 && errno == ENOENT)
        return 1;
    ssize_t n = fd < 0 ? -1 : 0;
    while (fd >= 0 && (n = read(fd, buf, sizeof buf)) > 0)
        ;
    if (fd >= 0)
        close(fd);
    return n < 0 ? -1 : 0;
}

/* Whether the parent is exiting: PF_EXITING in the ninth field of its stat
 * line. */
static int parent_exiting(void) {
    char path[32], line[1024];
    snprintf(path, sizeof path, "/proc/%d/stat", (int)getppid());
    int fd = open(path, O_RDONLY | O_CLOEXEC);
    ssize_t n = fd < 0 ? -1 : read(fd, line, sizeof line - 1);
    if (fd >= 0)
        close(fd);
    if (n <= 0)
        return 1;
    line[n] = '\0';
    unsigned long flags = 0;
    const char *end = strrchr(line, ')');
    return end == NULL || sscanf(end + 1, " %*c %*d %*d %*d %*d %*d %lu", &flags) != 1 || (flags & 0x4) != 0;
}

/* The first header block's Message-ID, lower-cased, or "-" (the bench's
 * messages have it unfolded in their first 4 KB). */
static void message_id(const char *spool, char *id, size_t size) {
    char buf[4097];
    int fd = open(spool, O_RDONLY | O_CLOEXEC);
    ssize_t n = fd < 0 ? -1 : read(fd, buf, sizeof buf - 1);
    if (fd >= 0)
        close(fd);
    snprintf(id, size, "-");
    if (n <= 0)
        return;
    buf[n] = '\0';
    for (char *line = buf; *line != '\0' && *line != '\n';) {
        char *nl = strchr(line, '\n');
        if (nl == NULL)
            break;
        if (strncasecmp(line, "Message-ID:", 11) == 0) {
            const char *v = line + 11;
            while (*v == ' ' || *v == '\t')
                v++;
            size_t len = (size_t)(nl - v) < size - 1 ? (size_t)(nl - v) : size - 1;
            for (size_t i = 0; i < len; i++)
                id[i] = (char)tolower((unsigned char)v[i]);
            id[len] = '\0';
            return;
        }
        line = nl + 1;
    }
}

/* 1 when the delivery-state database holds a record for the key, 0 when not
 * (a database not made yet holds none), -1 when it cannot be read. */
static int state_lookup(const char *database, const char *key) {
    TCHDB *hdb = tchdbnew();
    int found = -1;
    if (tchdbopen(hdb, database, HDBOREADER)) {
        char *value = tchdbget2(hdb, key);
        found = value != NULL;
        free(value);
        tchdbclose(hdb);
    } else if (tchdbecode(hdb) == TCENOFILE) {
        found = 0;
    }
    tchdbdel(hdb);
    return found;
}

/* Set by --duties: the paths it reads, and the addresses for its lines and
 * its key. */
static const char *settings, *state_db, *instructions, *sender, *recipient;
static char id[1000];

/* The duties between the spool and the store; 0 when the store may go on.
 * Without instructions the message goes to INBOX with no state to look up,
 * but its Message-ID is still read, for the summary line. */
static int duties_after_spool(const char *spool) {
    int none = parent_exiting() ? -1 : read_whole(instructions);
    if (none < 0)
        return -1;
    message_id(spool, id, sizeof id);
    if (none == 1)
        return 0;
    XXH128_canonical_t sum;
    XXH128_canonicalFromHash(&sum, XXH3_128bits_digest(digest));
    char key[4096];
    int n = snprintf(key, sizeof key, "%s %s %s ", id, sender, recipient);
    for (size_t i = 0; i < sizeof sum.digest && n + 3 < (int)sizeof key; i++)
        n += snprintf(key + n, sizeof key - (size_t)n, "%02x", sum.digest[i]);
    return state_lookup(state_db, key) == 0 ? 0 : -1;
}
#endif

/* The run's end: with the duties, its summary line. */
static int finish(int rc) {
#ifdef DUTIES
    if (digest != NULL)
        syslog(LOG_INFO, "to=%s from=%s message_id=%s outcome=%s status=%d", recipient, sender, id,
               rc == 0 ? "delivered" : "deferred", rc);
#endif
    return rc;
}

/* As ferndrop tells it: on an ext4 with its journal in itself, the commit
 * that syncs new carries the file too, and the file's own sync is left out. */
static int ext4_with_journal(int fd) {
    struct stat st;
    char link[64], target[512], journal[600];
    if (fstat(fd, &st) != 0)
        return 0;
    snprintf(link, sizeof link, "/sys/dev/block/%u:%u", major(st.st_dev), minor(st.st_dev));
    ssize_t n = readlink(link, target, sizeof target - 1);
    if (n <= 0)
        return 0;
    target[n] = '\0';
    const char *slash = strrchr(target, '/');
    snprintf(journal, sizeof journal, "/proc/fs/jbd2/%s-8", slash != NULL ? slash + 1 : target);
    return access(journal, F_OK) == 0;
}

int main(int argc, char **argv) {
    if (argc < 3)
        return 64;
    if (strcmp(argv[1], "--lmtp") == 0)
        return argc == 4 ? lmtp(0, argv[2], argv[3]) : 64;
#ifdef DUTIES
    XXH3_state_t input;
    if (strcmp(argv[1], "--duties") == 0) {
        if (argc < 11 || strcmp(argv[5], "--registry") != 0)
            return 64;
        settings = argv[2];
        state_db = argv[3];
        instructions = argv[4];
        sender = argv[7];
        recipient = argv[8];
        openlog("minimal", LOG_PID, LOG_MAIL);
        syslog(LOG_INFO, "minimal: from=%s to=%s", sender, recipient);
        if (read_whole(settings) != 0)
            return 75;
        digest = &input;
        XXH3_128bits_reset(digest);
        argc -= 4;
        argv += 4;
    }
#endif
#ifdef REGISTRY
    if (strcmp(argv[1], "--registry") == 0) {
        if (argc < 7 || registry_lookups(argv[2], argv[3], argv[4]) != 0)
            return 75;
        argc -= 4;
        argv += 4;
    }
#endif
    int sync_new = strcmp(argv[1], "--no-new-sync") != 0;
    if (!sync_new && argc != 4)
        return 64;
    if (!sync_new)
        argv++;
    char spool[4096];
    snprintf(spool, sizeof spool, "%s/messageXXXXXX", argv[1]);
    int fd = mkstemp(spool);
    if (fd < 0)
        return 75;
    if (copy_fd(0, fd) != 0 || close(fd) != 0) {
        unlink(spool);
        return 75;
    }
#ifdef DUTIES
    if (digest != NULL && duties_after_spool(spool) != 0) {
        unlink(spool);
        return 75;
    }
#endif

    if (strcmp(argv[2], "--lmtp") == 0 && argc == 5) {
        int in = open(spool, O_RDONLY);
        int rc = in < 0 ? 75 : lmtp(in, argv[3], argv[4]);
        if (in >= 0)
            close(in);
        unlink(spool);
        return finish(rc);
    }
    if (strcmp(argv[2], "--then") == 0 && argc > 3) {
        int in = open(spool, O_RDONLY);
        pid_t pid = in < 0 ? -1 : vfork();
        if (pid == 0) {
            dup2(in, 0);
            close(in);
            execv(argv[3], argv + 3);
            _exit(255);
        }
        int status = 0;
        int rc = pid > 0 && waitpid(pid, &status, 0) == pid && WIFEXITED(status) ? WEXITSTATUS(status) : 75;
        unlink(spool);
        return finish(rc);
    }

    char name[256], tmp[4096], new_[4096], newdir[4096];
    snprintf(name, sizeof name, "%ld.%ld.minimal", (long)time(NULL), (long)getpid());
    snprintf(tmp, sizeof tmp, "%s/tmp/%s", argv[2], name);
    snprintf(new_, sizeof new_, "%s/new/%s", argv[2], name);
    snprintf(newdir, sizeof newdir, "%s/new", argv[2]);
    int in = open(spool, O_RDONLY);
    int out = open(tmp, O_WRONLY | O_CREAT | O_EXCL, 0600);
    int rc = 75;
    if (in >= 0 && out >= 0 && copy_fd(in, out) == 0 &&
        sync_file_range(out, 0, 0, SYNC_FILE_RANGE_WAIT_BEFORE | SYNC_FILE_RANGE_WRITE | SYNC_FILE_RANGE_WAIT_AFTER) == 0 &&
        rename(tmp, new_) == 0) {
        int dir = sync_new ? open(newdir, O_RDONLY | O_DIRECTORY) : -1;
        if ((!sync_new || (dir >= 0 && fsync(dir) == 0)) && ((sync_new && ext4_with_journal(out)) || fsync(out) == 0))
            rc = 0;
        if (dir >= 0)
            close(dir);
    }
    if (out >= 0)
        close(out);
    unlink(spool);
    return finish(rc);
}
