// A handler's standard error, any bytes, fed to mh_read_control_chunk in the
// chunks a reader could have got (split at NUL bytes here). Beyond memory
// errors, leaks and undefined behaviour: the verdict is the one of the first
// verdict line of all chunks, and a DATA text is one trimmed line.
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "fuzz_support.h"
#include "handlers/control_lines.h"

namespace {

bool isBlank(char c) { return fuzz::isSpace(c); }

// The first verdict line of a chunk from start, or ERROR.
HandlerVerdict firstVerdict(const std::string &chunk) {
    size_t pos = 0;
    while (pos <= chunk.size()) {
        size_t end = chunk.find('\n', pos);
        std::string line = chunk.substr(pos, end == std::string::npos ? std::string::npos : end - pos);
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
    HandlerOutcome *outcome = mh_outcome_new();
    FUZZ_CHECK(outcome != nullptr);
    bool verdictSeen = false;
    HandlerVerdict expected = ERROR;
    const char *text = reinterpret_cast<const char *>(data);
    size_t start = 0;
    while (start <= size) {
        const void *nul = memchr(text + start, '\0', size - start);
        size_t end = nul ? static_cast<size_t>(static_cast<const char *>(nul) - text) : size;
        std::string chunk(text + start, end - start);
        if (expected == ERROR)
            expected = firstVerdict(chunk);
        std::vector<char> buffer(chunk.begin(), chunk.end());
        buffer.push_back('\0');
        mh_read_control_chunk(buffer.data(), outcome, &verdictSeen);
        start = end + 1;
    }
    FUZZ_CHECK(outcome->verdict == expected);
    FUZZ_CHECK(verdictSeen == (expected != ERROR));
    if (outcome->data != nullptr) {
        std::string value = outcome->data;
        FUZZ_CHECK(value.find('\n') == std::string::npos);
        FUZZ_CHECK(value.empty() || (!isBlank(value.front()) && !isBlank(value.back())));
        FUZZ_CHECK(std::string(text, size).find(value) != std::string::npos);
    }
    mh_outcome_free(outcome);
    return 0;
}
