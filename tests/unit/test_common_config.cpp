// Loading the TOML configuration into the process-wide record.
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <unistd.h>
#include <vector>

#include <gtest/gtest.h>

#include "common/bridge_bstn_config.h"
#include "common/bridge_utils.h"
#include "support/test_support.h"

namespace {

bool contains(const std::string &haystack, const std::string &needle) {
    return haystack.find(needle) != std::string::npos;
}

std::string trace_line(const char *section, const char *key, const std::string &value) {
    char line[256];
    snprintf(line, sizeof(line), "cfg section: [%-25s] entry: [%-25s] -> %s\n", section, key, value.c_str());
    return line;
}

const char *const kFullConfig = R"([general]
gw_eui = "00-16-c0-01-ff-10-a2-35"
name = "gw-1"
model = "kg-200"
package = "pkg-3"
fw_version = "2.0.1"
skip_cups = true

[cups]
uri = "/etc/kes/cups.uri"
uri_backup = "/etc/kes/cups.uri.bak"
trust = "/etc/kes/cups.trust"
trust_backup = "/etc/kes/cups.trust.bak"
cert = "/etc/kes/cups.crt"
cert_backup = "/etc/kes/cups.crt.bak"
key = "/etc/kes/cups.key"
key_backup = "/etc/kes/cups.key.bak"

[lns]
uri = "/etc/kes/tc.uri"
uri_backup = "/etc/kes/tc.uri.bak"
trust = "/etc/kes/tc.trust"
trust_backup = "/etc/kes/tc.trust.bak"
cert = "/etc/kes/tc.crt"
cert_backup = "/etc/kes/tc.crt.bak"
key = "/etc/kes/tc.key"
key_backup = "/etc/kes/tc.key.bak"

[semtech]
bind_port = 1700
)";

class ConfigTest : public ::testing::Test {
protected:
    void SetUp() override {
        // Loading keeps earlier values for keys a file lacks: start every test from zero.
        memset(bridge_config_get_root(), 0, sizeof(bridge_cfg_root));
        bridge_log_init(BRIDGE_LOG_TRACE, true);
    }
    void TearDown() override { bridge_log_init(BRIDGE_LOG_INFO, true); }

    int load(const std::string &toml) {
        const std::string path = dir.file("bstn.toml");
        kes_test::write_file(path, toml);
        kes_test::StderrCapture cap;
        const int rc = bridge_config_process(path.c_str());
        log = cap.stop();
        return rc;
    }

    kes_test::TempDir dir;
    std::string log;
};

TEST_F(ConfigTest, FullFileFillsEveryField) {
    ASSERT_EQ(load(kFullConfig), 0) << log;
    const bridge_cfg_root *cfg = bridge_config_get_root();
    EXPECT_STREQ(cfg->general.gw_eui, "00-16-c0-01-ff-10-a2-35");
    EXPECT_STREQ(cfg->general.name, "gw-1");
    EXPECT_STREQ(cfg->general.model, "kg-200");
    EXPECT_STREQ(cfg->general.package, "pkg-3");
    EXPECT_STREQ(cfg->general.fw_version, "2.0.1");
    EXPECT_TRUE(cfg->general.skip_cups);
    EXPECT_STREQ(cfg->cups.uri, "/etc/kes/cups.uri");
    EXPECT_STREQ(cfg->cups.key_backup, "/etc/kes/cups.key.bak");
    EXPECT_STREQ(cfg->cups.trust_backup, "/etc/kes/cups.trust.bak");
    EXPECT_STREQ(cfg->lns.uri, "/etc/kes/tc.uri");
    EXPECT_STREQ(cfg->lns.cert, "/etc/kes/tc.crt");
    EXPECT_STREQ(cfg->lns.key_backup, "/etc/kes/tc.key.bak");
    EXPECT_EQ(cfg->semtech.bind_port, 1700);
    EXPECT_TRUE(contains(log, "processing configuration file: " + dir.file("bstn.toml") + "\n"));

    // Every entry is printed at TRACE, in table order, with the exact layout.
    const char *order[][2] = {
        {"general", "gw_eui"}, {"general", "name"},      {"general", "model"},     {"general", "package"},
        {"general", "fw_version"}, {"general", "skip_cups"}, {"cups", "uri"},   {"cups", "uri_backup"},
        {"cups", "trust"},     {"cups", "trust_backup"}, {"cups", "cert"},      {"cups", "cert_backup"},
        {"cups", "key"},       {"cups", "key_backup"},   {"lns", "uri"},        {"lns", "uri_backup"},
        {"lns", "trust"},      {"lns", "trust_backup"},  {"lns", "cert"},       {"lns", "cert_backup"},
        {"lns", "key"},        {"lns", "key_backup"},    {"semtech", "bind_port"}};
    size_t pos = 0;
    for (const auto &e : order) {
        char head[128];
        snprintf(head, sizeof(head), "cfg section: [%-25s] entry: [%-25s] -> ", e[0], e[1]);
        const size_t at = log.find(head, pos);
        ASSERT_NE(at, std::string::npos) << e[0] << "." << e[1];
        pos = at + 1;
    }
    EXPECT_TRUE(contains(log, "[TRACE ]"));
    EXPECT_TRUE(contains(log, trace_line("general", "gw_eui", "00-16-c0-01-ff-10-a2-35")));
    EXPECT_TRUE(contains(log, trace_line("general", "skip_cups", "1")));
    EXPECT_TRUE(contains(log, trace_line("semtech", "bind_port", "1700")));
}

