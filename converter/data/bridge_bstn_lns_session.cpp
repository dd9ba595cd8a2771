// LNS client: station session (version, router_config, dnmsg, timesync, dntxed) and uplink push.
#include "converter/data/bridge_bstn_lns_internal.h"
#include "converter/data/bridge_translator.h"

#include "common/bridge_bstn_config.h"
#include "common/bridge_health.h"
#include "common/bridge_json_helpers.h"
#include "common/bridge_utils.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <netinet/in.h>
#include <resolv.h>
#include <string_view>
#include <sys/time.h>
#include <unistd.h>

using namespace bridge_json_fields;

namespace {

constexpr size_t LNS_MSGTYPE_SZ = 32;
constexpr size_t LNS_DEVEUI_SZ = 64;
constexpr size_t LNS_DR_TEXT_SZ = 32;
constexpr int64_t LNS_US_PER_S = 1000000;

int lns_handle_dnsched(bridge_bstn_lns_ctx *, json_object *) { return 0; }

int lns_handle_timesync(bridge_bstn_lns_ctx *ctx, json_object *msg) {
    LOG_DEBUG("received timesync message. ignoring it, except muxtime part");
    lns_muxtime_from_msg(ctx, msg);
    return 0;
}

struct lns_msg_handler {
    std::string_view msgtype;
    int (*handle)(bridge_bstn_lns_ctx *, json_object *);
};

constexpr lns_msg_handler lns_msg_handlers[] = {
    {"dnsched", lns_handle_dnsched},
    {"dnmsg", lns_handle_dnmsg},
    {"timesync", lns_handle_timesync},
};

// Reads one DRs entry [sf, bw, dnonly]; absent members stay 0.
int lns_read_dr_entry(json_object *entry, bridge_bstn_lns_dr *dr) {
    // json-c's array accessors require an array and would abort on anything else.
    if (!json_object_is_type(entry, json_type_array)) {
        LOG_ERROR("DR array entry is not an array");
        return -EINVAL;
    }
    size_t members = json_object_array_length(entry);
    for (size_t i = 0; i < members; ++i) {
        json_object *member = json_object_array_get_idx(entry, i);
        // json-c turns strings, objects and null into 0 without reporting it: check the type.
        errno = 0;
        int64_t value = json_object_get_int64(member);
        if (!json_object_is_type(member, json_type_int) || (value == 0 && errno == EINVAL)) {
            LOG_ERROR("DR array member is not integer");
            return -EINVAL;
        }
        switch (i) {
        case 0: dr->sf = static_cast<int32_t>(value); break;
        case 1: dr->bw = static_cast<int32_t>(value); break;
        case 2: dr->dnonly = value != 0; break;
        default:
            LOG_ERROR("superfluous item with index [%d] reached in the DR array", static_cast<int>(i));
            return -1;
        }
    }
    return 0;
}

} // namespace

int lns_parse_drs(json_object *router_config, bridge_bstn_lns_dr (&drs)[LNS_DRS_MAX], int32_t *count) {
    json_object *dr_arr = nullptr;
    if (!json_object_object_get_ex(router_config, "DRs", &dr_arr) || !json_object_is_type(dr_arr, json_type_array)) {
        LOG_ERROR("no DRs array found in the response");
        return -1;
    }
    const size_t entries = json_object_array_length(dr_arr);
    if (entries > LNS_DRS_MAX) {
        LOG_ERROR("too much datarate items received in the response, max: [%zu]", LNS_DRS_MAX);
        return 1;
    }
    for (size_t i = 0; i < entries; ++i) {
        int rc = lns_read_dr_entry(json_object_array_get_idx(dr_arr, i), &drs[i]);
        if (rc != 0) return rc;
        LOG_DEBUG("allowed DR item received - SF: [%d], BW: [%d], dnonly: [%d]", drs[i].sf, drs[i].bw, drs[i].dnonly);
    }
    *count = static_cast<int32_t>(entries);
    return 0;
}

uint64_t lns_now_ms() {
    timeval tv{};
    gettimeofday(&tv, nullptr);
    return static_cast<uint64_t>(tv.tv_sec) * 1000ULL + static_cast<uint64_t>(tv.tv_usec) / 1000ULL;
}

// ---- pure arithmetic and decisions ---------------------------------------------------

