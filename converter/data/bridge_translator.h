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

// Draws a new epoch number and resets the base (unsynchronised). Always 0.
int bridge_bstn_xtime_init();
// Current base (for diagnostics and tests).
int64_t bridge_bstn_xtime_base();
// Replaces the base (tests only: gives a known epoch and counter).
void bridge_bstn_xtime_set_base(int64_t base);

// Pure arithmetic of the time base.
constexpr uint64_t BRIDGE_XTIME_COUNTER_MASK = 0xFFFFFFFFFFFFull; // bits 47-0
bool bridge_xtime_is_synced(uint64_t base);
// Base right after initialisation for one random draw: its low 8 bits are the
// epoch number, a draw of 0 becomes epoch 1.
uint64_t bridge_xtime_initial_base(int draw);
// Whether a stat `count` lies behind the synchronised base's low word (the
// counter wrapped or the forwarder restarted).
bool bridge_xtime_count_rolled_over(uint64_t base, int64_t count);
// Base after a stat `count` (unchanged for count 0).
uint64_t bridge_xtime_sync(uint64_t base, int64_t count);
// xtime of an uplink tmst, or 0 when it is more than 100 ms before the base.
int64_t bridge_xtime_from_tmst(uint64_t base, int64_t tmst);
// tmst at which a downlink goes out: low 32 bits of xtime + delay.
uint32_t bridge_xtime_to_tmst(int64_t xtime, int64_t delay_us);

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