TEST_F(ConfigTest, TablesWithoutKeysLoadButMissingPortIsRefused) {
    EXPECT_EQ(load("[general]\n[cups]\n[lns]\n[semtech]\n"), -1);
    const bridge_cfg_root *cfg = bridge_config_get_root();
    EXPECT_STREQ(cfg->general.gw_eui, "");
    EXPECT_STREQ(cfg->lns.uri, "");
    EXPECT_FALSE(cfg->general.skip_cups);
    EXPECT_EQ(cfg->semtech.bind_port, 0);
    EXPECT_TRUE(contains(log, "[DEBUG ]"));
    EXPECT_TRUE(contains(log, "parameter gw_eui is missing in the configuration file\n"));
    EXPECT_TRUE(contains(log, "parameter key_backup is missing in the configuration file\n"));
    EXPECT_TRUE(contains(log, trace_line("general", "skip_cups", "0")));
    EXPECT_TRUE(contains(log, "invalid bind_port value: 0, expected 1..65535\n")) << log;

    // The same file with only a port is a valid configuration.
    EXPECT_EQ(load("[general]\n[cups]\n[lns]\n[semtech]\nbind_port = 1680\n"), 0) << log;
    EXPECT_FALSE(contains(log, "[ERROR ]")) << log;
}

TEST_F(ConfigTest, BindPortOutsideOneTo65535IsRefusedAfterThePrint) {
    const struct {
        const char *line;
        int rc;
        const char *shown;
    } rows[] = {
        {"bind_port = 0", -1, "0"},          {"bind_port = -1", -1, "-1"},
        {"bind_port = 70000", -1, "70000"},  {"bind_port = 65536", -1, "65536"},
        {"", -1, "0"},                       {"bind_port = 1", 0, nullptr},
        {"bind_port = 65535", 0, nullptr},   {"bind_port = -9223372036854775808", -1, "-9223372036854775808"},
    };
    for (const auto &r : rows) {
        SetUp();
        EXPECT_EQ(load(std::string("[general]\n[cups]\n[lns]\n[semtech]\n") + r.line + "\n"), r.rc) << r.line;
        const std::string refusal =
            r.shown ? std::string("invalid bind_port value: ") + r.shown + ", expected 1..65535\n" : "invalid bind_port";
        const size_t at = log.find(refusal);
        EXPECT_EQ(at != std::string::npos, r.rc != 0) << r.line << "\n" << log;
        if (at != std::string::npos) {
            EXPECT_LT(log.find("entry: [bind_port"), at) << "entries are printed before the refusal";
            EXPECT_TRUE(contains(log.substr(log.rfind('\n', at - 1) + 1), "[ERROR ]"));
        }
    }
}

