// LNS client without a server: window choice, MuxTime arithmetic, URI splitting (its buffer bounds: the
// lns_uri fuzz target), the router_config data-rate table, dnmsg handling and the uplink data-rate lookup.
// Joining fragments and what ends a session are proven against the LNS peer (tests/integration).
#include <cmath>
#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "common/bridge_health.h"
#include "common/bridge_json_helpers.h"
#include "common/bridge_utils.h"
#include "converter/data/bridge_bstn_lns_internal.h"
#include "support/test_support.h"

namespace {

bridge_json_ptr parse(const std::string &text) { return bridge_json_ptr(json_tokener_parse(text.c_str())); }

using kes_test::member;

TEST(LnsWindow, ChoiceByClassAndOfferedWindows) {
    constexpr int64_t N = -1, S = 1000000, F1 = 868100000, F2 = 869525000;
    constexpr lns_dn_verdict OK = LNS_DN_OK;
    // request: dC, xtime, gpstime, DR, Freq, RX1DR, RX1Freq, RX2DR, RX2Freq, RxDelay; window: DR, Freq, tx time
    struct Row { const char *fault; lns_dn_request rq; lns_dn_verdict verdict; lns_dn_window w; } rows[] = {
        {"class A must prefer RX2, 1 s after RX1", {0, 1000 * S, N, N, N, 5, F1, 0, F2, 1}, OK, {0, F2, 1002 * S}},
        {"class A without RX2 takes RX1", {0, 1000 * S, N, N, N, 5, F1, N, N, 1}, OK, {5, F1, 1001 * S}},
        {"an RX2 pair missing a member is unusable", {0, 7, N, N, N, 5, F1, N, F2, 2}, OK, {5, F1, 7 + 2 * S}},
        {"RxDelay 0 counts as one second", {0, 10, N, N, N, 5, F1, N, N, 0}, OK, {5, F1, 10 + S}},
        {"class C prefers RX1, no extra second", {2, 7, N, N, N, 1, F1, 0, F2, 1}, OK, {1, F1, 7 + S}},
        {"class C takes RX2 without RX1", {2, 7, N, N, N, N, N, 0, F2, 1}, OK, {0, F2, 7 + S}},
        {"class B keeps its DR, Freq and gpstime", {1, N, 1300 * S, 6, F1, N, N, N, N, 1}, OK, {6, F1, 1300 * S}},
        {"xtime near the top must wrap", {0, INT64_MAX, N, N, N, 5, 1, N, N, 1}, OK, {5, 1, INT64_MIN + S - 1}},
        {"no time at all", {0, N, N, N, N, 5, F1, N, N, 1}, LNS_DN_NO_TIME, {}},
        {"class A without a complete pair", {0, 7, N, N, N, 5, N, N, F2, 1}, LNS_DN_NO_WINDOW_A, {}},
        {"class C without a complete pair", {2, 7, N, N, N, N, F1, N, N, 1}, LNS_DN_NO_WINDOW_C, {}},
        {"unknown device class", {4, 7, N, N, N, 5, F1, N, N, 1}, LNS_DN_BAD_CLASS, {}},
        {"DR equal to the table size", {1, N, 5, 9, F2, N, N, N, N, 1}, LNS_DN_BAD_DR, {}},
        {"DR absent for class B", {1, N, 5, N, F2, N, N, N, N, 1}, LNS_DN_BAD_DR, {}},
    };
    for (const Row &r : rows) {
        lns_dn_window w{-7, -7, -7};
        EXPECT_EQ(lns_choose_window(r.rq, 9, &w), r.verdict) << r.fault;
        EXPECT_TRUE(r.verdict != OK || (w.dr == r.w.dr && w.freq == r.w.freq && w.tx_time == r.w.tx_time))
            << r.fault << ": " << w.dr << " " << w.freq << " " << w.tx_time;
    }
}

TEST(LnsTime, MuxTimeAndRefTime) {
    struct Row { const char *fault; double muxtime_s; uint64_t ms; } rows[] = { // ms 0: refused
        {"seconds must become milliseconds", 1700000000.5, 1700000000500u},
        {"the largest value below 2^64 ms is kept", 1.8e16, 18000000000000000000u},
        {"beyond 64 bits must be refused, not converted", 1.9e16, 0},
        {"infinity must be refused", HUGE_VAL, 0},
        {"zero or negative means no MuxTime", -3.0, 0},
    };
    for (const Row &r : rows) EXPECT_EQ(lns_muxtime_ms(r.muxtime_s), r.ms) << r.fault;
    // MuxTime 1700000000.5 received at local 5000 ms, uplink 2.25 s later: the time since counts.
    EXPECT_DOUBLE_EQ(lns_reftime_s(1700000000500u, 5000, 7250), 1700000002.75);
}

TEST(LnsUri, SplitsHostPortAndPath) {
    struct Row { const char *fault; std::string uri; int rc; std::string host; int32_t port; std::string path; };
    const Row rows[] = {
        {"explicit port and path", "wss://lns.example:8887/traffic/eui-1", 0, "lns.example", 8887, "/traffic/eui-1"},
        {"wss default port", "wss://h", 0, "h", 443, ""},
        {"highest port, ws scheme", "ws://h:65535", 0, "h", 65535, ""},
        {"query and fragment are no path", "wss://h/a/b?x=1#f", 0, "h", 443, "/a/b"},
        {"port 0", "wss://h:0", -1, "", 0, ""},
        {"port above 65535", "wss://h:70000", -1, "", 0, ""},
        {"port beyond unsigned long", "wss://h:99999999999999999999999", -ERANGE, "", 0, ""},
    };
    for (const Row &r : rows) {
        char host[LNS_HOST_SZ] = "", path[LNS_PATH_SZ] = "";
        int32_t port = 0;
        EXPECT_EQ(lns_parse_uri(r.uri.c_str(), host, sizeof(host), &port, path, sizeof(path)), r.rc) << r.fault;
        EXPECT_TRUE(r.rc != 0 || (host == r.host && port == r.port && path == r.path)) << r.fault;
    }
}

TEST(LnsDrs, RouterConfigDataRateTable) {
    std::string drs32 = "[7,125,0]";
    for (int i = 1; i < 32; ++i) drs32 += ",[7,125,0]";
    // drs "" = absent; count -5 = left alone; last = the last entry, on success
    struct Row { const char *fault; std::string drs; int rc; int32_t count; bridge_bstn_lns_dr last; } rows[] = {
        {"members must map to sf, bw, dnonly", "[[12,125,0],[7,250,1]]", 0, 2, {7, 250, true}},
        {"32 entries are accepted", "[" + drs32 + "]", 0, 32, {7, 125, false}},
        {"33 entries are refused", "[" + drs32 + ",[7,125,0]]", 1, -5, {}},
        {"absent DRs", "", -1, -5, {}},
        {"entry not an array", "[[7,125,0],5]", -EINVAL, -5, {}},
        {"member a string (json-c would give 0)", R"([[7,"125",0]])", -EINVAL, -5, {}},
        {"fourth member", "[[7,125,1,0]]", -1, -5, {}},
    };
    for (const Row &r : rows) {
        bridge_json_ptr rc_obj = parse(r.drs.empty() ? "{}" : R"({"DRs":)" + r.drs + "}");
        bridge_bstn_lns_dr drs[LNS_DRS_MAX] = {};
        int32_t count = -5;
        EXPECT_EQ(lns_parse_drs(rc_obj.get(), drs, &count), r.rc) << r.fault;
        EXPECT_EQ(count, r.count) << r.fault;
        const bridge_bstn_lns_dr &l = drs[count > 0 ? count - 1 : 0];
        EXPECT_TRUE(r.rc != 0 || (l.sf == r.last.sf && l.bw == r.last.bw && l.dnonly == r.last.dnonly)) << r.fault;
    }
}

// `lns` with an EU868-like table and no library context: the connection is a stand-in marked
// closed and the service loop counts as woken, so nothing asks the library to act.
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
        lns.lws_conn = reinterpret_cast<struct lws *>(&conn_stand_in);
        lns.conn_closed = lns.wake_pending = true;
        const bridge_bstn_lns_dr table[] = {{12, 125, false}, {11, 125, false}, {10, 125, false},
                                            {9, 125, false},  {8, 125, false},  {7, 125, false},
                                            {7, 250, false},  {7, 125, true},   {9, 500, true}};
        memcpy(lns.drs, table, sizeof(table));
        lns.drs_count = 9;
        lns.downlink_cb = record_downlink;
        bridge_log_init(BRIDGE_LOG_ERROR, true);
    }
    void TearDown() override {
        lns.lws_conn = nullptr;
        if (lns.inited) lns_ctx_deinit(&lns);
        bridge_log_init(BRIDGE_LOG_INFO, true);
    }
    // Takes every text queued in `ring`.
    static std::vector<std::string> take(struct lws_ring *ring) {
        std::vector<std::string> texts;
        while (auto *m = static_cast<const bridge_bstn_lns_ring_msg *>(lws_ring_get_element(ring, nullptr))) {
            texts.emplace_back(m->data);
            lws_ring_consume(ring, nullptr, nullptr, 1);
        }
        return texts;
    }
    int conn_stand_in = 0;
};