uint64_t lns_muxtime_ms(double seconds) {
    // The value comes from the LNS: milliseconds beyond 64 bits (or infinity, or NaN)
    // cannot be converted.
    const double ms = seconds * 1000.0;
    if (!(seconds > 0.0) || !(ms < 18446744073709551616.0)) return 0;
    return static_cast<uint64_t>(ms);
}

double lns_reftime_s(uint64_t muxtime_ms, uint64_t reftime_ms, uint64_t now_ms) {
    return static_cast<double>(muxtime_ms + now_ms - reftime_ms) / 1000.0;
}

lns_dn_verdict lns_choose_window(const lns_dn_request &rq, int32_t drs_count, lns_dn_window *out) {
    auto wrap_add = [](int64_t a, int64_t b) {
        return static_cast<int64_t>(static_cast<uint64_t>(a) + static_cast<uint64_t>(b));
    };
    if (rq.xtime == -1 && rq.gpstime == -1) return LNS_DN_NO_TIME;
    lns_dn_window w{rq.dr, rq.freq, rq.gpstime};
    if (rq.xtime != -1) w.tx_time = wrap_add(rq.xtime, bridge_rx_delay_us(rq.rx_delay));
    const bool rx1 = rq.rx1_dr != -1 && rq.rx1_freq != -1;
    const bool rx2 = rq.rx2_dr != -1 && rq.rx2_freq != -1;
    switch (rq.dc) {
    case 0: // class A: RX2 when offered, one second after RX1
        if (rx2)
            w = {rq.rx2_dr, rq.rx2_freq, wrap_add(w.tx_time, LNS_US_PER_S)};
        else if (rx1)
            w = {rq.rx1_dr, rq.rx1_freq, w.tx_time};
        else
            return LNS_DN_NO_WINDOW_A;
        break;
    case 2: // class C
        if (rx1)
            w = {rq.rx1_dr, rq.rx1_freq, w.tx_time};
        else if (rx2)
            w = {rq.rx2_dr, rq.rx2_freq, w.tx_time};
        else
            return LNS_DN_NO_WINDOW_C;
        break;
    case 1: // class B: DR and Freq as given
        break;
    default:
        return LNS_DN_BAD_CLASS;
    }
    *out = w;
    if (w.dr < 0 || w.dr >= drs_count) return LNS_DN_BAD_DR;
    return LNS_DN_OK;
}

// ---- time reference ------------------------------------------------------------------

void lns_muxtime_set(bridge_bstn_lns_ctx *ctx, double new_muxtime) {
    BRIDGE_ASSERT(ctx != NULL);
    BRIDGE_ASSERT(new_muxtime > 0.0);
    const uint64_t muxtime = lns_muxtime_ms(new_muxtime);
    if (muxtime == 0) {
        LOG_WARN("ignoring MuxTime out of range: %lf", new_muxtime);
        return;
    }
    ctx->muxtime = muxtime;
    ctx->reftime = lns_now_ms();
    LOG_TRACE("MuxTime received: %lf -> %llu, reftime: %llu", new_muxtime,
              static_cast<unsigned long long>(ctx->muxtime), static_cast<unsigned long long>(ctx->reftime));
}

void lns_muxtime_from_msg(bridge_bstn_lns_ctx *ctx, json_object *msg) {
    BRIDGE_ASSERT(ctx != NULL);
    BRIDGE_ASSERT(msg != NULL);
    double muxtime = -1.0;
    const bridge_json_field frame[] = {in_double("MuxTime", &muxtime, true)};
    if (bridge_json_deserialize(msg, frame) != 0) {
        LOG_TRACE("no MuxTime in the incoming message");
        return;
    }
    if (muxtime > 0.0) lns_muxtime_set(ctx, muxtime);
}

// ---- handshake -----------------------------------------------------------------------

