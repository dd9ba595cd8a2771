// LNS client without a server: downlink window choice, time arithmetic, URI splitting, the
// router_config data-rate table, message joining, dnmsg handling and the uplink DR lookup.
#include <cmath>
#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "common/bridge_health.h"
#include "common/bridge_json_helpers.h"
#include "common/bridge_utils.h"
#include "converter/data/bridge_bstn_lns_internal.h"

namespace {

bridge_json_ptr parse(const std::string &text) { return bridge_json_ptr(json_tokener_parse(text.c_str())); }

std::string member(json_object *o, const char *key) {
    json_object *v = nullptr;
    return o && json_object_object_get_ex(o, key, &v) ? json_object_get_string(v) : "<absent>";
}

constexpr int64_t S = 1000000; // one second in xtime units

TEST(LnsWindow, ChoiceByClassAndOfferedWindows) {
    const int64_t N = -1; // absent
    struct Row {
        const char *fault;
        lns_dn_request rq; // dc, xtime, gpstime, dr, freq, rx1_dr, rx1_freq, rx2_dr, rx2_freq, rx_delay
        lns_dn_verdict verdict;
        lns_dn_window w;
    } rows[] = {
        {"class A must prefer RX2, one second after RX1", {0, 1000 * S, N, N, N, 5, 868100000, 0, 869525000, 1},
         LNS_DN_OK, {0, 869525000, 1002 * S}},
        {"class A without RX2 falls back to RX1", {0, 1000 * S, N, N, N, 5, 868100000, N, N, 1}, LNS_DN_OK,
         {5, 868100000, 1001 * S}},
        {"an RX2 pair with one member absent is not usable", {0, 7, N, N, N, 5, 868100000, -1, 869525000, 2},
         LNS_DN_OK, {5, 868100000, 7 + 2 * S}},
        {"RxDelay 0 counts as one second", {0, 10, N, N, N, 5, 868100000, N, N, 0}, LNS_DN_OK, {5, 868100000, 10 + S}},
        {"class C prefers RX1 and is not delayed further", {2, 7, N, N, N, 1, 868500000, 0, 869525000, 1}, LNS_DN_OK,
         {1, 868500000, 7 + S}},
        {"class C takes RX2 when RX1 is absent", {2, 7, N, N, N, N, N, 0, 869525000, 1}, LNS_DN_OK,
         {0, 869525000, 7 + S}},
        {"class B keeps its DR, Freq and gpstime", {1, N, 1300 * S, 6, 868300000, N, N, N, N, 1}, LNS_DN_OK,
         {6, 868300000, 1300 * S}},
        {"no time at all", {0, N, N, N, N, 5, 868100000, N, N, 1}, LNS_DN_NO_TIME, {}},
        {"class A without a complete pair", {0, 7, N, N, N, 5, N, N, 869525000, 1}, LNS_DN_NO_WINDOW_A, {}},
        {"class C without a complete pair", {2, 7, N, N, N, N, 868100000, N, N, 1}, LNS_DN_NO_WINDOW_C, {}},
        {"unknown device class", {4, 7, N, N, N, 5, 868100000, N, N, 1}, LNS_DN_BAD_CLASS, {}},
        {"DR equal to the table size", {1, N, 5, 9, 869525000, N, N, N, N, 1}, LNS_DN_BAD_DR, {}},
        {"DR absent (-1) for class B", {1, N, 5, N, 869525000, N, N, N, N, 1}, LNS_DN_BAD_DR, {}},
        {"xtime near the top wraps instead of overflowing", {0, INT64_MAX, N, N, N, 5, 1, N, N, 1}, LNS_DN_OK,
         {5, 1, static_cast<int64_t>(static_cast<uint64_t>(INT64_MAX) + S)}},
    };
    for (const Row &r : rows) {
        lns_dn_window w{-7, -7, -7};
        EXPECT_EQ(lns_choose_window(r.rq, 9, &w), r.verdict) << r.fault;
        if (r.verdict != LNS_DN_OK) continue;
        EXPECT_EQ(w.dr, r.w.dr) << r.fault;
        EXPECT_EQ(w.freq, r.w.freq) << r.fault;
        EXPECT_EQ(w.tx_time, r.w.tx_time) << r.fault;
    }
}

TEST(LnsTime, MuxTimeAndRefTimeArithmetic) {
    struct Row {
        const char *fault;
        double muxtime_s;
        uint64_t muxtime_ms; // 0: refused
    } rows[] = {
        {"seconds must become milliseconds", 1700000000.5, 1700000000500u},
        {"the largest value below 2^64 ms is kept", 1.8e16, 18000000000000000000u},
        {"beyond 64 bits must be refused, not converted", 1.9e16, 0},
        {"infinity must be refused", HUGE_VAL, 0},
        {"zero means no MuxTime", 0.0, 0},
        {"negative means no MuxTime", -3.0, 0},
    };
    for (const Row &r : rows) EXPECT_EQ(lns_muxtime_ms(r.muxtime_s), r.muxtime_ms) << r.fault;
    // MuxTime 1700000000.5 received at local 5000 ms, uplink 2.25 s later.
    EXPECT_DOUBLE_EQ(lns_reftime_s(1700000000500u, 5000, 7250), 1700000002.75);
}

TEST(LnsUri, SplitsHostPortAndPath) {
    const std::string host255(255, 'h');
    struct Row {
        const char *fault;
        std::string uri;
        int rc;
        std::string host;
        int32_t port;
        std::string path;
    } rows[] = {
        {"explicit port and path", "wss://lns.example.com:8887/traffic/eui-1", 0, "lns.example.com", 8887,
         "/traffic/eui-1"},
        {"wss default port", "wss://h", 0, "h", 443, ""},
        {"highest port, ws scheme", "ws://h:65535", 0, "h", 65535, ""},
        {"scheme compared as written", "WSS://h", 0, "h", 80, ""},
        {"query and fragment are no path", "wss://h/a/b?x=1#f", 0, "h", 443, "/a/b"},
        {"port 0", "wss://h:0", -1, "", 0, ""},
        {"port above 65535", "wss://h:70000", -1, "", 0, ""},
        {"port beyond unsigned long", "wss://h:99999999999999999999999", -ERANGE, "", 0, ""},
        {"host of 255 fits", "wss://" + host255, 0, host255, 443, ""},
        {"host of 256 does not", "wss://" + host255 + "h", -1, "", 0, ""},
        {"path of 62 fits", "wss://h/" + std::string(61, 's'), 0, "h", 443, "/" + std::string(61, 's')},
        {"path of 63 does not", "wss://h/" + std::string(62, 's'), -1, "", 0, ""},
    };
    for (const Row &r : rows) {
        char host[LNS_HOST_SZ] = "";
        char path[LNS_PATH_SZ] = "";
        int32_t port = 0;
        EXPECT_EQ(lns_parse_uri(r.uri.c_str(), host, sizeof(host), &port, path, sizeof(path)), r.rc) << r.fault;
        if (r.rc != 0) continue;
        EXPECT_EQ(host, r.host) << r.fault;
        EXPECT_EQ(port, r.port) << r.fault;
        EXPECT_EQ(path, r.path) << r.fault;
    }
}

TEST(LnsDrs, RouterConfigDataRateTable) {
    std::string entries = "[7,125,0]";
    for (int i = 1; i < 32; ++i) entries += ",[7,125,0]";
    const std::string drs32 = "[" + entries + "]", drs33 = "[" + entries + ",[7,125,0]]";
    struct Row {
        const char *fault;
        std::string drs;
        int rc;
        int32_t count;
        bridge_bstn_lns_dr last; // the last entry, on success
    } rows[] = {
        {"members must map to sf, bw, dnonly", "[[12,125,0],[7,250,1]]", 0, 2, {7, 250, true}},
        {"short entries leave members 0", "[[9,500],[8]]", 0, 2, {8, 0, false}},
        {"32 entries are accepted", drs32, 0, 32, {7, 125, false}},
        {"33 entries are refused", drs33, 1, -5, {}},
        {"absent DRs", "", -1, -5, {}},
        {"DRs not an array", R"({"0":[7,125,0]})", -1, -5, {}},
        {"entry not an array", "[[7,125,0],5]", -EINVAL, -5, {}},
        {"member a string (json-c would give 0)", R"([[7,"125",0]])", -EINVAL, -5, {}},
        {"member null", "[[7,125,null]]", -EINVAL, -5, {}},
        {"fourth member", "[[7,125,1,0]]", -1, -5, {}},
    };
    for (const Row &r : rows) {
        bridge_json_ptr rc_obj = parse(r.drs.empty() ? std::string("{}") : R"({"DRs":)" + r.drs + "}");
        bridge_bstn_lns_dr drs[LNS_DRS_MAX] = {};
        int32_t count = -5;
        EXPECT_EQ(lns_parse_drs(rc_obj.get(), drs, &count), r.rc) << r.fault;
        EXPECT_EQ(count, r.count) << r.fault;
        if (r.rc != 0) continue;
        const bridge_bstn_lns_dr &l = drs[count - 1];
        EXPECT_TRUE(l.sf == r.last.sf && l.bw == r.last.bw && l.dnonly == r.last.dnonly) << r.fault;
    }
}

// `lns` initialised with an EU868-like table and a library context (the uplink push wakes it);
// the connection handle is a stand-in marked closed, so nothing asks the library to use it.
const lws_protocols test_protocols[] = {
    {"lws-lns", lns_ws_callback, 0, 0, 0, nullptr, 0},
    {nullptr, nullptr, 0, 0, 0, nullptr, 0},
};

std::vector<std::string> g_delivered;
int g_cb_result = 0;
int record_downlink(int, void *, const char *data, size_t) {
    g_delivered.emplace_back(data);
    return g_cb_result;
}

class LnsContext : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(lns_ctx_init(&lns), 0);
        lws_context_creation_info info;
        memset(&info, 0, sizeof(info));
        info.port = CONTEXT_PORT_NO_LISTEN;
        info.protocols = test_protocols;
        lns.ws_ctx = lws_create_context(&info);
        ASSERT_NE(lns.ws_ctx, nullptr);
        lns.lws_conn = reinterpret_cast<struct lws *>(&conn_stand_in);
        lns.conn_closed = true;
        const bridge_bstn_lns_dr table[] = {{12, 125, false}, {11, 125, false}, {10, 125, false},
                                            {9, 125, false},  {8, 125, false},  {7, 125, false},
                                            {7, 250, false},  {7, 125, true},   {9, 500, true}};
        memcpy(lns.drs, table, sizeof(table));
        lns.drs_count = 9;
        lns.downlink_cb = record_downlink;
        g_delivered.clear();
        g_cb_result = 0;
        bridge_log_init(BRIDGE_LOG_ERROR, true);
        bridge_health_take();
    }
    void TearDown() override {
        lns.lws_conn = nullptr;
        if (lns.inited) lns_ctx_deinit(&lns);
        bridge_log_init(BRIDGE_LOG_INFO, true);
    }
    std::vector<std::string> take_ring(struct lws_ring *ring) {
        std::vector<std::string> texts;
        while (auto *m = static_cast<const bridge_bstn_lns_ring_msg *>(lws_ring_get_element(ring, nullptr))) {
            texts.emplace_back(m->data);
            lws_ring_consume(ring, nullptr, nullptr, 1);
        }
        return texts;
    }
    int conn_stand_in = 0;
};

