/* One maildir store in a loop, in one of five orders of its syncs, to show
 * what each order costs on the file system the current directory is on.
 * Every store writes a 2 KB file into tmp, moves it into new and (but for
 * "procmail") makes it durable before the next store begins:
 *
 *   before    sync of the file, rename, sync of new (ferndrop until now)
 *   file-new  write-out (sync_file_range), rename, sync of the file, of new
 *   new-file  write-out, rename, sync of new, of the file (ferndrop now)
 *   new-only  write-out, rename, sync of new (no sync of the file after it:
 *             on ext4 with a journal the commit for new takes the file's
 *             inode with it, and the file's sync only adds a device flush)
 *   procmail  sync of the file, rename, no sync of new (procmail's order;
 *             the rename is not durable when it returns)
 *
 * usage: sync_order ORDER STORES   (in a directory holding tmp/ and new/)
 * prints the milliseconds per store.
 */
#define _GNU_SOURCE
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

static double now(void) {
    struct timespec t;
    clock_gettime(CLOCK_MONOTONIC, &t);
    return t.tv_sec + t.tv_nsec / 1e9;
}

static int sync_new(void) {
    int dir = open("new", O_RDONLY | O_DIRECTORY);
    int rc = dir >= 0 && fsync(dir) == 0 ? 0 : -1;
    if (dir >= 0)
        close(dir);
    return rc;
}

static int write_out(int fd) {
    return sync_file_range(fd, 0, 0, SYNC_FILE_RANGE_WAIT_BEFORE | SYNC_FILE_RANGE_WRITE | SYNC_FILE_RANGE_WAIT_AFTER);
}

int main(int argc, char **argv) {
    static const char *orders[] = {"before", "file-new", "new-file", "new-only", "procmail"};
    int order = -1;
    for (int i = 0; argc == 3 && i < 5; i++)
        if (strcmp(argv[1], orders[i]) == 0)
            order = i;
    int stores = argc == 3 ? atoi(argv[2]) : 0;
    if (order < 0 || stores <= 0) {
        fprintf(stderr, "usage: sync_order before|file-new|new-file|new-only|procmail STORES\n");
        return 2;
    }
    char message[2048];
    memset(message, 'x', sizeof message);
    double start = now();
    for (int i = 0; i < stores; i++) {
        char tmp[64], new_[64];
        snprintf(tmp, sizeof tmp, "tmp/%d.%d", (int)getpid(), i);
        snprintf(new_, sizeof new_, "new/%d.%d", (int)getpid(), i);
        int fd = open(tmp, O_WRONLY | O_CREAT | O_EXCL, 0600);
        int ok = fd >= 0 && write(fd, message, sizeof message) == (ssize_t)sizeof message;
        if (ok && (order == 0 || order == 4))
            ok = fsync(fd) == 0 && rename(tmp, new_) == 0 && (order == 4 || sync_new() == 0);
        else if (ok && order == 1)
            ok = write_out(fd) == 0 && rename(tmp, new_) == 0 && fsync(fd) == 0 && sync_new() == 0;
        else if (ok)
            ok = write_out(fd) == 0 && rename(tmp, new_) == 0 && sync_new() == 0 && (order == 3 || fsync(fd) == 0);
        if (fd >= 0)
            close(fd);
        if (!ok) {
            perror("store");
            return 1;
        }
    }
    printf("%.3f\n", (now() - start) * 1000 / stores);
    return 0;
}
