// The LNS client against the Python LNS peer (sim/lns_peer.py): a whole session, discovery with
// its backup, server authentication, the causes named by failed connections, what ends a session.
#include <chrono>
#include <condition_variable>
#include <cstring>
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

using kes_test::set_text;
const char *GW_EUI = "0016c001ff10a235";

// One PKI for the whole test program: key generation is the slow part.
const std::string &certs_dir() {
    static kes_test::TempDir dir;
    static bool made = kes_test::make_certs(dir.path());
    EXPECT_TRUE(made);
    return dir.path();
}

// Every file in `dir` (lns_uri, lns_trust_backup, ...); both sets hold the test client files.
void configure(const kes_test::TempDir &dir, const std::string &uri, const std::string &backup_uri = "") {
    kes_test::point_credentials_at(dir.path());
    set_text(bridge_config_get_root()->general.gw_eui, GW_EUI);
    set_text(bridge_config_get_root()->general.fw_version, "1.7.1");
    kes_test::write_file(dir.file("lns_uri"), uri);
    kes_test::write_file(dir.file("lns_uri_backup"), backup_uri);
    for (std::string sfx : {"", "_backup"}) {
        for (auto [name, src] : {std::pair{"lns_trust", "ca.pem"}, {"lns_cert", "client.pem"}, {"lns_key", "client.key"}})
            kes_test::write_file(dir.file(name + sfx), kes_test::read_file(certs_dir() + "/" + src));
    }
}

// Token mode for both sets: no certificate file, the key file holds the header lines.
void configure_token(const kes_test::TempDir &dir, const std::string &header_lines) {
    for (std::string sfx : {"", "_backup"}) {
        unlink(dir.file("lns_cert" + sfx).c_str());
        kes_test::write_file(dir.file("lns_key" + sfx), header_lines);
    }
}

std::string str(json_object *o, const char *key) {
    json_object *v = nullptr;
    return o && json_object_object_get_ex(o, key, &v) && json_object_is_type(v, json_type_string)
               ? json_object_get_string(v)
               : "";
}
int64_t num(json_object *o, const char *key) {
    json_object *v = nullptr;
    return o && json_object_object_get_ex(o, key, &v) ? json_object_get_int64(v) : -12345;
}

// The LNS peer and its JSON event lines.
struct Peer {
    explicit Peer(std::vector<std::string> extra = {}) {
        std::vector<std::string> argv = {kes_test::python(), kes_test::source_dir() + "/sim/lns_peer.py", "--certs",
                                         certs_dir()};
        argv.insert(argv.end(), extra.begin(), extra.end());
        port = std::stoi(proc.start(argv, "READY"));
    }
    std::string uri() const { return "wss://127.0.0.1:" + std::to_string(port); }
    // Next event for which `pred` holds; null on time-out.
    bridge_json_ptr wait_event(const std::function<bool(json_object *)> &pred) {
        auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
        for (;;) {
            auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
            std::string line = left.count() > 0 ? proc.read_line(static_cast<int>(left.count())) : "";
            if (line.empty()) return nullptr;
            bridge_json_ptr ev(json_tokener_parse(line.c_str()));
            if (ev && pred(ev.get())) return ev;
        }
    }
    // Next message of `msgtype` received on the traffic connection.
    bridge_json_ptr wait_recv(const std::string &msgtype) {
        json_object *msg = nullptr;
        bridge_json_ptr ev = wait_event([&](json_object *e) {
            return str(e, "event") == "recv" && json_object_object_get_ex(e, "msg", &msg) &&
                   str(msg, "msgtype") == msgtype;
        });
        return ev ? bridge_json_ptr(json_object_get(msg)) : nullptr;
    }
    bridge_json_ptr wait_named(const std::string &event) {
        return wait_event([&](json_object *e) { return str(e, "event") == event; });
    }
    void command(const std::string &json_line) { proc.write_line(json_line); }

    kes_test::Process proc;
    int port = 0;
};

// The forwarder takes every downlink.
int accept_downlink(int, void *, const char *, size_t) { return 0; }

bridge_json_ptr parse(const std::string &text) { return bridge_json_ptr(json_tokener_parse(text.c_str())); }

