// Contract in util/settings.h.
#include "util/settings.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "driver/log.h"
#include "paths.h"
#include "util/conf.h"

namespace {

bool isNumber(const std::string &v) {
    return !v.empty() && v.size() <= 12 && v.find_first_not_of("0123456789") == std::string::npos;
}

bool isYesNo(const std::string &v) { return v == "yes" || v == "no"; }

// One word of choices ("a|b|c").
bool isOneOf(const std::string &v, const char *choices) {
    std::string all = std::string("|") + choices + "|";
    return !v.empty() && v.find('|') == std::string::npos && all.find("|" + v + "|") != std::string::npos;
}

// A comma list of choices without repeats, in any order.
bool isListOf(const std::string &v, const char *choices) {
    if (v.empty())
        return false;
    std::vector<std::string> seen;
    size_t start = 0;
    for (;;) {
        size_t comma = v.find(',', start);
        std::string item = v.substr(start, comma == std::string::npos ? std::string::npos : comma - start);
        if (!isOneOf(item, choices))
            return false;
        for (const std::string &s : seen)
            if (s == item)
                return false;
        seen.push_back(item);
        if (comma == std::string::npos)
            return true;
        start = comma + 1;
    }
}

enum Kind { YESNO, NUMBER, CHOICE, LIST, TEXT, ROUTE };

// "lda", "lmtp:unix:/PATH" or "lmtp:inet:HOST:PORT".
bool isRoute(const std::string &v) {
    if (v == "lda")
        return true;
    if (v.compare(0, 11, "lmtp:unix:/") == 0)
        return v.size() > 11 && v.find_first_of(" \t") == std::string::npos;
    if (v.compare(0, 10, "lmtp:inet:") != 0)
        return false;
    size_t colon = v.rfind(':');
    return colon > 10 && colon + 1 < v.size() && isNumber(v.substr(colon + 1)) &&
           v.find_first_of(" \t") == std::string::npos;
}

struct Row {
    const char *name;
    const char *defaultValue;
    Kind kind;
    const char *choices;  // CHOICE and LIST; TEXT: characters a value must not hold
};

// The table: every setting ferndrop reads, with its default. ferndrop(8)
// documents each and debian/ferndrop.conf ships each commented out.
const Row kRows[] = {
    {"allow_program_lines", "yes", YESNO, nullptr},
    {"allowed_paths", "none", TEXT, " \t,"},
    {"child_time_limit", "600", NUMBER, nullptr},
    {"confine_deliveries", "warn", CHOICE, "off|warn|on"},
    {"fold_recipient_case", "yes", YESNO, nullptr},
    {"handler_failure", "defer", CHOICE, "defer|pass"},
    {"handler_time_limit", "300", NUMBER, nullptr},
    {"handlers_fail_open", "none", TEXT, " \t"},
    {"lmtp_timeout", "60", NUMBER, nullptr},
    {"mbox_format", "mboxrd", CHOICE, "mboxrd|raw"},
    {"mbox_lock_timeout", "30", NUMBER, nullptr},
    {"mbox_locks", "fcntl,dotlock,flock", LIST, "fcntl|dotlock|flock"},
    {"qmail_owners", "none", TEXT, " \t"},
    {"recipient_delimiter", "+", TEXT, "@/ \t"},
    {"run_time_limit", "900", NUMBER, nullptr},
    {"state_max_age", "864000", NUMBER, nullptr},
    {"store", "lda", ROUTE, nullptr},
    {"unknown_user", "bounce", CHOICE, "bounce|drop"},
};

bool accepts(const Row &row, const std::string &v) {
    switch (row.kind) {
    case YESNO:
        return isYesNo(v);
    case NUMBER:
        return isNumber(v);
    case CHOICE:
        return isOneOf(v, row.choices);
    case LIST:
        return v == "none" || isListOf(v, row.choices);
    case TEXT:
        return !v.empty() && v.find_first_of(row.choices) == std::string::npos;
    case ROUTE:
        return isRoute(v);
    }
    return false;
}

const size_t kRowCount = sizeof kRows / sizeof kRows[0];

// Values and sources by the row's place in the table: every run reads a few
// settings, and a keyed container cost more than the rest of the reading.
struct Loaded {
    std::string values[kRowCount];
    const char *sources[kRowCount];
};

Loaded *loaded = nullptr;

size_t rowOf(const char *name) {
    for (size_t i = 0; i < kRowCount; i++)
        if (strcmp(kRows[i].name, name) == 0)
            return i;
    LogFunction(3, "ferndrop: no setting named %s", name);
    abort();
}

void load() {
    loaded = new Loaded;
    for (size_t i = 0; i < kRowCount; i++) {
        loaded->values[i] = kRows[i].defaultValue;
        loaded->sources[i] = "default";
    }
    RuntimeConfig file{};
    // Opened here rather than by conf_parse_file, which logs a missing file:
    // here that is no error.
    FILE *stream = fopen(FERNDROP_SETTINGS_FILE, "re");
    if (stream == nullptr) {
        if (errno != ENOENT)
            LogFunction(4, "unable to read %s: %s; every setting has its default", FERNDROP_SETTINGS_FILE,
                        strerror(errno));
        return;
    }
    int parsed = conf_parse_stream(stream, &file);
    fclose(stream);
    if (parsed != 0) {
        LogFunction(4, "unable to read %s; every setting has its default", FERNDROP_SETTINGS_FILE);
        for (size_t i = 0; i < file.count; i++)
            free(file.entries[i].name), free(file.entries[i].value);
        free(file.entries);
        return;
    }
    for (size_t i = 0; i < file.count; i++) {
        const char *name = file.entries[i].name, *value = file.entries[i].value;
        const Row *row = nullptr;
        for (const Row &r : kRows)
            if (strcmp(r.name, name) == 0)
                row = &r;
        size_t at = row != nullptr ? static_cast<size_t>(row - kRows) : 0;
        if (row == nullptr) {
            LogFunction(4, "%s: unknown setting %s ignored", FERNDROP_SETTINGS_FILE, name);
        } else if (!accepts(*row, value)) {
            LogFunction(4, "%s: invalid value \"%s\" for %s; the default %s is used", FERNDROP_SETTINGS_FILE, value,
                        name, row->defaultValue);
            loaded->sources[at] = "invalid";
        } else {
            loaded->values[at] = value;
            loaded->sources[at] = "file";
        }
        free(file.entries[i].name);
        free(file.entries[i].value);
    }
    free(file.entries);
}

}  // namespace

const std::string &settingText(const char *name) {
    size_t at = rowOf(name);
    if (loaded == nullptr)
        load();
    return loaded->values[at];
}

long long settingNumber(const char *name) { return strtoll(settingText(name).c_str(), nullptr, 10); }

bool settingYes(const char *name) { return settingText(name) == "yes"; }

std::vector<std::string> settingList(const char *name) {
    const std::string &v = settingText(name);
    std::vector<std::string> items;
    if (v == "none")
        return items;
    size_t start = 0;
    for (size_t comma; (comma = v.find(',', start)) != std::string::npos; start = comma + 1)
        items.push_back(v.substr(start, comma - start));
    items.push_back(v.substr(start));
    return items;
}

std::vector<SettingInEffect> settingsInEffect() {
    if (loaded == nullptr)
        load();
    std::vector<SettingInEffect> all;
    for (size_t i = 0; i < kRowCount; i++)
        all.push_back({kRows[i].name, loaded->values[i], loaded->sources[i]});
    return all;
}

void settingsReset() {
    delete loaded;
    loaded = nullptr;
}
