// An LMTP server's bytes, any of them, parsed as replies one after another,
// as the client reads them. Beyond memory errors and undefined behaviour: a
// reply takes whole lines only and never more than it was given, its code is
// 200..599 and the same on every line, and its enhanced code (when there is
// one) starts with the code's class.
#include <cstdint>
#include <cstdlib>
#include <string>

#include "store/lmtp.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    std::string bytes(reinterpret_cast<const char *>(data), size);
    size_t at = 0;
    while (at < bytes.size()) {
        LmtpReply reply;
        long took = lmtpParseReply(bytes.data() + at, bytes.size() - at, reply);
        if (took <= 0)
            break;
        if (static_cast<size_t>(took) > bytes.size() - at || bytes[at + took - 1] != '\n')
            abort();
        if (reply.code < 200 || reply.code > 599)
            abort();
        if (!reply.enhanced.empty() && reply.enhanced[0] != static_cast<char>('0' + reply.code / 100))
            abort();
        at += static_cast<size_t>(took);
    }
    return 0;
}