class LnsSessionTest : public ::testing::Test {
protected:
    void SetUp() override {
        certs_dir();
        bridge_log_init(BRIDGE_LOG_ERROR, true);
        lns_retry_pause_secs = 0;
    }
    void TearDown() override { stop(); }
    void stop() {
        if (peer) peer->proc.stop();
        if (session.valid()) session.wait_for(std::chrono::seconds(10));
        session = {};
        if (lns.inited) bridge_bstn_lns_stop();
        peer.reset();
        lns_retry_pause_secs = 0;
        lns_exchange_timeout_secs = LNS_TIMEOUT_SECS;
        bridge_config_get_root()->lns_opts.allow_self_signed = false;
    }
    // Peer, discovery, subscription and a running session.
    void start(std::vector<std::string> peer_args = {}) {
        peer = std::make_unique<Peer>(std::move(peer_args));
        configure(dir, peer->uri());
        ASSERT_EQ(bridge_bstn_lns_init_discovery(BRIDGE_LOG_ERROR, false), 0);
        bridge_bstn_lns_downlink_subscribe(accept_downlink, nullptr);
        session = std::async(std::launch::async, bridge_bstn_lns_start);
    }
    bool wait_handshake() {
        for (int i = 0; i < 200; ++i) {
            {
                lns_lock_guard guard(&lns);
                if (lns.drs_count > 0) return true;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(25));
        }
        return false;
    }
    int session_result(int timeout_s = 10) {
        if (session.wait_for(std::chrono::seconds(timeout_s)) != std::future_status::ready) return -9999;
        return session.get();
    }
    // Discovery alone with the current configuration; returns its status and the log.
    // With `library_log` the library logs to standard error too, as with the daemon's -d.
    int discover(std::string *log, unsigned level = BRIDGE_LOG_ERROR, bool library_log = false) {
        kes_test::StderrCapture cap;
        bridge_log_init(level, true);
        int rc = bridge_bstn_lns_init_discovery(level, library_log);
        bridge_log_init(BRIDGE_LOG_ERROR, true);
        lws_set_log_level(LLL_ERR | LLL_WARN | LLL_NOTICE, nullptr);
        *log = cap.stop();
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
    kes_test::write_file(dir.file("rc.json"), R"({"msgtype":"router_config","region":"EU863","DRs":)" + drs +
                                                  R"(],"sx1301_conf":[{"pad":")" + std::string(10240, 'c') +
                                                  R"("}],"MuxTime":1700000000.5})");
    start({"--router-config", dir.file("rc.json")});
    ASSERT_TRUE(wait_handshake());
    EXPECT_EQ(lns.drs_count, 16);
    bridge_json_ptr version = peer->wait_recv("version");
    EXPECT_EQ(str(version.get(), "firmware"), "1.7.1");
    EXPECT_EQ(num(version.get(), "protocol"), 2);

    bridge_json_ptr up = parse(R"({"msgtype":"updf","DR":"SF7BW250","upinfo":{"rctx":0,"xtime":77}})");
    ASSERT_EQ(bridge_bstn_lns_uplink_push(up.get()), 0);
    bridge_json_ptr got = peer->wait_recv("updf");
    ASSERT_TRUE(got);
    EXPECT_EQ(num(got.get(), "DR"), 6);

    peer->command(R"({"cmd":"send","msg":{"msgtype":"dnmsg","DevEui":"00-00-00-00-00-00-00-01","diid":5,"dC":0,)"
                  R"("xtime":1000000,"RX1DR":5,"RX1Freq":868100000,"rctx":2,"pdu":")" +
                  std::string(6000, 'a') + R"("}})");
    bridge_json_ptr dntxed = peer->wait_recv("dntxed");
    ASSERT_TRUE(dntxed);
    EXPECT_EQ(num(dntxed.get(), "diid"), 5);
    EXPECT_EQ(num(dntxed.get(), "xtime"), 2000000);
}

TEST_F(LnsSessionTest, WhatEndsASession) {
    struct Row {
        const char *fault;
        std::vector<std::string> peer_args;
        std::string command; // sent once the handshake is done ("" = none)
        int status;
    } rows[] = {
        {"text that is not JSON", {}, R"({"cmd":"send_raw","text":"not json"})", -1},
        {"message above 64 KiB", {}, R"({"cmd":"send_raw","text":")" + std::string(70000, 'x') + "\"}", -1},
        {"close by the LNS ends normally", {}, R"({"cmd":"close"})", 0},
        {"refused traffic connection requires a restart", {"--refuse-traffic"}, "", LNS_STATUS_RESTART_REQUIRED},
        {"silent LNS after version: the exchange is bounded", {"--stall-version"}, "", LNS_STATUS_RESTART_REQUIRED},
    };
    for (const Row &r : rows) {
        lns_exchange_timeout_secs = 1;
        start(r.peer_args);
        if (!r.command.empty()) {
            ASSERT_TRUE(wait_handshake()) << r.fault;
            peer->command(r.command);
        }
        EXPECT_EQ(session_result(), r.status) << r.fault;
        if (!r.command.empty()) {
            EXPECT_EQ(lns.ws_ctx, nullptr) << r.fault << ": the pumped connection must go";
        }
        stop();
    }
}

