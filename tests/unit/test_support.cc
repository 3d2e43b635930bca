#include "test_support.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <dirent.h>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <sys/stat.h>

#include "driver/log.h"

namespace {
std::vector<LoggedLine> captured;
LogFunctionType previous = nullptr;

__attribute__((format(printf, 2, 3))) void recordLog(int priority, const char *format, ...) {
    va_list args;
    va_start(args, format);
    char *text = nullptr;
    if (vasprintf(&text, format, args) >= 0) {
        captured.push_back({priority, text});
        free(text);
    }
    va_end(args);
}
}  // namespace

LogCapture::LogCapture() {
    captured.clear();
    previous = LogFunction;
    LogFunction = recordLog;
}
LogCapture::~LogCapture() { LogFunction = previous; }
const std::vector<LoggedLine> &LogCapture::lines() const { return captured; }
bool LogCapture::contains(int priority, const std::string &text) const {
    return std::any_of(captured.begin(), captured.end(),
                       [&](const LoggedLine &l) { return l.priority == priority && l.text == text; });
}
std::string LogCapture::dump() const {
    std::string out;
    for (const auto &l : captured)
        out += "[" + std::to_string(l.priority) + "] " + l.text + "\n";
    return out;
}

ScratchDir::ScratchDir() {
    char tmpl[] = "/tmp/ferndrop-unit.XXXXXX";
    if (mkdtemp(tmpl) == nullptr)
        throw std::runtime_error("mkdtemp failed");
    path_ = tmpl;
}
ScratchDir::~ScratchDir() {
    std::string cmd = "rm -rf '" + path_ + "'";
    if (system(cmd.c_str()) != 0)
        fprintf(stderr, "could not remove %s\n", path_.c_str());
}

std::string readFile(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream ss;
    ss << in.rdbuf();
    return ss.str();
}
void writeFile(const std::string &path, const std::string &content, unsigned mode) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << content;
    out.close();
    chmod(path.c_str(), mode);
}
bool fileExists(const std::string &path) {
    struct stat st;
    return lstat(path.c_str(), &st) == 0;
}
std::vector<std::string> listDir(const std::string &path) {
    std::vector<std::string> names;
    if (DIR *d = opendir(path.c_str())) {
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
