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

#include <boost/algorithm/string.hpp>
#include <fstream>
#include <locale>

namespace {
const char kHeaderName[] = "message-id:";
const size_t kHeaderLength = sizeof(kHeaderName) - 1;
}  // namespace

std::string messageIdOf(const std::string &messagePath) {
    const std::locale &c = std::locale::classic();
    std::ifstream in(messagePath);
    std::string line;
    // An unopened stream fails the first getline, which is "not found".
    while (std::getline(in, line)) {
        if (line.empty())
            return "";
        if (line.size() < kHeaderLength || !boost::algorithm::iequals(line.substr(0, kHeaderLength), kHeaderName, c))
            continue;
        std::string value = line.substr(kHeaderLength);
        boost::algorithm::trim_right(value, c);
        boost::algorithm::trim_left(value, c);
        // A folded value leaves the header line blank; the continuation is
        // deliberately not joined, and no later Message-ID line is consulted.
        return value.find('\0') == std::string::npos ? value : "";
    }
    return "";
}

bool readMessageId(const std::string &messagePath, const std::string &sender,
                   const std::string &recipient, std::string &key) {
    std::string value = messageIdOf(messagePath);
    if (value.empty())
        return false;
    boost::algorithm::to_lower(value, std::locale::classic());
    key = value + " " + sender + " " + recipient;
    return true;
}
