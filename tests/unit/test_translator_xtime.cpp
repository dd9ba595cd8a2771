// Concentrator time base: the pure arithmetic, with the local clock passed in.
#include <gtest/gtest.h>

#include "converter/data/bridge_translator.h"

namespace {

constexpr uint64_t EPOCH = 0x2Aull << 48, NEXT = 0x2Bull << 48, WRAP = 1ull << 32, S = 1000000, H3 = 3 * 3600 * S;
constexpr uint64_t TOP = BRIDGE_XTIME_COUNTER_MASK;
constexpr auto STEP = BRIDGE_XTIME_IN_STEP, JUMP = BRIDGE_XTIME_JUMPED;

// Each row: state before, counter reported (low 32 bits count), local clock; the xtime the
// observation yields (also the base afterwards unless `base_after` is set) and its kind.
TEST(TranslatorXtime, ObserveAndFirstEpoch) {
    struct {
        const char *fault;
        bridge_xtime_state before;
        uint64_t counter, now_us, xtime;
        bridge_xtime_change change;
        uint64_t base_after = 0;
    } rows[] = {
        {"first observation does not synchronise", {EPOCH, 0, false}, 1000, 5, EPOCH | 1000, BRIDGE_XTIME_SYNCED},
        {"xtime no longer base + counter delta", {EPOCH | S, 0, true}, S + S / 2, S / 2, EPOCH | (S + S / 2), STEP},
        {"older packet moves the base back or jumps", {EPOCH | S, 0, true}, S - 100000, 0, EPOCH | (S - 100000), STEP,
         EPOCH | S},
        {"packet 9 s behind the clock starts a new epoch", {EPOCH | S, 0, true}, S, 9 * S, EPOCH | S, STEP},
        {"wrap not carried into bit 32, or missed by a counter ahead of the clock", {EPOCH | (WRAP - 256), 0, true}, 5,
         250, EPOCH + WRAP + 5, STEP},
        {"carry of earlier wraps lost", {EPOCH + 2 * WRAP + 100, 7, true}, 200, 107, EPOCH + 2 * WRAP + 200, STEP},
        {"3 h of silence in the wrong 2^32 period", {EPOCH | 1000, 0, true}, (1000 + H3) % WRAP, H3,
         EPOCH + 1000 + H3, STEP},
        {"3 h of silence with 2 s drift", {EPOCH | 1000, 0, true}, (1000 + H3 + 2 * S) % WRAP, H3,
         EPOCH + 1000 + H3 + 2 * S, STEP},
        {"forwarder restart keeps the old epoch", {EPOCH | 3000000000u, 0, true}, 2 * S, 60 * S, NEXT | 2 * S, JUMP},
        {"counter 6 s ahead taken as in step", {EPOCH | S, 0, true}, 7 * S, 0, NEXT | 7 * S, JUMP},
        {"counter 11 s behind taken as in step", {EPOCH | 20 * S, 0, true}, 9 * S, 0, NEXT | 9 * S, JUMP},
        {"epoch after 255 is 0", {0xFFull << 48 | 1000, 0, true}, 500, 3600 * S, 1ull << 48 | 500, JUMP},
        {"48-bit overflow not a new epoch", {EPOCH | (TOP - 100), 0, true}, (TOP + 900) % WRAP, 1000,
         NEXT | ((TOP + 900) % WRAP), JUMP},
    };
    for (const auto &r : rows) {
        SCOPED_TRACE(r.fault);
        bridge_xtime_state s = r.before;
        const bridge_xtime_step step = bridge_xtime_observe(&s, static_cast<int64_t>(r.counter), r.now_us);
        EXPECT_EQ(static_cast<uint64_t>(step.xtime), r.xtime);
        EXPECT_EQ(step.change, r.change);
        EXPECT_EQ(s.base, r.base_after ? r.base_after : r.xtime);
        EXPECT_TRUE(s.synced);
    }
    const struct { int draw; uint32_t previous; uint64_t base; const char *fault; } starts[] = {
        {0, 0, 1ull << 48, "a draw of 0 gives epoch 0 (xtime 0 is the error value)"},
        {0x12345, 0, 0x45ull << 48, "bits above the low 8 leak into the epoch"},
        {0x2A, 0x2A, 0x2Bull << 48, "a restart draws the epoch of the run before it"},
        {0, 1, 2ull << 48, "a draw of 0 after epoch 1 repeats it"},
        {0xFF, 0xFF, 1ull << 48, "epoch after 255 is 0"},
    };
    for (const auto &s : starts) EXPECT_EQ(bridge_xtime_initial_base(s.draw, s.previous), s.base) << s.fault;
}

} // namespace
