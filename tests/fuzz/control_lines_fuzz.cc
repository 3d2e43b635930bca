// A handler's standard error, any bytes, fed to the control-channel reader in
// chunks of a size the input's first byte picks (the reads a pipe could have
// given). Beyond memory errors, leaks and undefined behaviour: the verdict is
// the one of the first verdict line of the whole text, split at newlines only
// (NUL bytes belong to their line), however it was cut; a DATA text is one
// trimmed line.
#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string>

#include "fuzz_support.h"
#include "handlers/control_lines.h"

namespace {

bool isBlank(char c) { return fuzz::isSpace(c); }

// The first verdict line of text, or ERROR.
HandlerVerdict firstVerdict(const std::string &text) {
    size_t pos = 0;
    while (pos <= text.size()) {
        size_t end = text.find('\n', pos);
        std::string line = text.substr(pos, end == std::string::npos ? std::string::npos : end - pos);
        if (line.rfind("STOP", 0) == 0)
            return STOP;
        if (line.rfind("DEFER", 0) == 0)
            return DEFER;
        if (line == "SKIP")
            return SKIP;
        if (line.rfind("REJECT", 0) == 0)
            return REJECT;
        if (end == std::string::npos)
            break;
        pos = end + 1;
    }
    return ERROR;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    fuzz::quietLog();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size == 0)
        return 0;
    size_t chunkSize = data[0] % 17 + 1;
    const char *text = reinterpret_cast<const char *>(data + 1);
    size_t length = size - 1;
    HandlerOutcome *outcome = mh_outcome_new();
    FUZZ_CHECK(outcome != nullptr);
    static ControlChannel channel;
    channel.length = 0;
    channel.verdictSeen = false;
    for (size_t start = 0; start < length; start += chunkSize)
        mh_control_read(&channel, text + start, std::min(chunkSize, length - start), outcome);
    mh_control_end(&channel, outcome);
    HandlerVerdict expected = firstVerdict(std::string(text, length));
    FUZZ_CHECK(outcome->verdict == expected);
    FUZZ_CHECK(channel.verdictSeen == (expected != ERROR));
    if (outcome->data != nullptr) {
        std::string value = outcome->data;
        FUZZ_CHECK(value.find('\n') == std::string::npos);
        FUZZ_CHECK(value.empty() || (!isBlank(value.front()) && !isBlank(value.back())));
        FUZZ_CHECK(std::string(text, length).find(value) != std::string::npos);
    }
    mh_outcome_free(outcome);
    return 0;
}
