// A whole configuration file, any bytes, read through conf_parse_file. Beyond
// memory errors, leaks and undefined behaviour: every stored pair is a proper
// name and a value cut at its comment and trimmed, and the table ends sorted
// with unique names, as the binary search of the lookups needs.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "fuzz_support.h"
#include "util/conf.h"

namespace {
bool isNameChar(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_';
}
}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    fuzz::quietLog();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static fuzz::MemoryFile file;
    file.set(data, size);
    auto *config = static_cast<RuntimeConfig *>(calloc(1, sizeof(RuntimeConfig)));
    FUZZ_CHECK(config != nullptr);
    FUZZ_CHECK(conf_parse_file(file.path().c_str(), config) == 0);
    FUZZ_CHECK(config->sorted);
    FUZZ_CHECK(config->count <= config->capacity);
    const std::string input(reinterpret_cast<const char *>(data), size);
    for (size_t i = 0; i < config->count; i++) {
        const std::string name = config->entries[i].name;
        const std::string value = config->entries[i].value;
        FUZZ_CHECK(!name.empty());
        for (char c : name)
            FUZZ_CHECK(isNameChar(c));
        FUZZ_CHECK(!value.empty() && !fuzz::hasOuterSpace(value));
        FUZZ_CHECK(value.find('#') == std::string::npos);
        FUZZ_CHECK(value.find('\n') == std::string::npos);
        FUZZ_CHECK(input.find(value) != std::string::npos);
        if (i > 0)
            FUZZ_CHECK(strcmp(config->entries[i - 1].name, config->entries[i].name) < 0);
    }
    conf_free(config);
    return 0;
}