TEST_F(LnsContext, DnmsgIsDeliveredAndConfirmedOnlyWhenTheForwarderGotIt) {
    const std::string dn = R"({"msgtype":"dnmsg","DevEui":"01-02-03-04-05-06-07-08","diid":7,"rctx":9,"dC":0,)"
                           R"("xtime":1000000000,"RX1DR":5,"RX1Freq":868100000,"RX2DR":0,"RX2Freq":869525000})";
    // cb_result: what the forwarder side answers; ring_fill: uplink texts already queued
    struct Row { const char *fault; std::string text; int cb_result; unsigned ring_fill; int rc; size_t delivered;
                 bool dntxed; uint32_t unschedulable; } rows[] = {
        {"a delivered downlink is confirmed with its transmit time", dn, 0, 0, 0, 1, true, 0},
        {"a downlink the forwarder did not get must not be confirmed", dn, -1, 0, 0, 1, false, 0},
        {"a full queue drops the dntxed, the session goes on", dn, 0, LNS_UPLINK_RING_ELEMENTS - 1, 0, 1, false, 0},
        {"an unschedulable downlink is counted, not delivered",
         R"({"msgtype":"dnmsg","DevEui":"01","diid":1,"dC":1,"gpstime":5,"DR":9,"Freq":1})", 0, 0, 0, 0, false, 1},
        {"a dnmsg without diid ends the session", R"({"msgtype":"dnmsg","DevEui":"01","dC":1,"gpstime":5})", 0, 0,
         -1, 0, false, 0},
    };
    for (const Row &r : rows) {
        g_delivered.clear();
        g_cb_result = r.cb_result;
        for (unsigned i = 0; i < r.ring_fill; ++i) ASSERT_EQ(lns_ring_push_copy(lns.buffers.uplink_ring, "{}"), 0);
        bridge_health_take();
        EXPECT_EQ(lns_handle_message(&lns, r.text.c_str()), r.rc) << r.fault;
        EXPECT_EQ(bridge_health_take().v[BRIDGE_CNT_DN_DROP_UNSCHEDULABLE], r.unschedulable) << r.fault;
        ASSERT_EQ(g_delivered.size(), r.delivered) << r.fault;
        std::vector<std::string> queued = take(lns.buffers.uplink_ring);
        queued.erase(queued.begin(), queued.begin() + r.ring_fill);
        ASSERT_EQ(queued.size(), r.dntxed ? 1u : 0u) << r.fault;
        // RX2 chosen: its DR as text and its Freq; the dntxed names the diid, rctx and transmit time.
        for (const std::string &d : g_delivered) EXPECT_EQ(member(d, "DR") + member(d, "Freq"), "SF12BW125869525000");
        for (const std::string &d : queued)
            EXPECT_EQ(member(d, "msgtype") + member(d, "xtime") + member(d, "diid") + member(d, "rctx"),
                      "dntxed100200000079") << r.fault;
    }
}

