// Message-ID extraction: composes the deliveryKey of a spooled message from
// the first Message-ID header line, the envelope sender and the recipient.
//
// Promises: only reads the message file, from its start and only up to the
// deciding line or the first empty line (so a body behind a proper header
// separator is never read); logs nothing and throws nothing of its own; a
// missing, unreadable or header-less file is simply "not found". Case mapping
// and the space class are those of the classic C locale, so the key of one
// message is the same whatever locale the process runs in. A value holding a
// NUL byte is not usable: the database takes keys as C strings, so such a key
// would be cut before the sender and recipient and the records of every
// recipient of the message would meet under it.
#include "state/message_id.h"

#include <cerrno>
#include <fcntl.h>
#include <unistd.h>

#include "spool/spool.h"
#include "util/text.h"

namespace {
const char kHeaderName[] = "message-id:";
const size_t kHeaderLength = sizeof(kHeaderName) - 1;

bool isHeaderName(const std::string &start) {
    for (size_t i = 0; i < kHeaderLength; i++) {
        char c = start[i] >= 'A' && start[i] <= 'Z' ? static_cast<char>(start[i] - 'A' + 'a') : start[i];
        if (c != kHeaderName[i])
            return false;
    }
    return true;
}
}  // namespace

std::string messageIdOf(const std::string &messagePath) {
    // Plain reads rather than a stream: every run reads this for its summary
    // line, and a stream's first use costs more than the whole scan. Lines
    // that cannot decide are skipped, not kept, whatever their length.
    int fd = open(messagePath.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return "";
    enum { Start, Skip, Take, Folded } mode = Start;
    std::string line;  // the current line's first bytes; all of the deciding one
    char buffer[4096];
    bool decided = false;
    for (ssize_t n; !decided && (n = read(fd, buffer, sizeof buffer)) != 0;) {
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0)  // as a stream would: a failed read ends the file
            break;
        for (ssize_t i = 0; i < n && !decided; i++) {
            if (mode == Folded) {
                // A continuation line (it starts with a blank) belongs to the value.
                decided = buffer[i] != ' ' && buffer[i] != '\t';
                if (!decided) {
                    mode = Take;
                    line += buffer[i];
                }
            } else if (buffer[i] == '\n' && mode == Take) {
                // Unfolding removes the line break, CR included.
                if (line.back() == '\r')
                    line.pop_back();
                mode = Folded;
            } else if (buffer[i] == '\n') {
                // The first empty line ends the header without a Message-ID; so
                // does one holding only CR, the separator of a CRLF message,
                // lest a body line be taken for the header.
                decided = mode == Start && (line.empty() || line == "\r");
                if (!decided) {
                    mode = Start;
                    line.clear();
                }
            } else if (mode != Skip) {
                line += buffer[i];
                if (mode == Start && line.size() == kHeaderLength)
                    mode = isHeaderName(line) ? Take : Skip;
            }
        }
    }
    close(fd);
    // A last line without a line feed counts like any other.
    if (mode != Take && mode != Folded)
        return "";
    // A value still blank after its continuations is no Message-ID, and no
    // later Message-ID line is consulted.
    std::string value = trimmed(std::string_view(line).substr(kHeaderLength));
    return value.find('\0') == std::string::npos ? value : "";
}

namespace {
std::string receivedDigest;  // of the bytes the transfer agent gave, when known
std::string scannedPath;     // readMessageId's file and what it found there
std::string scannedValue;
}  // namespace

void setMessageDigest(const std::string &digest) { receivedDigest = digest; }

bool readMessageId(const std::string &messagePath, const std::string &sender,
                   const std::string &recipient, std::string &key) {
    // Handlers may have changed the file since; the digest of what the
    // transfer agent gave is the one its retry gives again.
    char digest[33] = "";
    if (receivedDigest.empty() && !files_digest(messagePath.c_str(), digest))
        return false;
    std::string value = messageIdOf(messagePath);
    scannedPath = messagePath;
    scannedValue = value;
    if (value.empty())
        value = "-";
    for (char &c : value)
        c = asciiLower(c);
    key = value + " " + sender + " " + recipient + " " + (receivedDigest.empty() ? digest : receivedDigest);
    return true;
}

std::string keyedMessageIdOf(const std::string &messagePath) {
    return messagePath == scannedPath ? scannedValue : messageIdOf(messagePath);
}
