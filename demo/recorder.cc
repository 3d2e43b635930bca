// Recording stand-in for outside programs (sendmail, deliverquota). For every
// call it keeps argv, the environment, standard input and the descriptors that
// were open at start (fds, and fdlinks with what each one refers to) in a
// fresh directory named in "<argv0>.conf", then exits with the code given there.
#include <dirent.h>
#include <sys/stat.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <vector>

extern char **environ;

int main(int argc, char **argv) {
    std::vector<std::string> fds;
    if (DIR *d = opendir("/proc/self/fd")) {
        int own = dirfd(d);
        while (dirent *e = readdir(d))
            if (e->d_name[0] != '.' && atoi(e->d_name) != own)
                fds.push_back(e->d_name);
        closedir(d);
    }
    std::string recordDir = "/tmp";
    int exitCode = 0;
    std::string conf = std::string(argv[0]) + ".conf";
    if (FILE *f = fopen(conf.c_str(), "r")) {
        char line[4096];
        while (fgets(line, sizeof line, f)) {
            line[strcspn(line, "\n")] = '\0';
            if (strncmp(line, "RECORD_DIR=", 11) == 0)
                recordDir = line + 11;
            else if (strncmp(line, "EXIT_CODE=", 10) == 0)
                exitCode = atoi(line + 10);
        }
        fclose(f);
    }
    timespec ts;
    clock_gettime(CLOCK_REALTIME, &ts);
    char name[96];
    snprintf(name, sizeof name, "/%ld%09ld-%d", static_cast<long>(ts.tv_sec), ts.tv_nsec, getpid());
    std::string dir = recordDir + name;
    mkdir(dir.c_str(), 0777);
    auto put = [&](const char *file, const std::string &text) {
        if (FILE *f = fopen((dir + "/" + file).c_str(), "wb")) {
            fwrite(text.data(), 1, text.size(), f);
            fclose(f);
        }
    };
    std::string args, env, fdList, fdLinks;
    for (int i = 1; i < argc; i++)
        args += std::string(argv[i]) + "\n";
    for (char **e = environ; *e; e++)
        env += std::string(*e) + "\n";
    for (const auto &fd : fds) {
        fdList += fd + "\n";
        char target[4096];
        ssize_t len = readlink(("/proc/self/fd/" + fd).c_str(), target, sizeof target - 1);
        fdLinks += fd + " " + std::string(target, len > 0 ? len : 0) + "\n";
    }
    std::string input;
    char buf[65536];
    ssize_t n;
    while ((n = read(0, buf, sizeof buf)) > 0)
        input.append(buf, n);
    put("argv", args);
    put("env", env);
    put("fds", fdList);
    put("fdlinks", fdLinks);
    put("stdin", input);
    return exitCode;
}
