// Uplink (rxpk -> jreq/updf) and statistics (stat -> time base) translators.
#include "converter/data/bridge_translator.h"

#include <cmath>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "common/base64.h"
#include "common/bridge_health.h"
#include "common/bridge_json_helpers.h"
#include "common/bridge_utils.h"

namespace {

using namespace bridge_json_fields;

constexpr size_t TIME_TEXT_CAP = 128;
constexpr size_t MODU_CAP = 16;
constexpr size_t DATR_CAP = 16;
constexpr size_t CODR_CAP = 8;
constexpr size_t DATA_CAP = 2048;
constexpr size_t PHY_MAX = 256;        // largest Base64decode_len estimate accepted
constexpr size_t PHY_MIN = 6;          // smallest Base64decode_len estimate accepted
constexpr size_t RSIG_MAX = 32;
// Room for "%0.1f" of any finite double (up to 309 integer digits).
constexpr size_t SNR_TEXT_CAP = 320;

// Values outside this range cannot be a frequency in Hz (and would overflow int64).
constexpr double FREQ_HZ_LIMIT = 1e18;

// Everything read from one rxpk, for both protocol versions.
struct rxpk_input {
    char time[TIME_TEXT_CAP];
    int64_t tmms = 0;
    int64_t tmst = 0;
    int64_t chan = 0;
    int64_t rfch = 0;
    double freq = 0;
    int64_t stat = 0;
    char modu[MODU_CAP];
    char datr[DATR_CAP];
    char codr[CODR_CAP];
    int64_t rssi = 0;
    double lsnr = 0;
    int64_t size = 0;
    char data[DATA_CAP];
};

int read_rxpk_v1(json_object *rxpk, rxpk_input *in) {
    const bridge_json_field frame[] = {
        in_string("time", in->time, true), in_int("tmst", &in->tmst), in_int("rfch", &in->rfch),
        in_double("freq", &in->freq),      in_int("stat", &in->stat), in_string("modu", in->modu),
        in_string("datr", in->datr),       in_int("size", &in->size), in_string("codr", in->codr),
        in_string("data", in->data),
    };
    return bridge_json_deserialize(rxpk, frame);
}

int read_rxpk_v2(json_object *rxpk, rxpk_input *in) {
    const bridge_json_field frame[] = {
        in_string("time", in->time, true), in_int("tmms", &in->tmms, true), in_int("tmst", &in->tmst),
        in_int("chan", &in->chan),         in_int("rfch", &in->rfch),       in_double("freq", &in->freq),
        in_int("stat", &in->stat),         in_string("modu", in->modu),     in_string("datr", in->datr),
        in_string("codr", in->codr),       in_int("rssi", &in->rssi),       in_double("lsnr", &in->lsnr),
        in_int("size", &in->size),         in_string("data", in->data),
    };
    return bridge_json_deserialize(rxpk, frame);
}

// Version 1 carries signal data per antenna; element 0 supplies rssi, snr and chan.
int read_rsig(json_object *rxpk, rxpk_input *in) {
    json_object *rsig = nullptr;
    if (!json_object_object_get_ex(rxpk, "rsig", &rsig)) {
        LOG_TRACE("no rsig array in a packet");
        return 0;
    }
    // A present rsig that is not an array (or is null) cannot be read element-wise.
    if (json_object_get_type(rsig) != json_type_array) {
        LOG_ERROR_LIMITED("failed to deserialize rsig frame");
        return -1;
    }
    size_t count = json_object_array_length(rsig);
    if (count > RSIG_MAX) {
        LOG_ERROR_LIMITED("too many rsig values received");
        return -1;
    }
    for (size_t i = 0; i < count; i++) {
        int64_t ant = 0, chan = 0, rssic = 0;
        double lsnr = 0;
        const bridge_json_field frame[] = {
            in_int("ant", &ant),
            in_int("chan", &chan),
            in_int("rssic", &rssic),
            in_double("lsnr", &lsnr),
        };
        json_object *elem = json_object_array_get_idx(rsig, i);
        int rc = elem == nullptr ? -1 : bridge_json_deserialize(elem, frame);
        if (rc == 0 && !std::isfinite(lsnr)) rc = -1;
        if (rc < 0) {
            LOG_ERROR_LIMITED("failed to deserialize rsig frame");
            return rc;
        }
        if (i == 0) {
            in->rssi = rssic;
            in->lsnr = lsnr;
            in->chan = chan;
        }
    }
    return 0;
}

// Radio metadata and frame fields as they go out in upinfo and the message.
struct uplink_output {
    int64_t rctx = 0;
    int64_t xtime = 0;
    int64_t rxtime = 0;
    int64_t gpstime = 0;
    int64_t rssi = 0;
    double snr = 0;
    char snr_text[SNR_TEXT_CAP];
    int64_t chan = 0;
    int64_t freq_hz = 0;
    int64_t mhdr = 0;
    int64_t dev_nonce = 0;
    int64_t mic = 0;
    int64_t dev_addr = 0;
    int64_t fctrl = 0;
    int64_t fcnt = 0;
    int64_t fport = 0;
};

int write_message(uint32_t version, const char *datr, const uplink_frame &frame, uplink_output &o,
                  json_object *out) {
    const bool join = frame.frame_type == BRIDGE_FRAME_JOIN_REQUEST;
    const bridge_json_out_field rctx = out_int("rctx", &o.rctx);
    const bridge_json_out_field xtime = out_int("xtime", &o.xtime);
    const bridge_json_out_field rxtime = out_int("rxtime", &o.rxtime);
    const bridge_json_out_field gpstime = out_int("gpstime", &o.gpstime);
    const bridge_json_out_field rssi = out_int("rssi", &o.rssi);
    const bridge_json_out_field snr = {"snr", json_type_double, 0, &o.snr, o.snr_text};
    const bridge_json_out_field chan = out_int("chan", &o.chan);

    // Version 1 has no rxtime; version 2 orders xtime/rxtime differently for jreq and updf.
    bridge_json_out_field upinfo[7];
    uint32_t upinfo_count = 0;
    if (version == 1) {
        for (const auto &f : {rctx, xtime, gpstime, rssi, snr, chan}) upinfo[upinfo_count++] = f;
    } else if (join) {
        for (const auto &f : {rctx, xtime, rxtime, gpstime, rssi, snr, chan}) upinfo[upinfo_count++] = f;
    } else {
        for (const auto &f : {rctx, rxtime, xtime, gpstime, rssi, snr, chan}) upinfo[upinfo_count++] = f;
    }

    const bridge_json_out_field dr = out_string("DR", datr);
    const bridge_json_out_field freq = out_int("Freq", &o.freq_hz);
    const bridge_json_out_field upinfo_obj = {"upinfo", json_type_object, upinfo_count, upinfo, nullptr};
    const bridge_json_out_field mhdr = out_int("MHdr", &o.mhdr);
    const bridge_json_out_field mic = out_int("MIC", &o.mic);
    if (join) {
        const bridge_json_out_field msg[] = {
            dr, freq, upinfo_obj, out_string("msgtype", "jreq"), mhdr,
            out_string("JoinEui", frame.join_eui), out_string("DevEui", frame.dev_eui),
            out_int("DevNonce", &o.dev_nonce), mic,
        };
        return bridge_json_serialize(out, msg);
    }
    const bridge_json_out_field msg[] = {
        dr, freq, upinfo_obj, out_string("msgtype", "updf"), mhdr,
        out_int("DevAddr", &o.dev_addr), out_int("FCtrl", &o.fctrl), out_int("FCnt", &o.fcnt),
        out_string("FOpts", frame.fopts), out_int("FPort", &o.fport),
        out_string("FRMPayload", frame.frm_payload), mic,
    };
    return bridge_json_serialize(out, msg);
}

int translate_uplink(uint32_t version, bridge_translate_msg *mac, json_object *semtech, json_object *bstn) {
    BRIDGE_ASSERT(mac);
    BRIDGE_ASSERT(semtech);
    BRIDGE_ASSERT(bstn);

    rxpk_input in;
    {
        time_t now = time(NULL);
        struct tm utc;
        if (gmtime_r(&now, &utc) == NULL) {
            LOG_ERROR_LIMITED("failed to prepare time string for bstn uplink");
            return -1;
        }
        char now_text[64];
        strftime(now_text, sizeof(now_text), "%FT%TZ", &utc);
        snprintf(in.time, sizeof(in.time), "%s", now_text);
    }

    int rc = version == 1 ? read_rxpk_v1(semtech, &in) : read_rxpk_v2(semtech, &in);
    // The codec takes any number; a frequency or SNR that is not a finite
    // value of sane size cannot be reported and is refused like a bad field.
    if (rc == 0 && !(std::isfinite(in.freq) && std::fabs(in.freq * 1000000.0) < FREQ_HZ_LIMIT &&
                     std::isfinite(in.lsnr)))
        rc = -1;
    if (rc < 0) {
        LOG_ERROR_LIMITED("failed to deserialize uplink packet: %s", json_object_to_json_string(semtech));
        return rc;
    }
    if (version == 1) {
        rc = read_rsig(semtech, &in);
        if (rc < 0) return rc;
    }

    const size_t data_sz = static_cast<size_t>(Base64decode_len(in.data));
    if (data_sz > PHY_MAX) {
        LOG_ERROR_LIMITED("LoRa PHY of [%zu] bytes is too big", data_sz);
        return -1;
    }
    if (data_sz < PHY_MIN) {
        LOG_ERROR_LIMITED("LoRa PHY of [%zu] bytes is too small", data_sz);
        return -1;
    }
    // One spare byte: the parser may read the decoder's terminator after the PHY.
    uint8_t phy[PHY_MAX + 1] = {};
    rc = Base64decode(phy, in.data);
    BRIDGE_ASSERT(rc > 0 && (unsigned)rc <= data_sz);
    const size_t phy_len = static_cast<size_t>(rc);

    uplink_output o;
    o.rssi = in.rssi;
    o.snr = in.lsnr;
    o.chan = in.chan;
    if (version == 2) {
        // Milliseconds to microseconds; wrapping arithmetic keeps absurd inputs defined.
        o.gpstime = static_cast<int64_t>(static_cast<uint64_t>(in.tmms) * 1000u);
        o.rxtime = static_cast<int64_t>(time(NULL));
    }
    o.freq_hz = static_cast<int64_t>(in.freq * 1000000.0);
    snprintf(o.snr_text, sizeof(o.snr_text), "%0.1f", o.snr);

    // The packet's own tmst keeps the time base in step (a stat `count` is optional).
    o.xtime = bridge_bstn_xtime_observe(in.tmst);

    uplink_frame frame;
    if (bridge_translate_parse_uplink_phy(phy, phy_len, o.xtime, version, &frame) != 0) return -1;
    o.mhdr = frame.mhdr;
    o.mic = frame.mic;
    if (frame.frame_type == BRIDGE_FRAME_JOIN_REQUEST) {
        o.dev_nonce = frame.dev_nonce;
    } else {
        o.dev_addr = frame.dev_addr;
        o.fctrl = frame.fctrl;
        o.fcnt = frame.fcnt;
        o.fport = frame.fport;
    }
    return write_message(version, in.datr, frame, o, bstn);
}

} // namespace

