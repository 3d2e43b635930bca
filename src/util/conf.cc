// The panel configuration file ("NAME value" lines) with compiled-in defaults.
//
// Promises: conf_get never fails for a valid identifier: a missing, unreadable
// or partly malformed file falls back to the defaults, so configuration can
// never stop a delivery. The file is parsed at most once per process once it
// loads (a failed load is retried on the next lookup); afterwards every lookup
// is a binary search and every value found is cached by identifier. Returned
// strings stay valid until the process ends. Failing steps hand errno back
// unchanged.
#include "util/conf.h"

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "driver/log.h"
#include "paths.h"
#include "util/text.h"

const ConfigTableRow ConfigTable[30] = {
    {"_MIN_POSSIBLE_QRN_CONF_VAR_NAME", "_MIN_POSSIBLE_QRN_CONF_VAR_VALUE"},
    {"KAVRA_MAILNAMES_D", "/var/qmail/mailnames"},
    {"RBLSMTPD", "/usr/sbin/rblsmtpd"},
    {"CLIENT_PHP_BIN", "/usr/local/qrn/bin/php-cli"},
    {"LIB_CRYPTO_PATH", "/lib/libcrypto.so"},
    {"LIB_SSL_PATH", "/lib/libssl.so"},
    {"AWSTATS_DOC_D", "/var/www/html/awstats"},
    {"AWSTATS_TOOLS_D", "/usr/share/awstats"},
    {"AWSTATS_BIN_D", "/var/www/cgi-bin/awstats"},
    {"AWSTATS_ETC_D", "/etc/awstats"},
    {"CATALINA_HOME", "/usr/share/tomcat5"},
    {"MAILMAN_VAR_D", "/var/lib/mailman"},
    {"MAILMAN_ROOT_D", "/usr/lib/mailman"},
    {"PGSQL_DATA_D", "/var/lib/pgsql/data"},
    {"PGSQL_BIN_D", "/usr/bin"},
    {"MYSQL_BIN_D", "/usr/bin"},
    {"MYSQL_VAR_D", "/var/lib/mysql"},
    {"WEB_STAT", "/usr/bin/webalizer"},
    {"DUMP_D", "/var/lib/qrn/dumps"},
    {"DUMP_TMP_D", "/tmp"},
    {"NAMED_RUN_ROOT_D", "/var/named/run-root"},
    {"HTTPD_SERVICE", "httpd"},
    {"HTTPD_LOG_D", "/var/log/httpd"},
    {"HTTPD_INCLUDE_D", "/etc/httpd/conf.d"},
    {"HTTPD_CONF_D", "/etc/httpd/conf"},
    {"HTTPD_VHOSTS_D", "/var/www/vhosts"},
    {"MYSQL_SOCKET", "/var/lib/mysql/mysql.sock"},
    {"SA_MAX_MAIL_SIZE", "256000"},
    {"PRODUCT_ROOT_D", "/usr/local/qrn"},
    {"_MAX_POSSIBLE_QRN_CONF_VAR_NAME", "_MAX_POSSIBLE_QRN_CONF_VAR_VALUE"},
};

namespace {

const size_t kSlots = sizeof ConfigTable / sizeof ConfigTable[0];
const size_t kInitialCapacity = 20;

RuntimeConfig *runtimeConfig = nullptr;
const char *valueCache[kSlots];
bool cacheInitialised = false;

bool isNameChar(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_';
}

int compareEntries(const void *a, const void *b) {
    return strcmp(static_cast<const ConfigEntry *>(a)->name, static_cast<const ConfigEntry *>(b)->name);
}

// One line of the file: -1 only when storing a well-formed pair failed.
// Malformed lines are logged and skipped.
int parseLine(char *line, RuntimeConfig *config) {
    char *start = line;
    while (isCSpace(*start))
        start++;
    if (*start == '\0' || *start == '#')
        return 0;

    char *nameEnd = start;
    while (isNameChar(*nameEnd))
        nameEnd++;
    if (nameEnd == start || !isCSpace(*nameEnd)) {
        LogFunction(12, "Invalid variable definition %s\nExpected a space after variable name\n", start);
        return 0;
    }

    char *value = nameEnd;
    while (isCSpace(*value))
        value++;
    if (*value == '\0' || *value == '#') {
        LogFunction(12, "Invalid variable definition %s\nExpected a value", start);
        return 0;
    }

    char *valueEnd = strchr(value, '#');
    if (valueEnd == nullptr)
        valueEnd = value + strlen(value);
    while (valueEnd > value && isCSpace(valueEnd[-1]))
        valueEnd--;
    // Cut only after both messages above had the chance to show the full line.
    *nameEnd = '\0';
    *valueEnd = '\0';
    return conf_put(start, value, config);
}

}  // namespace

