// router-info discovery against the Python LNS peer: closing servers, backup endpoint,
// certificate and token authentication, silent servers.
#include "integration/test_lns_support.h"

using lns_test::Peer;

namespace {

class LnsDiscoveryTest : public ::testing::Test {
protected:
    void SetUp() override {
        lns_test::certs_dir();
        bridge_log_init(BRIDGE_LOG_TRACE, true);
        lns_retry_pause_secs = 0;
        lns_exchange_timeout_secs = LNS_TIMEOUT_SECS;
    }
    void TearDown() override {
        if (lns.inited) bridge_bstn_lns_stop();
        lns_retry_pause_secs = LNS_RETRY_PAUSE_SECS;
        lns_exchange_timeout_secs = LNS_TIMEOUT_SECS;
        bridge_log_init(BRIDGE_LOG_INFO, true);
    }
    std::string expected_traffic_uri(const Peer &p) const {
        return p.uri() + "/traffic/" + lns_test::GW_EUI;
    }
    kes_test::TempDir dir;
};

TEST_F(LnsDiscoveryTest, TakesReplyOfServerThatClosesRightAfterIt) {
    Peer peer; // closes the discovery connection at once, like real servers
    lns_test::configure(dir, "  " + peer.uri() + "/prefix/eui\n");
    kes_test::StderrCapture cap;
    int rc = bridge_bstn_lns_init_discovery(BRIDGE_LOG_TRACE, false);
    std::string log = cap.stop();
    ASSERT_EQ(rc, 0) << log;
    EXPECT_TRUE(lns.inited);
    EXPECT_STREQ(lns.lns_uri, expected_traffic_uri(peer).c_str());
    EXPECT_EQ(lns.ws_ctx, nullptr);
    EXPECT_EQ(lns.lws_conn, nullptr);
    EXPECT_NE(log.find("WS path constructed: /prefix/eui/router-info"), std::string::npos) << log;

    bridge_json_ptr connected = peer.wait_named("connected");
    ASSERT_TRUE(connected);
    EXPECT_EQ(Peer::str(connected.get(), "path"), "/prefix/eui/router-info");
    bridge_json_ptr req = peer.wait_recv("discovery", "");
    ASSERT_TRUE(req);
    EXPECT_STREQ(json_object_to_json_string_ext(req.get(), JSON_C_TO_STRING_PLAIN), "{\"router\":\"0016c001ff10a235\"}");
}

TEST_F(LnsDiscoveryTest, TakesReplySentInOneRecordWithTheCloseFrame) {
    Peer peer({"--discovery-coalesce"});
    lns_test::configure(dir, peer.uri());
    ASSERT_EQ(lns_ctx_init(&lns), 0);
    kes_test::StderrCapture cap;
    int rc = lns_discover(&lns, false);
    std::string log = cap.stop();
    ASSERT_EQ(rc, 0) << log;
    EXPECT_STREQ(lns.lns_uri, expected_traffic_uri(peer).c_str());
    EXPECT_EQ(log.find("WS loop stopped due to error, restart required"), std::string::npos) << log;
}

TEST_F(LnsDiscoveryTest, ReplyMuxTimeStartsTheTimeReference) {
    Peer peer({"--discovery-muxtime"});
    lns_test::configure(dir, peer.uri());
    ASSERT_EQ(bridge_bstn_lns_init_discovery(BRIDGE_LOG_INFO, false), 0);
    const uint64_t now = lns_now_ms();
    EXPECT_NEAR(static_cast<double>(lns.muxtime), static_cast<double>(now), 5000.0);
    EXPECT_NEAR(static_cast<double>(lns.reftime), static_cast<double>(now), 5000.0);
}

TEST_F(LnsDiscoveryTest, UnreachablePrimaryFallsBackToBackupUri) {
    Peer peer;
    lns_test::configure(dir, "wss://127.0.0.1:" + std::to_string(lns_test::unused_port()), peer.uri());
    kes_test::StderrCapture cap;
    int rc = bridge_bstn_lns_init_discovery(BRIDGE_LOG_DEBUG, false);
    std::string log = cap.stop();
    ASSERT_EQ(rc, 0) << log;
    EXPECT_STREQ(lns.lns_uri, expected_traffic_uri(peer).c_str());
    EXPECT_NE(log.find("WS client connection error: "), std::string::npos) << log;
    EXPECT_NE(log.find("WS loop stopped due to error, restart required"), std::string::npos) << log;
}

TEST_F(LnsDiscoveryTest, PrimaryAttemptAloneReportsRestartRequired) {
    lns_test::configure(dir, "wss://127.0.0.1:" + std::to_string(lns_test::unused_port()));
    ASSERT_EQ(lns_ctx_init(&lns), 0);
    EXPECT_EQ(lns_discover(&lns, false), LNS_STATUS_RESTART_REQUIRED);
    EXPECT_EQ(lns.ws_ctx, nullptr);
    EXPECT_EQ(lws_ring_get_count_waiting_elements(lns.buffers.downlink_ring, nullptr), 0u);
}

TEST_F(LnsDiscoveryTest, ReplyWithoutUriFailsAndPausesTenSeconds) {
    Peer peer({"--discovery-no-uri"});
    lns_test::configure(dir, peer.uri());
    lns_retry_pause_secs = LNS_RETRY_PAUSE_SECS; // the real pause, measured once here
    auto t0 = std::chrono::steady_clock::now();
    int rc = bridge_bstn_lns_init_discovery(BRIDGE_LOG_INFO, false);
    auto secs = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    EXPECT_LT(rc, 0);
    EXPECT_NE(rc, LNS_STATUS_RESTART_REQUIRED);
    EXPECT_FALSE(lns.inited);
    EXPECT_GE(secs, 10.0);
    EXPECT_LT(secs, 15.0);
}

TEST_F(LnsDiscoveryTest, TokenHeaderFromKeyFileAuthenticates) {
    Peer peer({"--auth", "token", "--token", "Bearer s3cret-token"});
    lns_test::configure(dir, peer.uri());
    lns_test::configure_token(dir, "Authorization: Bearer s3cret-token\r\n");
    ASSERT_EQ(bridge_bstn_lns_init_discovery(BRIDGE_LOG_INFO, false), 0);
    EXPECT_STREQ(lns.lns_uri, expected_traffic_uri(peer).c_str());
    bridge_json_ptr connected = peer.wait_named("connected");
    ASSERT_TRUE(connected);
    EXPECT_EQ(Peer::str(connected.get(), "authorization"), "Bearer s3cret-token");
}

TEST_F(LnsDiscoveryTest, WrongTokenIsRefusedOnBothAttempts) {
    Peer peer({"--auth", "token", "--token", "Bearer s3cret-token"});
    lns_test::configure(dir, peer.uri(), peer.uri());
    lns_test::configure_token(dir, "Authorization: Bearer wrong\r\n");
    EXPECT_EQ(bridge_bstn_lns_init_discovery(BRIDGE_LOG_INFO, false), LNS_STATUS_RESTART_REQUIRED);
    EXPECT_FALSE(lns.inited);
    for (int i = 0; i < 2; ++i) {
        bridge_json_ptr refused = peer.wait_named("refused");
        ASSERT_TRUE(refused) << "attempt " << i;
        EXPECT_EQ(Peer::str(refused.get(), "reason"), "bad token");
    }
}

TEST_F(LnsDiscoveryTest, ServerRequiringClientCertificateRefusesTokenMode) {
    Peer peer; // --auth cert
    lns_test::configure(dir, peer.uri(), peer.uri());
    lns_test::configure_token(dir, "Authorization: Bearer s3cret-token\r\n");
    EXPECT_EQ(bridge_bstn_lns_init_discovery(BRIDGE_LOG_INFO, false), LNS_STATUS_RESTART_REQUIRED);
    EXPECT_FALSE(peer.wait_named("connected", 500));
}

TEST_F(LnsDiscoveryTest, BackupCertificateSetSendsNoTokenOfThePrimary) {
    Peer peer; // --auth cert: the primary token set fails the TLS handshake
    lns_test::configure(dir, peer.uri(), peer.uri());
    kes_test::write_file(dir.file("tc.key"), "Authorization: Bearer primary-token\r\n");
    bridge_cfg_root *cfg = bridge_config_get_root();
    lns_test::set_text(cfg->lns.cert, dir.file("missing.crt"));
    lns_test::set_text(cfg->lns.key, dir.file("tc.key"));
    ASSERT_EQ(bridge_bstn_lns_init_discovery(BRIDGE_LOG_INFO, false), 0);
    bridge_json_ptr connected = peer.wait_named("connected");
    ASSERT_TRUE(connected);
    EXPECT_EQ(Peer::str(connected.get(), "authorization"), "");
    EXPECT_FALSE(lns.token_auth);
}

TEST_F(LnsDiscoveryTest, TokenLongerThanItsBufferFailsTheConnectStep) {
    lns_test::configure(dir, "wss://127.0.0.1:1");
    lns_test::configure_token(dir, "Authorization: Bearer " + std::string(600, 'x') + "\r\n");
    ASSERT_EQ(lns_ctx_init(&lns), 0);
    kes_test::StderrCapture cap;
    int rc = lns_connect(&lns, false);
    std::string log = cap.stop();
    EXPECT_EQ(rc, -ENOBUFS);
    EXPECT_NE(log.find("failed to read LNS token"), std::string::npos) << log;
    EXPECT_EQ(lns.ws_ctx, nullptr);
}

TEST_F(LnsDiscoveryTest, SilentServerEndsTheExchangeAfterTheBound) {
    Peer peer({"--stall-discovery"});
    lns_test::configure(dir, peer.uri());
    lns_exchange_timeout_secs = 2;
    ASSERT_EQ(lns_ctx_init(&lns), 0);
    kes_test::StderrCapture cap;
    auto t0 = std::chrono::steady_clock::now();
    int rc = lns_discover(&lns, false);
    auto secs = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    std::string log = cap.stop();
    EXPECT_EQ(rc, LNS_STATUS_RESTART_REQUIRED);
    EXPECT_NE(log.find("no reply from LNS within 2 seconds"), std::string::npos) << log;
    EXPECT_GE(secs, 1.9);
    EXPECT_LT(secs, 4.0);
    EXPECT_EQ(lns.ws_ctx, nullptr); // the exchange's own connection is gone
    EXPECT_TRUE(peer.wait_named("closed"));
}

TEST_F(LnsDiscoveryTest, RefusedDiscoveryReportsRestartRequired) {
    Peer peer({"--refuse-discovery"});
    lns_test::configure(dir, peer.uri(), peer.uri());
    EXPECT_EQ(bridge_bstn_lns_init_discovery(BRIDGE_LOG_INFO, false), LNS_STATUS_RESTART_REQUIRED);
    EXPECT_TRUE(peer.wait_named("refused"));
    EXPECT_TRUE(peer.wait_named("refused")); // the backup attempt
}

} // namespace
