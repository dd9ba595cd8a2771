// The LNS client against the Python LNS peer (sim/lns_peer.py): a session of long messages, what ends
// a session, discovery on the backup, server authentication and the causes failed connections name.
#include <chrono>
#include <functional>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "common/bridge_bstn_config.h"
#include "common/bridge_json_helpers.h"
#include "common/bridge_utils.h"
#include "converter/data/bridge_bstn_lns_internal.h"
#include "support/test_support.h"

namespace {

using kes_test::contains;
using kes_test::member;
using kes_test::write_file;
const std::string GW_EUI = "0016c001ff10a235";

// Both credential sets in `dir` hold the test client files; the URI files name `uri` and `backup`.
void configure(const kes_test::TempDir &dir, const std::string &uri, const std::string &backup) {
    kes_test::point_credentials_at(dir.path());
    kes_test::set_text(bridge_config_get_root()->general.gw_eui, GW_EUI);
    kes_test::set_text(bridge_config_get_root()->general.fw_version, "1.7.1");
    for (std::string sfx : {"", "_backup"}) {
        write_file(dir.file("lns_uri" + sfx), sfx.empty() ? uri : backup);
        for (auto [name, src] : {std::pair{"lns_trust", "ca.pem"}, {"lns_cert", "client.pem"},
                                 {"lns_key", "client.key"}})
            write_file(dir.file(name + sfx), kes_test::cert(src));
    }
}

// The LNS peer. wait() returns its next event named `event` or, with `msgtype`, the message of that
// type it received; null after 10 s.
struct Peer {
    explicit Peer(std::vector<std::string> args = {}) : port(proc.start_sim("lns_peer.py", std::move(args))) {}
    std::string uri() const { return "wss://127.0.0.1:" + std::to_string(port); }
    bridge_json_ptr wait(const std::string &event, const std::string &msgtype = "") {
        using clock = std::chrono::steady_clock;
        for (auto end = clock::now() + std::chrono::seconds(10); clock::now() < end;) {
            bridge_json_ptr ev(json_tokener_parse(proc.read_line(1000).c_str()));
            json_object *msg = json_object_object_get(ev.get(), "msg");
            if (member(ev.get(), "event") == event && (msgtype.empty() || member(msg, "msgtype") == msgtype))
                return msgtype.empty() ? std::move(ev) : bridge_json_ptr(json_object_get(msg));
        }
        return nullptr;
    }
    kes_test::Process proc;
    const int port;
};

class LnsSessionTest : public ::testing::Test {
protected:
    void SetUp() override { bridge_log_init(BRIDGE_LOG_ERROR, true), lns_retry_pause_secs = 0; }
    void TearDown() override { stop(), lns_exchange_timeout_secs = LNS_TIMEOUT_SECS; }
    void stop() {
        if (peer) peer->proc.stop();
        if (session.valid()) session.wait_for(std::chrono::seconds(10));
        session = {};
        if (lns.inited) bridge_bstn_lns_stop();
        peer.reset();
    }
    // Peer, discovery, a subscriber that takes every downlink, and a running session.
    void start(std::vector<std::string> peer_args = {}) {
        peer = std::make_unique<Peer>(std::move(peer_args));
        configure(dir, peer->uri(), peer->uri());
        ASSERT_EQ(bridge_bstn_lns_init_discovery(BRIDGE_LOG_ERROR, false), 0);
        bridge_bstn_lns_downlink_subscribe([](int, void *, const char *, size_t) { return 0; }, nullptr);
        session = std::async(std::launch::async, bridge_bstn_lns_start);
    }
    bool wait_handshake() {
        for (int i = 0; i < 200; ++i, std::this_thread::sleep_for(std::chrono::milliseconds(25))) {
            lns_lock_guard guard(&lns);
            if (lns.drs_count > 0) return true;
        }
        return false;
    }
    // Discovery alone, logging as the daemon's -v 3 -d (the library's log too); its status and log.
    int discover(std::string *log) {
        int rc = 0;
        *log = kes_test::stderr_of([&] {
            bridge_log_init(BRIDGE_LOG_DEBUG, true);
            rc = bridge_bstn_lns_init_discovery(BRIDGE_LOG_DEBUG, true);
            bridge_log_init(BRIDGE_LOG_ERROR, true);
            lws_set_log_level(LLL_ERR | LLL_WARN | LLL_NOTICE, nullptr);
        });
        return rc;
    }

