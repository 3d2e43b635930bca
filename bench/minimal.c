/* The floor for one local delivery: the work no delivery agent can skip and
 * nothing else. The message is read from standard input into a private spool
 * file that is synced (so that the transfer agent may forget it), copied into
 * the maildir's tmp, synced again, renamed into new, the new directory is
 * synced (so that the rename is on disk before success is reported), and the
 * spool file is removed. No logging, no configuration, no locale, no stdio.
 *
 * The copy buffer is 4096 bytes, as in ferndrop's copy primitive, so that the
 * comparison shows what ferndrop adds around the copy rather than a different
 * choice of buffer size.
 *
 * usage: minimal SPOOL_DIR MAILDIR < message
 *        minimal SPOOL_DIR --then PROGRAM [ARG...] < message
 *
 * The second form is the floor for an agent that hands the message on to
 * another program (the IMAP server's delivery agent): the synced spool file
 * becomes PROGRAM's standard input, and its exit status is returned.
 */
#include <fcntl.h>
#include <sys/wait.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

static int copy_fd(int in, int out) {
    char buf[4096];
    for (;;) {
        ssize_t got = read(in, buf, sizeof buf);
        if (got == 0)
            return 0;
        if (got < 0)
            return -1;
        for (ssize_t done = 0; done < got;) {
            ssize_t n = write(out, buf + done, (size_t)(got - done));
            if (n < 0)
                return -1;
            done += n;
        }
    }
}

int main(int argc, char **argv) {
    if (argc < 3)
        return 64;
    char spool[4096];
    snprintf(spool, sizeof spool, "%s/messageXXXXXX", argv[1]);
    int fd = mkstemp(spool);
    if (fd < 0)
        return 75;
    if (copy_fd(0, fd) != 0 || fsync(fd) != 0 || close(fd) != 0) {
        unlink(spool);
        return 75;
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
        return rc;
    }

    char name[256], tmp[4096], new_[4096], newdir[4096];
    snprintf(name, sizeof name, "%ld.%ld.minimal", (long)time(NULL), (long)getpid());
    snprintf(tmp, sizeof tmp, "%s/tmp/%s", argv[2], name);
    snprintf(new_, sizeof new_, "%s/new/%s", argv[2], name);
    snprintf(newdir, sizeof newdir, "%s/new", argv[2]);
    int in = open(spool, O_RDONLY);
    int out = open(tmp, O_WRONLY | O_CREAT | O_EXCL, 0600);
    int rc = 75;
    if (in >= 0 && out >= 0 && copy_fd(in, out) == 0 && fsync(out) == 0 && close(out) == 0 &&
        rename(tmp, new_) == 0) {
        int dir = open(newdir, O_RDONLY | O_DIRECTORY);
        if (dir >= 0 && fsync(dir) == 0)
            rc = 0;
        if (dir >= 0)
            close(dir);
    }
    unlink(spool);
    return rc;
}
