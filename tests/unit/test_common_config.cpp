// Loading the TOML configuration: what lands where, what is refused and why, what is warned about.
#include <gtest/gtest.h>

#include <cstring>

#include "common/bridge_bstn_config.h"
#include "common/bridge_utils.h"
#include "support/test_support.h"

using kes_test::contains;

namespace {

constexpr const char *keys[] = {"uri", "uri_backup", "trust", "trust_backup", "cert", "cert_backup", "key",
                                "key_backup"};

// Every credential path names its own section and key, so a crossed table entry shows.
std::string config(const std::string &general = "gw_eui = \"::1\"", const std::string &semtech = "bind_port = 1700") {
    std::string text = "[general]\n" + general + "\n";
    for (const char *s : {"cups", "lns"}) {
        text += std::string("[") + s + "]\n";
        for (const char *k : keys) text += std::string(k) + " = \"/s/" + s + "_" + k + "\"\n";
    }
    return text + "[semtech]\n" + semtech + "\n";
}

struct Config : ::testing::Test {
    kes_test::TempDir dir;
    std::string log;
    int load_path(const std::string &path) {
        bridge_log_init(BRIDGE_LOG_WARN, true);
        memset(bridge_config_get_root(), 0, sizeof(bridge_cfg_root));
        int rc = 0;
        log = kes_test::stderr_of([&] { rc = bridge_config_process(path.c_str()); });
        return rc;
    }
    int load(const std::string &text) { return kes_test::write_file(dir.file("k"), text), load_path(dir.file("k")); }
};

TEST_F(Config, EveryKeyLandsInItsOwnField) {
    ASSERT_EQ(load(config("gw_eui = \"::1\"\nskip_cups = true\nsummary_interval = 60\nname = \"" +
                          std::string(300, 'n') + "\"", "bind_port = 1700\nbind_address = \"127.0.0.1\"")), 0);
    const bridge_cfg_root &c = *bridge_config_get_root();
    for (auto [set, s] : {std::pair{&c.cups, "cups"}, std::pair{&c.lns, "lns"}}) {
        const char *fields[] = {set->uri, set->uri_backup, set->trust, set->trust_backup,
                                set->cert, set->cert_backup, set->key, set->key_backup};
        for (size_t i = 0; i < std::size(keys); i++)
            EXPECT_EQ(std::string(fields[i]), std::string("/s/") + s + "_" + keys[i]);
    }
    EXPECT_EQ(std::string(c.general.name), std::string(255, 'n')) << "long text not cut to its field";
    EXPECT_TRUE(c.general.skip_cups && c.general.summary_interval == 60 && c.semtech.bind_port == 1700);
    EXPECT_STREQ(c.semtech.bind_address, "127.0.0.1");
    EXPECT_EQ(log, "") << "a complete file warns";
}

TEST_F(Config, RefusalsNameTheirCause) {
    const std::string eui = "gw_eui = \"::1\"\n";
    const struct { std::string text, cause; const char *fault; } rows[] = {
        {config("gw_eui = \"\""), "gw_eui", "empty identity sent as router"},
        {config("gw_eui = \"00:16:c0:01:ff:10:a2:35\""), "00-16-c0-01-ff-10-a2-35", "error hides the accepted forms"},
        {config("gw_eui = 16"), "gw_eui", "number taken as an identity"},
        {config(eui + "skip_cups = 1"), "skip_cups", "integer taken as a bool"},
        {config(), "", "the base file refused"},
        {config(eui, "bind_port = 0"), "bind_port", "missing port passed to bind"},
        {config(eui, "bind_port = 65536"), "bind_port", "port narrowed to 16 bits"},
        {config(eui, "bind_port = \"1700\""), "bind_port", "text taken as a port"},
        {config(eui + "summary_interval = -1"), "summary_interval", "negative interval"},
        {config(eui + "summary_interval = 86401"), "summary_interval", "absurd interval"},
        {config(eui + "summary_interval = 86400"), "", "longest interval refused"},
        {config().substr(0, config().find("[semtech]")), "section semtech", "missing section passes"},
        {"[general\n", "line 1", "syntax error without its place"},
    };
    for (const auto &r : rows) {
        EXPECT_EQ(load(r.text), r.cause.empty() ? 0 : -1) << r.fault;
        EXPECT_TRUE(contains(log, "[ERROR ]") == !r.cause.empty() && contains(log, r.cause)) << r.fault << log;
    }
    for (auto [path, why] : {std::pair{dir.file("no"), ": No such file or directory"}, 
                             {dir.path(), ": Is a directory"}})
        EXPECT_TRUE(load_path(path) == -1 && contains(log, path + why)) << log;
}

TEST_F(Config, EachUnknownKeyAndSectionGetsOneWarning) {
    std::string text = config("gw_eui = \"::1\"\nskip-cups = true", "bind_port = 1\nallow_self_signed = 1\n[semtek]");
    text.insert(text.find("[lns]\n") + 6, "allow_self_signed = true\n");
    text.insert(text.find("[cups]\n") + 7, "allow_self_signed = true\n");
    ASSERT_EQ(load("top = 1\n" + text), 0) << log;
    for (const char *name : {"top", "skip-cups", "semtek", "[cups]", "[semtech]"})
        EXPECT_TRUE(contains(log, name)) << name << log;
    EXPECT_FALSE(contains(log, "[lns]")) << "allow_self_signed is an LNS key";
    size_t warnings = 0;
    for (size_t at = 0; (at = log.find("[WARN  ]", at)) != std::string::npos; ++at) ++warnings;
    EXPECT_EQ(warnings, 5u) << log;
}

TEST(GatewayEui, AcceptsTheFormsServersAccept) {
    // "::" stands for at least one group; the ID6 form has four groups.
    const struct { const char *text; bool valid; } rows[] = {
        {"0016c001ff10a235", true}, {"0016C001FF10A235", true}, {"00-16-c0-01-ff-10-a2-35", true}, {"::", true},
        {"0016:c001:ff10:a235", true}, {"16:c001:ff10:a235", true}, {"::1", true}, {"1:0:0:1", true}, {"1::", true},
        {"f::a:b", true}, {"", false}, {"0016c001ff10a23", false}, {"0016c001ff10a2355", false}, {"1:0:0", false},
        {"0016c001ff10a23g", false}, {"00-16-c0-01-ff-10-a2", false}, {"00-16-c0-01-ff-10-a2-3g", false},
        {"00-16-c0-01-ff-10-a235-", false}, {"00:16:c0:01:ff:10:a2:35", false}, {"1:0:0:0:1", false},
        {"12345::1", false}, {"1::2::3", false}, {":::1", false}, {"1:2:3::4", false}, {"::1:", false},
        {"g::1", false}, {" ::1", false}};
    for (const auto &r : rows) EXPECT_EQ(bridge_config_gw_eui_valid(r.text), r.valid) << '"' << r.text << '"';
}

} // namespace
