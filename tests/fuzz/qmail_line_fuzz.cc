// One raw .qmail line, any bytes. Beyond memory errors and undefined
// behaviour: the comment is always dropped, no value keeps the blanks around
// it (only a forward's blanks right after "&" are its own), and the kind
// agrees with the characters that chose it.
#include <cstdint>
#include <string>

#include "dotqmail/qmail_file.h"
#include "fuzz_support.h"

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    fuzz::quietLog();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    const std::string raw(reinterpret_cast<const char *>(data), size);
    const QmailLine line = parseQmailLine(raw);
    const std::string uncommented = raw.substr(0, raw.find('#'));
    const std::string &v = line.value;

    FUZZ_CHECK(v.find('#') == std::string::npos);
    FUZZ_CHECK(uncommented.find(v) != std::string::npos);
    size_t first = 0;
    while (first < uncommented.size() && fuzz::isSpace(uncommented[first]))
        first++;
    switch (line.kind) {
    case EmptyLine:
        FUZZ_CHECK(v.empty());
        FUZZ_CHECK(first == uncommented.size());
        break;
    case ProgramLine:
        FUZZ_CHECK(uncommented[first] == '|');
        FUZZ_CHECK(!fuzz::hasOuterSpace(v));
        break;
    case ForwardLine:
        FUZZ_CHECK(first < uncommented.size());
        FUZZ_CHECK(v.empty() || !fuzz::isSpace(v.back()));
        if (uncommented[first] == '&') {
            FUZZ_CHECK(uncommented.compare(first + 1, v.size(), v) == 0);
        } else {
            FUZZ_CHECK(!v.empty() && !fuzz::isSpace(v.front()));
            FUZZ_CHECK(v[0] != '|' && v[0] != '.' && v[0] != '/');
        }
        break;
    case MaildirLine:
    case MboxLine:
        FUZZ_CHECK(!v.empty() && !fuzz::hasOuterSpace(v));
        FUZZ_CHECK(v[0] == '.' || v[0] == '/');
        FUZZ_CHECK((v.back() == '/') == (line.kind == MaildirLine));
        break;
    default:
        FUZZ_CHECK(!"unknown line kind");
    }
    return 0;
}
