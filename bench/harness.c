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
 * load MESSAGE TOTAL INFLIGHT BOXES -- PROGRAM [ARG...]
 *   TOTAL deliveries of MESSAGE, INFLIGHT of them running at any time, each
 *   fed on a pipe as above. In the arguments "%b" becomes the delivery's
 *   mailbox number, 0 to BOXES-1 in turn; in the message the first run of
 *   ten "X" becomes the delivery's number, so that every delivery carries a
 *   Message-ID of its own, as on a real server. Prints one line: deliveries per
 *   second, the median and 99th percentile latency in milliseconds (start
 *   of the process to its end), the number of runs that did not exit 0, and
 *   the processor time (user and system, the children's) per delivery in
 *   milliseconds.
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
#include <sys/resource.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <time.h>
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

static double now(void) {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return (double)ts.tv_sec + (double)ts.tv_nsec / 1e9;
}

static int by_value(const void *a, const void *b) {
    double x = *(const double *)a, y = *(const double *)b;
    return (x > y) - (x < y);
}

/* The PROGRAM's arguments with "%b" replaced by BOX. */
static char **with_box(char **args, int box) {
    int n = 0;
    while (args[n] != NULL)
        n++;
    char **out = calloc((size_t)n + 1, sizeof *out);
    for (int i = 0; out != NULL && i < n; i++) {
        const char *at = strstr(args[i], "%b");
        if (at == NULL) {
            out[i] = args[i];
            continue;
        }
        size_t len = strlen(args[i]) + 16;
        out[i] = malloc(len);
        if (out[i] != NULL)
            snprintf(out[i], len, "%.*s%d%s", (int)(at - args[i]), args[i], box, at + 2);
    }
    return out;
}

static int load(int argc, char **argv) {
    if (argc < 8 || strcmp(argv[6], "--") != 0) {
        fprintf(stderr, "usage: load MESSAGE TOTAL INFLIGHT BOXES -- PROGRAM [ARG...]\n");
        return 64;
    }
    int total = atoi(argv[3]), inflight = atoi(argv[4]), boxes = atoi(argv[5]);
    char **program = argv + 7;
    static char message[65536];
    int msg = open(argv[2], O_RDONLY | O_CLOEXEC);
    ssize_t size = msg < 0 ? -1 : read(msg, message, sizeof message);
    int null = open("/dev/null", O_WRONLY | O_CLOEXEC);
    pid_t *pids = calloc((size_t)inflight, sizeof *pids);
    double *started = calloc((size_t)inflight, sizeof *started);
    double *latency = calloc((size_t)total, sizeof *latency);
    if (total <= 0 || inflight <= 0 || boxes <= 0 || size <= 0 || size == (ssize_t)sizeof message || null < 0 ||
        pids == NULL || started == NULL || latency == NULL) {
        fprintf(stderr, "load: bad arguments or message (at most 64 KB)\n");
        return 64;
    }
    char *serial = memmem(message, (size_t)size, "XXXXXXXXXX", 10);
    int begun = 0, ended = 0, failed = 0, running = 0;
    double first = now();
    while (ended < total) {
        while (running < inflight && begun < total) {
            int p[2];
            if (serial != NULL) {
                char digits[11];
                snprintf(digits, sizeof digits, "%010d", begun);
                memcpy(serial, digits, 10);
            }
            if (pipe2(p, O_CLOEXEC) != 0 || write_all(p[1], message, (size_t)size) != 0) {
                perror("load: pipe");
                return 71;
            }
            close(p[1]);
            int slot = 0;
            while (pids[slot] != 0)
                slot++;
            started[slot] = now();
            pid_t pid = fork();
            if (pid < 0) {
                perror("load: fork");
                return 71;
            }
            if (pid == 0) {
                char **args = with_box(program, begun % boxes);
                if (args == NULL || dup2(p[0], 0) != 0 || dup2(null, 1) != 1)
                    _exit(71);
                execvp(args[0], args);
                _exit(127);
            }
            close(p[0]);
            pids[slot] = pid;
            begun++;
            running++;
        }
        int status;
        pid_t pid = waitpid(-1, &status, 0);
        if (pid < 0) {
            if (errno == EINTR)
                continue;
            perror("load: waitpid");
            return 71;
        }
        int slot = 0;
        while (slot < inflight && pids[slot] != pid)
            slot++;
        if (slot == inflight)
            continue;
        latency[ended++] = now() - started[slot];
        pids[slot] = 0;
        running--;
        if (!WIFEXITED(status) || WEXITSTATUS(status) != 0)
            failed++;
    }
    double elapsed = now() - first;
    qsort(latency, (size_t)total, sizeof *latency, by_value);
    int p99 = (int)((total * 99 + 99) / 100) - 1;
    struct rusage ru;
    getrusage(RUSAGE_CHILDREN, &ru);
    double cpu = (double)(ru.ru_utime.tv_sec + ru.ru_stime.tv_sec) + (ru.ru_utime.tv_usec + ru.ru_stime.tv_usec) / 1e6;
    printf("%.1f\t%.2f\t%.2f\t%d\t%.3f\n", total / elapsed, latency[(total - 1) / 2] * 1000, latency[p99] * 1000, failed,
           cpu * 1000 / total);
    return 0;
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
    if (argc >= 2 && strcmp(argv[1], "load") == 0)
        return load(argc, argv);
    if (argc >= 2 && strcmp(argv[1], "logsink") == 0)
        return logsink(argc, argv);
    fprintf(stderr, "usage: harness feed|nop|load|logsink ...\n");
    return 64;
}