int conf_reserve(RuntimeConfig *config) {
    if (config->entries == nullptr) {
        config->entries = static_cast<ConfigEntry *>(calloc(kInitialCapacity, sizeof(ConfigEntry)));
        if (config->entries == nullptr) {
            errno = ENOMEM;
            return -1;
        }
        config->capacity = kInitialCapacity;
        config->count = 0;
        config->sorted = 1;
        return 0;
    }
    if (config->count < config->capacity)
        return 0;

    size_t wanted = config->capacity * 2;
    if (config->capacity > SIZE_MAX / 2 || wanted < config->count)
        wanted = config->count + kInitialCapacity;
    ConfigEntry *grown = nullptr;
    if (wanted > config->count && wanted <= SIZE_MAX / sizeof(ConfigEntry))
        grown = static_cast<ConfigEntry *>(realloc(config->entries, wanted * sizeof(ConfigEntry)));
    if (grown == nullptr) {
        LogFunction(12, "Unable to read configuration: %s", strerror(ENOMEM));
        errno = ENOMEM;
        return -1;
    }
    memset(grown + config->capacity, 0, (wanted - config->capacity) * sizeof(ConfigEntry));
    config->entries = grown;
    config->capacity = wanted;
    return 0;
}

int conf_put(const char *name, const char *value, RuntimeConfig *config) {
    if (conf_reserve(config) != 0)
        return -1;
    char *nameCopy = strdup(name);
    char *valueCopy = strdup(value);
    if (nameCopy == nullptr || valueCopy == nullptr) {
        LogFunction(12, "Unable to form configuration: %s", strerror(ENOMEM));
        free(nameCopy);
        free(valueCopy);
        errno = ENOMEM;
        return -1;
    }
    for (size_t i = 0; i < config->count; i++) {
        ConfigEntry &entry = config->entries[i];
        if (strcmp(entry.name, nameCopy) == 0) {
            free(entry.value);
            entry.value = valueCopy;
            free(nameCopy);
            return 0;
        }
    }
    config->entries[config->count++] = {nameCopy, valueCopy};
    config->sorted = 0;
    return 0;
}

void conf_sort(RuntimeConfig *config) {
    if (config->sorted)
        return;
    if (config->count > 1)
        qsort(config->entries, config->count, sizeof(ConfigEntry), compareEntries);
    config->sorted = 1;
}

void conf_free(RuntimeConfig *config) {
    if (config == nullptr)
        return;
    for (size_t i = 0; i < config->count; i++) {
        free(config->entries[i].name);
        free(config->entries[i].value);
    }
    free(config->entries);
    free(config);
}

void conf_cache_reset() {
    for (auto &slot : valueCache)
        slot = nullptr;
    cacheInitialised = true;
}

int conf_parse_file(const char *path, RuntimeConfig *config) {
    FILE *file = fopen(path, "rt");
    if (file == nullptr) {
        int saved = errno;
        LogFunction(12, "unable to open configuration file %s: %s\n", path, strerror(saved));
        errno = saved;
        return -1;
    }
    int parsed = conf_parse_stream(file, config);
    int saved = errno;
    fclose(file);
    errno = saved;
    return parsed;
}

int conf_parse_stream(FILE *file, RuntimeConfig *config) {
    if (conf_reserve(config) != 0)
        return -1;
    char *line = nullptr;
    size_t lineSize = 0;
    errno = 0;
    while (getline(&line, &lineSize, file) != -1) {
        if (parseLine(line, config) != 0) {
            int saved = errno;
            free(line);
            errno = saved;
            return -1;
        }
    }
    int saved = errno;
    conf_sort(config);
    bool complete = feof(file) && !ferror(file);
    free(line);
    if (complete)
        return 0;
    LogFunction(12, "Unable to read configuration file: %s", strerror(saved));
    errno = saved;
    return -1;
}

int conf_load() {
    if (runtimeConfig != nullptr)
        return 0;
    if (!cacheInitialised)
        conf_cache_reset();
    RuntimeConfig *config = static_cast<RuntimeConfig *>(calloc(1, sizeof(RuntimeConfig)));
    if (config == nullptr) {
        LogFunction(3, "Not enough memory to allocate Kavra runtime configuration structure");
        return -1;
    }
    if (conf_parse_file(FERNDROP_CONF_FILE, config) != 0) {
        int saved = errno;
        conf_free(config);
        errno = saved;
        return -1;
    }
    runtimeConfig = config;
    return 0;
}

const char *conf_lookup(const char *name) {
    if (runtimeConfig == nullptr && conf_load() != 0)
        return nullptr;
    const RuntimeConfig *config = runtimeConfig;
    if (config->sorted) {
        ConfigEntry key{const_cast<char *>(name), nullptr};
        auto *found = static_cast<ConfigEntry *>(
            bsearch(&key, config->entries, config->count, sizeof(ConfigEntry), compareEntries));
        return found != nullptr ? found->value : nullptr;
    }
    for (size_t i = 0; i < config->count; i++)
        if (strcmp(config->entries[i].name, name) == 0)
            return config->entries[i].value;
    return nullptr;
}

const char *conf_file_value(ConfigVarId id) {
    if (!cacheInitialised)
        conf_cache_reset();
    if (valueCache[id] != nullptr)
        return valueCache[id];
    const char *value = conf_lookup(ConfigTable[id].name);
    if (value != nullptr)
        valueCache[id] = value;
    return value;
}

const char *conf_get(ConfigVarId id) {
    const char *value = conf_file_value(id);
    return value != nullptr ? value : ConfigTable[id].defaultValue;
}
