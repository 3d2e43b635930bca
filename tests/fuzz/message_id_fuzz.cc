// A whole message, any bytes, scanned by readMessageId. Beyond memory errors
// and undefined behaviour: a key is the trimmed, lower-cased value of a line
// of the header (continuations joined; "-" without one) followed by " sender
// recipient" and the 32-digit digest, and it holds no NUL byte,
// since the delivery-state database takes keys as C strings (a cut key would
// lose the sender and recipient that keep deliveries apart).
#include <algorithm>
#include <cstdint>
#include <string>

#include "fuzz_support.h"
#include "state/message_id.h"

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    fuzz::quietLog();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static fuzz::MemoryFile file;
    static const std::string sender = "Sender@Example.ORG";
    static const std::string recipient = "Rcpt@Example.COM";
    file.set(data, size);
    std::string key;
    if (!readMessageId(file.path(), sender, recipient, key))
        return 0;

    // The digest closes the key: a blank and 32 hex digits.
    FUZZ_CHECK(key.size() > 33 && key[key.size() - 33] == ' ');
    FUZZ_CHECK(key.find_first_not_of("0123456789abcdef", key.size() - 32) == std::string::npos);
    key.resize(key.size() - 33);
    const std::string tail = " " + sender + " " + recipient;
    FUZZ_CHECK(key.size() > tail.size());
    FUZZ_CHECK(key.compare(key.size() - tail.size(), tail.size(), tail) == 0);
    const std::string id = key.substr(0, key.size() - tail.size());
    FUZZ_CHECK(!fuzz::hasOuterSpace(id));
    FUZZ_CHECK(id.find('\n') == std::string::npos);
    FUZZ_CHECK(id.find('\0') == std::string::npos);
    for (char c : id)
        FUZZ_CHECK(c < 'A' || c > 'Z');
    if (id == "-")
        return 0;

    // The value comes from before the first empty (or CR-only) line, its
    // continuation lines joined.
    std::string lowered(reinterpret_cast<const char *>(data), size);
    for (char &c : lowered)
        if (c >= 'A' && c <= 'Z')
            c = static_cast<char>(c - 'A' + 'a');
    size_t headerEnd = lowered.rfind('\n', 0) == 0 || lowered.rfind("\r\n", 0) == 0
                           ? 0 : std::min(lowered.find("\n\n"), lowered.find("\n\r\n"));
    size_t at = lowered.find("message-id:");
    FUZZ_CHECK(at != std::string::npos && at < headerEnd);
    std::string unfolded;
    for (size_t i = at; i < std::min(headerEnd, size); i++) {
        size_t next = lowered[i] == '\r' && i + 1 < size && lowered[i + 1] == '\n' ? i + 2 : lowered[i] == '\n' ? i + 1 : 0;
        if (next != 0 && next < size && (lowered[next] == ' ' || lowered[next] == '\t'))
            i = next - 1;
        else
            unfolded += lowered[i];
    }
    FUZZ_CHECK(unfolded.find(id) != std::string::npos);
    return 0;
}