TEST_F(LnsContext, UplinkDataRateTextBecomesTableIndex) {
    struct Row { const char *fault; const char *datr; const char *index; } rows[] = { // index nullptr: refused
        {"lowest matching index", "SF12BW125", "0"},
        {"a downlink-only duplicate must not win", "SF7BW125", "5"},
        {"bandwidth must be compared too", "SF7BW250", "6"},
        {"downlink-only entry must not match", "SF9BW500", nullptr},
        {"unknown data rate", "SF6BW125", nullptr},
        {"text without bandwidth", "SF7", nullptr},
    };
    for (const Row &r : rows) {
        bridge_health_take();
        EXPECT_EQ(bridge_bstn_lns_uplink_push(parse(std::string(R"({"DR":")") + r.datr + "\"}").get()), r.index ? 0 : 1)
            << r.fault;
        EXPECT_EQ(bridge_health_take().v[BRIDGE_CNT_UP_DROP_LNS], r.index ? 0u : 1u) << r.fault;
        std::vector<std::string> queued = take(lns.buffers.uplink_ring);
        ASSERT_EQ(queued.size(), r.index ? 1u : 0u) << r.fault;
        for (const std::string &q : queued) // no MuxTime yet: no RefTime
            EXPECT_EQ(member(q, "DR") + member(q, "RefTime"), r.index + std::string("<none>")) << r.fault;
    }
    // A burst of two seconds at a 16-channel gateway's ceiling fits; memory stays bounded.
    auto push = [] { return bridge_bstn_lns_uplink_push(parse(R"({"DR":"SF7BW125"})").get()); };
    int queued = 0;
    while (queued < 2000 && push() == 0) ++queued;
    EXPECT_TRUE(queued >= 800 && queued < 2000) << queued;
    take(lns.buffers.uplink_ring);
    lns.lws_conn = nullptr; // not connected: refused, nothing queued
    EXPECT_EQ(push(), 1);
    EXPECT_TRUE(take(lns.buffers.uplink_ring).empty());
}

} // namespace