int lns_version_exchange(bridge_bstn_lns_ctx *ctx, bool use_backup) {
    BRIDGE_ASSERT(ctx != NULL);
    const bridge_cfg_root *cfg = bridge_config_get_root();
    BRIDGE_ASSERT(cfg);
    const char *msgtype = "version";
    const int64_t protocol = 2;
    const bridge_json_out_field frame[] = {
        out_string("msgtype", msgtype),
        out_string("station", cfg->general.name),
        out_string("firmware", cfg->general.fw_version),
        out_string("package", cfg->general.package),
        out_string("model", cfg->general.model),
        out_int("protocol", &protocol),
    };
    bridge_json_ptr resp;
    int rc = lns_request_frame(ctx, "", "version configuration", frame, resp, use_backup, false);
    if (rc != 0) return rc;

    bridge_bstn_lns_dr drs[LNS_DRS_MAX] = {};
    int32_t count = 0;
    rc = lns_parse_drs(resp.get(), drs, &count);
    if (rc != 0) return rc;

    lns_lock_guard guard(ctx);
    lns_muxtime_from_msg(ctx, resp.get());
    memcpy(ctx->drs, drs, sizeof(ctx->drs));
    ctx->drs_count = count;
    json_object *region = nullptr;
    const bool has_region =
        json_object_object_get_ex(resp.get(), "region", &region) && json_object_is_type(region, json_type_string);
    // Indexes the region does not use come as [-1, 0, 0]: they are no data rates.
    int usable = 0;
    for (int32_t i = 0; i < count; ++i) usable += drs[i].sf >= 0;
    LOG_INFO("LNS session up: region %s, %d data rates", has_region ? json_object_get_string(region) : "unknown",
             usable);
    return 0;
}

// ---- received messages ---------------------------------------------------------------

int lns_handle_message(bridge_bstn_lns_ctx *ctx, const char *data) {
    BRIDGE_ASSERT(ctx != NULL);
    BRIDGE_ASSERT(data != NULL);
    bridge_json_ptr msg(json_tokener_parse(data));
    if (!msg) {
        LOG_ERROR("failed to parse downlink JSON");
        return -1;
    }
    char msgtype[LNS_MSGTYPE_SZ] = {};
    const bridge_json_field frame[] = {in_string("msgtype", msgtype)};
    int rc = bridge_json_deserialize(msg.get(), frame);
    if (rc != 0) {
        LOG_ERROR("failed to de-serialize downlink");
        return rc;
    }
    for (const auto &h : lns_msg_handlers) {
        if (h.msgtype == msgtype) return h.handle(ctx, msg.get());
    }
    LOG_TRACE("skipping non-downlink message with a type: %s", msgtype);
    return 0;
}

namespace {

// Log line of each verdict that drops a downlink (the invalid DR one takes the index).
constexpr const char *lns_dn_drop_text[] = {
    nullptr,
    "xtime and gpstime both missing from incoming packet",
    "no suitable DR index found in the class-A downlink",
    "no suitable DR index found in the class-C downlink",
    "no suitable dC (downlink type) found",
    "invalid DR index: [%lld]",
};

// Writes the chosen DR (as "SF%dBW%d") and Freq into the dnmsg and hands it to the subscriber;
// *delivered tells whether the forwarder got it. Returns the writer's status.
int lns_deliver_dnmsg(bridge_bstn_lns_ctx *ctx, json_object *msg, const lns_dn_window &w, bool *delivered) {
    char dr_text[LNS_DR_TEXT_SZ];
    snprintf(dr_text, sizeof(dr_text), "SF%dBW%d", ctx->drs[w.dr].sf, ctx->drs[w.dr].bw);
    const bridge_json_out_field out[] = {
        out_string("DR", dr_text),
        out_int("Freq", &w.freq),
    };
    int rc = bridge_json_serialize(msg, out);
    if (rc != 0) return rc;
    const char *new_data = json_object_to_json_string(msg);
    BRIDGE_ASSERT(new_data);
    LOG_TRACE("processed downlink message: %s\n", new_data);
    BRIDGE_ASSERT(ctx->downlink_cb);
    *delivered = ctx->downlink_cb(0, ctx->downlink_cb_arg, new_data, strlen(new_data) + 1) == 0;
    return 0;
}

// Queues the dntxed of a delivered downlink. A full uplink queue drops it: the session goes on.
int lns_confirm_dnmsg(bridge_bstn_lns_ctx *ctx, const char *dev_eui, int64_t rctx, int64_t tx_time, int64_t diid) {
    bridge_json_ptr dntxed(json_object_new_object());
    if (!dntxed) {
        LOG_ERROR("failed to allocate JSON object");
        return -1;
    }
    const char *msgtype = "dntxed";
    const int64_t txtime = static_cast<int64_t>(time(nullptr));
    const bridge_json_out_field frame[] = {
        out_string("msgtype", msgtype), out_string("DevEui", dev_eui), out_int("rctx", &rctx),
        out_int("xtime", &tx_time),     out_int("diid", &diid),       out_int("txtime", &txtime),
    };
    int rc = bridge_json_serialize(dntxed.get(), frame);
    if (rc != 0) return rc;
    struct lws_ring *ring = ctx->buffers.uplink_ring;
    LOG_TRACE("uplink ringbuffer free elements: %zu", lws_ring_get_count_free_elements(ring));
    LOG_TRACE("uplink ringbuffer waiting elements: %zu", lws_ring_get_count_waiting_elements(ring, nullptr));
    if (lns_ring_push_copy(ring, json_object_to_json_string(dntxed.get())) != 0) {
        LOG_ERROR("dntxed of diid %lld dropped: the queue to the LNS is full", static_cast<long long>(diid));
        return 1;
    }
    BRIDGE_ASSERT(ctx->lws_conn != NULL);
    if (!ctx->conn_closed) lws_callback_on_writable(ctx->lws_conn);
    return 0;
}

} // namespace

