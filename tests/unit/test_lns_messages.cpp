// LNS client without a server: uplink DR lookup and RefTime, dnmsg window choice and dntxed,
// message dispatch, and protocol callback branches that a server cannot provoke.
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "common/bridge_json_helpers.h"
#include "common/bridge_utils.h"
#include "converter/data/bridge_bstn_lns_internal.h"
#include "support/test_support.h"

namespace {

const lws_protocols test_protocols[] = {
    {"lws-lns", lns_ws_callback, 0, 0, 0, nullptr, 0},
    {nullptr, nullptr, 0, 0, 0, nullptr, 0},
};

std::vector<std::string> g_delivered;
int record_downlink(int, void *, const char *data, size_t) { g_delivered.emplace_back(data); return 0; }

bridge_json_ptr parse(const std::string &text) { return bridge_json_ptr(json_tokener_parse(text.c_str())); }

std::string str_member(json_object *o, const char *key) {
    json_object *v = nullptr;
    return json_object_object_get_ex(o, key, &v) ? json_object_get_string(v) : "<absent>";
}

// A real connection handle of a connection that never succeeds (nothing listens on port 1).
struct lws *pending_connection(struct lws_context *context, void *userdata) {
    lws_client_connect_info ci;
    memset(&ci, 0, sizeof(ci));
    ci.context = context;
    ci.address = "127.0.0.1";
    ci.port = 1;
    ci.path = "/";
    ci.host = "127.0.0.1:1";
    ci.protocol = "lws-lns";
    ci.local_protocol_name = "lws-lns";
    ci.userdata = userdata;
    return lws_client_connect_via_info(&ci);
}

// `lns` initialised with a real library context (for lws_cancel_service) and a data-rate
// table. The connection handle is a stand-in marked closed, so nothing asks the library to use it.
class LnsMessagesTest : public ::testing::Test {
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
        const bridge_bstn_lns_dr table[] = {{12, 125, false}, {11, 125, false}, {10, 125, false}, {9, 125, false},
                                            {8, 125, false},  {7, 125, false},  {7, 250, false},  {7, 125, true},
                                            {9, 500, true}};
        memcpy(lns.drs, table, sizeof(table));
        lns.drs_count = 9;
        lns.downlink_cb = record_downlink;
        g_delivered.clear();
        bridge_log_init(BRIDGE_LOG_TRACE, true);
    }
    void TearDown() override {
        lns.lws_conn = nullptr;
        if (lns.inited) lns_ctx_deinit(&lns);
        bridge_log_init(BRIDGE_LOG_INFO, true);
    }
    // The oldest queued uplink text, consumed.
    std::string pop_uplink() {
        auto *msg = static_cast<const bridge_bstn_lns_ring_msg *>(lws_ring_get_element(lns.buffers.uplink_ring, nullptr));
        if (!msg) return {};
        std::string text = msg->data;
        lws_ring_consume(lns.buffers.uplink_ring, nullptr, nullptr, 1);
        return text;
    }
    size_t uplinks_waiting() {
        lns_lock(&lns);
        size_t n = lws_ring_get_count_waiting_elements(lns.buffers.uplink_ring, nullptr);
        lns_unlock(&lns);
        return n;
    }
    int conn_stand_in = 0;
};

