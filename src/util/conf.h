// The panel configuration file with compiled-in defaults. Parsed once per
// process on first use; values stay valid until the process ends.
#pragma once
#include <cstddef>
#include <cstdio>

enum ConfigVarId : unsigned {
    _MIN_POSSIBLE_QRN_CONF_VAR_NAME = 0,
    KAVRA_MAILNAMES_D,
    RBLSMTPD,
    CLIENT_PHP_BIN,
    LIB_CRYPTO_PATH,
    LIB_SSL_PATH,
    AWSTATS_DOC_D,
    AWSTATS_TOOLS_D,
    AWSTATS_BIN_D,
    AWSTATS_ETC_D,
    CATALINA_HOME,
    MAILMAN_VAR_D,
    MAILMAN_ROOT_D,
    PGSQL_DATA_D,
    PGSQL_BIN_D,
    MYSQL_BIN_D,
    MYSQL_VAR_D,
    WEB_STAT,
    DUMP_D,
    DUMP_TMP_D,
    NAMED_RUN_ROOT_D,
    HTTPD_SERVICE,
    HTTPD_LOG_D,
    HTTPD_INCLUDE_D,
    HTTPD_CONF_D,
    HTTPD_VHOSTS_D,
    MYSQL_SOCKET,
    SA_MAX_MAIL_SIZE,
    PRODUCT_ROOT_D,
    _MAX_POSSIBLE_QRN_CONF_VAR_NAME,
};

struct ConfigTableRow {
    const char *name;
    const char *defaultValue;
};
extern const ConfigTableRow ConfigTable[30];

struct ConfigEntry {
    char *name;
    char *value;
};

struct RuntimeConfig {
    ConfigEntry *entries;
    size_t capacity;
    size_t count;
    int sorted;
};

const char *conf_get(ConfigVarId id);
const char *conf_file_value(ConfigVarId id);
const char *conf_lookup(const char *name);
int conf_load();

// Steps of the load, exposed for tests.
int conf_parse_file(const char *path, RuntimeConfig *config);
// The same over a file already open (left open).
int conf_parse_stream(FILE *file, RuntimeConfig *config);
int conf_put(const char *name, const char *value, RuntimeConfig *config);
int conf_reserve(RuntimeConfig *config);
void conf_sort(RuntimeConfig *config);
void conf_free(RuntimeConfig *config);
void conf_cache_reset();