int lns_handle_dnmsg(bridge_bstn_lns_ctx *ctx, json_object *single_downlink) {
    BRIDGE_ASSERT(ctx != NULL);
    BRIDGE_ASSERT(single_downlink != NULL);
    bridge_health_count(BRIDGE_CNT_DN_RECEIVED);
    char dev_eui[LNS_DEVEUI_SZ] = {};
    int64_t diid = 0, rctx = 0;
    lns_dn_request rq{0, -1, -1, -1, -1, -1, -1, -1, -1, 1};
    double muxtime = -1.0;
    const bridge_json_field frame[] = {
        in_string("DevEui", dev_eui),
        in_int("diid", &diid),
        in_int("dC", &rq.dc),
        in_int("xtime", &rq.xtime, true),
        in_int("gpstime", &rq.gpstime, true),
        in_int("DR", &rq.dr, true),
        in_int("Freq", &rq.freq, true),
        in_int("RX1DR", &rq.rx1_dr, true),
        in_int("RX1Freq", &rq.rx1_freq, true),
        in_int("RX2DR", &rq.rx2_dr, true),
        in_int("RX2Freq", &rq.rx2_freq, true),
        in_double("MuxTime", &muxtime, true),
        in_int("RxDelay", &rq.rx_delay, true),
        in_int("rctx", &rctx, true),
    };
    int rc = bridge_json_deserialize(single_downlink, frame);
    if (rc != 0) {
        LOG_ERROR("failed to de-serialize downlink");
        return rc;
    }
    lns_dn_window w{};
    const lns_dn_verdict verdict = lns_choose_window(rq, ctx->drs_count, &w);
    if (verdict != LNS_DN_OK) {
        // The downlink is dropped; the session goes on.
        bridge_health_count(BRIDGE_CNT_DN_DROP_UNSCHEDULABLE);
        if (verdict == LNS_DN_BAD_DR)
            LOG_ERROR("invalid DR index: [%lld]", static_cast<long long>(w.dr));
        else
            LOG_ERROR("%s", lns_dn_drop_text[verdict]);
        return 0;
    }
    bool delivered = false;
    rc = lns_deliver_dnmsg(ctx, single_downlink, w, &delivered);
    if (rc != 0) return rc;
    if (!delivered) return 0; // dropped before the forwarder: the LNS must not believe it went out
    if (lns_confirm_dnmsg(ctx, dev_eui, rctx, w.tx_time, diid) < 0) return -1;
    if (muxtime > 0.0) lns_muxtime_set(ctx, muxtime);
    return 0;
}

// ---- session -------------------------------------------------------------------------

int bridge_bstn_lns_start() {
    BRIDGE_ASSERT(lns.inited);
    lns.stop_processing = false;
    int status = lns_connect(&lns, false);
    if (status == 0) status = lns_version_exchange(&lns, false);
    if (status != 0) {
        // The open connection, if any, is left for bridge_bstn_lns_stop.
        res_init();
        sleep(lns_retry_pause_secs);
        return status;
    }
    status = lns_main_loop(&lns);
    lns_ws_disconnect(&lns);
    if (status == 0) return 0;
    res_init();
    return status;
}

