// Helpers shared by the unit tests: a scratch directory, whole-file I/O, and a
// capture of everything logged through LogFunction.
#pragma once
#include <string>
#include <utility>
#include <vector>

struct LoggedLine {
    int priority;
    std::string text;
};

// Replaces LogFunction with a recorder for the life of the object.
class LogCapture {
  public:
    LogCapture();
    ~LogCapture();
    const std::vector<LoggedLine> &lines() const;
    bool contains(int priority, const std::string &text) const;
    std::string dump() const;
};

// A fresh directory under /tmp, removed with everything in it.
class ScratchDir {
  public:
    ScratchDir();
    ~ScratchDir();
    const std::string &path() const { return path_; }
    std::string operator/(const std::string &name) const { return path_ + "/" + name; }

  private:
    std::string path_;
};

std::string readFile(const std::string &path);
void writeFile(const std::string &path, const std::string &content, unsigned mode = 0644);
bool fileExists(const std::string &path);
std::vector<std::string> listDir(const std::string &path);
