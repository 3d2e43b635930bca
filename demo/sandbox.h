// The demo's sandbox. A Sandbox is a scratch tree on the host plus a
// recipe for a private mount namespace in which the built ferndrop runs with
// its compiled-in paths: overlays over /etc, /usr/local, /var/lib, /usr/sbin,
// /usr/libexec, /usr/bin and /run whose upper layers are the sandbox's, and a
// tmpfs /dev whose /dev/log socket captures the syslog datagrams. Everything
// lives under one host directory, removed when the Sandbox is destroyed.
#pragma once
#include <sys/types.h>

#include <string>
#include <vector>

struct SyslogLine {
    int priority;  // 0..7
    int facility;  // 2 is mail, 1 user
    std::string ident;
    int pid;
    std::string text;
};

struct RunResult {
    int status = -1;  // exit status, or 128 + signal
    std::string out;
    std::string err;
    std::vector<SyslogLine> log;

    std::string logDump() const;
};

struct RunSpec {
    std::vector<std::string> argv;
    std::string input;           // standard input
    std::vector<std::string> env;  // added to a minimal PATH/HOME environment
    uid_t uid = 0;
    gid_t gid = 0;
    int timeoutSeconds = 120;
};

class Sandbox {
  public:
    Sandbox();
    ~Sandbox();
    Sandbox(const Sandbox &) = delete;
    Sandbox &operator=(const Sandbox &) = delete;

    // Host-side path for an absolute path as the namespace sees it.
    std::string host(const std::string &path) const;
    const std::string &root() const { return root_; }
    // The mailnames tree given with -p (a directory inside the sandbox).
    std::string mailnames() const { return root_ + "/mailnames"; }

    void write(const std::string &path, const std::string &content, mode_t mode = 0644);
    void mkdirs(const std::string &path, mode_t mode = 0755);
    std::string read(const std::string &path) const;
    std::vector<std::string> list(const std::string &path) const;
    // A mailbox directory <mailnames>/<domain>/<mailname>, returned as a host path.
    std::string mailbox(const std::string &domain, const std::string &mailname);
    // The recording program (recorder.cc) at path; its calls are kept under name.
    void installRecorder(const std::string &path, const std::string &name, int exitCode = 0);
    void installSendmailRecorder(int exitCode = 0);
    // Host directories of the recorded calls, oldest first; each holds the
    // files argv, env, fds and stdin.
    std::vector<std::string> calls(const std::string &name) const;

    RunResult run(const RunSpec &spec);
    RunResult shell(const std::string &script, const std::string &input = "");

  private:
    std::string root_;
    int runs_ = 0;
};

std::string ferndropBinary();
std::string sourceDir();