TEST_F(LnsContext, FragmentsAreJoinedIntoOneMessage) {
    const std::string big(LNS_MSG_MAX, 'x');
    struct Row {
        const char *fault;
        std::vector<std::pair<std::string, bool>> events; // (bytes, ends the message)
        int rc;                                           // of the last event
        std::vector<std::string> queued;
    } rows[] = {
        {"a message in one piece", {{"{\"a\":1}", true}}, 0, {"{\"a\":1}"}},
        {"fragments must be joined, not queued apart", {{"{\"a\":", false}, {"12", false}, {"3}", true}}, 0,
         {"{\"a\":123}"}},
        {"two messages stay apart", {{"A", true}, {"B", true}}, 0, {"A", "B"}},
        {"exactly 64 KiB is taken", {{big.substr(0, 1000), false}, {big.substr(1000), true}}, 0, {big}},
        {"beyond 64 KiB ends the session", {{big, false}, {"y", true}}, -1, {}},
    };
    for (const Row &r : rows) {
        int rc = 0;
        for (const auto &[bytes, last] : r.events) rc = lns_ws_on_receive(&lns, bytes.data(), bytes.size(), last);
        EXPECT_EQ(rc, r.rc) << r.fault;
        EXPECT_EQ(take_ring(lns.buffers.downlink_ring), r.queued) << r.fault;
    }
}

