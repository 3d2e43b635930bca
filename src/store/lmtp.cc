// Contract in store/lmtp.h.
#include "store/lmtp.h"

#include <fcntl.h>
#include <netdb.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <strings.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>

#include "driver/log.h"
#include "store/lda.h"
#include "util/settings.h"

namespace {

bool digits(const char *p, int n) {
    for (int i = 0; i < n; i++)
        if (p[i] < '0' || p[i] > '9')
            return false;
    return true;
}

// One connection with its deadline per step.
struct Session {
    int fd = -1;
    int timeoutMs = 60000;
    std::string in;  // received, not yet parsed
    const char *route = "";
    ~Session() {
        if (fd >= 0)
            close(fd);
    }

    // Waits for the socket: false (logged) on a timeout or an error.
    bool wait(short events, const char *step) {
        pollfd p{fd, events, 0};
        int ready;
        while ((ready = poll(&p, 1, timeoutMs)) < 0 && errno == EINTR) {
        }
        if (ready > 0)
            return true;
        LogFunction(3, "LMTP %s: %s while waiting to %s", route, ready == 0 ? "timed out" : strerror(errno), step);
        return false;
    }

    // Waits only when the socket's buffer is full: a command or a small
    // message goes out in one call.
    bool send(const char *data, size_t size, const char *step) {
        while (size > 0) {
            ssize_t n = ::send(fd, data, size, MSG_NOSIGNAL);
            if (n < 0 && errno == EAGAIN) {
                if (!wait(POLLOUT, step))
                    return false;
                continue;
            }
            if (n < 0 && errno == EINTR)
                continue;
            if (n <= 0) {
                LogFunction(3, "LMTP %s: %s while sending %s", route, strerror(errno), step);
                return false;
            }
            data += n;
            size -= static_cast<size_t>(n);
        }
        return true;
    }

    bool send(const std::string &line, const char *step) { return send(line.data(), line.size(), step); }