    kes_test::TempDir dir;
    std::unique_ptr<Peer> peer;
    std::future<int> session;
};

// A router_config of 10 KiB and a dnmsg of 6 KB arrive in several receive events each.
TEST_F(LnsSessionTest, LongMessagesGiveAWorkingSession) {
    std::string drs = "[[12,125,0],[11,125,0],[10,125,0],[9,125,0],[8,125,0],[7,125,0],[7,250,0],[0,0,0]";
    for (int i = 0; i < 8; ++i) drs += ",[-1,0,0]";
    write_file(dir.file("rc.json"), R"({"msgtype":"router_config","region":"EU863","DRs":)" + drs +
                                        R"(],"sx1301_conf":[{"pad":")" + std::string(10240, 'c') +
                                        R"("}],"MuxTime":1700000000.5})");
    start({"--router-config", dir.file("rc.json")});
    ASSERT_TRUE(wait_handshake());
    EXPECT_EQ(lns.drs_count, 16);
    bridge_json_ptr version = peer->wait("recv", "version");
    EXPECT_EQ(member(version.get(), "firmware") + " " + member(version.get(), "protocol"), "1.7.1 2");

    bridge_json_ptr up(json_tokener_parse(R"({"msgtype":"updf","DR":"SF7BW250","upinfo":{"rctx":0,"xtime":77}})"));
    ASSERT_EQ(bridge_bstn_lns_uplink_push(up.get()), 0);
    bridge_json_ptr got = peer->wait("recv", "updf");
    EXPECT_EQ(member(got.get(), "DR"), "6");
    EXPECT_TRUE(contains(member(got.get(), "RefTime"), "17000000")) << "MuxTime of the router_config not used";

    peer->proc.write_line(R"({"cmd":"send","msg":{"msgtype":"dnmsg","DevEui":"00-00-00-00-00-00-00-01","diid":5,)"
                          R"("dC":0,"xtime":1000000,"RX1DR":5,"RX1Freq":868100000,"rctx":2,"pdu":")" +
                          std::string(6000, 'a') + R"("}})");
    bridge_json_ptr dntxed = peer->wait("recv", "dntxed");
    EXPECT_EQ(member(dntxed.get(), "diid") + " " + member(dntxed.get(), "xtime"), "5 2000000");
}

TEST_F(LnsSessionTest, WhatEndsASession) {
    struct Row { const char *fault; std::vector<std::string> peer_args; std::string command; int status; };
    const Row rows[] = {
        {"a text that is not JSON must end it", {}, R"({"cmd":"send_raw","text":"not json"})", -1},
        {"a message above 64 KiB must end it", {}, R"({"cmd":"send_raw","text":")" + std::string(70000, 'x') + "\"}",
         -1},
        {"a close by the LNS ends it normally", {}, R"({"cmd":"close"})", 0},
        {"a refused traffic connection requires a restart", {"--refuse-traffic"}, "", LNS_STATUS_RESTART_REQUIRED},
        {"a silent LNS after version: the exchange is bounded", {"--stall-version"}, "", LNS_STATUS_RESTART_REQUIRED},
    };
    for (const Row &r : rows) {
        lns_exchange_timeout_secs = 1;
        start(r.peer_args);
        if (!r.command.empty()) {
            ASSERT_TRUE(wait_handshake()) << r.fault;
            peer->proc.write_line(r.command);
        }
        const bool ended = session.wait_for(std::chrono::seconds(10)) == std::future_status::ready;
        EXPECT_EQ(ended ? session.get() : -9999, r.status) << r.fault;
        EXPECT_TRUE(r.command.empty() || lns.ws_ctx == nullptr) << r.fault << ": the pumped connection must go";
        stop();
    }
}

