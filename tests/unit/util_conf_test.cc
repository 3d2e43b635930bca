// The configuration file reader: which lines define what, which are refused
// with which message, how the entry array grows, and the defaults.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <map>

#include "paths.h"
#include "test_support.h"
#include "util/conf.h"

namespace {

const std::string kNoSpace = "\nExpected a space after variable name\n";
const std::string kNoValue = "\nExpected a value";

struct Parsed {
    int result = -1;
    int error = 0;
    RuntimeConfig *config = nullptr;
    std::map<std::string, std::string> values;

    ~Parsed() { conf_free(config); }
};

void parseText(const std::string &text, Parsed &parsed) {
    ScratchDir dir;
    writeFile(dir / "qrn.conf", text);
    parsed.config = static_cast<RuntimeConfig *>(calloc(1, sizeof(RuntimeConfig)));
    errno = 0;
    parsed.result = conf_parse_file((dir / "qrn.conf").c_str(), parsed.config);
    parsed.error = errno;
    for (size_t i = 0; i < parsed.config->count; i++)
        parsed.values[parsed.config->entries[i].name] = parsed.config->entries[i].value;
}

TEST(ConfParse, AcceptedLinesAndTheirValues) {
    LogCapture log;
    Parsed p;
    parseText("KAVRA_MAILNAMES_D /first\n"
              "TAB_SEPARATED\t/srv/tab\n"
              "KAVRA_MAILNAMES_D /var/qmail/mailnames\n"  // the later definition wins
              "  \t INDENTED   spaced out value  \n"
              "COMMENTED /srv/commented \t # the old one was /srv/old\n"
              "JOINED_COMMENT /srv/joined#comment\n"
              "CRLF /srv/crlf\r\n"
              "kavra_mailnames_d lower-case is another name\n"
              "_under_9 x\n"
              "NO_NEWLINE_AT_END last",
              p);
    ASSERT_EQ(p.result, 0);
    EXPECT_TRUE(log.lines().empty()) << log.dump();
    std::map<std::string, std::string> expected = {
        {"KAVRA_MAILNAMES_D", "/var/qmail/mailnames"},
        {"TAB_SEPARATED", "/srv/tab"},
        {"INDENTED", "spaced out value"},
        {"COMMENTED", "/srv/commented"},
        {"JOINED_COMMENT", "/srv/joined"},
        {"CRLF", "/srv/crlf"},
        {"kavra_mailnames_d", "lower-case is another name"},
        {"_under_9", "x"},
        {"NO_NEWLINE_AT_END", "last"},
    };
    EXPECT_EQ(p.values, expected);
    EXPECT_EQ(p.config->count, expected.size());
}

TEST(ConfParse, RejectedLinesAreLoggedAndSkipped) {
    LogCapture log;
    Parsed p;
    parseText("# a comment\n"
              "\n"
              "   \t\n"
              "   # indented comment\n"
              "KAVRA_MAILNAMES_D=/srv/mail\n"
              "  MY-NAME value\n"
              "-leading dash\n"
              "KAVRA_MAILNAMES_D\n"
              "NAME_ONLY_WITH_COMMENT   # nothing here\n"
              "NAME_AT_END_OF_FILE",
              p);
    ASSERT_EQ(p.result, 0);
    EXPECT_TRUE(p.values.empty());
    std::vector<LoggedLine> expected = {
        {12, "Invalid variable definition KAVRA_MAILNAMES_D=/srv/mail\n" + kNoSpace},
        {12, "Invalid variable definition MY-NAME value\n" + kNoSpace},
        {12, "Invalid variable definition -leading dash\n" + kNoSpace},
        {12, "Invalid variable definition KAVRA_MAILNAMES_D\n" + kNoValue},
        {12, "Invalid variable definition NAME_ONLY_WITH_COMMENT   # nothing here\n" + kNoValue},
        // Without a line feed nothing follows the name, not even whitespace.
        {12, "Invalid variable definition NAME_AT_END_OF_FILE" + kNoSpace},
    };
    ASSERT_EQ(log.lines().size(), expected.size()) << log.dump();
    for (size_t i = 0; i < expected.size(); i++) {
        EXPECT_EQ(log.lines()[i].priority, expected[i].priority);
        EXPECT_EQ(log.lines()[i].text, expected[i].text);
    }
}

TEST(ConfParse, ManyDefinitionsGrowTheArrayAndEndSorted) {
    for (int n : {20, 21, 41, 81}) {
        SCOPED_TRACE(n);
        std::string text;
        // Written in descending order so that the sort has work to do.
        for (int i = n; i > 0; i--)
            text += "VAR_" + std::to_string(1000 + i) + " value" + std::to_string(i) + "\n";
        Parsed p;
        parseText(text, p);
        ASSERT_EQ(p.result, 0);
        ASSERT_EQ(p.config->count, static_cast<size_t>(n));
        size_t capacity = n <= 20 ? 20 : n <= 40 ? 40 : n <= 80 ? 80 : 160;
        EXPECT_EQ(p.config->capacity, capacity);
        EXPECT_TRUE(p.config->sorted);
        for (int i = 1; i <= n; i++)
            EXPECT_EQ(p.values["VAR_" + std::to_string(1000 + i)], "value" + std::to_string(i));
        for (size_t i = 1; i < p.config->count; i++)
            EXPECT_LT(strcmp(p.config->entries[i - 1].name, p.config->entries[i].name), 0);
    }
}

TEST(ConfParse, MissingFileAndReadErrorFailWithTheirErrno) {
    ScratchDir dir;
    {
        LogCapture log;
        RuntimeConfig *config = static_cast<RuntimeConfig *>(calloc(1, sizeof(RuntimeConfig)));
        std::string path = dir / "absent.conf";
        errno = 0;
        EXPECT_EQ(conf_parse_file(path.c_str(), config), -1);
        EXPECT_EQ(errno, ENOENT);
        EXPECT_TRUE(log.contains(12, "unable to open configuration file " + path + ": No such file or directory\n"))
            << log.dump();
        conf_free(config);
    }
    {
        // A directory opens as a stream but cannot be read.
        LogCapture log;
        RuntimeConfig *config = static_cast<RuntimeConfig *>(calloc(1, sizeof(RuntimeConfig)));
        errno = 0;
        EXPECT_EQ(conf_parse_file(dir.path().c_str(), config), -1);
        EXPECT_EQ(errno, EISDIR);
        EXPECT_TRUE(log.contains(12, "Unable to read configuration file: Is a directory")) << log.dump();
        conf_free(config);
    }
}

TEST(ConfEntries, PutAppendsOrReplacesAndSortIsByBytes) {
    RuntimeConfig *config = static_cast<RuntimeConfig *>(calloc(1, sizeof(RuntimeConfig)));
    ASSERT_EQ(conf_put("b", "1", config), 0);
    EXPECT_FALSE(config->sorted);
    ASSERT_EQ(conf_put("_", "2", config), 0);
    ASSERT_EQ(conf_put("B", "3", config), 0);
    conf_sort(config);
    EXPECT_TRUE(config->sorted);
    ASSERT_EQ(config->count, 3u);
    EXPECT_STREQ(config->entries[0].name, "B");
    EXPECT_STREQ(config->entries[1].name, "_");
    EXPECT_STREQ(config->entries[2].name, "b");
    ASSERT_EQ(conf_put("_", "replaced", config), 0);
    EXPECT_EQ(config->count, 3u);
    EXPECT_TRUE(config->sorted) << "replacing a value keeps the order";
    EXPECT_STREQ(config->entries[1].value, "replaced");
    conf_free(config);
    conf_free(nullptr);
}

// The process-wide configuration reads the compiled-in path, which the unit
// tests must not create; the end-to-end tests cover a present file.
TEST(ConfGet, WithoutTheFileEveryLookupTriesAgainAndDefaultsApply) {
    struct stat st;
    if (stat(FERNDROP_CONF_FILE, &st) == 0)
        GTEST_SKIP() << FERNDROP_CONF_FILE << " exists on this host";
    LogCapture log;
    EXPECT_STREQ(conf_get(KAVRA_MAILNAMES_D), "/var/qmail/mailnames");
    EXPECT_STREQ(conf_get(KAVRA_MAILNAMES_D), "/var/qmail/mailnames");
    EXPECT_EQ(conf_lookup("KAVRA_MAILNAMES_D"), nullptr);
    EXPECT_EQ(conf_load(), -1);
    std::string message = std::string("unable to open configuration file ") + FERNDROP_CONF_FILE +
                          ": No such file or directory\n";
    ASSERT_EQ(log.lines().size(), 4u) << log.dump();
    for (const auto &line : log.lines()) {
        EXPECT_EQ(line.priority, 12);
        EXPECT_EQ(line.text, message);
    }
}

}  // namespace