TEST_F(LnsContext, DnmsgIsDeliveredAndConfirmedOnlyWhenTheForwarderGotIt) {
    const std::string dn = R"({"msgtype":"dnmsg","DevEui":"01-02-03-04-05-06-07-08","diid":7,"rctx":9,"dC":0,)"
                           R"("xtime":1000000000,"RX1DR":5,"RX1Freq":868100000,"RX2DR":0,"RX2Freq":869525000})";
    struct Row {
        const char *fault;
        std::string text;
        int cb_result;       // what the subscriber answers
        unsigned ring_fill;  // uplink texts already queued
        int rc;
        size_t delivered;
        const char *dntxed_xtime; // nullptr: no dntxed
        uint32_t unschedulable;
    } rows[] = {
        {"delivered downlink is confirmed with its transmit time", dn, 0, 0, 0, 1, "1002000000", 0},
        {"a downlink the forwarder did not get must not be confirmed", dn, -1, 0, 0, 1, nullptr, 0},
        {"a full queue drops the dntxed, the session goes on", dn, 0, LNS_UPLINK_RING_ELEMENTS - 1, 0, 1,
         nullptr, 0},
        {"unschedulable downlink is counted and not delivered",
         R"({"msgtype":"dnmsg","DevEui":"01","diid":1,"dC":1,"gpstime":5,"DR":9,"Freq":1})", 0, 0, 0, 0, nullptr, 1},
        {"dnmsg without its mandatory diid ends the session",
         R"({"msgtype":"dnmsg","DevEui":"01","dC":1,"gpstime":5})", 0, 0, -1, 0, nullptr, 0},
        {"text that is not JSON ends the session", "{nope", 0, 0, -1, 0, nullptr, 0},
        {"dnsched is consumed silently", R"({"msgtype":"dnsched","schedule":[]})", 0, 0, 0, 0, nullptr, 0},
        {"a later router_config is skipped", R"({"msgtype":"router_config","DRs":[]})", 0, 0, 0, 0, nullptr, 0},
    };
    for (const Row &r : rows) {
        g_delivered.clear();
        g_cb_result = r.cb_result;
        for (unsigned i = 0; i < r.ring_fill; ++i) ASSERT_EQ(lns_ring_push_copy(lns.buffers.uplink_ring, "{}"), 0);
        bridge_health_take();
        EXPECT_EQ(lns_handle_message(&lns, r.text.c_str()), r.rc) << r.fault;
        const bridge_health_snapshot counts = bridge_health_take();
        EXPECT_EQ(g_delivered.size(), r.delivered) << r.fault;
        EXPECT_EQ(counts.v[BRIDGE_CNT_DN_DROP_UNSCHEDULABLE], r.unschedulable) << r.fault;
        std::vector<std::string> queued = take_ring(lns.buffers.uplink_ring);
        queued.erase(queued.begin(), queued.begin() + r.ring_fill);
        ASSERT_EQ(queued.size(), r.dntxed_xtime ? 1u : 0u) << r.fault;
        if (!r.dntxed_xtime) continue;
        bridge_json_ptr dntxed = parse(queued[0]);
        EXPECT_EQ(member(dntxed.get(), "msgtype"), "dntxed") << r.fault;
        EXPECT_EQ(member(dntxed.get(), "xtime"), r.dntxed_xtime) << r.fault;
        EXPECT_EQ(member(dntxed.get(), "diid"), "7") << r.fault;
        EXPECT_EQ(member(dntxed.get(), "rctx"), "9") << r.fault;
        EXPECT_EQ(member(parse(g_delivered[0]).get(), "DR"), "SF12BW125") << r.fault;
        EXPECT_EQ(member(parse(g_delivered[0]).get(), "Freq"), "869525000") << r.fault;
    }
}