int bridge_translate_uplink_semtech_v1_to_bstn_v1(bridge_translate_msg *mac, json_object *semtech, json_object *bstn) {
    return translate_uplink(1, mac, semtech, bstn);
}

int bridge_translate_uplink_semtech_v2_to_bstn_v1(bridge_translate_msg *mac, json_object *semtech, json_object *bstn) {
    return translate_uplink(2, mac, semtech, bstn);
}

// ---- statistics ------------------------------------------------------------

int bridge_translate_stat_semtech_v1_to_bstn_v1(bridge_translate_msg *mac, json_object *semtech, json_object *bstn) {
    (void)mac;
    (void)bstn;
    BRIDGE_ASSERT(semtech);

    // Only the concentrator counter matters; an absent or unusable count stays 0.
    int64_t count = 0;
    const bridge_json_field frame[] = {in_int("count", &count, true)};
    (void)bridge_json_deserialize(semtech, frame);

    if (count == 0) {
        LOG_TRACE("No count value, please configure pkt fwd to report count!");
        return 0;
    }
    bridge_bstn_xtime_observe(count);
    LOG_TRACE("bstn xtime base updated: %lld", (long long)bridge_bstn_xtime_base());
    return 0;
}

int bridge_translate_stat_semtech_v2_to_bstn_v1(bridge_translate_msg *mac, json_object *semtech, json_object *bstn) {
    return bridge_translate_stat_semtech_v1_to_bstn_v1(mac, semtech, bstn);
}
