// The common modules: the logger (level filter, syslog priorities), the repeat limiter and the summary
// line; the text file reader and Base64; reading one field through a JSON field frame; loading the TOML
// configuration (what lands where, what is refused and why, what is warned about). CRC-32 is checked by
// the CUPS exchange, hex texts and absent JSON fields by the translators.
// <syslog.h> names clash with the logging macros: take its numbers first.
#include <syslog.h>
namespace {
constexpr int SYS_ERR = LOG_ERR, SYS_WARNING = LOG_WARNING, SYS_INFO = LOG_INFO, SYS_DEBUG = LOG_DEBUG;
}
#undef LOG_INFO
#undef LOG_DEBUG

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <vector>

#include "common/base64.h"
#include "common/bridge_bstn_config.h"
#include "common/bridge_health.h"
#include "common/bridge_json_helpers.h"
#include "common/bridge_utils.h"
#include "support/test_support.h"

namespace {

using kes_test::contains;

TEST(LogTest, SyslogPriorityFollowsTheLevel) {
    const struct { unsigned level; int priority; } rows[] = {
        {BRIDGE_LOG_ERROR, SYS_ERR}, {BRIDGE_LOG_WARN, SYS_WARNING}, {BRIDGE_LOG_INFO, SYS_INFO},
        {BRIDGE_LOG_DEBUG, SYS_DEBUG}, {BRIDGE_LOG_TRACE, SYS_DEBUG}, {99, SYS_DEBUG}};
    for (const auto &r : rows) EXPECT_EQ(bridge_log_syslog_priority(r.level), r.priority) << r.level;
}

TEST(LogTest, LevelFilterErrnoTextAndLongLines) {
    for (unsigned configured = 0; configured <= 4; configured++)
        for (unsigned level = 0; level <= 5; level++) {
            bridge_log_init(configured, true);
            const std::string out = kes_test::stderr_of([&] { bridge_log_print_message(level, "f.c", 1, "x"); });
            EXPECT_EQ(!out.empty(), level <= configured) << configured << "/" << level;
        }
    bridge_log_init(BRIDGE_LOG_INFO, true);
    const std::string big(3000, 'y'), fmt = std::string(2000, 'f') + " %m %s";
    int errno_after = 0;
    const std::string out = kes_test::stderr_of([&] {
        errno = ENOENT;
        bridge_log_print_message(BRIDGE_LOG_WARN, "/src/dir/module.cpp", 42, fmt.c_str(), big.c_str());
        errno_after = errno;
    });
    EXPECT_EQ(errno_after, ENOENT) << "the caller's errno lost";
    EXPECT_TRUE(out.ends_with(" " + fmt.substr(0, 2000) + " No such file or directory " + big + "\n")) << "cut or bad";
}

TEST(LogTest, RepeatLimiterPrintsTheFirstThenOneAMinuteWithTheHeldBackCount) {
    bridge_log_limit l{};
    const struct { uint64_t now_ms; bool printed; uint32_t held_back; const char *fault; } rows[] = {
        {5, true, 0, "first occurrence held back"}, {1005, false, 0, "repeats printed within the minute"},
        {60004, false, 0, "minute measured short"}, {60005, true, 2, "held-back count lost"},
        {60006, false, 0, "count not restarted"}, {200000, true, 1, "count not restarted"}};
    for (const auto &r : rows) {
        uint32_t held_back = 99;
        EXPECT_EQ(bridge_log_limit_allow(&l, r.now_ms, &held_back), r.printed) << r.fault;
        EXPECT_TRUE(!r.printed || held_back == r.held_back) << r.fault;
    }
}

TEST(LogTest, SummaryLineEveryIntervalWithItsCounters) {
    bridge_log_init(BRIDGE_LOG_INFO, true);
    bridge_health_take();
    bridge_health_set_interval(2);
    bridge_health_count(BRIDGE_CNT_UP_RECEIVED, 7);
    for (const char *error : {"TOO_LATE", "TX_POWER", "bogus"}) bridge_health_count(bridge_health_txack_counter(error));
    bridge_health_count(BRIDGE_CNT_SESSION_RESTARTS, 3);
    std::string out;
    for (uint64_t now : {1000, 2999, 3000}) {
        out += std::to_string(now) + ":" + kes_test::stderr_of([&] { bridge_health_tick(now); });
    }
    EXPECT_TRUE(contains(out, "1000:2999:3000:")) << "a summary before its interval: " << out;
    EXPECT_TRUE(contains(out, "summary of the last 2 s: uplinks received=7 forwarded=0 dropped(invalid=0 "
        "no_time_base=0 lns_refused=0); downlinks received=0 sent=0 dropped(unschedulable=0 no_forwarder=0 "
        "invalid=0 queue_full=0); tx_ack errors(TOO_LATE=1 TOO_EARLY=0 COLLISION_PACKET=0 COLLISION_BEACON=0 "
        "TX_FREQ=0 TX_POWER=1 GPS_UNLOCKED=0 other=1); session restarts=3")) << out;
}

TEST(UtilsTest, ReadTextFileFillsAtMostAllButTheTerminator) {
    kes_test::TempDir dir;
    const struct { size_t len; std::string path; int rc; const char *fault; } rows[] = {
        {0, dir.file("f"), 0, "empty file refused"}, {15, dir.file("f"), 0, "largest file that fits refused"},
        {16, dir.file("f"), -ENOBUFS, "terminator written past the buffer"},
        {26, dir.file("f"), -ENOBUFS, "long file cut silently"},
        {0, dir.file("none"), -ENOENT, "errno lost"}, {0, dir.path(), -EISDIR, "a folder read as a file"}};
    for (const auto &r : rows) {
        kes_test::write_file(dir.file("f"), std::string(r.len, 'k'));
        char buf[16];
        memset(buf, 'X', sizeof buf);
        EXPECT_EQ(bridge_utils_read_text_file_to_buf(r.path.c_str(), buf, sizeof buf), r.rc) << r.fault;
        EXPECT_TRUE(r.rc != 0 || std::string(buf) == std::string(r.len, 'k')) << r.fault;
        EXPECT_TRUE(r.rc != -ENOBUFS || buf[0] == 0) << "a cut text left in the buffer";
    }
}

// Exactly Base64decode_len bytes, so that a write past it shows under the sanitizers.
std::string decode(const std::string &text) {
    std::vector<unsigned char> out(static_cast<size_t>(Base64decode_len(text.c_str())), 'X');
    const int n = Base64decode(out.data(), text.c_str());
    EXPECT_EQ(out.at(static_cast<size_t>(n)), 0) << "no terminator after the bytes";
    return {out.begin(), out.begin() + n};
}

TEST(Base64Test, RoundTripsEveryLengthWithAndWithoutPadding) {
    for (size_t len = 0; len <= 64; len++) {
        std::string data(len, 0);
        for (size_t i = 0; i < len; i++) data[i] = static_cast<char>(i * 131 + len * 7 + 3);
        std::vector<char> text(static_cast<size_t>(Base64encode_len(static_cast<int>(len))));
        const auto *bytes = reinterpret_cast<const unsigned char *>(data.data());
        EXPECT_EQ(Base64encode(text.data(), bytes, static_cast<int>(len)), static_cast<int>(text.size()));
        EXPECT_EQ(strlen(text.data()), (len + 2) / 3 * 4) << len;
        EXPECT_EQ(decode(text.data()), data) << len;
        EXPECT_EQ(decode(std::string(text.data(), strcspn(text.data(), "="))), data) << "unpadded, " << len;
    }
}

// The alphabet and the end at the padding: the translator tables, on real frames.
TEST(Base64Test, KnownTextsAndWhereDecodingStops) {
    const struct { const char *text, *bytes, *fault; } rows[] = {
        {"+/8=", "\xfb\xff", "'+' and '/' swapped"},
        {"Zm9vY", "foo", "a lone trailing character made a byte"},
        {"-_-_", "", "URL-safe alphabet accepted"},
    };
    for (const auto &r : rows) EXPECT_EQ(decode(r.text), r.bytes) << r.fault;
}

bridge_json_ptr parse(const std::string &text) { return bridge_json_ptr(json_tokener_parse(text.c_str())); }

TEST(Json, ReadsOneFieldOrRefusesIt) {
    bridge_log_init(BRIDGE_LOG_ERROR, true);
    constexpr uint32_t I = json_type_int, D = json_type_double, B = json_type_boolean, S = json_type_string;
    const struct { const char *json; uint32_t type, size; bool optional; const char *value, *fault; } rows[] = {
        {"9223372036854775807", I, 0, false, "9223372036854775807", "64-bit value narrowed"},
        {"-2.5", I, 0, false, "-2", "double not truncated toward zero"},
        {"\"-3\"", I, 0, false, "-3", "numeric string refused"},
        {"\"12abc\"", I, 0, false, nullptr, "trailing garbage accepted (json-c alone gives 12)"},
        {"\"\"", I, 0, false, nullptr, "empty string taken as 0"},
        {"\"99999999999999999999\"", I, 0, false, nullptr, "overflowing string accepted"},
        {"{}", I, 0, false, nullptr, "object taken as a number"},
        {"\"2.5\"", D, 0, false, "2.5", "numeric string refused as a double"},
        {"\"x\"", D, 0, false, nullptr, "non-numeric text taken as a double"},
        {"2", B, 0, false, "1", "number not taken as a bool"},
        {"[true]", B, 0, false, nullptr, "array taken as a bool"},
        {"\"abc\"", S, 4, false, "abc", "size - 1 characters refused"},
        {"\"abcd\"", S, 4, false, nullptr, "overflow of the buffer"},
        {"\"abcd\"", S, 4, true, nullptr, "optional field cut instead of refused"},
        {"5", S, 4, false, "5", "number not taken as its text"},
        {"null", S, 8, false, nullptr, "null taken as a text"},
    };
    for (const auto &r : rows) {
        union { int64_t i; double d; bool b; char s[8]; } v;
        memset(&v, 'X', sizeof v);
        const bridge_json_field frame[] = {{"v", r.type, r.size, &v, r.optional}};
        const int rc = bridge_json_deserialize(parse(std::string("{\"v\": ") + r.json + "}").get(), frame);
        EXPECT_EQ(rc, r.value ? 0 : -1) << r.fault;
        if (rc != 0 || !r.value) continue;
        EXPECT_EQ(r.type == I ? std::to_string(v.i) : r.type == D ? std::to_string(v.d).substr(0, 3)
                  : r.type == B ? std::to_string(v.b) : std::string(v.s), r.value) << r.fault;
        EXPECT_TRUE(r.type != S || v.s[strlen(r.value) + 1] == 'X') << "written past the terminator";
    }
}

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
