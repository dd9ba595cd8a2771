// Station session against the Python LNS peer: version/router_config handshake, uplink push,
// downlink processing with dntxed, other LNS messages, connection loss, pings, ring overflow.
#include "integration/test_lns_support.h"

#include <condition_variable>
#include <future>
#include <mutex>
#include <thread>

using lns_test::Peer;

namespace {

struct Delivered {
    std::mutex m;
    std::condition_variable cv;
    std::vector<std::string> texts;
};

int record_downlink(int status, void *arg, const char *data, size_t data_sz) {
    auto *d = static_cast<Delivered *>(arg);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(data_sz, strlen(data) + 1);
    std::lock_guard<std::mutex> g(d->m);
    d->texts.emplace_back(data);
    d->cv.notify_all();
    return 0;
}

bridge_json_ptr parse(const std::string &text) { return bridge_json_ptr(json_tokener_parse(text.c_str())); }

// A DRs array of `entries` SF7/125 entries followed by `tail` (JSON members, may be empty).
std::string drs_json(int entries, const std::string &tail = "") {
    std::string s = "[";
    for (int i = 0; i < entries; ++i) s += std::string(i ? "," : "") + "[7,125,0]";
    if (!tail.empty()) s += "," + tail;
    return s + "]";
}

class LnsSessionTest : public ::testing::Test {
protected:
    void SetUp() override {
        lns_test::certs_dir();
        bridge_log_init(BRIDGE_LOG_INFO, true);
        lns_retry_pause_secs = 0;
        lns_exchange_timeout_secs = LNS_TIMEOUT_SECS;
    }
    void TearDown() override {
        if (peer) peer->proc.stop();
        if (session.valid()) session.wait_for(std::chrono::seconds(10));
        if (lns.inited) bridge_bstn_lns_stop();
        lns_retry_pause_secs = LNS_RETRY_PAUSE_SECS;
        lns_exchange_timeout_secs = LNS_TIMEOUT_SECS;
        bridge_log_init(BRIDGE_LOG_INFO, true);
    }

    // Peer, discovery, subscription and a running session.
    void start(std::vector<std::string> peer_args = {}) {
        peer = std::make_unique<Peer>(std::move(peer_args));
        lns_test::configure(dir, peer->uri());
        ASSERT_EQ(bridge_bstn_lns_init_discovery(BRIDGE_LOG_INFO, false), 0);
        bridge_bstn_lns_downlink_subscribe(record_downlink, &delivered);
        session = std::async(std::launch::async, bridge_bstn_lns_start);
    }
    bool wait_handshake(int32_t expected_drs = 16) {
        for (int i = 0; i < 100; ++i) {
            lns_lock(&lns);
            int32_t n = lns.drs_count;
            lns_unlock(&lns);
            if (n == expected_drs) return true;
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        }
        return false;
    }
    int session_result(int timeout_s = 10) {
        if (session.wait_for(std::chrono::seconds(timeout_s)) != std::future_status::ready) return -9999;
        return session.get();
    }
    // Sends `dnmsg` through the peer and returns what the subscriber got (empty on time-out).
    std::string deliver(const std::string &dnmsg_json, int timeout_ms = 5000) {
        size_t before;
        {
            std::lock_guard<std::mutex> g(delivered.m);
            before = delivered.texts.size();
        }
        peer->command("{\"cmd\":\"send\",\"msg\":" + dnmsg_json + "}");
        std::unique_lock<std::mutex> l(delivered.m);
        if (!delivered.cv.wait_for(l, std::chrono::milliseconds(timeout_ms),
                                   [&] { return delivered.texts.size() > before; }))
            return {};
        return delivered.texts[before];
    }
    bridge_json_ptr push_uplink(const std::string &json) {
        bridge_json_ptr up = parse(json);
        EXPECT_EQ(bridge_bstn_lns_uplink_push(up.get()), 0);
        return peer->wait_recv("traffic", "updf");
    }

