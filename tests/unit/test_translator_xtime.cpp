// Concentrator time base: the pure arithmetic, with the local clock passed in.
#include <gtest/gtest.h>

#include "converter/data/bridge_translator.h"

namespace {

constexpr uint64_t EPOCH = 0x2Aull << 48;
constexpr uint64_t NEXT_EPOCH = 0x2Bull << 48;
constexpr uint64_t WRAP = 1ull << 32;
constexpr uint64_t S = 1000000; // one second in us
constexpr uint64_t HOURS_3 = 3 * 3600 * S;

TEST(TranslatorXtime, Observe) {
    struct {
        const char *fault;
        bridge_xtime_state before;
        uint64_t counter; // low 32 bits are what the forwarder reports
        uint64_t now_us;
        uint64_t xtime;
        bridge_xtime_change change;
        uint64_t base_after;
    } rows[] = {
        {"first observation (tmst or count) does not synchronise", {EPOCH, 0, false}, 1000, 5, EPOCH | 1000,
         BRIDGE_XTIME_SYNCED, EPOCH | 1000},
        {"count-reporting forwarder: xtime no longer base + tmst delta", {EPOCH | S, 0, true}, S + S / 2, S / 2,
         EPOCH | (S + S / 2), BRIDGE_XTIME_IN_STEP, EPOCH | (S + S / 2)},
        {"packet older than the last observation moves the base back or jumps", {EPOCH | S, 0, true}, S - 100000,
         0, EPOCH | (S - 100000), BRIDGE_XTIME_IN_STEP, EPOCH | S},
        {"queued packet 9 s behind the clock starts a new epoch", {EPOCH | S, 0, true}, S, 9 * S, EPOCH | S,
         BRIDGE_XTIME_IN_STEP, EPOCH | S},
        {"wrap between observations not carried into bit 32", {EPOCH | (WRAP - 256), 0, true}, 5, 261,
         EPOCH + WRAP + 5, BRIDGE_XTIME_IN_STEP, EPOCH + WRAP + 5},
        {"carry of earlier wraps lost", {EPOCH + 2 * WRAP + 100, 7, true}, 200, 107, EPOCH + 2 * WRAP + 200,
         BRIDGE_XTIME_IN_STEP, EPOCH + 2 * WRAP + 200},
        {"3 h of silence lands in the wrong 2^32 period", {EPOCH | 1000, 0, true}, (1000 + HOURS_3) % WRAP,
         HOURS_3, EPOCH + 1000 + HOURS_3, BRIDGE_XTIME_IN_STEP, EPOCH + 1000 + HOURS_3},
        {"3 h of silence with 2 s of clock drift", {EPOCH | 1000, 0, true}, (1000 + HOURS_3 + 2 * S) % WRAP,
         HOURS_3, EPOCH + 1000 + HOURS_3 + 2 * S, BRIDGE_XTIME_IN_STEP, EPOCH + 1000 + HOURS_3 + 2 * S},
        {"forwarder restart (counter from 0 again) keeps the old epoch", {EPOCH | 3000000000u, 0, true}, 2 * S,
         60 * S, NEXT_EPOCH | 2 * S, BRIDGE_XTIME_JUMPED, NEXT_EPOCH | 2 * S},
        {"counter 6 s ahead of the clock taken as in step", {EPOCH | S, 0, true}, 7 * S, 0, NEXT_EPOCH | 7 * S,
         BRIDGE_XTIME_JUMPED, NEXT_EPOCH | 7 * S},
        {"counter 11 s behind the clock taken as in step", {EPOCH | 20 * S, 0, true}, 9 * S, 0,
         NEXT_EPOCH | 9 * S, BRIDGE_XTIME_JUMPED, NEXT_EPOCH | 9 * S},
        {"epoch after 255 is 0", {0xFFull << 48 | 1000, 0, true}, 500, 3600 * S, 1ull << 48 | 500,
         BRIDGE_XTIME_JUMPED, 1ull << 48 | 500},
        {"48-bit counter overflows into the epoch after 8.9 years",
         {EPOCH | (BRIDGE_XTIME_COUNTER_MASK - 100), 0, true}, (BRIDGE_XTIME_COUNTER_MASK + 900) % WRAP, 1000,
         NEXT_EPOCH | ((BRIDGE_XTIME_COUNTER_MASK + 900) % WRAP), BRIDGE_XTIME_JUMPED,
         NEXT_EPOCH | ((BRIDGE_XTIME_COUNTER_MASK + 900) % WRAP)},
    };
    for (const auto &r : rows) {
        SCOPED_TRACE(r.fault);
        bridge_xtime_state s = r.before;
        const bridge_xtime_step step = bridge_xtime_observe(&s, static_cast<int64_t>(r.counter), r.now_us);
        EXPECT_EQ(static_cast<uint64_t>(step.xtime), r.xtime);
        EXPECT_EQ(step.change, r.change);
        EXPECT_EQ(s.base, r.base_after);
        EXPECT_TRUE(s.synced);
        EXPECT_EQ(static_cast<uint32_t>(step.xtime), static_cast<uint32_t>(r.counter)) << "low word is tmst";
    }
}

TEST(TranslatorXtime, EpochNumbers) {
    struct {
        const char *fault;
        int draw;
        uint64_t base;
    } draws[] = {
        {"a draw of 0 gives epoch 0 (xtime 0 is the error value)", 0, 1ull << 48},
        {"bits above the low 8 leak into the epoch", 0x12345, 0x45ull << 48},
    };
    for (const auto &r : draws) {
        SCOPED_TRACE(r.fault);
        EXPECT_EQ(bridge_xtime_initial_base(r.draw), r.base);
    }
    EXPECT_EQ(bridge_xtime_next_epoch(255), 1u) << "epoch after 255 must skip 0";
    EXPECT_EQ(bridge_xtime_next_epoch(41), 42u) << "a new epoch must differ from the old one";
}

TEST(TranslatorXtime, DownlinkTime) {
    struct {
        const char *fault;
        int64_t xtime;
        int64_t rx_delay;
        uint32_t tmst;
    } rows[] = {
        {"delay not added", 1000, 1, 1001000},
        {"RxDelay 0 sent at once instead of after 1 s, unlike dntxed", 1000, 0, 1001000},
        {"RxDelay taken as microseconds", 1000, 5, 5001000},
        {"epoch or wraps leak into tmst", static_cast<int64_t>(EPOCH | (WRAP - 500000)), 1, 500000},
    };
    for (const auto &r : rows) {
        SCOPED_TRACE(r.fault);
        EXPECT_EQ(bridge_xtime_to_tmst(r.xtime, bridge_rx_delay_us(r.rx_delay)), r.tmst);
    }
}

} // namespace