TEST_F(LnsSessionTest, DiscoveryTakesTheReplyOfAClosingServerOnTheBackup) {
    Peer backup; // closes the discovery connection right after its reply, like real servers
    configure(dir, "wss://127.0.0.1:1/a/b",
                        backup.uri() + "/prefix");
    std::string log;
    ASSERT_EQ(discover(&log), 0) << log;
    EXPECT_STREQ(lns.lns_uri, (backup.uri() + "/traffic/" + GW_EUI).c_str());
    EXPECT_EQ(str(backup.wait_named("connected").get(), "path"), "/prefix/router-info");
    EXPECT_EQ(lns.ws_ctx, nullptr);
}

// Each failure names its cause (the texts the operator guide tells operators to look for).
TEST_F(LnsSessionTest, FailedConnectionsNameTheirCause) {
    const std::string &c = certs_dir();
    auto token = [&](const std::string &header) { return [&, header] { configure_token(dir, header); }; };
    struct Row {
        const char *fault;
        std::vector<std::string> peer_args;
        std::function<void()> setup;
        std::vector<std::string> expected;
    } rows[] = {
        {"wrong token: the HTTP status of the refused upgrade",
         {"--auth", "token", "--token", "Bearer right"},
         token("Authorization: Bearer wrong\r\n"),
         {"WS client connection error: ", "HTTP status 403", "(main credentials)", "(backup credentials)"}},
        {"missing URI file: path and reason",
         {},
         [&] { unlink(dir.file("lns_uri").c_str()); },
         {"failed to read LNS uri: " + dir.file("lns_uri") + ": No such file or directory"}},
        {"missing token file: path and reason",
         {},
         [&] { unlink(dir.file("lns_cert").c_str()), unlink(dir.file("lns_key").c_str()); },
         {"failed to read LNS token: " + dir.file("lns_key") + ": No such file or directory"}},
        {"key of another certificate",
         {},
         [&] { kes_test::write_file(dir.file("lns_key"), kes_test::read_file(c + "/client_ec.key")); },
         {"lws init failed: key " + dir.file("lns_key") + " does not match the certificate " + dir.file("lns_cert")}},
        {"self-signed LNS certificate outside the trust file",
         {"--server-cert", "server_self"},
         [] {},
         {"this bridge refused the LNS server certificate: self-signed certificate", "trust file " + dir.file("lns_trust")}},
        {"LNS certificate for another host",
         {"--server-cert", "server_other"},
         [] {},
         {"this bridge refused the LNS server certificate: IP address mismatch"}},
        {"LNS that wants a client certificate, given a token",
         {},
         token("Authorization: Bearer t\r\n"),
         {"(no client certificate, token mode)"}}, // the alert, or the connection ended after it
    };
    for (const Row &r : rows) {
        Peer p(r.peer_args);
        configure(dir, p.uri(), p.uri());
        r.setup();
        std::string log;
        EXPECT_NE(discover(&log), 0) << r.fault;
        for (const std::string &e : r.expected) EXPECT_NE(log.find(e), std::string::npos) << r.fault << ": " << e << "\n" << log;
    }
}

TEST_F(LnsSessionTest, AllowSelfSignedAcceptsWhatTheDefaultRefuses) {
    for (const char *cert : {"server_self", "server_other"}) {
        Peer p({"--server-cert", cert});
        configure(dir, p.uri());
        bridge_config_get_root()->lns_opts.allow_self_signed = true;
        std::string log;
        EXPECT_EQ(discover(&log), 0) << cert << "\n" << log;
        stop();
    }
}

TEST_F(LnsSessionTest, TokenNeverReachesADebugLog) {
    Peer p({"--auth", "token", "--token", "Bearer s3cret-token"});
    configure(dir, p.uri());
    configure_token(dir, "Authorization: Bearer s3cret-token\r\n");
    std::string log;
    ASSERT_EQ(discover(&log, BRIDGE_LOG_DEBUG, true), 0) << log;
    EXPECT_EQ(str(p.wait_named("connected").get(), "authorization"), "Bearer s3cret-token");
    EXPECT_EQ(log.find("s3cret"), std::string::npos) << log;
    EXPECT_EQ(log.find("73 33 63 72 65 74"), std::string::npos) << log; // "s3cret" hex-dumped
}

} // namespace
