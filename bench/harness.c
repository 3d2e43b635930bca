/* Helpers of bench/compare.sh.
 *
 * feed MESSAGE PROGRAM [ARG...]
 *   Runs PROGRAM with MESSAGE on a pipe as its standard input, the way a
 *   transfer agent's pipe transport hands it over, without a shell or a cat
 *   process in the measured path: a message that fits the pipe buffer is
 *   written into the pipe before PROGRAM is executed in this very process;
 *   a larger one is written by a child while PROGRAM reads.
 *
 * nop
 *   Exits at once: "feed MESSAGE harness nop" is the cost of the feeding and
 *   the process start alone, the floor under every row.
 *
 * logsink SOCKET OUTPUT
 *   Binds a datagram socket at SOCKET (the namespace's /dev/log) and appends
 *   every datagram, one per line, to OUTPUT until it is terminated: syslog(3)
 *   then costs what it costs on a mail server with a running log daemon.
 */
#define _GNU_SOURCE
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

static int write_all(int fd, const char *buf, size_t len) {
    while (len > 0) {
        ssize_t n = write(fd, buf, len);
        if (n < 0) {
            if (errno == EINTR)
                continue;
            return -1;
        }
        buf += n;
        len -= (size_t)n;
    }
    return 0;
}

static int copy_to(int in, int out) {
    static char buf[65536];
    for (;;) {
        ssize_t got = read(in, buf, sizeof buf);
        if (got == 0)
            return 0;
        if (got < 0 || write_all(out, buf, (size_t)got) != 0)
            return -1;
    }
}

static int feed(int argc, char **argv) {
    if (argc < 4) {
        fprintf(stderr, "usage: feed MESSAGE PROGRAM [ARG...]\n");
        return 64;
    }
    int msg = open(argv[2], O_RDONLY | O_CLOEXEC);
    struct stat st;
    int p[2];
    if (msg < 0 || fstat(msg, &st) != 0 || pipe2(p, 0) != 0) {
        perror("feed");
        return 71;
    }
    int capacity = fcntl(p[1], F_GETPIPE_SZ);
    if (capacity > 0 && st.st_size <= capacity) {
        if (copy_to(msg, p[1]) != 0) {
            perror("feed: write");
            return 71;
        }
    } else {
        pid_t pid = fork();
        if (pid < 0) {
            perror("feed: fork");
            return 71;
        }
        if (pid == 0) {
            close(p[0]);
            signal(SIGPIPE, SIG_DFL);
            _exit(copy_to(msg, p[1]) == 0 ? 0 : 1);
        }
    }
    close(p[1]);
    close(msg);
    if (dup2(p[0], 0) != 0) {
        perror("feed: dup2");
        return 71;
    }
    close(p[0]);
    execvp(argv[3], argv + 3);
    fprintf(stderr, "feed: %s: %s\n", argv[3], strerror(errno));
    return 127;
}

static volatile sig_atomic_t stopping;
static void on_term(int sig) { (void)sig; stopping = 1; }

static int logsink(int argc, char **argv) {
    if (argc != 4) {
        fprintf(stderr, "usage: logsink SOCKET OUTPUT\n");
        return 64;
    }
    struct sockaddr_un addr;
    memset(&addr, 0, sizeof addr);
    addr.sun_family = AF_UNIX;
    if (strlen(argv[2]) >= sizeof addr.sun_path)
        return 64;
    strcpy(addr.sun_path, argv[2]);
    int s = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    unlink(argv[2]);
    if (s < 0 || bind(s, (struct sockaddr *)&addr, sizeof addr) != 0 || chmod(argv[2], 0666) != 0) {
        perror("logsink");
        return 71;
    }
    FILE *out = fopen(argv[3], "a");
    if (out == NULL) {
        perror("logsink");
        return 71;
    }
    struct sigaction sa;
    memset(&sa, 0, sizeof sa);
    sa.sa_handler = on_term;
    sigaction(SIGTERM, &sa, NULL);
    sigaction(SIGINT, &sa, NULL);
    static char buf[65536];
    while (!stopping) {
        ssize_t n = recv(s, buf, sizeof buf - 1, 0);
        if (n < 0) {
            if (errno == EINTR)
                continue;
            break;
        }
        while (n > 0 && buf[n - 1] == '\n')
            n--;
        fwrite(buf, 1, (size_t)n, out);
        fputc('\n', out);
        fflush(out);
    }
    fclose(out);
    unlink(argv[2]);
    return 0;
}

int main(int argc, char **argv) {
    if (argc >= 2 && strcmp(argv[1], "feed") == 0)
        return feed(argc, argv);
    if (argc >= 2 && strcmp(argv[1], "nop") == 0)
        return 0;
    if (argc >= 2 && strcmp(argv[1], "logsink") == 0)
        return logsink(argc, argv);
    fprintf(stderr, "usage: harness feed|nop|logsink ...\n");
    return 64;
}