TEST_F(LnsContext, UplinkDataRateTextBecomesTableIndex) {
    struct Row {
        const char *fault;
        const char *datr;
        const char *index; // nullptr: dropped
    } rows[] = {
        {"lowest matching index", "SF12BW125", "0"},
        {"a downlink-only duplicate must not win", "SF7BW125", "5"},
        {"bandwidth must be compared too", "SF7BW250", "6"},
        {"downlink-only entry must not match", "SF9BW500", nullptr},
        {"unknown data rate", "SF6BW125", nullptr},
        {"text without bandwidth", "SF7", nullptr},
    };
    for (const Row &r : rows) {
        bridge_json_ptr up = parse(std::string(R"({"msgtype":"jreq","DR":")") + r.datr + "\"}");
        bridge_health_take();
        EXPECT_EQ(bridge_bstn_lns_uplink_push(up.get()), r.index ? 0 : 1) << r.fault;
        EXPECT_EQ(bridge_health_take().v[BRIDGE_CNT_UP_DROP_LNS], r.index ? 0u : 1u) << r.fault;
        std::vector<std::string> queued = take_ring(lns.buffers.uplink_ring);
        ASSERT_EQ(queued.size(), r.index ? 1u : 0u) << r.fault;
        if (!r.index) continue;
        EXPECT_EQ(member(parse(queued[0]).get(), "DR"), r.index) << r.fault;
        EXPECT_EQ(member(parse(queued[0]).get(), "RefTime"), "<absent>") << r.fault << ": no MuxTime yet";
    }
    // Burst: the queue takes at least 800 texts before refusing one.
    auto push = [] { return bridge_bstn_lns_uplink_push(parse(R"({"msgtype":"updf","DR":"SF7BW125"})").get()); };
    int queued = 0;
    while (queued < 2000 && push() == 0) ++queued;
    EXPECT_GE(queued, 800);
    EXPECT_EQ(queued, static_cast<int>(LNS_UPLINK_RING_ELEMENTS) - 1);
    // Not connected: refused without queuing.
    take_ring(lns.buffers.uplink_ring);
    lns.lws_conn = nullptr;
    EXPECT_EQ(push(), 1);
    EXPECT_TRUE(take_ring(lns.buffers.uplink_ring).empty());
}

} // namespace