TEST_F(LnsMessagesTest, UplinkDataRateTextBecomesTableIndex) {
    struct Row {
        const char *datr;
        int index; // -1: dropped
        const char *message;
    } rows[] = {
        {"SF12BW125", 0, "DR index found: [0]"},
        {"SF7BW125", 5, "DR index found: [5]"}, // entry 7 is the same but downlink-only
        {"SF7BW250", 6, nullptr},
        {"SF9BW500", -1, "no matching DR found for SF [0x9] and BW [0x1f4]"}, // downlink-only
        {"SF6BW125", -1, "no matching DR found for SF [0x6] and BW [0x7d]"},
        {"SF7", -1, "invalid SF/BW string: SF7"},
        {"LORA", -1, "invalid SF/BW string: LORA"},
    };
    for (const Row &r : rows) {
        bridge_json_ptr up = parse(std::string(R"({"msgtype":"jreq","DR":")") + r.datr + R"(","Freq":868100000})");
        kes_test::StderrCapture cap;
        EXPECT_EQ(bridge_bstn_lns_uplink_push(up.get()), 0) << r.datr;
        std::string log = cap.stop();
        if (r.message) {
            EXPECT_NE(log.find(r.message), std::string::npos) << r.datr << "\n" << log;
        }
        if (r.index < 0) {
            EXPECT_EQ(uplinks_waiting(), 0u) << r.datr;
            continue;
        }
        bridge_json_ptr queued = parse(pop_uplink());
        ASSERT_TRUE(queued) << r.datr;
        EXPECT_EQ(str_member(queued.get(), "DR"), std::to_string(r.index));
        EXPECT_EQ(str_member(queued.get(), "RefTime"), "<absent>"); // no MuxTime yet
        EXPECT_EQ(str_member(queued.get(), "Freq"), "868100000");
    }
}

TEST_F(LnsMessagesTest, RefTimeAdvancesMuxTimeByLocalTimeElapsed) {
    lns_muxtime_set(&lns, 1700000000.5);
    EXPECT_EQ(lns.muxtime, 1700000000500u);
    lns.reftime -= 2250; // received 2.25 s ago
    bridge_json_ptr up = parse(R"({"msgtype":"updf","DR":"SF7BW125"})");
    ASSERT_EQ(bridge_bstn_lns_uplink_push(up.get()), 0);
    bridge_json_ptr queued = parse(pop_uplink());
    json_object *ref = nullptr;
    ASSERT_TRUE(json_object_object_get_ex(queued.get(), "RefTime", &ref));
    // the push itself takes a few milliseconds on a loaded or emulated machine
    EXPECT_NEAR(json_object_get_double(ref), 1700000002.75, 0.25);
}

TEST_F(LnsMessagesTest, UplinkRefusedWhileNotConnectedOrNotInitialised) {
    lns.lws_conn = nullptr;
    bridge_json_ptr up = parse(R"({"msgtype":"updf","DR":"SF7BW125"})");
    kes_test::StderrCapture cap;
    EXPECT_EQ(bridge_bstn_lns_uplink_push(up.get()), 0);
    std::string log = cap.stop();
    // The lookup runs before the connection test: both lines appear.
    EXPECT_NE(log.find("DR index found: [5]"), std::string::npos);
    EXPECT_NE(log.find("LNS service is initialized, but connection is not yet established, skipping uplink..."),
              std::string::npos);
    EXPECT_EQ(uplinks_waiting(), 0u);

    lns_ctx_deinit(&lns);
    kes_test::StderrCapture cap2;
    EXPECT_EQ(bridge_bstn_lns_uplink_push(up.get()), 0);
    EXPECT_NE(cap2.stop().find("LNS service is in transition state, skipping uplink..."), std::string::npos);
}

TEST_F(LnsMessagesTest, FullUplinkRingRejectsWithMinusOne) {
    for (unsigned i = 0; i < LNS_RING_ELEMENTS - 1; ++i) ASSERT_EQ(lns_ring_push_copy(lns.buffers.uplink_ring, "{}"), 0);
    bridge_json_ptr up = parse(R"({"msgtype":"updf","DR":"SF7BW125"})");
    kes_test::StderrCapture cap;
    EXPECT_EQ(bridge_bstn_lns_uplink_push(up.get()), -1);
    EXPECT_NE(cap.stop().find("failed to insert a message into the ringbuffer"), std::string::npos);
    EXPECT_EQ(uplinks_waiting(), LNS_RING_ELEMENTS - 1);
}

TEST_F(LnsMessagesTest, UplinkPushWakesTheServiceLoop) {
    std::thread pusher([] {
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
        bridge_json_ptr up(json_tokener_parse(R"({"msgtype":"updf","DR":"SF7BW125"})"));
        bridge_bstn_lns_uplink_push(up.get());
    });
    kes_test::StderrCapture cap;
    for (int i = 0; i < 20 && uplinks_waiting() == 0; ++i) lws_service(lns.ws_ctx, LNS_SERVICE_WAIT_MS);
    pusher.join();
    EXPECT_NE(cap.stop().find("WS service wait canceled"), std::string::npos);
    EXPECT_EQ(uplinks_waiting(), 1u);
}

TEST_F(LnsMessagesTest, DnmsgWindowChoiceAndConfirmation) {
    struct Row {
        const char *members;
        const char *dr; // nullptr: dropped
        int64_t freq;
        int64_t xtime;
        const char *message;
    } rows[] = {
        {R"("dC":0,"xtime":1000000000,"RxDelay":1,"RX1DR":5,"RX1Freq":868100000,"RX2DR":0,"RX2Freq":869525000)",
         "SF12BW125", 869525000, 1002000000, nullptr},
        {R"("dC":0,"xtime":1000000000,"RxDelay":1,"RX1DR":5,"RX1Freq":868100000)", "SF7BW125", 868100000,
         1001000000, nullptr},
        {R"("dC":0,"xtime":1000000000,"RxDelay":0,"RX1DR":5,"RX1Freq":868100000,"RX2DR":-1,"RX2Freq":869525000)",
         "SF7BW125", 868100000, 1001000000, nullptr},
        {R"("dC":0,"xtime":10,"RX1DR":5,"RX1Freq":868100000)", "SF7BW125", 868100000, 1000010, nullptr},
        {R"("dC":1,"gpstime":1300000000000000,"DR":6,"Freq":868300000)", "SF7BW250", 868300000, 1300000000000000,
         nullptr},
        {R"("dC":2,"xtime":7,"RX1DR":1,"RX1Freq":868500000,"RX2DR":0,"RX2Freq":869525000)", "SF11BW125", 868500000,
         1000007, nullptr},
        {R"("dC":2,"xtime":7,"RX2DR":0,"RX2Freq":869525000)", "SF12BW125", 869525000, 1000007, nullptr},
        {R"("dC":1,"gpstime":5,"DR":9,"Freq":869525000)", nullptr, 0, 0, "invalid DR index: [9]"},
        {R"("dC":1,"gpstime":5,"Freq":869525000)", nullptr, 0, 0, "invalid DR index: [-1]"},
        {R"("dC":0,"RX1DR":5,"RX1Freq":868100000)", nullptr, 0, 0, "xtime and gpstime both missing from incoming packet"},
        {R"("dC":0,"xtime":7,"RX1DR":5,"RX2Freq":869525000)", nullptr, 0, 0,
         "no suitable DR index found in the class-A downlink"},
        {R"("dC":2,"xtime":7,"RX1Freq":868100000)", nullptr, 0, 0, "no suitable DR index found in the class-C downlink"},
        {R"("dC":4,"xtime":7,"RX1DR":5,"RX1Freq":868100000)", nullptr, 0, 0, "no suitable dC (downlink type) found"},
    };
    int diid = 0;
    for (const Row &r : rows) {
        g_delivered.clear();
        std::string text = std::string(R"({"msgtype":"dnmsg","DevEui":"01-02-03-04-05-06-07-08","rctx":9,"diid":)") +
                           std::to_string(++diid) + "," + r.members + "}";
        kes_test::StderrCapture cap;
        EXPECT_EQ(lns_handle_message(&lns, text.c_str()), 0) << r.members;
        std::string log = cap.stop();
        if (r.message) {
            EXPECT_NE(log.find(r.message), std::string::npos) << r.members << "\n" << log;
        }
        if (!r.dr) {
            EXPECT_TRUE(g_delivered.empty()) << r.members;
            EXPECT_EQ(uplinks_waiting(), 0u) << r.members;
            continue;
        }
        ASSERT_EQ(g_delivered.size(), 1u) << r.members;
        bridge_json_ptr got = parse(g_delivered[0]);
        EXPECT_EQ(str_member(got.get(), "DR"), r.dr) << r.members;
        EXPECT_EQ(str_member(got.get(), "Freq"), std::to_string(r.freq)) << r.members;
        bridge_json_ptr dntxed = parse(pop_uplink());
        ASSERT_TRUE(dntxed) << r.members;
        EXPECT_EQ(str_member(dntxed.get(), "msgtype"), "dntxed");
        EXPECT_EQ(str_member(dntxed.get(), "DevEui"), "01-02-03-04-05-06-07-08");
        EXPECT_EQ(str_member(dntxed.get(), "rctx"), "9");
        EXPECT_EQ(str_member(dntxed.get(), "xtime"), std::to_string(r.xtime)) << r.members;
        EXPECT_EQ(str_member(dntxed.get(), "diid"), std::to_string(diid));
    }
}

TEST_F(LnsMessagesTest, DispatchByMsgtypeAndMuxTimeIntake) {
    struct Row {
        const char *text;
        int rc;
        double muxtime_s; // expected MuxTime afterwards (0 = none)
        const char *message;
    } rows[] = {
        {R"({"msgtype":"timesync","MuxTime":0,"gpstime":1})", 0, 0, "received timesync message"},
        {R"({"msgtype":"timesync","MuxTime":-3})", 0, 0, nullptr},
        {R"({"msgtype":"timesync","MuxTime":"soon"})", 0, 0, "no MuxTime in the incoming message"},
        {R"({"msgtype":"dnsched","schedule":[],"MuxTime":5})", 0, 0, nullptr},
        {R"({"msgtype":"router_config","DRs":[],"MuxTime":5})", 0, 0,
         "skipping non-downlink message with a type: router_config"},
        {R"({"msgtype":"timesync","MuxTime":1700000000.25})", 0, 1700000000.25, "MuxTime received: "},
        {R"({"msgtype":"dnmsg","DevEui":"01","diid":1,"dC":1,"gpstime":5,"DR":2,"Freq":1,"MuxTime":1800000000})", 0,
         1800000000.0, nullptr},
        {"[1,2]", -1, 0, "failed to de-serialize downlink"},
        {"{nope", -1, 0, "failed to parse downlink JSON"},
        {R"({"msgtype":"a-much-too-long-message-type-name"})", -1, 0, "failed to de-serialize downlink"},
        {R"({"msgtype":"dnmsg","DevEui":"01","dC":1,"gpstime":5})", -1, 0, "failed to de-serialize downlink"},
    };
    for (const Row &r : rows) {
        lns.muxtime = 0;
        kes_test::StderrCapture cap;
        EXPECT_EQ(lns_handle_message(&lns, r.text), r.rc) << r.text;
        std::string log = cap.stop();
        if (r.message) {
            EXPECT_NE(log.find(r.message), std::string::npos) << r.text << "\n" << log;
        }
        EXPECT_EQ(lns.muxtime, static_cast<uint64_t>(r.muxtime_s * 1000.0)) << r.text;
    }
    EXPECT_EQ(g_delivered.size(), 1u); // only the dnmsg row
}

// lws_service ignores its time-out when nothing happens: keep a timer pending.
void test_tick(lws_sorted_usec_list_t *sul);
struct lws_context *g_tick_context;
void test_tick(lws_sorted_usec_list_t *sul) {
    lws_sul_schedule(g_tick_context, 0, sul, test_tick, LNS_SERVICE_WAIT_MS * LWS_US_PER_MS);
}

TEST_F(LnsMessagesTest, DestroyOfHandleWithoutContextLeavesContextUntouched) {
    lws_sorted_usec_list_t tick;
    memset(&tick, 0, sizeof(tick));
    g_tick_context = lns.ws_ctx;
    test_tick(&tick);
    // A connection opened without user data gets its error and destroy callbacks with a null user.
    ASSERT_NE(pending_connection(lns.ws_ctx, nullptr), nullptr);
    lns.conn_closed = false;
    kes_test::StderrCapture cap;
    for (int i = 0; i < 10; ++i) lws_service(lns.ws_ctx, LNS_SERVICE_WAIT_MS);
    std::string log = cap.stop();
    lws_sul_cancel(&tick);
    EXPECT_NE(log.find("WS client connection error: "), std::string::npos) << log;
    EXPECT_NE(log.find("WS event: 30"), std::string::npos) << log; // LWS_CALLBACK_WSI_DESTROY
    EXPECT_EQ(log.find("WSI destroyed, notifying outer loop to stop processing"), std::string::npos) << log;
    EXPECT_FALSE(lns.stop_processing);
    EXPECT_FALSE(lns.conn_closed);
    EXPECT_EQ(lns.drs_count, 9);
    lns.conn_closed = true;
}

// Servers answer router-info and close at once. The library may deliver the reply and the
// connection's destruction in one service call; the exchange must still take the reply.
struct lws *g_conn;
void receive_then_destroy(lws_sorted_usec_list_t *) {
    static const char reply[] = R"({"uri":"wss://lns:1/traffic/gw"})";
    lns_ws_callback(g_conn, LWS_CALLBACK_CLIENT_RECEIVE, &lns, const_cast<char *>(reply), strlen(reply));
    lns_ws_callback(g_conn, LWS_CALLBACK_WSI_DESTROY, &lns, nullptr, 0);
}

TEST_F(LnsMessagesTest, ExchangeTakesReplyDeliveredWithTheDestroy) {
    g_conn = pending_connection(lns.ws_ctx, &lns);
    ASSERT_NE(g_conn, nullptr);
    lns.lws_conn = g_conn;
    lns.conn_closed = false;
    lws_sorted_usec_list_t sul;
    memset(&sul, 0, sizeof(sul));
    lws_sul_schedule(lns.ws_ctx, 0, &sul, receive_then_destroy, 1);
    kes_test::StderrCapture cap;
    int rc = lns_ws_send_and_wait(&lns, "router-info", R"({"router":"gw"})");
    std::string log = cap.stop();
    EXPECT_EQ(rc, 0) << log;
    EXPECT_TRUE(lns.stop_processing);
    EXPECT_EQ(lws_ring_get_count_waiting_elements(lns.buffers.downlink_ring, nullptr), 1u);
    EXPECT_EQ(log.find("WS loop stopped due to error, restart required"), std::string::npos) << log;
    lws_sul_cancel(&sul);
}

void two_replies(lws_sorted_usec_list_t *) {
    static const char reply[] = R"({"uri":"wss://lns:1/traffic/gw"})";
    for (int i = 0; i < 2; ++i)
        lns_ws_callback(g_conn, LWS_CALLBACK_CLIENT_RECEIVE, &lns, const_cast<char *>(reply), strlen(reply));
}

TEST_F(LnsMessagesTest, ExchangeRejectsTwoRepliesAndDiscardsBoth) {
    g_conn = pending_connection(lns.ws_ctx, &lns);
    ASSERT_NE(g_conn, nullptr);
    lns.lws_conn = g_conn;
    lns.conn_closed = false;
    lws_sorted_usec_list_t sul;
    memset(&sul, 0, sizeof(sul));
    lws_sul_schedule(lns.ws_ctx, 0, &sul, two_replies, 1);
    kes_test::StderrCapture cap;
    int rc = lns_ws_send_and_wait(&lns, "router-info", R"({"router":"gw"})");
    std::string log = cap.stop();
    EXPECT_EQ(rc, -1) << log;
    EXPECT_NE(log.find("unexpected elements waiting in a downlink queue: [2], expected: 1"), std::string::npos) << log;
    EXPECT_EQ(lws_ring_get_count_waiting_elements(lns.buffers.downlink_ring, nullptr), 0u);
    lws_sul_cancel(&sul);
}

TEST_F(LnsMessagesTest, ExchangeWithoutReplyAfterDestroyRequiresRestart) {
    g_conn = pending_connection(lns.ws_ctx, &lns); // nothing listens: error, then destroy
    ASSERT_NE(g_conn, nullptr);
    lns.lws_conn = g_conn;
    lns.conn_closed = false;
    kes_test::StderrCapture cap;
    int rc = lns_ws_send_and_wait(&lns, "router-info", R"({"router":"gw"})");
    std::string log = cap.stop();
    EXPECT_EQ(rc, LNS_STATUS_RESTART_REQUIRED) << log;
    EXPECT_NE(log.find("WS client connection error: "), std::string::npos) << log;
    EXPECT_NE(log.find("WS loop stopped due to error, restart required"), std::string::npos) << log;
    EXPECT_TRUE(lns.conn_closed);
}

TEST_F(LnsMessagesTest, HandshakeHeaderAppendAndOverflow) {
    struct lws *wsi = pending_connection(lns.ws_ctx, nullptr);
    ASSERT_NE(wsi, nullptr);
    lns.token_auth = true;
    snprintf(lns.auth_hdr, sizeof(lns.auth_hdr), "Authorization: Bearer abc\r\n");
    const size_t hdr_len = strlen(lns.auth_hdr);
    unsigned char buf[64];
    memset(buf, 'z', sizeof(buf));
    unsigned char *p = buf;

    kes_test::StderrCapture cap;
    EXPECT_EQ(lns_ws_callback(wsi, LWS_CALLBACK_CLIENT_APPEND_HANDSHAKE_HEADER, &lns, &p, hdr_len), -1);
    EXPECT_NE(cap.stop().find("auth token is too long to be placed in headers"), std::string::npos);
    EXPECT_EQ(p, buf);
    EXPECT_EQ(buf[0], 'z');

    EXPECT_EQ(lns_ws_callback(wsi, LWS_CALLBACK_CLIENT_APPEND_HANDSHAKE_HEADER, &lns, &p, hdr_len + 1), 0);
    EXPECT_EQ(p, buf + hdr_len);
    EXPECT_EQ(std::string(reinterpret_cast<char *>(buf)), lns.auth_hdr);

    lns.token_auth = false; // certificate mode adds nothing
    EXPECT_EQ(lns_ws_callback(wsi, LWS_CALLBACK_CLIENT_APPEND_HANDSHAKE_HEADER, &lns, &p, 40), 0);
    EXPECT_EQ(p, buf + hdr_len);

    kes_test::StderrCapture cap2;
    EXPECT_EQ(lns_ws_on_writeable(wsi, &lns), 0);
    EXPECT_NE(cap2.stop().find("no pending uplink messages present, skipping write"), std::string::npos);
}

} // namespace