    kes_test::TempDir dir;
    std::unique_ptr<Peer> peer;
    std::future<int> session;
    Delivered delivered;
};

TEST_F(LnsSessionTest, VersionHandshakeBuildsDataRateTable) {
    start();
    bridge_json_ptr connected = peer->wait_event([](json_object *e) {
        return Peer::str(e, "event") == "connected" && Peer::str(e, "kind") == "traffic";
    });
    ASSERT_TRUE(connected);
    EXPECT_EQ(Peer::str(connected.get(), "path"), std::string("/traffic/") + lns_test::GW_EUI);
    EXPECT_EQ(Peer::str(connected.get(), "subprotocol"), "lws-lns");
    bridge_json_ptr version = peer->wait_recv("traffic", "version");
    ASSERT_TRUE(version);
    EXPECT_STREQ(json_object_to_json_string_ext(version.get(), JSON_C_TO_STRING_PLAIN),
                 "{\"msgtype\":\"version\",\"station\":\"kes-test-station\",\"firmware\":\"1.7.1\","
                 "\"package\":\"kes-package\",\"model\":\"kes-model\",\"protocol\":2}");
    ASSERT_TRUE(wait_handshake());
    lns_lock(&lns);
    EXPECT_EQ(lns.drs[0].sf, 12);
    EXPECT_EQ(lns.drs[5].sf, 7);
    EXPECT_EQ(lns.drs[5].bw, 125);
    EXPECT_EQ(lns.drs[6].bw, 250);
    EXPECT_EQ(lns.drs[15].sf, -1);
    EXPECT_NE(lns.muxtime, 0u);
    lns_unlock(&lns);
}

TEST_F(LnsSessionTest, UplinkCarriesDataRateIndexAndRefTime) {
    start({"--no-muxtime"});
    ASSERT_TRUE(wait_handshake());
    struct Row {
        const char *datr;
        int64_t index;
    } rows[] = {{"SF12BW125", 0}, {"SF7BW125", 5}, {"SF7BW250", 6}, {"SF9BW125", 3}};
    for (const Row &r : rows) {
        bridge_json_ptr got = push_uplink(std::string("{\"msgtype\":\"updf\",\"DR\":\"") + r.datr +
                                          "\",\"Freq\":868100000,\"upinfo\":{\"rctx\":0,\"xtime\":77}}");
        ASSERT_TRUE(got) << r.datr;
        EXPECT_EQ(Peer::num(got.get(), "DR"), r.index) << r.datr;
        json_object *ref = nullptr;
        EXPECT_FALSE(json_object_object_get_ex(got.get(), "RefTime", &ref)) << "no MuxTime yet";
    }
    // A timesync brings MuxTime; later uplinks carry it forward by the local time elapsed.
    peer->command(R"({"cmd":"send","msg":{"msgtype":"timesync","MuxTime":1700000000.5,"xtime":1,"gpstime":2}})");
    for (int i = 0; i < 100; ++i) {
        lns_lock(&lns);
        bool got_muxtime = lns.muxtime != 0;
        lns_unlock(&lns);
        if (got_muxtime) break;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(250));
    bridge_json_ptr got = push_uplink(R"({"msgtype":"updf","DR":"SF8BW125","Freq":868300000})");
    ASSERT_TRUE(got);
    EXPECT_EQ(Peer::num(got.get(), "DR"), 4);
    json_object *ref = nullptr;
    ASSERT_TRUE(json_object_object_get_ex(got.get(), "RefTime", &ref));
    EXPECT_NEAR(json_object_get_double(ref), 1700000000.75, 0.2);
}

struct DownlinkRow {
    const char *name;
    const char *dnmsg;     // members after msgtype/DevEui/diid
    const char *dr;        // delivered DR text
    int64_t freq;          // delivered Freq
    int64_t dntxed_xtime;  // xtime in the confirmation
};

TEST_F(LnsSessionTest, DownlinksPickWindowAndAreConfirmed) {
    start();
    ASSERT_TRUE(wait_handshake());
    const DownlinkRow rows[] = {
        {"class A with RX2", R"("dC":0,"xtime":1000000000,"RxDelay":1,"RX1DR":5,"RX1Freq":868100000,"RX2DR":0,"RX2Freq":869525000,"rctx":3)",
         "SF12BW125", 869525000, 1002000000},
        {"class B by gpstime", R"("dC":1,"gpstime":1300000000123456,"DR":3,"Freq":869525000,"rctx":3)",
         "SF9BW125", 869525000, 1300000000123456},
        {"class C prefers RX1", R"("dC":2,"xtime":2000000,"RX1DR":6,"RX1Freq":868300000,"RX2DR":0,"RX2Freq":869525000,"rctx":3)",
         "SF7BW250", 868300000, 3000000},
    };
    int64_t diid = 100;
    for (const DownlinkRow &r : rows) {
        ++diid;
        std::string msg = R"({"msgtype":"dnmsg","DevEui":"00-00-00-00-00-00-00-01","diid":)" +
                          std::to_string(diid) + "," + r.dnmsg + R"(,"pdu":"0a0b","priority":0})";
        std::string text = deliver(msg);
        ASSERT_FALSE(text.empty()) << r.name;
        bridge_json_ptr got = parse(text);
        EXPECT_EQ(Peer::str(got.get(), "DR"), r.dr) << r.name;
        EXPECT_EQ(Peer::num(got.get(), "Freq"), r.freq) << r.name;
        EXPECT_EQ(Peer::str(got.get(), "pdu"), "0a0b") << r.name;

        bridge_json_ptr dntxed = peer->wait_recv("traffic", "dntxed");
        ASSERT_TRUE(dntxed) << r.name;
        std::string keys;
        json_object_object_foreach(dntxed.get(), k, v) {
            (void)v;
            keys += std::string(k) + ",";
        }
        EXPECT_EQ(keys, "msgtype,DevEui,rctx,xtime,diid,txtime,") << r.name;
        EXPECT_EQ(Peer::str(dntxed.get(), "DevEui"), "00-00-00-00-00-00-00-01");
        EXPECT_EQ(Peer::num(dntxed.get(), "rctx"), 3);
        EXPECT_EQ(Peer::num(dntxed.get(), "xtime"), r.dntxed_xtime) << r.name;
        EXPECT_EQ(Peer::num(dntxed.get(), "diid"), diid) << r.name;
        EXPECT_NEAR(static_cast<double>(Peer::num(dntxed.get(), "txtime")), static_cast<double>(time(nullptr)), 5);
    }
}

TEST_F(LnsSessionTest, UnschedulableDownlinksAreDroppedAndSessionGoesOn) {
    start();
    ASSERT_TRUE(wait_handshake());
    const char *dropped[] = {
        R"({"msgtype":"dnmsg","DevEui":"01","diid":1,"dC":1,"gpstime":5,"DR":16,"Freq":869525000})",
        R"({"msgtype":"dnmsg","DevEui":"01","diid":2,"dC":0,"RX1DR":5,"RX1Freq":868100000})",
        R"({"msgtype":"dnmsg","DevEui":"01","diid":3,"dC":0,"xtime":5,"RX1DR":5})",
        R"({"msgtype":"dnmsg","DevEui":"01","diid":4,"dC":2,"xtime":5})",
        R"({"msgtype":"dnmsg","DevEui":"01","diid":5,"dC":3,"xtime":5,"RX1DR":5,"RX1Freq":868100000})",
        R"({"msgtype":"dnsched","schedule":[{"diid":6,"DR":5,"Freq":868100000,"pdu":"00"}]})",
        R"({"msgtype":"router_config","DRs":[]})",
        R"({"msgtype":"timesync","MuxTime":0,"txtime":1,"gpstime":2})",
    };
    lns_lock(&lns);
    const uint64_t muxtime = lns.muxtime;
    lns_unlock(&lns);
    for (const char *m : dropped) EXPECT_TRUE(deliver(m, 300).empty()) << m;
    // The next good one is delivered and is the only one confirmed.
    std::string text = deliver(R"({"msgtype":"dnmsg","DevEui":"01","diid":9,"dC":1,"gpstime":5,"DR":15,"Freq":1})");
    ASSERT_FALSE(text.empty());
    EXPECT_EQ(Peer::str(parse(text).get(), "DR"), "SF-1BW0");
    bridge_json_ptr dntxed = peer->wait_recv("traffic", "dntxed");
    ASSERT_TRUE(dntxed);
    EXPECT_EQ(Peer::num(dntxed.get(), "diid"), 9);
    lns_lock(&lns);
    EXPECT_EQ(lns.muxtime, muxtime); // MuxTime 0 changes nothing
    EXPECT_EQ(lns.drs_count, 16);    // a later router_config is skipped
    lns_unlock(&lns);
    EXPECT_EQ(session.wait_for(std::chrono::milliseconds(0)), std::future_status::timeout);
}

TEST_F(LnsSessionTest, MalformedMessageEndsTheSession) {
    start();
    ASSERT_TRUE(wait_handshake());
    peer->command(R"({"cmd":"send_raw","text":"not json at all"})");
    EXPECT_EQ(session_result(), -1);
    EXPECT_EQ(lns.ws_ctx, nullptr);
    EXPECT_EQ(lns.lws_conn, nullptr);
}

TEST_F(LnsSessionTest, ServerCloseEndsTheSessionNormally) {
    start();
    ASSERT_TRUE(wait_handshake());
    kes_test::StderrCapture cap;
    bridge_log_init(BRIDGE_LOG_DEBUG, true);
    peer->command(R"({"cmd":"close"})");
    int rc = session_result();
    bridge_log_init(BRIDGE_LOG_INFO, true);
    std::string log = cap.stop();
    // The pump ends on the connection's destruction with its last service status.
    EXPECT_EQ(rc, 0) << log;
    EXPECT_NE(log.find("WSI destroyed, notifying outer loop to stop processing"), std::string::npos) << log;
    EXPECT_NE(log.find("stopping LWS main loop..."), std::string::npos) << log;
    EXPECT_EQ(lns.ws_ctx, nullptr);
    EXPECT_EQ(lns.lws_conn, nullptr);
    // With the connection gone, uplinks are refused as not yet established.
    bridge_json_ptr up = parse(R"({"msgtype":"updf","DR":"SF7BW125"})");
    EXPECT_EQ(bridge_bstn_lns_uplink_push(up.get()), 0);
    EXPECT_EQ(lws_ring_get_count_waiting_elements(lns.buffers.uplink_ring, nullptr), 0u);
}

TEST_F(LnsSessionTest, PeerKilledEndsTheSession) {
    start();
    ASSERT_TRUE(wait_handshake());
    peer->proc.stop();
    EXPECT_EQ(session_result(), 0);
}

TEST_F(LnsSessionTest, RefusedTrafficConnectionRequiresRestart) {
    start({"--refuse-traffic"});
    EXPECT_EQ(session_result(), LNS_STATUS_RESTART_REQUIRED);
    EXPECT_TRUE(peer->wait_named("refused"));
    EXPECT_EQ(lns.drs_count, 0);
}

TEST_F(LnsSessionTest, SilentServerFailsVersionExchangeAfterTheBound) {
    lns_exchange_timeout_secs = 1;
    kes_test::StderrCapture cap;
    start({"--stall-version"});
    int rc = session_result();
    std::string log = cap.stop();
    EXPECT_EQ(rc, LNS_STATUS_RESTART_REQUIRED);
    EXPECT_NE(log.find("no reply from LNS within 1 seconds"), std::string::npos) << log;
}

TEST_F(LnsSessionTest, HandshakeFailuresLeaveTableEmpty) {
    struct Row {
        const char *name;
        std::string router_config;
        int status;
        const char *message;
    } rows[] = {
        {"no DRs", R"({"msgtype":"router_config","MuxTime":5})", -1, "no DRs array found in the response"},
        {"DRs not an array", R"({"msgtype":"router_config","DRs":{"0":[7,125,0]}})", -1,
         "no DRs array found in the response"},
        {"33 entries", R"({"msgtype":"router_config","DRs":)" + drs_json(33) + "}", 1,
         "too much datarate items received in the response, max: [32]"},
        {"entry not an array", R"({"msgtype":"router_config","DRs":[[7,125,0],5]})", -22,
         "DR array entry is not an array"},
        {"entry is an object", R"({"msgtype":"router_config","DRs":[{"sf":7}]})", -22,
         "DR array entry is not an array"},
        {"member string", R"({"msgtype":"router_config","DRs":[[7,"125",0]]})", -22, "DR array member is not integer"},
        {"member object", R"({"msgtype":"router_config","DRs":[[7,{},0]]})", -22, "DR array member is not integer"},
        {"member array", R"({"msgtype":"router_config","DRs":[[[7],125]]})", -22, "DR array member is not integer"},
        {"member null", R"({"msgtype":"router_config","DRs":[[7,125,null]]})", -22, "DR array member is not integer"},
        {"fourth member", R"({"msgtype":"router_config","DRs":[[7,125,1,0]]})", -1,
         "superfluous item with index [3] reached in the DR array"},
    };
    for (const Row &r : rows) {
        kes_test::write_file(dir.file("rc.json"), r.router_config);
        kes_test::StderrCapture cap;
        start({"--router-config", dir.file("rc.json")});
        int rc = session_result();
        std::string log = cap.stop();
        EXPECT_EQ(rc, r.status) << r.name;
        EXPECT_NE(log.find(r.message), std::string::npos) << r.name << "\n" << log;
        EXPECT_EQ(lns.drs_count, 0) << r.name;
        bridge_bstn_lns_stop();
        peer.reset();
    }
}

TEST_F(LnsSessionTest, ThirtyTwoEntriesWithShortEntriesAreAccepted) {
    kes_test::write_file(dir.file("rc.json"),
                         R"({"msgtype":"router_config","DRs":)" + drs_json(30, "[8],[9,500,1]") + "}");
    start({"--router-config", dir.file("rc.json")});
    ASSERT_TRUE(wait_handshake(32));
    lns_lock(&lns);
    EXPECT_EQ(lns.drs[30].sf, 8);
    EXPECT_EQ(lns.drs[30].bw, 0);
    EXPECT_FALSE(lns.drs[30].dnonly);
    EXPECT_TRUE(lns.drs[31].dnonly);
    lns_unlock(&lns);
}

TEST_F(LnsSessionTest, SessionSurvivesSilenceLongerThanSeveralPings) {
    start({"--ping-interval", "0.5", "--ping-timeout", "1"});
    ASSERT_TRUE(wait_handshake());
    std::this_thread::sleep_for(std::chrono::milliseconds(3500));
    EXPECT_EQ(session.wait_for(std::chrono::milliseconds(0)), std::future_status::timeout);
    bridge_json_ptr got = push_uplink(R"({"msgtype":"updf","DR":"SF7BW125"})");
    ASSERT_TRUE(got);
    EXPECT_EQ(Peer::num(got.get(), "DR"), 5);
    EXPECT_FALSE(peer->wait_named("closed", 100));
}

TEST_F(LnsSessionTest, RingOverflowDropsTheSixteenthTextAndKeepsOrder) {
    start();
    ASSERT_TRUE(wait_handshake());
    kes_test::StderrCapture cap;
    lns_lock(&lns); // the writer cannot run while the texts are queued
    int failures = 0;
    for (int i = 0; i < 16; ++i) {
        std::string text = R"({"msgtype":"updf","seq":)" + std::to_string(i) + "}";
        if (lns_ring_push_copy(lns.buffers.uplink_ring, text.c_str()) != 0) ++failures;
    }
    lws_cancel_service(lns.ws_ctx);
    lns_unlock(&lns);
    std::string log = cap.stop();
    EXPECT_EQ(failures, 1);
    EXPECT_NE(log.find("failed to insert a message into the ringbuffer"), std::string::npos);
    for (int i = 0; i < 15; ++i) {
        bridge_json_ptr got = peer->wait_recv("traffic", "updf");
        ASSERT_TRUE(got) << i;
        EXPECT_EQ(Peer::num(got.get(), "seq"), i);
    }
    EXPECT_FALSE(peer->wait_recv("traffic", "updf", 300));
}

TEST_F(LnsSessionTest, AutoDnmsgRoundTrip) {
    start({"--auto-dnmsg", "--auto-dnmsg-rx2"});
    ASSERT_TRUE(wait_handshake());
    bridge_json_ptr up = parse(R"({"msgtype":"updf","DR":"SF7BW125","Freq":868100000,"upinfo":{"rctx":4,"xtime":1000000}})");
    ASSERT_EQ(bridge_bstn_lns_uplink_push(up.get()), 0);
    bridge_json_ptr dntxed = peer->wait_recv("traffic", "dntxed");
    ASSERT_TRUE(dntxed);
    EXPECT_EQ(Peer::num(dntxed.get(), "xtime"), 3000000); // RX2: xtime + 1 s + 1 s
    EXPECT_EQ(Peer::num(dntxed.get(), "rctx"), 4);
    std::lock_guard<std::mutex> g(delivered.m);
    ASSERT_EQ(delivered.texts.size(), 1u);
    EXPECT_EQ(Peer::str(parse(delivered.texts[0]).get(), "DR"), "SF12BW125");
}

} // namespace