TEST_F(ConfigTest, MissingSectionIsAnErrorAndEarlierValuesStay) {
    std::string text = kFullConfig;
    text = text.substr(0, text.find("[semtech]"));
    EXPECT_EQ(load(text), -1);
    EXPECT_TRUE(contains(log, "section semtech is missing in the configuration file\n")) << log;
    EXPECT_STREQ(bridge_config_get_root()->general.gw_eui, "00-16-c0-01-ff-10-a2-35");
    EXPECT_FALSE(contains(log, "cfg section:")) << "nothing is printed after a failure";

    // A key of the same name is not a table.
    SetUp();
    EXPECT_EQ(load("general = 1\n[cups]\n[lns]\n[semtech]\nbind_port = 1\n"), -1);
    EXPECT_TRUE(contains(log, "section general is missing in the configuration file\n")) << log;
}

TEST_F(ConfigTest, ValuesOfTheWrongTomlTypeAreRefused) {
    const struct {
        const char *section;
        const char *line;
        const char *key;
        bool string_message;
    } rows[] = {
        {"semtech", "bind_port = \"1700\"", "bind_port", false},
        {"semtech", "bind_port = 1700.0", "bind_port", false},
        {"semtech", "bind_port = true", "bind_port", false},
        {"general", "skip_cups = \"true\"", "skip_cups", false},
        {"general", "skip_cups = 1", "skip_cups", false},
        {"general", "gw_eui = 123", "gw_eui", true},
        {"general", "gw_eui = false", "gw_eui", true},
        {"lns", "uri = [\"a\"]", "uri", true},
        {"cups", "key = { a = 1 }", "key", true},
    };
    for (const auto &r : rows) {
        SetUp();
        std::string text;
        for (const char *s : {"general", "cups", "lns", "semtech"}) {
            text += std::string("[") + s + "]\n";
            if (strcmp(s, r.section) == 0)
                text += std::string(r.line) + "\n";
            else if (strcmp(s, "semtech") == 0)
                text += "bind_port = 1700\n";
        }
        EXPECT_EQ(load(text), -1) << r.line;
        const std::string parse_msg = std::string("failed to parse parameter: ") + r.key + "\n";
        const std::string alloc_msg = std::string("failed to allocate TOML string for parameter: ") + r.key + "\n";
        const size_t parse_at = log.find(parse_msg);
        EXPECT_NE(parse_at, std::string::npos) << r.line << "\n" << log;
        EXPECT_EQ(contains(log, alloc_msg), r.string_message) << r.line;
        if (r.string_message) {
            EXPECT_LT(log.find(alloc_msg), parse_at) << r.line;
        }
    }
}

TEST_F(ConfigTest, LongTextsAreCutTo255Characters) {
    const std::string long_uri(300, 'u');
    std::string text = kFullConfig;
    text.replace(text.find("/etc/kes/tc.uri\""), strlen("/etc/kes/tc.uri"), long_uri);
    ASSERT_EQ(load(text), 0) << log;
    EXPECT_EQ(std::string(bridge_config_get_root()->lns.uri), long_uri.substr(0, 255));
    EXPECT_EQ(bridge_config_get_root()->lns.uri_backup[0], '/') << "neighbouring field intact";
    EXPECT_FALSE(contains(log, "[ERROR ]"));

    // Exactly 255 characters fit untouched.
    text = kFullConfig;
    text.replace(text.find("00-16-c0-01-ff-10-a2-35"), 23, std::string(255, 'e'));
    ASSERT_EQ(load(text), 0) << log;
    EXPECT_EQ(std::string(bridge_config_get_root()->general.gw_eui), std::string(255, 'e'));
}

TEST_F(ConfigTest, UnknownKeysAndTablesAreIgnored) {
    std::string text = kFullConfig;
    text += "extra = 5\n\n[other]\nx = \"y\"\n";
    text.insert(text.find("[cups]"), "colour = \"blue\"\n\n");
    ASSERT_EQ(load(text), 0) << log;
    EXPECT_FALSE(contains(log, "colour"));
    EXPECT_EQ(bridge_config_get_root()->semtech.bind_port, 1700);
}

