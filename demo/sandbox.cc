#include "sandbox.h"

#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <grp.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace {

const char *const kOverlaid[] = {"/etc", "/usr/local", "/var/lib", "/usr/sbin", "/usr/libexec", "/usr/bin", "/run"};
const char *const kDevices[] = {"null", "zero", "full", "random", "urandom", "tty"};

[[noreturn]] void die(const char *what) {
    fprintf(stderr, "sandbox: %s: %s\n", what, strerror(errno));
    _exit(121);
}

void mkdirsHost(const std::string &path, mode_t mode) {
    std::string cur;
    std::stringstream ss(path);
    std::string part;
    while (std::getline(ss, part, '/')) {
        if (part.empty())
            continue;
        cur += "/" + part;
        // The mode is set outright: the caller's umask must not decide
        // whether the delivery user can pass through the fixture tree.
        if (mkdir(cur.c_str(), mode) == 0)
            chmod(cur.c_str(), mode);
        else if (errno != EEXIST)
            throw std::runtime_error("mkdir " + cur + ": " + strerror(errno));
    }
}

std::string slurp(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

// "<PRI>Mmm dd hh:mm:ss ident[pid]: text"
bool parseSyslog(const std::string &dgram, SyslogLine &line) {
    if (dgram.size() < 3 || dgram[0] != '<')
        return false;
    size_t close = dgram.find('>');
    if (close == std::string::npos)
        return false;
    int pri = atoi(dgram.substr(1, close - 1).c_str());
    line.priority = pri & 7;
    line.facility = pri >> 3;
    size_t p = close + 1 + 16;
    size_t bracket = dgram.find('[', p);
    size_t colon = dgram.find("]: ", p);
    if (p > dgram.size() || bracket == std::string::npos || colon == std::string::npos)
        return false;
    line.ident = dgram.substr(p, bracket - p);
    line.pid = atoi(dgram.substr(bracket + 1, colon - bracket - 1).c_str());
    line.text = dgram.substr(colon + 3);
    return true;
}

// Inside the namespace: mounts, the syslog socket, the program, the log drain.
[[noreturn]] void namespaceMain(const std::string &root, const std::string &runDir, const RunSpec &spec) {
    if (unshare(CLONE_NEWNS) != 0)
        die("unshare");
    if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)
        die("make-rprivate");
    for (const char *dir : kOverlaid) {
        struct stat st;
        if (stat(dir, &st) != 0)
            continue;
        std::string opts = std::string("lowerdir=") + dir + ",upperdir=" + root + "/upper" + dir + ",workdir=" + root +
                           "/work" + dir;
        if (mount("overlay", dir, "overlay", 0, opts.c_str()) != 0)
            die(dir);
    }
    std::string oldDev = root + "/olddev";
    mkdir(oldDev.c_str(), 0755);
    if (mount("/dev", oldDev.c_str(), nullptr, MS_BIND | MS_REC, nullptr) != 0)
        die("bind /dev");
    if (mount("tmpfs", "/dev", "tmpfs", MS_NOSUID, "mode=0755,size=16m") != 0)
        die("tmpfs /dev");
    for (const char *dev : kDevices) {
        std::string target = std::string("/dev/") + dev;
        std::string source = oldDev + "/" + dev;
        if (access(source.c_str(), F_OK) != 0)
            continue;
        int fd = open(target.c_str(), O_CREAT | O_WRONLY, 0666);
        if (fd >= 0)
            close(fd);
        if (mount(source.c_str(), target.c_str(), nullptr, MS_BIND, nullptr) != 0)
            die(target.c_str());
    }
    umount2(oldDev.c_str(), MNT_DETACH);
    symlink("/proc/self/fd", "/dev/fd");
    symlink("/proc/self/fd/0", "/dev/stdin");
    symlink("/proc/self/fd/1", "/dev/stdout");
    symlink("/proc/self/fd/2", "/dev/stderr");
    mkdir("/dev/shm", 01777);

    int logSock = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    strcpy(addr.sun_path, "/dev/log");
    if (logSock < 0 || bind(logSock, reinterpret_cast<sockaddr *>(&addr), sizeof addr) != 0)
        die("/dev/log");
    chmod("/dev/log", 0666);
    int bufSize = 8 << 20;
    setsockopt(logSock, SOL_SOCKET, SO_RCVBUFFORCE, &bufSize, sizeof bufSize);

    std::string inPath = runDir + "/stdin";
    pid_t pid = fork();
    if (pid < 0)
        die("fork");
    if (pid == 0) {
        int in = open(inPath.c_str(), O_RDONLY);
        int out = open((runDir + "/stdout").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        int err = open((runDir + "/stderr").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        if (in < 0 || out < 0 || err < 0)
            die("stdio");
        dup2(in, 0);
        dup2(out, 1);
        dup2(err, 2);
        for (int fd = 3; fd < 1024; fd++)
            close(fd);
        if (chdir(root.c_str()) != 0)
            die("chdir");
        if (spec.gid != 0 && (setgroups(0, nullptr) != 0 || setgid(spec.gid) != 0))
            die("setgid");
        if (spec.uid != 0 && setuid(spec.uid) != 0)
            die("setuid");
        std::vector<std::string> envStrings = {"PATH=/usr/local/bin:/usr/bin:/bin:/usr/sbin:/sbin", "HOME=/root",
                                               "LANG=C"};
        envStrings.insert(envStrings.end(), spec.env.begin(), spec.env.end());
        std::vector<char *> argv, envp;
        for (const auto &a : spec.argv)
            argv.push_back(const_cast<char *>(a.c_str()));
        argv.push_back(nullptr);
        for (const auto &e : envStrings)
            envp.push_back(const_cast<char *>(e.c_str()));
        envp.push_back(nullptr);
        execve(argv[0], argv.data(), envp.data());
        die(argv[0]);
    }

    FILE *logOut = fopen((runDir + "/syslog").c_str(), "wb");
    auto drain = [&] {
        char buf[65536];
        for (;;) {
            ssize_t n = recv(logSock, buf, sizeof buf, 0);
            if (n <= 0)
                break;
            uint32_t len = static_cast<uint32_t>(n);
            fwrite(&len, sizeof len, 1, logOut);
            fwrite(buf, 1, len, logOut);
        }
    };
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(spec.timeoutSeconds);
    int status = 0;
    for (;;) {
        pollfd pfd{logSock, POLLIN, 0};
        poll(&pfd, 1, 20);
        drain();
        pid_t r = waitpid(pid, &status, WNOHANG);
        if (r == pid)
            break;
        if (std::chrono::steady_clock::now() > deadline) {
            kill(pid, SIGKILL);
            waitpid(pid, &status, 0);
            break;
        }
    }
    // Grandchildren (a handler's background job, say) may still log briefly.
    drain();
    fclose(logOut);
    FILE *st = fopen((runDir + "/status").c_str(), "w");
    fprintf(st, "%d\n", status);
    fclose(st);
    _exit(0);
}

}  // namespace

std::string RunResult::logDump() const {
    std::string s;
    for (const auto &l : log)
        s += "  <" + std::to_string(l.facility) + "." + std::to_string(l.priority) + "> " + l.ident + "[" +
             std::to_string(l.pid) + "]: " + l.text + "\n";
    return s;
}

Sandbox::Sandbox() {
    char tmpl[] = "/tmp/ferndrop-e2e.XXXXXX";
    if (mkdtemp(tmpl) == nullptr)
        throw std::runtime_error("mkdtemp");
    root_ = tmpl;
    chmod(root_.c_str(), 0755);
    for (const char *dir : kOverlaid) {
        mkdirsHost(root_ + "/upper" + dir, 0755);
        mkdirsHost(root_ + "/work" + dir, 0755);
    }
    mkdirsHost(mailnames(), 0755);
}

Sandbox::~Sandbox() {
    if (getenv("FERNDROP_KEEP_SANDBOX") != nullptr) {
        fprintf(stderr, "sandbox kept at %s\n", root_.c_str());
        return;
    }
    std::string cmd = "rm -rf '" + root_ + "'";
    if (system(cmd.c_str()) != 0)
        fprintf(stderr, "sandbox: could not remove %s\n", root_.c_str());
}

std::string Sandbox::host(const std::string &path) const {
    for (const char *dir : kOverlaid) {
        size_t n = strlen(dir);
        if (path.compare(0, n, dir) == 0 && (path.size() == n || path[n] == '/'))
            return root_ + "/upper" + path;
    }
    return path;
}

void Sandbox::write(const std::string &path, const std::string &content, mode_t mode) {
    std::string h = host(path);
    mkdirsHost(h.substr(0, h.rfind('/')), 0755);
    unlink(h.c_str());
    std::ofstream out(h, std::ios::binary);
    out << content;
    out.close();
    chmod(h.c_str(), mode);
}

void Sandbox::mkdirs(const std::string &path, mode_t mode) {
    mkdirsHost(host(path), mode);
    chmod(host(path).c_str(), mode);
}

std::string Sandbox::read(const std::string &path) const { return slurp(host(path)); }

std::vector<std::string> Sandbox::list(const std::string &path) const {
    std::vector<std::string> names;
    if (DIR *d = opendir(host(path).c_str())) {
        while (dirent *e = readdir(d)) {
            std::string n = e->d_name;
            if (n != "." && n != "..")
                names.push_back(n);
        }
        closedir(d);
    }
    std::sort(names.begin(), names.end());
    return names;
}

std::string Sandbox::mailbox(const std::string &domain, const std::string &mailname) {
    std::string dir = mailnames() + "/" + domain + "/" + mailname;
    mkdirsHost(dir, 0755);
    return dir;
}

void Sandbox::installRecorder(const std::string &path, const std::string &name, int exitCode) {
    write(path, slurp(FERNDROP_RECORDER), 0755);
    write(path + ".conf", "RECORD_DIR=" + root_ + "/calls-" + name + "\nEXIT_CODE=" + std::to_string(exitCode) + "\n",
          0644);
    mkdirsHost(root_ + "/calls-" + name, 0777);
    chmod((root_ + "/calls-" + name).c_str(), 0777);
}

void Sandbox::installSendmailRecorder(int exitCode) { installRecorder("/usr/sbin/sendmail", "sendmail", exitCode); }

std::vector<std::string> Sandbox::calls(const std::string &name) const {
    std::vector<std::string> calls = list(root_ + "/calls-" + name);  // named by time: oldest first
    for (auto &c : calls)
        c = root_ + "/calls-" + name + "/" + c;
    return calls;
}

RunResult Sandbox::run(const RunSpec &spec) {
    std::string runDir = root_ + "/runs/" + std::to_string(++runs_);
    mkdirsHost(runDir, 0777);
    {
        std::ofstream in(runDir + "/stdin", std::ios::binary);
        in << spec.input;
    }
    fflush(nullptr);
    pid_t pid = fork();
    if (pid < 0)
        throw std::runtime_error("fork");
    if (pid == 0)
        namespaceMain(root_, runDir, spec);
    int status = 0;
    waitpid(pid, &status, 0);
    RunResult result;
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0)
        throw std::runtime_error("sandbox setup failed: " + slurp(runDir + "/stderr"));
    int childStatus = 0;
    std::istringstream(slurp(runDir + "/status")) >> childStatus;
    result.status = WIFEXITED(childStatus) ? WEXITSTATUS(childStatus) : 128 + WTERMSIG(childStatus);
    result.out = slurp(runDir + "/stdout");
    result.err = slurp(runDir + "/stderr");
    std::string raw = slurp(runDir + "/syslog");
    for (size_t p = 0; p + 4 <= raw.size();) {
        uint32_t len;
        memcpy(&len, raw.data() + p, 4);
        p += 4;
        SyslogLine line;
        if (parseSyslog(raw.substr(p, len), line))
            result.log.push_back(line);
        p += len;
    }
    return result;
}

RunResult Sandbox::shell(const std::string &script, const std::string &input) {
    RunSpec spec;
    spec.argv = {"/bin/sh", "-c", script};
    spec.input = input;
    return run(spec);
}

std::string ferndropBinary() { return FERNDROP_BINARY; }
std::string sourceDir() { return FERNDROP_SOURCE_DIR; }