void bridge_bstn_lns_downlink_subscribe(bridge_bstn_lns_downlink_cb cb, void *arg) {
    BRIDGE_ASSERT(lns.inited);
    LOG_TRACE("subscribing for LNS downlink events");
    lns_lock_guard guard(&lns);
    lns.downlink_cb = cb;
    lns.downlink_cb_arg = arg;
}

void bridge_bstn_lns_downlink_unsubscribe() {
    BRIDGE_ASSERT(lns.inited);
    LOG_TRACE("unsubscribing for LNS downlink events");
    lns_lock_guard guard(&lns);
    lns.downlink_cb = nullptr;
    lns.downlink_cb_arg = nullptr;
}

// ---- uplink push ---------------------------------------------------------------------

int bridge_bstn_lns_uplink_push(json_object *lns_uplink) {
    BRIDGE_ASSERT(lns_uplink);
    // Refusals return 1 and are counted here, where their cause is known; a full queue
    // returns -1 for the dataplane to count.
    if (!lns.inited) {
        LOG_DEBUG("LNS service is in transition state, skipping uplink...");
        bridge_health_count(BRIDGE_CNT_UP_DROP_LNS);
        return 1;
    }
    json_object *dr_obj = nullptr;
    bool rc = json_object_object_get_ex(lns_uplink, "DR", &dr_obj);
    BRIDGE_ASSERT(rc == true);
    BRIDGE_ASSERT(dr_obj);
    const char *bw_sf_str = json_object_get_string(dr_obj);
    BRIDGE_ASSERT(bw_sf_str);
    LOG_TRACE("SF/BW string: %s", bw_sf_str);
    int sf = 0, bw = 0;
    if (sscanf(bw_sf_str, "SF%dBW%d", &sf, &bw) != 2) {
        LOG_ERROR_LIMITED("invalid SF/BW string: %s", bw_sf_str);
        bridge_health_count(BRIDGE_CNT_UP_DROP_LNS);
        return 1;
    }

    lns_lock_guard guard(&lns);
    int index = -1;
    for (int i = 0; i < lns.drs_count; ++i) {
        if (lns.drs[i].sf == sf && lns.drs[i].bw == bw && !lns.drs[i].dnonly) {
            index = i;
            LOG_DEBUG("DR index found: [%d]", index);
            break;
        }
    }
    if (lns.lws_conn == NULL) {
        LOG_DEBUG("LNS service is initialized, but connection is not yet established, skipping uplink...");
        bridge_health_count(BRIDGE_CNT_UP_DROP_LNS);
        return 1;
    }
    if (index < 0) {
        LOG_ERROR_LIMITED("no matching DR found for SF [%#x] and BW [%#x]", static_cast<unsigned>(sf),
                  static_cast<unsigned>(bw));
        bridge_health_count(BRIDGE_CNT_UP_DROP_LNS);
        return 1;
    }
    json_object *dr_idx = json_object_new_int(index);
    if (!dr_idx) {
        LOG_ERROR("failed to allocate DR JSON object");
        return -1;
    }
    json_object_object_add(lns_uplink, "DR", dr_idx);
    if (lns.muxtime != 0) {
        const double reftime = lns_reftime_s(lns.muxtime, lns.reftime, lns_now_ms());
        LOG_TRACE("uplink reftime: %lf", reftime);
        json_object *ref_obj = json_object_new_double(reftime);
        if (!ref_obj)
            LOG_WARN("failed to allocate reftime JSON object");
        else
            json_object_object_add(lns_uplink, "RefTime", ref_obj);
    }
    const char *text = json_object_to_json_string(lns_uplink);
    LOG_TRACE("processing uplink LNS packet: %s", text);
    struct lws_ring *ring = lns.buffers.uplink_ring;
    LOG_TRACE("uplink ringbuffer free elements: %zu", lws_ring_get_count_free_elements(ring));
    LOG_TRACE("uplink ringbuffer waiting elements: %zu", lws_ring_get_count_waiting_elements(ring, nullptr));
    const int status = lns_ring_push_copy(ring, text);
    if (!lns.wake_pending) {
        lns.wake_pending = true;
        lws_cancel_service(lns.ws_ctx);
    }
    return status;
}