TEST_F(ConfigTest, UnreadableOrInvalidFilesFail) {
    kes_test::StderrCapture cap;
    const std::string missing = dir.file("none.toml");
    EXPECT_EQ(bridge_config_process(missing.c_str()), -1);
    log = cap.stop();
    EXPECT_TRUE(contains(log, "[ERROR ]"));
    EXPECT_TRUE(contains(log, "failed to open configuration file\n")) << log;

    kes_test::StderrCapture cap2;
    EXPECT_EQ(bridge_config_process(dir.path().c_str()), -1) << "a folder cannot be read";
    EXPECT_TRUE(contains(cap2.stop(), "failed to open configuration file\n"));

    EXPECT_EQ(load("[general]\ngw_eui = \"unterminated\n[semtech]\n"), -1);
    EXPECT_TRUE(contains(log, "failed to parse configuration file: ")) << log;
    EXPECT_TRUE(contains(log, "(line 2, column")) << log;

    EXPECT_EQ(load("[general]\n[general]\n"), -1) << "a table defined twice";
    EXPECT_TRUE(contains(log, "failed to parse configuration file: ")) << log;
}

// A table of the test's own exercises the entry types the daemon's table does not use.
TEST_F(ConfigTest, SecretAndDoubleEntriesAndPresenceFlags) {
    char secret[8] = {};
    double ratio = 0;
    double whole = 0;
    int64_t count = 0;
    bool secret_set = false, ratio_set = true, count_set = false;
    const bridge_cfg_entry entries[] = {
        {BRIDGE_CFG_TYPE_SECRET_STR, {.str_ptr = secret}, sizeof(secret), &secret_set, "password"},
        {BRIDGE_CFG_TYPE_DOUBLE, {.dbl_ptr = &ratio}, 0, &ratio_set, "ratio"},
        {BRIDGE_CFG_TYPE_DOUBLE, {.dbl_ptr = &whole}, 0, nullptr, "whole"},
        {BRIDGE_CFG_TYPE_INT, {.int_ptr = &count}, 0, &count_set, "count"},
    };
    const bridge_cfg_section sections[] = {{"t", entries, 4}};
    const std::string path = dir.file("t.toml");

    kes_test::write_file(path, "[t]\npassword = \"s3cr3t-long\"\nwhole = 3\ncount = 12\n");
    kes_test::StderrCapture cap;
    ASSERT_EQ(bridge_config_load(path.c_str(), sections, 1), 0);
    log = cap.stop();
    EXPECT_STREQ(secret, "s3cr3t-");
    EXPECT_TRUE(secret_set);
    EXPECT_FALSE(ratio_set) << "cleared for a missing key";
    EXPECT_TRUE(count_set);
    EXPECT_EQ(whole, 3.0);
    EXPECT_EQ(count, 12);
    EXPECT_TRUE(contains(log, trace_line("t", "password", "<hidden>"))) << log;
    EXPECT_FALSE(contains(log, "s3cr3t")) << "a secret never reaches the log";
    EXPECT_TRUE(contains(log, trace_line("t", "ratio", "0.000000")));
    EXPECT_TRUE(contains(log, trace_line("t", "whole", "3.000000")));
    EXPECT_TRUE(contains(log, trace_line("t", "count", "12")));

    kes_test::write_file(path, "[t]\nratio = 0.25\n");
    ASSERT_EQ(bridge_config_load(path.c_str(), sections, 1), 0);
    EXPECT_EQ(ratio, 0.25);
    EXPECT_TRUE(ratio_set);

    for (const char *bad : {"[t]\npassword = 5\n", "[t]\nratio = \"0.5\"\n", "[t]\nratio = true\n"}) {
        kes_test::write_file(path, bad);
        kes_test::StderrCapture cap2;
        EXPECT_EQ(bridge_config_load(path.c_str(), sections, 1), -1) << bad;
        EXPECT_TRUE(contains(cap2.stop(), "failed to parse parameter: ")) << bad;
    }
}

TEST_F(ConfigTest, NullPathAborts) {
    EXPECT_EXIT(
        {
            dup2(STDERR_FILENO, STDOUT_FILENO);
            bridge_config_process(nullptr);
        },
        ::testing::KilledBySignal(SIGABRT), "Assertion failed: \\( cfg_file \\)");
}

} // namespace