    // The next reply: false (logged) when none came whole.
    bool reply(LmtpReply &r, const char *step) {
        for (;;) {
            long took = lmtpParseReply(in.data(), in.size(), r);
            if (took > 0) {
                in.erase(0, static_cast<size_t>(took));
                return true;
            }
            if (took < 0 || in.size() > 65536) {
                LogFunction(3, "LMTP %s: no reply to %s, but: %.200s", route, step, in.c_str());
                return false;
            }
            if (!wait(POLLIN, step))
                return false;
            char buffer[4096];
            ssize_t n = recv(fd, buffer, sizeof buffer, 0);
            if (n < 0 && (errno == EINTR || errno == EAGAIN))
                continue;
            if (n <= 0) {
                LogFunction(3, "LMTP %s: connection %s while waiting for the reply to %s", route,
                            n == 0 ? "closed" : strerror(errno), step);
                return false;
            }
            in.append(buffer, static_cast<size_t>(n));
        }
    }
};

// Connects to route, non-blocking, within the timeout: false (logged).
bool connectTo(Session &s, const std::string &route) {
    std::string where = route.substr(5);  // after "lmtp:"
    addrinfo *found = nullptr;
    sockaddr_un local{};
    const sockaddr *address = nullptr;
    socklen_t length = 0;
    int family = AF_UNIX;
    if (where.compare(0, 5, "unix:") == 0) {
        std::string path = where.substr(5);
        if (path.size() >= sizeof local.sun_path) {
            LogFunction(3, "LMTP %s: socket path too long", s.route);
            return false;
        }
        local.sun_family = AF_UNIX;
        memcpy(local.sun_path, path.c_str(), path.size() + 1);
        address = reinterpret_cast<const sockaddr *>(&local);
        length = sizeof local;
    } else {
        std::string hostPort = where.substr(5);  // after "inet:"
        size_t colon = hostPort.rfind(':');
        addrinfo hints{};
        hints.ai_socktype = SOCK_STREAM;
        int err = colon == std::string::npos ? EAI_NONAME
                                              : getaddrinfo(hostPort.substr(0, colon).c_str(),
                                                            hostPort.substr(colon + 1).c_str(), &hints, &found);
        if (err != 0 || found == nullptr) {
            LogFunction(3, "LMTP %s: cannot resolve the address: %s", s.route, gai_strerror(err));
            return false;
        }
        address = found->ai_addr;
        length = found->ai_addrlen;
        family = found->ai_family;
    }
    s.fd = socket(family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    bool now = s.fd >= 0 && connect(s.fd, address, length) == 0;
    bool connected = now || (s.fd >= 0 && errno == EINPROGRESS);
    int err = errno;
    if (found != nullptr)
        freeaddrinfo(found);
    if (!connected) {
        LogFunction(3, "LMTP %s: cannot connect: %s", s.route, strerror(err));
        return false;
    }
    if (now)  // a local socket is connected at once
        return true;
    if (!s.wait(POLLOUT, "connect"))
        return false;
    int soError = 0;
    socklen_t size = sizeof soError;
    if (getsockopt(s.fd, SOL_SOCKET, SO_ERROR, &soError, &size) != 0 || soError != 0) {
        LogFunction(3, "LMTP %s: cannot connect: %s", s.route, strerror(soError != 0 ? soError : errno));
        return false;
    }
    return true;
}

// The message as DATA wants it: CRLF line ends, a leading "." doubled, and
// the end marker. Read in pieces, so a large message costs no memory.
bool sendMessage(Session &s, int fd) {
    char buffer[65536];
    std::string out;
    out.reserve(2 * sizeof buffer);
    bool lineStart = true;
    char previous = '\0';  // the last byte sent, whichever read it came in
    for (;;) {
        ssize_t n = read(fd, buffer, sizeof buffer);
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0) {
            LogFunction(3, "LMTP %s: cannot read the message: %s", s.route, strerror(errno));
            return false;
        }
        if (n == 0)
            break;
        if (!out.empty() && !s.send(out, "the message"))
            return false;
        out.clear();
        // A line at a time: a 10 MB message must not cost a call per byte.
        for (size_t i = 0, size = static_cast<size_t>(n); i < size;) {
            if (lineStart && buffer[i] == '.')
                out += '.';
            const char *lf = static_cast<const char *>(memchr(buffer + i, '\n', size - i));
            size_t end = lf != nullptr ? static_cast<size_t>(lf - buffer) : size;
            out.append(buffer + i, end - i);
            if (end > i)
                previous = buffer[end - 1];
            lineStart = false;
            if (lf != nullptr) {
                out += previous == '\r' ? "\n" : "\r\n";
                previous = '\n';
                lineStart = true;
                end++;
            }
            i = end;
        }
    }
    // The last piece goes with the end marker, so a small message is one send.
    out += lineStart ? ".\r\n" : "\r\n.\r\n";
    return s.send(out, "the end of the message");
}

// Whether a reply's lines name an extension (the lines are joined by blanks).
bool advertises(const std::string &text, const char *keyword) {
    size_t length = strlen(keyword);
    for (size_t at = 0; at < text.size();) {
        size_t blank = text.find(' ', at);
        size_t end = blank == std::string::npos ? text.size() : blank;
        if (end - at == length && strncasecmp(text.c_str() + at, keyword, length) == 0)
            return true;
        at = end + 1;
    }
    return false;
}

// What a refusal means for the delivery, logged with the server's words.
int refusal(const Session &s, const LmtpReply &r, const char *step) {
    LogFunction(3, "LMTP %s refused %s: %d %s", s.route, step, r.code, r.text.c_str());
    bool quota = (r.code == 452 && r.enhanced == "4.2.2") || (r.code == 552 && r.enhanced == "5.2.2");
    if (quota)
        return 77;
    return r.code >= 500 ? 100 : LDA_TRY_LATER;
}

}  // namespace