TEST_F(LnsSessionTest, DiscoveryTakesTheReplyOfAClosingServerOnTheBackup) {
    Peer backup; // closes the discovery connection right after its reply, like real servers
    configure(dir, "wss://127.0.0.1:1/a/b", backup.uri() + "/prefix");
    for (auto [name, src] : {std::pair{"lns_cert_backup", "client_ec.pem"}, {"lns_key_backup", "client_ec.key"}})
        write_file(dir.file(name), kes_test::cert(src)); // the backup's own client pair
    std::string log;
    ASSERT_EQ(discover(&log), 0) << log;
    EXPECT_EQ(lns.lns_uri, backup.uri() + "/traffic/" + GW_EUI);
    EXPECT_EQ(member(backup.wait("connected").get(), "path"), "/prefix/router-info");
    EXPECT_EQ(lns.ws_ctx, nullptr);
}

// Each refusal names its cause (texts the operator guide tells operators to look for); what the
// defaults refuse, allow_self_signed accepts; a token is sent but never logged, not even hex-dumped.
TEST_F(LnsSessionTest, ServerAuthenticationAndTheCausesOfFailures) {
    auto token = [this](const std::string &header) {
        return [this, header] {
            for (std::string sfx : {"", "_backup"}) unlink(dir.file("lns_cert" + sfx).c_str());
            for (std::string sfx : {"", "_backup"}) write_file(dir.file("lns_key" + sfx), header);
        };
    };
    auto allow_self_signed = [] { bridge_config_get_root()->lns_opts.allow_self_signed = true; };
    const std::string key = dir.file("lns_key"), cert = dir.file("lns_cert"), uri = dir.file("lns_uri"),
                      trust = dir.file("lns_trust");
    const std::vector<std::string> self = {"--server-cert", "server_self"}, other = {"--server-cert", "server_other"};
    struct Row { const char *fault; std::vector<std::string> peer_args; std::function<void()> setup; bool ok;
                 std::vector<std::string> causes; };
    const Row rows[] = {
        {"wrong token: the HTTP status of the refused upgrade", {"--auth", "token", "--token", "Bearer right"},
         token("Authorization: Bearer wrong\r\n"), false,
         {"WS client connection error: ", "HTTP status 403", "(main credentials)", "(backup credentials)"}},
        {"missing URI file: path and reason", {}, [&] { unlink(uri.c_str()); }, false,
         {"failed to read LNS uri: " + uri + ": No such file or directory"}},
        {"missing token file: path and reason", {}, [&] { unlink(cert.c_str()), unlink(key.c_str()); }, false,
         {"failed to read LNS token: " + key + ": No such file or directory"}},
        {"key of another certificate", {}, [&] { write_file(key, kes_test::cert("client_ec.key")); },
         false, {"lws init failed: key " + key + " does not match the certificate " + cert}},
        {"self-signed LNS certificate outside the trust file", self, [] {}, false,
         {"this bridge refused the LNS server certificate: self-signed certificate", "trust file " + trust}},
        {"LNS certificate for another host", other, [] {}, false,
         {"this bridge refused the LNS server certificate: IP address mismatch"}},
        {"LNS that wants a client certificate, given a token", {}, token("Authorization: Bearer t\r\n"), false,
         {"(no client certificate, token mode)"}}, // the alert, or the connection ended after it
        {"allow_self_signed must accept a self-signed certificate", self, allow_self_signed, true, {}},
        {"allow_self_signed must accept a certificate for another host", other, allow_self_signed, true, {}},
        {"the right token must be sent", {"--auth", "token", "--token", "Bearer s3cret-token"},
         token("Authorization: Bearer s3cret-token\r\n"), true, {}},
    };
    for (const Row &r : rows) {
        Peer p(r.peer_args);
        configure(dir, p.uri(), p.uri());
        r.setup();
        std::string log;
        EXPECT_EQ(discover(&log) == 0, r.ok) << r.fault << "\n" << log;
        for (const std::string &c : r.causes) EXPECT_TRUE(contains(log, c)) << r.fault << ": " << c << "\n" << log;
        EXPECT_FALSE(contains(log, "s3cret") || contains(log, "73 33 63 72 65 74")) << r.fault << ": token logged";
        stop();
    }
}

} // namespace
