// Converter dispatch and the concentrator time base (xtime).
#include "converter/data/bridge_translator.h"

#include <array>
#include <cstdlib>
#include <ctime>

#include "common/bridge_utils.h"

// ---- xtime base ------------------------------------------------------------

namespace {

constexpr int XTIME_EPOCH_SHIFT = 48;
constexpr uint64_t XTIME_COUNTER_WRAP = 1ull << 32;
// An uplink may claim to be this much older than the last `count` (us).
constexpr int32_t XTIME_MAX_UPLINK_AGE_US = 100000;

// Written by the statistics translator and read by the uplink translators,
// both on the dataplane's worker thread; set by init before that thread runs.
uint64_t bstn_xtime_base = 0;

// Signed distance from the low word of the base to a 32-bit counter value.
int32_t counter_delta(uint64_t base, int64_t counter) {
    return static_cast<int32_t>(static_cast<uint32_t>(counter) - static_cast<uint32_t>(base));
}

} // namespace

bool bridge_xtime_is_synced(uint64_t base) {
    return (base & BRIDGE_XTIME_COUNTER_MASK) != 0;
}

uint64_t bridge_xtime_initial_base(int draw) {
    uint64_t epoch = static_cast<uint64_t>(draw) & 0xFF;
    if (epoch == 0) epoch = 1; // 0 is the xtime error value, so never epoch 0
    return epoch << XTIME_EPOCH_SHIFT;
}

bool bridge_xtime_count_rolled_over(uint64_t base, int64_t count) {
    return count != 0 && bridge_xtime_is_synced(base) && counter_delta(base, count) < 0;
}

uint64_t bridge_xtime_sync(uint64_t base, int64_t count) {
    if (count == 0) return base;
    if (!bridge_xtime_is_synced(base)) return base + static_cast<uint64_t>(count);
    int32_t d = counter_delta(base, count);
    // A negative difference is a wrap of the 32-bit counter: carry into bit 32
    // so that the base never moves backwards.
    if (d < 0) return base + static_cast<uint64_t>(static_cast<int64_t>(d) + static_cast<int64_t>(XTIME_COUNTER_WRAP));
    return base + static_cast<uint64_t>(d);
}

int64_t bridge_xtime_from_tmst(uint64_t base, int64_t tmst) {
    int32_t diff = counter_delta(base, tmst);
    if (diff < -XTIME_MAX_UPLINK_AGE_US) return 0;
    return static_cast<int64_t>(base + static_cast<uint64_t>(static_cast<int64_t>(diff)));
}

uint32_t bridge_xtime_to_tmst(int64_t xtime, int64_t delay_us) {
    // Unsigned arithmetic: the sum is taken modulo 2^64 and only its low word matters.
    return static_cast<uint32_t>(static_cast<uint64_t>(xtime) + static_cast<uint64_t>(delay_us));
}

int bridge_bstn_xtime_init() {
    srand(static_cast<unsigned>(time(NULL)));
    bstn_xtime_base = bridge_xtime_initial_base(rand());
    LOG_INFO("bstn xtime init to: %lld", (long long)bstn_xtime_base);
    return 0;
}

int64_t bridge_bstn_xtime_base() {
    return static_cast<int64_t>(bstn_xtime_base);
}

void bridge_bstn_xtime_set_base(int64_t base) {
    bstn_xtime_base = static_cast<uint64_t>(base);
}

// ---- converter dispatch ----------------------------------------------------

namespace {

constexpr size_t TABLE_DIM = 4; // formats and versions 0..3
static_assert(DATA_TYPE_MAX < TABLE_DIM && VERSION_MAX < TABLE_DIM);

template <typename Fn>
using translator_table = std::array<std::array<std::array<Fn, TABLE_DIM>, TABLE_DIM>, TABLE_DIM>;

// Indexed [NS format][semtech version][NS version]. The kesns and ChirpStack
// slots stay empty: the network-server side is always Basics Station v1.
constexpr translator_table<bridge_translate_uplink_fn> uplink_table = [] {
    translator_table<bridge_translate_uplink_fn> t{};
    t[DATA_TYPE_BSTN][1][1] = bridge_translate_uplink_semtech_v1_to_bstn_v1;
    t[DATA_TYPE_BSTN][2][1] = bridge_translate_uplink_semtech_v2_to_bstn_v1;
    return t;
}();

constexpr translator_table<bridge_translate_uplink_fn> stats_table = [] {
    translator_table<bridge_translate_uplink_fn> t{};
    t[DATA_TYPE_BSTN][1][1] = bridge_translate_stat_semtech_v1_to_bstn_v1;
    t[DATA_TYPE_BSTN][2][1] = bridge_translate_stat_semtech_v2_to_bstn_v1;
    return t;
}();

constexpr translator_table<bridge_translate_downlink_fn> downlink_table = [] {
    translator_table<bridge_translate_downlink_fn> t{};
    t[DATA_TYPE_BSTN][1][1] = bridge_translate_downlink_bstn_v1_to_semtech_v1;
    t[DATA_TYPE_BSTN][2][1] = bridge_translate_downlink_bstn_v1_to_semtech_v2;
    return t;
}();

} // namespace

int bridge_translate_generic(bridge_translate_msg *from, bridge_translate_msg *to) {
    BRIDGE_ASSERT(from);
    BRIDGE_ASSERT(to);
    BRIDGE_ASSERT(from->version <= VERSION_MAX);
    BRIDGE_ASSERT(to->version <= VERSION_MAX);
    BRIDGE_ASSERT(from->format <= DATA_TYPE_MAX);
    BRIDGE_ASSERT(to->format <= DATA_TYPE_MAX);
    BRIDGE_ASSERT(to->direction == from->direction);

    LOG_TRACE("Format: [%#x], from version: [%#x], to version: [%#x]", to->format, from->version, to->version);
    LOG_TRACE("direction: [%#x]", from->direction);

    switch (from->direction) {
    case BRIDGE_DIRECTION_UPLINK: {
        bridge_translate_uplink_fn fn = uplink_table[to->format][from->version][to->version];
        if (fn == nullptr) {
            LOG_ERROR("no uplink conveter is defined from semtech version [%d] to NS type [%d:%d]", from->version,
                      to->format, to->version);
            return -1;
        }
        return fn(from, from->data, to->data);
    }
    case BRIDGE_DIRECTION_STATS: {
        bridge_translate_uplink_fn fn = stats_table[to->format][from->version][to->version];
        if (fn == nullptr) {
            LOG_ERROR("no statistics conveter is defined from semtech version [%d] to NS type [%d:%d]",
                      from->version, to->format, to->version);
            return -1;
        }
        return fn(from, from->data, to->data);
    }
    case BRIDGE_DIRECTION_DOWNLINK: {
        // The network server is the source of a downlink.
        bridge_translate_downlink_fn fn = downlink_table[from->format][to->version][from->version];
        if (fn == nullptr) {
            LOG_ERROR("no downlink conveter is defined from NS type [%d:%d] to semtech version [%d]", from->format,
                      from->version, to->version);
            return -1;
        }
        return fn(from->data, to->data, &to->token);
    }
    default:
        BRIDGE_ASSERT(0);
        return -1;
    }
}
