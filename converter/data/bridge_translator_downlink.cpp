// Downlink translator: Basics Station dnmsg -> Semtech txpk.
#include "converter/data/bridge_translator.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "common/base64.h"
#include "common/bridge_health.h"
#include "common/bridge_json_helpers.h"
#include "common/bridge_utils.h"

namespace {

using namespace bridge_json_fields;

constexpr size_t MSGTYPE_CAP = 32;
constexpr size_t DEVEUI_CAP = 64;
constexpr size_t PDU_CAP = 512;
constexpr size_t DR_CAP = 16;
constexpr size_t FRAME_CAP = 256;
constexpr size_t FRAME_B64_CAP = 341; // 255 bytes -> 340 characters + terminator
constexpr size_t FREQ_TEXT_CAP = 32;

constexpr int64_t US_PER_SECOND = 1000000;
constexpr int64_t TX_POWER_DBM = 27;

enum device_class : int64_t { CLASS_A = 0, CLASS_B = 1, CLASS_C = 2 };

} // namespace

int bridge_translate_downlink_bstn_v1_to_semtech_v1(json_object *bstn, json_object *semtech, uint32_t *token) {
    (void)bstn;
    (void)semtech;
    (void)token;
    // Protocol version 1 forwarders cannot receive downlinks from this bridge.
    return -EOPNOTSUPP;
}

int bridge_translate_downlink_bstn_v1_to_semtech_v2(json_object *bstn, json_object *semtech, uint32_t *token) {
    (void)token;
    BRIDGE_ASSERT(bstn != NULL);
    BRIDGE_ASSERT(semtech != NULL);

    char msgtype[MSGTYPE_CAP];
    char dev_eui[DEVEUI_CAP];
    char pdu[PDU_CAP];
    char dr[DR_CAP];
    int64_t dc = 0, diid = 0, freq_hz = 0, priority = 0, rctx = 0;
    const bridge_json_field common[] = {
        in_string("msgtype", msgtype), in_string("DevEui", dev_eui), in_int("dC", &dc),
        in_int("diid", &diid),         in_string("pdu", pdu),        in_string("DR", dr),
        in_int("Freq", &freq_hz),      in_int("priority", &priority, true), in_int("rctx", &rctx, true),
    };
    int rc = bridge_json_deserialize(bstn, common);
    if (rc < 0) {
        LOG_WARN_LIMITED("failed to deserialize common part of the downlink packet: %s", json_object_to_json_string(bstn));
        return rc;
    }

    int64_t xtime = 0, rx_delay = 1, rx2_dr = -1, rx2_freq = -1, gpstime = 0;
    const bridge_json_field class_a[] = {
        in_int("xtime", &xtime),
        in_int("RxDelay", &rx_delay, true),
        in_int("RX2DR", &rx2_dr, true),
        in_int("RX2Freq", &rx2_freq, true),
    };
    const bridge_json_field class_b[] = {in_int("gpstime", &gpstime)};
    const bridge_json_field class_c[] = {in_int("xtime", &xtime, true), in_int("RxDelay", &rx_delay, true)};
    switch (dc) {
    case CLASS_A: rc = bridge_json_deserialize(bstn, class_a); break;
    case CLASS_B: rc = bridge_json_deserialize(bstn, class_b); break;
    case CLASS_C: rc = bridge_json_deserialize(bstn, class_c); break;
    default:
        LOG_WARN_LIMITED("invalid DC value received from BSTN: %u", static_cast<uint32_t>(dc));
        return -1;
    }
    if (rc < 0) {
        LOG_WARN_LIMITED("failed to deserialize class-specific part of the downlink packet: %s",
                 json_object_to_json_string(bstn));
        return rc;
    }

    const bool imme = dc == CLASS_C; // class C goes out at once, tmst is ignored
    const int64_t rfch = 0;
    const int64_t powe = TX_POWER_DBM;
    const bool ipol = true;
    const int64_t size = static_cast<int64_t>(strlen(pdu) / 2);
    const double freq_mhz = static_cast<double>(freq_hz) / 1000000.0;
    char freq_text[FREQ_TEXT_CAP];
    snprintf(freq_text, sizeof(freq_text), "%.6lf", freq_mhz);

    uint8_t frame[FRAME_CAP];
    rc = bridge_utils_hexstring_to_array(pdu, frame, sizeof(frame));
    if (rc < 0) return rc;
    char data[FRAME_B64_CAP];
    Base64encode(data, frame, static_cast<int>(size));

    int64_t when = 0;
    const char *when_key = "tmst";
    switch (dc) {
    case CLASS_A: {
        int64_t delay = bridge_rx_delay_us(rx_delay);
        when = bridge_xtime_to_tmst(xtime, delay);
        if (rx2_dr != -1 && rx2_freq != -1) // RX2 opens one second after RX1
            when = bridge_xtime_to_tmst(when, US_PER_SECOND);
        break;
    }
    case CLASS_B:
        when_key = "tmms";
        when = gpstime / 1000; // GPS time in microseconds -> milliseconds
        break;
    default:
        when = bridge_xtime_to_tmst(xtime, bridge_rx_delay_us(rx_delay));
        break;
    }

    const bridge_json_out_field txpk[] = {
        out_bool("imme", &imme),
        {"freq", json_type_double, 0, &freq_mhz, freq_text},
        out_int("rfch", &rfch),
        out_int("powe", &powe),
        out_string("modu", "LORA"),
        out_string("datr", dr),
        out_string("codr", "4/5"),
        out_bool("ipol", &ipol),
        out_int("size", &size),
        out_string("data", data),
    };
    rc = bridge_json_serialize(semtech, txpk);
    if (rc == 0) {
        const bridge_json_out_field time_frame[] = {out_int(when_key, &when)};
        rc = bridge_json_serialize(semtech, time_frame);
    }
    return rc;
}
