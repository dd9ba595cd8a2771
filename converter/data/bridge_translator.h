// Translators between the packet forwarder's JSON and Basics Station JSON,
// their dispatch, the LoRaWAN uplink frame parser and the xtime base.
#pragma once

#include <cstddef>
#include <cstdint>
#include <json-c/json.h>

// Data formats.
enum : uint32_t {
    DATA_TYPE_KESNS = 0,
    DATA_TYPE_CHIRPSTACK = 1,
    DATA_TYPE_SEMTECH = 2,
    DATA_TYPE_BSTN = 3,
    DATA_TYPE_MAX = 3,
};
constexpr uint32_t VERSION_MAX = 3;

// Directions.
enum : uint32_t {
    BRIDGE_DIRECTION_UPLINK = 0,
    BRIDGE_DIRECTION_DOWNLINK = 1,
    BRIDGE_DIRECTION_STATS = 2,
};

struct bridge_translate_msg {
    uint8_t eui[8];
    uint32_t token;
    uint32_t format;
    uint32_t direction;
    uint32_t version;
    json_object *data;
};

using bridge_translate_uplink_fn = int (*)(bridge_translate_msg *from, json_object *in, json_object *out);
using bridge_translate_downlink_fn = int (*)(json_object *in, json_object *out, uint32_t *token);

int bridge_translate_generic(bridge_translate_msg *from, bridge_translate_msg *to);

int bridge_translate_uplink_semtech_v1_to_bstn_v1(bridge_translate_msg *mac, json_object *semtech, json_object *bstn);
int bridge_translate_uplink_semtech_v2_to_bstn_v1(bridge_translate_msg *mac, json_object *semtech, json_object *bstn);
int bridge_translate_stat_semtech_v1_to_bstn_v1(bridge_translate_msg *mac, json_object *semtech, json_object *bstn);
int bridge_translate_stat_semtech_v2_to_bstn_v1(bridge_translate_msg *mac, json_object *semtech, json_object *bstn);
int bridge_translate_downlink_bstn_v1_to_semtech_v1(json_object *bstn, json_object *semtech, uint32_t *token);
int bridge_translate_downlink_bstn_v1_to_semtech_v2(json_object *bstn, json_object *semtech, uint32_t *token);

// ---- xtime base ------------------------------------------------------------

// The concentrator's 32-bit microsecond counter extended to 48 bits, under an epoch
// number (bits 55-48) that names one run of that counter. Any observation of the
// counter (a stat `count` or an uplink's `tmst`) synchronises it; the local monotonic
// clock tells across how many wraps the counter went since the previous observation.
struct bridge_xtime_state {
    uint64_t base;    // epoch | counter of the latest observation, extended across wraps
    uint64_t seen_us; // local monotonic clock at that observation
    bool synced;      // false until the first observation of this epoch
};

enum bridge_xtime_change : uint32_t {
    BRIDGE_XTIME_IN_STEP = 0, // the counter is where the clock says it should be
    BRIDGE_XTIME_SYNCED = 1,  // first observation of this epoch
    BRIDGE_XTIME_JUMPED = 2,  // the counter jumped (forwarder or concentrator restart): new epoch
};

struct bridge_xtime_step {
    int64_t xtime;               // of the observed counter value; never 0
    bridge_xtime_change change;
    int64_t offset_us;           // JUMPED: how far the counter was from the clock's expectation
};

constexpr uint64_t BRIDGE_XTIME_COUNTER_MASK = 0xFFFFFFFFFFFFull; // bits 47-0
// How far an observed counter may be from where the clock expects it and still belong to the
// same run: ahead only by clock drift, behind also by datagrams that waited in queues.
constexpr int64_t BRIDGE_XTIME_AHEAD_TOLERANCE_US = 5000000;
constexpr int64_t BRIDGE_XTIME_BEHIND_TOLERANCE_US = 10000000;

// Base right after initialisation for one random draw: its low 8 bits are the
// epoch number, a draw of 0 becomes epoch 1, and a draw of the epoch in use before
// (0: none) becomes the one after it.
uint64_t bridge_xtime_initial_base(int draw, uint32_t previous_epoch);
// The epoch after `epoch` (1..255, never 0).
uint32_t bridge_xtime_next_epoch(uint32_t epoch);
// Takes one observation of the concentrator counter made at local time `now_us`.
// The base only moves forward: an older value (out of order within a datagram) gets its
// xtime without moving it.
bridge_xtime_step bridge_xtime_observe(bridge_xtime_state *s, int64_t counter, uint64_t now_us);
// tmst at which a downlink goes out: low 32 bits of xtime + delay.
uint32_t bridge_xtime_to_tmst(int64_t xtime, int64_t delay_us);
// Delay of a class-A/C downlink after its uplink: RxDelay seconds, 0 counting as 1 s
// (LoRaWAN's RX1 delay 0 is 1 s). Shared by the scheduled tmst and the time in dntxed.
int64_t bridge_rx_delay_us(int64_t rx_delay);

// The process-wide base of the dataplane (worker thread only, after init).
// Draws a new epoch number and resets the base (unsynchronised). Always 0.
int bridge_bstn_xtime_init();
// Observes `counter` now; logs the milestones (synchronised, counter jump). Returns the xtime.
int64_t bridge_bstn_xtime_observe(int64_t counter);
// Current base (for diagnostics and tests).
int64_t bridge_bstn_xtime_base();
// Tests: replaces the base, synchronised at that counter now (bits 47-0 zero: unsynchronised).
void bridge_bstn_xtime_set_base(int64_t base);

// ---- LoRaWAN uplink frame --------------------------------------------------

struct uplink_frame {
    uint8_t frame_type;
    uint8_t mhdr;
    int32_t mic;
    char join_eui[24];
    char dev_eui[24];
    uint16_t dev_nonce;
    int32_t dev_addr;
    uint8_t fctrl;
    uint16_t fcnt;
    char fopts[34];
    int64_t fport;
    char frm_payload[514];
};

constexpr uint8_t BRIDGE_FRAME_JOIN_REQUEST = 0;

// `phy` holds `len` bytes followed by at least one zero byte. 0 or -1.
int bridge_translate_parse_uplink_phy(const uint8_t *phy, size_t len, int64_t xtime, uint32_t version,
                                      uplink_frame *frame);