long lmtpParseReply(const char *data, unsigned long size, LmtpReply &reply) {
    reply = LmtpReply{};
    unsigned long at = 0;
    for (;;) {
        const char *end = static_cast<const char *>(memchr(data + at, '\n', size - at));
        if (end == nullptr)
            return size - at > 1024 ? -1 : 0;
        unsigned long lineLength = static_cast<unsigned long>(end - (data + at));
        const char *line = data + at;
        if (lineLength > 0 && line[lineLength - 1] == '\r')
            lineLength--;
        if (lineLength < 3 || !digits(line, 3) || line[0] < '2' || line[0] > '5' ||
            (lineLength > 3 && line[3] != ' ' && line[3] != '-'))
            return -1;
        int code = (line[0] - '0') * 100 + (line[1] - '0') * 10 + (line[2] - '0');
        if (reply.code != 0 && code != reply.code)
            return -1;
        reply.code = code;
        std::string text(line + (lineLength > 3 ? 4 : 3), lineLength > 3 ? lineLength - 4 : 0);
        // An enhanced code leads the first line's text: class.subject.detail.
        if (reply.text.empty() && text.size() >= 5 && text[0] == line[0] && text[1] == '.') {
            size_t blank = text.find(' ');
            reply.enhanced = text.substr(0, blank);
        }
        reply.text += (reply.text.empty() ? "" : " ") + text;
        at = static_cast<unsigned long>(end - data) + 1;
        if (lineLength == 3 || line[3] == ' ')
            return static_cast<long>(at);
    }
}

int lmtpDeliver(int fd, const std::string &route, const char *sender, const char *rcpt, std::string &said) {
    Session s;
    s.route = route.c_str();
    s.timeoutMs = static_cast<int>(settingNumber("lmtp_timeout") * 1000);
    LmtpReply r;
    char host[256] = "localhost";
    gethostname(host, sizeof host - 1);
    if (!connectTo(s, route) || !s.reply(r, "the greeting"))
        return LDA_TRY_LATER;
    said = std::to_string(r.code) + " " + r.text;
    if (r.code != 220)
        return refusal(s, r, "the connection");
    if (!s.send(std::string("LHLO ") + host + "\r\n", "LHLO") || !s.reply(r, "LHLO"))
        return LDA_TRY_LATER;
    said = std::to_string(r.code) + " " + r.text;
    if (r.code / 100 != 2)
        return refusal(s, r, "LHLO");
    std::string from = sender == nullptr || sender[0] == '\0' || strcmp(sender, "<>") == 0 ? "" : sender;
    const struct {
        std::string command;
        int want;
        const char *step;
    } steps[] = {{"MAIL FROM:<" + from + ">\r\n", 250, "the sender"},
                 {std::string("RCPT TO:<") + rcpt + ">\r\n", 250, "the recipient"},
                 {"DATA\r\n", 354, "DATA"}};
    // A server that offers pipelining gets the three as one group: two round
    // trips fewer, which a proxy across the network feels most. The replies
    // are still read in order, and the first refusal decides; the message is
    // sent only after DATA's 354.
    bool group = advertises(r.text, "PIPELINING");
    if (group && !s.send(steps[0].command + steps[1].command + steps[2].command, steps[0].step))
        return LDA_TRY_LATER;
    for (const auto &step : steps) {
        if ((!group && !s.send(step.command, step.step)) || !s.reply(r, step.step))
            return LDA_TRY_LATER;
        said = std::to_string(r.code) + " " + r.text;
        if (r.code / 100 != step.want / 100)
            return refusal(s, r, step.step);
    }
    if (!sendMessage(s, fd) || !s.reply(r, "the message"))
        return LDA_TRY_LATER;
    said = std::to_string(r.code) + " " + r.text;
    int result = r.code / 100 == 2 ? 0 : refusal(s, r, "the message");
    if (result == 0)
        LogFunction(6, "LMTP %s: %d %s", s.route, r.code, r.text.c_str());
    // A polite end, not waited for: the delivery is decided already.
    ::send(s.fd, "QUIT\r\n", 6, MSG_NOSIGNAL | MSG_DONTWAIT);
    return result;
}
