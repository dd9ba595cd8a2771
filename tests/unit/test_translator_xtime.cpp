// Concentrator time base: pure arithmetic, initialisation and the statistics
// translator that keeps the base in step with the forwarder's count.
#include <gtest/gtest.h>

#include <string>

#include "common/bridge_json_helpers.h"
#include "common/bridge_utils.h"
#include "converter/data/bridge_translator.h"
#include "support/test_support.h"

namespace {

constexpr uint64_t EPOCH = 0x2Aull << 48;
constexpr uint64_t WRAP = 1ull << 32;

TEST(TranslatorXtime, InitialBaseHasNonZeroEpochAndNoCounter) {
    struct {
        int draw;
        uint64_t base;
    } rows[] = {
        {0, 1ull << 48},           // a draw of 0 becomes epoch 1
        {1, 1ull << 48},
        {0xFF, 0xFFull << 48},
        {0x100, 1ull << 48},       // only the low 8 bits count
        {0x12345, 0x45ull << 48},
    };
    for (const auto &r : rows) {
        SCOPED_TRACE(r.draw);
        EXPECT_EQ(bridge_xtime_initial_base(r.draw), r.base);
        EXPECT_FALSE(bridge_xtime_is_synced(r.base));
    }
}

TEST(TranslatorXtime, InitLogsNewBaseAndIsUnsynchronised) {
    bridge_log_init(BRIDGE_LOG_INFO, true);
    bridge_bstn_xtime_set_base(static_cast<int64_t>(EPOCH | 12345));
    kes_test::StderrCapture cap;
    EXPECT_EQ(bridge_bstn_xtime_init(), 0);
    std::string log = cap.stop();
    const uint64_t base = static_cast<uint64_t>(bridge_bstn_xtime_base());
    EXPECT_FALSE(bridge_xtime_is_synced(base));
    EXPECT_NE(base >> 48, 0u);
    EXPECT_LE(base >> 48, 0xFFu);
    EXPECT_NE(log.find("bstn xtime init to: " + std::to_string(base)), std::string::npos) << log;
}

TEST(TranslatorXtime, SyncFromCount) {
    struct {
        const char *what;
        uint64_t base;
        int64_t count;
        uint64_t expected;
        bool rolled_over;
    } rows[] = {
        {"count 0 leaves unsynchronised base", EPOCH, 0, EPOCH, false},
        {"count 0 leaves synced base", EPOCH | 77, 0, EPOCH | 77, false},
        {"first sync adds count", EPOCH, 1000, EPOCH | 1000, false},
        {"first sync adds a full 32-bit count", EPOCH, 0xFFFFFFF0, EPOCH | 0xFFFFFFF0, false},
        {"forward step", EPOCH | 1000, 5000, EPOCH | 5000, false},
        {"wrap carries into bit 32", EPOCH | (WRAP - 16), 16, EPOCH + WRAP + 16, false},
        {"equal count keeps base", EPOCH | 5000, 5000, EPOCH | 5000, false},
        {"count behind: roll over adds 2^32 + d", EPOCH | 5000, 1000, EPOCH + WRAP + 1000, true},
        {"second period keeps its carry", EPOCH + 3 * WRAP + 10, 20, EPOCH + 3 * WRAP + 20, false},
        {"only the low word of count matters", EPOCH | 1000, (7ll << 32) | 2000, EPOCH | 2000, false},
    };
    for (const auto &r : rows) {
        SCOPED_TRACE(r.what);
        EXPECT_EQ(bridge_xtime_sync(r.base, r.count), r.expected);
        EXPECT_EQ(bridge_xtime_count_rolled_over(r.base, r.count), r.rolled_over);
    }
}

TEST(TranslatorXtime, UplinkTmstToXtime) {
    struct {
        const char *what;
        uint64_t base;
        int64_t tmst;
        int64_t xtime;
    } rows[] = {
        {"after the base", EPOCH | 1000000, 1500000, static_cast<int64_t>(EPOCH | 1500000)},
        {"exactly 100 ms before", EPOCH | 1000000, 900000, static_cast<int64_t>(EPOCH | 900000)},
        {"one us more than 100 ms before", EPOCH | 1000000, 899999, 0},
        {"counter wrapped after the last count", EPOCH | (WRAP - 256), 5, static_cast<int64_t>(EPOCH + WRAP + 5)},
        {"uses the carry of the base", EPOCH + 2 * WRAP + 100, 200, static_cast<int64_t>(EPOCH + 2 * WRAP + 200)},
        {"just before the base across a wrap", EPOCH + WRAP + 10, WRAP - 10,
         static_cast<int64_t>(EPOCH + WRAP - 10)},
        {"low 32 bits of tmst only", EPOCH | 1000, (1ll << 32) | 3000, static_cast<int64_t>(EPOCH | 3000)},
        {"2^31 - 1 ahead still forward", EPOCH | 0, 0x7FFFFFFF, static_cast<int64_t>(EPOCH | 0x7FFFFFFF)},
    };
    for (const auto &r : rows) {
        SCOPED_TRACE(r.what);
        int64_t x = bridge_xtime_from_tmst(r.base, r.tmst);
        EXPECT_EQ(x, r.xtime);
        if (x != 0) {
            EXPECT_EQ(static_cast<uint32_t>(x), static_cast<uint32_t>(r.tmst));
        }
    }
}

TEST(TranslatorXtime, DownlinkXtimeToTmst) {
    struct {
        int64_t xtime;
        int64_t delay;
        uint32_t tmst;
    } rows[] = {
        {1000, 1000000, 1001000},
        {static_cast<int64_t>(EPOCH | (WRAP - 500000)), 1000000, 500000},
        {static_cast<int64_t>(EPOCH + 5 * WRAP + 42), 0, 42},
        {static_cast<int64_t>(EPOCH | 0xFFFFFFFF), 2000000, 1999999},
    };
    for (const auto &r : rows) {
        SCOPED_TRACE(r.xtime);
        EXPECT_EQ(bridge_xtime_to_tmst(r.xtime, r.delay), r.tmst);
    }
}

// ---- statistics translator ---------------------------------------------------

struct StatResult {
    int rc;
    uint64_t base;
    std::string log;
    std::string out;
};

StatResult apply_stat(uint32_t version, uint64_t base, const char *stat_json) {
    bridge_log_init(BRIDGE_LOG_TRACE, true);
    bridge_bstn_xtime_set_base(static_cast<int64_t>(base));
    bridge_json_ptr stat(json_tokener_parse(stat_json));
    bridge_json_ptr out(json_object_new_object());
    EXPECT_NE(stat, nullptr);
    bridge_translate_msg from{};
    kes_test::StderrCapture cap;
    int rc = version == 1 ? bridge_translate_stat_semtech_v1_to_bstn_v1(&from, stat.get(), out.get())
                          : bridge_translate_stat_semtech_v2_to_bstn_v1(&from, stat.get(), out.get());
    std::string log = cap.stop();
    bridge_log_init(BRIDGE_LOG_ERROR, true);
    return {rc, static_cast<uint64_t>(bridge_bstn_xtime_base()), log, json_object_to_json_string(out.get())};
}

bool has(const std::string &log, const std::string &text) {
    return log.find(text) != std::string::npos;
}

TEST(TranslatorStat, CountDrivesTheBaseForBothVersions) {
    const std::string no_count = "No count value, please configure pkt fwd to report count!";
    struct {
        const char *stat;
        uint64_t base;
        uint64_t expected;
        bool no_count_msg;
        bool rollover_msg;
    } rows[] = {
        {R"({"time":"2024-01-01 00:00:00 GMT","rxnb":1})", EPOCH, EPOCH, true, false},
        {R"({"count":0})", EPOCH, EPOCH, true, false},
        {R"({"count":"abc"})", EPOCH, EPOCH, true, false},
        {R"({"count":null})", EPOCH | 5, EPOCH | 5, true, false},
        {R"({"count":123456})", EPOCH, EPOCH | 123456, false, false},
        {R"({"count":16})", EPOCH | (WRAP - 16), EPOCH + WRAP + 16, false, false},
        {R"({"count":1000})", EPOCH | 5000, EPOCH + WRAP + 1000, false, true},
        {R"({"count":5000})", EPOCH | 5000, EPOCH | 5000, false, false},
    };
    for (uint32_t version : {1u, 2u}) {
        for (const auto &r : rows) {
            SCOPED_TRACE(std::string(r.stat) + " v" + std::to_string(version));
            StatResult res = apply_stat(version, r.base, r.stat);
            EXPECT_EQ(res.rc, 0);
            EXPECT_EQ(res.base, r.expected);
            EXPECT_EQ(res.out, "{ }");
            EXPECT_EQ(has(res.log, no_count), r.no_count_msg) << res.log;
            EXPECT_EQ(has(res.log, "bstn xtime base updated: " + std::to_string(r.expected)), !r.no_count_msg)
                << res.log;
            EXPECT_EQ(has(res.log, "Gateway count roll over, count: "), r.rollover_msg) << res.log;
        }
    }
}

TEST(TranslatorStat, RollOverMessageShowsCountAndMaskedBase) {
    StatResult res = apply_stat(1, EPOCH + 2 * WRAP + 5000, R"({"count":1000})");
    EXPECT_EQ(res.base, EPOCH + 3 * WRAP + 1000);
    std::string expect = "Gateway count roll over, count: 1000, base: " + std::to_string(2 * WRAP + 5000);
    EXPECT_TRUE(has(res.log, expect)) << res.log;
}

} // namespace
