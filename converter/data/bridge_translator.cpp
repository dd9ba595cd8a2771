// Converter dispatch and the concentrator time base (xtime).
#include "converter/data/bridge_translator.h"

#include <array>
#include <cstdlib>
#include <ctime>

#include "common/bridge_utils.h"

// ---- xtime base ------------------------------------------------------------

namespace {

constexpr int XTIME_EPOCH_SHIFT = 48;
constexpr uint64_t XTIME_EPOCH_MASK = ~BRIDGE_XTIME_COUNTER_MASK;
constexpr uint32_t XTIME_EPOCH_MAX = 0xFF;
constexpr int64_t US_PER_SECOND = 1000000;

// Written only by the dataplane's worker thread (uplink and statistics translators);
// set by init before that thread runs.
bridge_xtime_state bstn_xtime{};

uint64_t monotonic_us() {
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<uint64_t>(ts.tv_sec) * 1000000u + static_cast<uint64_t>(ts.tv_nsec) / 1000u;
}

uint32_t epoch_of(uint64_t base) {
    return static_cast<uint32_t>(base >> XTIME_EPOCH_SHIFT) & XTIME_EPOCH_MAX;
}

} // namespace

uint64_t bridge_xtime_initial_base(int draw, uint32_t previous_epoch) {
    uint32_t epoch = static_cast<uint32_t>(draw) & XTIME_EPOCH_MAX;
    if (epoch == 0) epoch = 1; // 0 is the xtime error value, so never epoch 0
    // A restart must not hand the LNS times that compare with those of the run before it.
    if (epoch == previous_epoch) epoch = bridge_xtime_next_epoch(epoch);
    return static_cast<uint64_t>(epoch) << XTIME_EPOCH_SHIFT;
}

uint32_t bridge_xtime_next_epoch(uint32_t epoch) {
    return (epoch & XTIME_EPOCH_MAX) % XTIME_EPOCH_MAX + 1;
}

bridge_xtime_step bridge_xtime_observe(bridge_xtime_state *s, int64_t counter, uint64_t now_us) {
    const uint32_t value = static_cast<uint32_t>(counter);
    const uint64_t epoch_bits = s->base & XTIME_EPOCH_MASK;
    if (!s->synced) {
        *s = {epoch_bits | value, now_us, true};
        return {static_cast<int64_t>(s->base), BRIDGE_XTIME_SYNCED, 0};
    }
    // Where the clock says the counter is now, and the value with the observed low word
    // nearest to it: that settles how often the counter wrapped, however long the silence.
    const uint64_t elapsed = now_us > s->seen_us ? now_us - s->seen_us : 0;
    const int64_t expected = static_cast<int64_t>((s->base & BRIDGE_XTIME_COUNTER_MASK) + elapsed);
    const int64_t offset = static_cast<int32_t>(value - static_cast<uint32_t>(expected));
    const int64_t extended = expected + offset;
    if (offset > BRIDGE_XTIME_AHEAD_TOLERANCE_US || offset < -BRIDGE_XTIME_BEHIND_TOLERANCE_US || extended < 0 ||
        extended > static_cast<int64_t>(BRIDGE_XTIME_COUNTER_MASK)) {
        // A counter the clock cannot explain belongs to a new run: a new epoch tells the LNS
        // that times of the old run no longer compare with the new ones.
        const uint64_t epoch = bridge_xtime_next_epoch(epoch_of(s->base));
        *s = {(epoch << XTIME_EPOCH_SHIFT) | value, now_us, true};
        return {static_cast<int64_t>(s->base), BRIDGE_XTIME_JUMPED, offset};
    }
    const uint64_t xtime = epoch_bits | static_cast<uint64_t>(extended);
    if (xtime > s->base) { // an older packet (out of order) does not move the base back
        s->base = xtime;
        s->seen_us = now_us;
    }
    return {static_cast<int64_t>(xtime), BRIDGE_XTIME_IN_STEP, 0};
}

uint32_t bridge_xtime_to_tmst(int64_t xtime, int64_t delay_us) {
    // Unsigned arithmetic: the sum is taken modulo 2^64 and only its low word matters.
    return static_cast<uint32_t>(static_cast<uint64_t>(xtime) + static_cast<uint64_t>(delay_us));
}

int64_t bridge_rx_delay_us(int64_t rx_delay) {
    if (rx_delay == 0) rx_delay = 1;
    // Wrapping arithmetic: only the low 32 bits of the result reach tmst.
    return static_cast<int64_t>(static_cast<uint64_t>(rx_delay) * static_cast<uint64_t>(US_PER_SECOND));
}

int bridge_bstn_xtime_init() {
    srand(static_cast<unsigned>(time(NULL)));
    bstn_xtime = {bridge_xtime_initial_base(rand(), epoch_of(bstn_xtime.base)), 0, false};
    LOG_INFO("bstn xtime init to: %lld", (long long)bstn_xtime.base);
    return 0;
}

int64_t bridge_bstn_xtime_observe(int64_t counter) {
    const bridge_xtime_step step = bridge_xtime_observe(&bstn_xtime, counter, monotonic_us());
    if (step.change == BRIDGE_XTIME_JUMPED)
        LOG_WARN("concentrator counter jumped by %lld us from where the local clock puts it (packet forwarder "
                 "or concentrator restarted): starting a new time base",
                 (long long)step.offset_us);
    if (step.change != BRIDGE_XTIME_IN_STEP)
        LOG_INFO("time base synchronised: epoch %u", epoch_of(bstn_xtime.base));
    return step.xtime;
}

int64_t bridge_bstn_xtime_base() {
    return static_cast<int64_t>(bstn_xtime.base);
}

void bridge_bstn_xtime_set_base(int64_t base) {
    const uint64_t b = static_cast<uint64_t>(base);
    bstn_xtime = {b, monotonic_us(), (b & BRIDGE_XTIME_COUNTER_MASK) != 0};
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
