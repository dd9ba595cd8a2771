// The update-info exchange against the CUPS simulator: request body and URL,
// client authentication, trust, time limits, retry rhythm, main/backup sets,
// and failures that name their cause.
#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <netinet/in.h>
#include <string>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#include <json-c/json.h>

#include "bstn/bridge_bstn_cups.h"
#include "bstn/bridge_bstn_cups_internal.h"
#include "common/bridge_utils.h"
#include "support/test_support.h"

using kes_test::read_file;
using kes_test::write_file;

namespace {

constexpr int STOP = 4242;   // returned by the recording wait to end the bootstrap loop
std::vector<unsigned> delays;
size_t stop_after_waits = 1;
int record_wait(unsigned seconds) {
    delays.push_back(seconds);
    return delays.size() >= stop_after_waits ? STOP : 0;
}
bool fail_realloc = false;
void *flaky_realloc(void *p, size_t n) { return fail_realloc ? nullptr : realloc(p, n); }

std::string member(json_object *o, const char *key) {
    json_object *v = nullptr;
    if (!o || !json_object_object_get_ex(o, key, &v) || json_object_get_type(v) == json_type_null) return "<none>";
    return json_object_get_string(v);
}

// One line the simulator printed: a request, a TLS failure or a silent connection.
struct Record {
    bridge_json_ptr line, body;
    std::string get(const char *key) const { return member(line.get(), key); }
    std::string header(const char *key) const {
        json_object *h = nullptr;
        json_object_object_get_ex(line.get(), "headers", &h);
        return member(h, key);
    }
    std::string field(const char *key) const { return member(body.get(), key); }
    std::vector<std::string> keys() const {
        std::vector<std::string> out;
        if (!body) return out;
        json_object_object_foreach(body.get(), k, v) {
            (void)v;
            out.push_back(k);
        }
        return out;
    }
};

class CupsExchange : public ::testing::Test {
public:
    static void SetUpTestSuite() {
        certs = new kes_test::TempDir();
        ASSERT_TRUE(kes_test::make_certs(certs->path()));
    }
    static void TearDownTestSuite() { delete certs; }

    void SetUp() override { fresh(); }
    void fresh() {
        peer.stop();
        tmp = std::make_unique<kes_test::TempDir>();
        delays.clear();
        stop_after_waits = 1;
        fail_realloc = false;
        bridge_bstn_cups_retry_wait = record_wait;
        bridge_bstn_cups_realloc = flaky_realloc;
        bridge_bstn_cups_transfer_limits = BRIDGE_BSTN_CUPS_LIMITS;
        kes_test::point_credentials_at(tmp->path());
        bridge_cfg_general &g = bridge_config_get_root()->general;
        kes_test::set_text(g.gw_eui, "00-16-c0-01-ff-10-a2-35");
        kes_test::set_text(g.name, "gateway-7");
        kes_test::set_text(g.model, "kes-model");
        kes_test::set_text(g.package, "1.7.1");
    }
    void TearDown() override {
        peer.stop();
        bridge_bstn_cups_retry_wait = nullptr;
        bridge_bstn_cups_realloc = realloc;
        bridge_bstn_cups_transfer_limits = BRIDGE_BSTN_CUPS_LIMITS;
    }

    bridge_cfg_creds &cups() { return bridge_config_get_root()->cups; }
    bridge_cfg_creds &lns() { return bridge_config_get_root()->lns; }
    static std::string cert_file(const std::string &name) { return read_file(certs->file(name)); }

    void start_peer(std::vector<std::string> args) {
        args.insert(args.begin(), {kes_test::python(), kes_test::source_dir() + "/sim/cups_peer.py",
                                   "--certs", certs->path()});
        port = std::stoi(peer.start(args, "READY"));
    }
    std::string base() const { return "https://127.0.0.1:" + std::to_string(port); }

    void keypair_set(bool backup = false) {
        const bridge_bstn_cred_files f = bridge_bstn_cups_cred_files(cups(), backup);
        write_file(f.trust, cert_file("ca.pem"));
        write_file(f.cert, cert_file("client.pem"));
        write_file(f.key, cert_file("client.key"));
    }
    void token_set(bool backup, const std::string &token) {
        const bridge_bstn_cred_files f = bridge_bstn_cups_cred_files(cups(), backup);
        write_file(f.trust, cert_file("ca.pem"));
        write_file(f.key, token);
    }

    // Runs the bootstrap with the log at `level` on standard error (the daemon's -d).
    int bootstrap(unsigned level = BRIDGE_LOG_TRACE) {
        bridge_log_init(level, true);
        kes_test::StderrCapture cap;
        int rc = bridge_bstn_cups_bootstrap();
        log = cap.stop();
        bridge_log_init(BRIDGE_LOG_INFO, true);
        return rc;
    }
    bool logged(const std::string &text) const { return log.find(text) != std::string::npos; }

    // Everything the simulator has printed so far (it prints before answering).
    std::vector<Record> records(int wait_ms = 300) {
        std::vector<Record> out;
        for (std::string line; !(line = peer.read_line(wait_ms)).empty();) {
            Record r;
            r.line.reset(json_tokener_parse(line.c_str()));
            if (!r.line) continue;
            r.body.reset(json_tokener_parse(r.get("body").c_str()));
            out.push_back(std::move(r));
        }
        return out;
    }

    static kes_test::TempDir *certs;
    std::unique_ptr<kes_test::TempDir> tmp;
    kes_test::Process peer;
    int port = 0;
    std::string log;
};
kes_test::TempDir *CupsExchange::certs = nullptr;

int closed_port() {
    int s = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof a;
    bind(s, reinterpret_cast<sockaddr *>(&a), sizeof a);
    getsockname(s, reinterpret_cast<sockaddr *>(&a), &len);
    close(s);   // nothing listens there now
    return ntohs(a.sin_port);
}

// True when a hex dump ("30 82 ...") of the middle of `der` shows in `log`:
// of 16 windows of 6 bytes, one falls inside a 16-byte row wherever the rows start.
bool dumped(const std::string &log, const std::string &der) {
    for (size_t start = der.size() / 2; start < der.size() / 2 + 16; ++start) {
        std::string window;
        char cell[4];
        for (size_t i = start; i < start + 6; ++i) {
            snprintf(cell, sizeof cell, "%02x ", static_cast<uint8_t>(der[i]));
            window += cell;
        }
        if (log.find(window) != std::string::npos) return true;
    }
    return false;
}

TEST_F(CupsExchange, KeypairUpdateIsBackedUpAndAppliedWithoutSecretsInTheLog) {
    start_peer({"--require-cert", "--respond",
                R"({"cups_uri": "https://cups.example/next", "lns_uri": "wss://lns.example:8887",)"
                R"( "lns_creds": {"trust": "ca.der", "cert": "client_ec.der", "key": "client_ec.key.der"}})"});
    keypair_set();
    const std::string cups_uri_text = base() + "/cups/main\n  \t\n";
    write_file(cups().uri, cups_uri_text);
    write_file(lns().uri, "wss://old.lns:8887\n");
    write_file(lns().trust, "old lns trust");
    write_file(lns().key, "Authorization: Bearer old\r\n");

    ASSERT_EQ(bootstrap(BRIDGE_LOG_DEBUG), 0) << log;
    auto recs = records();
    ASSERT_EQ(recs.size(), 1u);
    const Record &r = recs[0];
    EXPECT_EQ(r.get("path"), "/cups/update-info");
    EXPECT_EQ(r.get("client_cn"), "0016c001ff10a235");
    EXPECT_EQ(r.keys(), (std::vector<std::string>{"router", "cupsUri", "cupsCredCrc", "tcCredCrc", "station", "model",
                                                  "package", "tcUri"}));
    EXPECT_EQ(r.field("router"), "00-16-c0-01-ff-10-a2-35");
    EXPECT_EQ(r.field("cupsUri"), base() + "/cups/main");
    EXPECT_EQ(r.field("cupsCredCrc"), std::to_string(kes_test::reference_crc32(
                                          cert_file("ca.pem") + cert_file("client.pem") + cert_file("client.key"))));
    EXPECT_EQ(r.field("tcCredCrc"), std::to_string(kes_test::reference_crc32("old lns trustAuthorization: Bearer old\r\n")));
    EXPECT_EQ(r.field("station"), "gateway-7");
    EXPECT_EQ(r.field("model"), "kes-model");
    EXPECT_EQ(r.field("tcUri"), "wss://old.lns:8887");
    EXPECT_TRUE(delays.empty());

    // The CUPS set was backed up before the update was applied.
    EXPECT_EQ(read_file(cups().uri_backup), cups_uri_text);
    EXPECT_EQ(read_file(cups().cert_backup), cert_file("client.pem"));
    EXPECT_EQ(read_file(cups().key_backup), cert_file("client.key"));
    EXPECT_EQ(read_file(cups().uri), "https://cups.example/next");
    EXPECT_EQ(read_file(lns().uri), "wss://lns.example:8887");
    EXPECT_EQ(read_file(lns().cert), cert_file("client_ec.pem"));

    // At DEBUG (-v 3 -d) neither the key that came in the answer nor the old token shows.
    EXPECT_FALSE(dumped(log, cert_file("client_ec.key.der"))) << log;
    EXPECT_FALSE(logged(read_file(lns().key).substr(40, 40))) << log;
    EXPECT_FALSE(logged("Bearer old")) << log;
}

TEST_F(CupsExchange, TokenOnAGatewayWithoutLnsFilesSendsEmptyTcUri) {
    struct Case {
        std::string key_file;
        int rc;
    };
    // A trailing CR LF is cut off. A lone LF is sent as it is: libcurl then
    // ends the header block early, so only the authorization arrives intact
    // and the server, missing the body, answers 500.
    const Case cases[] = {
        {"Authorization: Bearer main-token\r\n", 0},
        {"Authorization: Bearer main-token", 0},
        {"Authorization: Bearer main-token\n", STOP},
    };
    start_peer({"--token", "Authorization: Bearer main-token"});
    write_file(cups().uri, base() + "/");
    for (const Case &c : cases) {
        SCOPED_TRACE(c.key_file);
        token_set(false, c.key_file);
        // The simulator answers 500, as the reference server does, without tcUri.
        ASSERT_EQ(bootstrap(BRIDGE_LOG_DEBUG), c.rc) << log;
        auto recs = records();
        ASSERT_EQ(recs.size(), 1u);
        EXPECT_EQ(recs[0].header("authorization"), "Bearer main-token");
        EXPECT_EQ(recs[0].get("client_cn"), "<none>");
        EXPECT_FALSE(logged("main-token")) << log;
        if (c.rc == 0) {
            EXPECT_EQ(recs[0].header("content-type"), "application/json");
            EXPECT_EQ(recs[0].field("tcUri"), "");
            EXPECT_EQ(recs[0].field("tcCredCrc"), "0");
        }
    }
}

TEST_F(CupsExchange, BackupSetAnsweredAfterMainRefusedIsAppliedWithoutBackupCopy) {
    start_peer({"--token", "Authorization: Bearer backup", "--respond",
                R"({"cups_uri": "https://cups.example/updated", "cups_creds": {"trust": "ca.der",)"
                R"( "token": "Authorization: Bearer fresh"}})"});
    token_set(false, "Authorization: Bearer main");
    token_set(true, "Authorization: Bearer backup");
    write_file(cups().uri, base() + "/main/x");
    write_file(cups().uri_backup, base() + "/backup/x");
    write_file(lns().uri, "wss://lns.main");
    write_file(lns().uri_backup, "wss://lns.backup");

    ASSERT_EQ(bootstrap(), 0) << log;
    auto recs = records();
    ASSERT_EQ(recs.size(), 2u);
    EXPECT_EQ(recs[0].get("path") + " " + recs[0].get("status"), "/main/update-info 401");
    EXPECT_EQ(recs[1].get("path") + " " + recs[1].get("status"), "/backup/update-info 200");
    EXPECT_EQ(recs[1].field("tcUri"), "wss://lns.backup");
    // The checksums describe the main set in both requests.
    const std::string main_crc = std::to_string(kes_test::reference_crc32(cert_file("ca.pem") + "Authorization: Bearer main"));
    EXPECT_EQ(recs[0].field("cupsCredCrc"), main_crc);
    EXPECT_EQ(recs[1].field("cupsCredCrc"), main_crc);
    EXPECT_TRUE(delays.empty());
    // Applied to the main files; the backup files, the only set known to work, stay.
    EXPECT_EQ(read_file(cups().key), "Authorization: Bearer fresh");
    EXPECT_EQ(read_file(cups().key_backup), "Authorization: Bearer backup");
    EXPECT_EQ(read_file(cups().uri_backup), base() + "/backup/x");
}

// Each failed transfer is retried: 15 s after a failure, 5 s after a refused
// connection; the ERROR names the URL and the set, and the limit that ended it.
TEST_F(CupsExchange, FailedTransfersAreRetriedAndNameTheirCause) {
    struct Case {
        const char *fault;   // the fault the bridge must survive
        std::vector<std::string> peer;
        std::function<void(CupsExchange *)> arrange;
        int rc;   // 0: the next answer ("no update") is taken; STOP: every attempt fails
        std::vector<std::string> log;   // contents of the error lines
        size_t requests;
        unsigned delay = 15;
    };
    auto lower = [](long connect_ms, long slow_s, size_t max_body) {
        return [=](CupsExchange *t) {
            t->keypair_set();
            bridge_bstn_cups_transfer_limits = {connect_ms, slow_s, max_body};
        };
    };
    auto keypair = [](CupsExchange *t) { t->keypair_set(); };
    const Case cases[] = {
        {"status 500", {"--respond", "500"}, keypair, 0, {"CUPS response code: 500"}, 2},
        {"body cut short", {"--respond", "truncated"}, keypair, 0, {"[0x12]", "/update-info (main set)"}, 2},
        {"closed without answer", {"--respond", "close"}, keypair, 0, {"[0x34]"}, 2},
        {"accepts and stays silent", {"--respond", "silent"}, lower(1500, 60, 1000), 0, {"[0x1c]", "1500 ms"}, 1},
        {"trickles", {"--respond", "trickle"}, lower(30000, 2, 1000), 0, {"[0x1c]", "1 byte/s for 2 s"}, 2},
        {"oversized answer", {"--respond", R"({"blob": ")" + std::string(200, 'a') + R"("})"},
         lower(30000, 60, 64), 0, {"64 bytes"}, 2},
        {"certificate of a CA not in cups.trust", {"--server", "other_server"}, keypair, STOP,
         {"[0x3c]", "(main set)", "certificate"}, 0},
        {"certificate file beside a token", {},
         [](CupsExchange *t) {
             t->token_set(false, "Authorization: Bearer main");
             write_file(t->cups().cert, cert_file("client.pem"));
         },
         STOP, {"[0x3a]"}, 0},   // keypair mode: the token is no private key
        {"both sets refused", {"--respond", "401", "--respond", "401"},
         [](CupsExchange *t) {
             t->token_set(false, "Authorization: Bearer main");
             t->token_set(true, "Authorization: Bearer backup");
             write_file(t->cups().uri_backup, t->base() + "/");
         },
         0, {"CUPS response code: 401"}, 3},
        {"nothing listening", {},
         [](CupsExchange *t) {
             t->keypair_set();
             write_file(t->cups().uri, "https://127.0.0.1:" + std::to_string(closed_port()) + "/");
         },
         STOP, {"[0x7]", "update-info (main set)"}, 0, 5},
        {"backup token unreadable", {"--respond", "401"},
         [](CupsExchange *t) {
             t->keypair_set();
             t->token_set(true, std::string(600, 'x'));
             write_file(t->cups().uri_backup, t->base() + "/");
         },
         0, {"No buffer space available", "cups_key_backup (backup set)"}, 2},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.fault);
        fresh();
        std::vector<std::string> args = c.peer;
        args.insert(args.end(), {"--respond", "empty"});
        start_peer(args);
        write_file(cups().uri, base());
        c.arrange(this);
        stop_after_waits = 2;
        EXPECT_EQ(bootstrap(), c.rc) << log;
        EXPECT_EQ(delays, (c.rc == STOP ? std::vector<unsigned>{c.delay, c.delay} : std::vector<unsigned>{c.delay}));
        for (const std::string &text : c.log) EXPECT_TRUE(logged(text)) << text << "\n" << log;
        size_t requests = 0;
        for (const Record &r : records()) {
            if (r.get("path") == "<none>") continue;
            ++requests;
            EXPECT_EQ(r.get("path"), "/update-info");   // resolved against a URI without a path
        }
        if (c.rc == 0) {
            EXPECT_EQ(requests, c.requests);
        }
        // Only a complete answer to the main set leads to a backup copy.
        EXPECT_EQ(kes_test::file_exists(cups().uri_backup) && read_file(cups().uri_backup) == base(), c.rc == 0);
    }
}

// Failures before any transfer end the bootstrap; the error names the file, the
// system's reason and the set, and nothing reaches the server.
TEST_F(CupsExchange, LocalFailuresEndTheBootstrapAndNameTheirCause) {
    struct Case {
        const char *fault;
        std::function<void(CupsExchange *)> arrange;
        int rc;
        std::vector<std::string> log;
        size_t requests;
    };
    const Case cases[] = {
        {"no credential files", [](CupsExchange *) {}, -ENOENT, {"cups_key from main set: No such file"}, 0},
        {"CUPS URI missing", [](CupsExchange *t) { t->keypair_set(); unlink(t->cups().uri); }, -ENOENT,
         {"cups_uri from main set: No such file or directory"}, 0},
        {"empty CUPS URI", [](CupsExchange *t) { t->keypair_set(); write_file(t->cups().uri, ""); }, 1, {"cups_uri"}, 0},
        {"http scheme", [](CupsExchange *t) {
             t->keypair_set();
             write_file(t->cups().uri, "http://127.0.0.1:" + std::to_string(t->port));
         }, -EPROTONOSUPPORT, {"\"http\"", "cups_uri"}, 0},
        {"token too long", [](CupsExchange *t) { t->token_set(false, std::string(512, 't')); }, -ENOBUFS,
         {"No buffer space available: ", "cups_key (main set)"}, 0},
        {"LNS URI unreadable", [](CupsExchange *t) { t->keypair_set(); mkdir(t->lns().uri, 0700); }, -EISDIR,
         {"Is a directory", "lns_uri (main set)"}, 0},
        {"backup set missing after a 401", [](CupsExchange *t) { t->keypair_set(); }, -ENOENT,
         {"cups_key_backup from backup set"}, 1},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.fault);
        fresh();
        start_peer({"--respond", "401"});
        write_file(cups().uri, base());
        c.arrange(this);
        EXPECT_EQ(bootstrap(), c.rc);
        for (const std::string &text : c.log) EXPECT_TRUE(logged(text)) << text << "\n" << log;
        EXPECT_TRUE(delays.empty());
        EXPECT_EQ(records().size(), c.requests);
    }
}

TEST(CupsWriteCallback, StopsWithoutLosingTheEarlierBody) {
    struct Case {
        const char *fault;
        bool realloc_fails;
        size_t max_body;
        bool too_large;
    };
    const Case cases[] = {
        {"buffer cannot grow", true, 1000, false},
        {"answer past the cap", false, 7, true},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.fault);
        bridge_bstn_cups_realloc = flaky_realloc;
        bridge_bstn_cups_transfer_limits.max_body = c.max_body;
        bridge_bstn_cups_ctx ctx{};
        char a[] = "abc", b[] = "defgh";
        EXPECT_EQ(bridge_bstn_cups_write_cb(a, 1, 3, &ctx), 3u);
        fail_realloc = c.realloc_fails;
        EXPECT_EQ(bridge_bstn_cups_write_cb(b, 5, 1, &ctx), 0u);
        EXPECT_EQ(std::string(reinterpret_cast<char *>(ctx.resp_data.get()), ctx.resp_len), "abc");
        EXPECT_EQ(ctx.body_too_large, c.too_large);
        fail_realloc = false;
        bridge_bstn_cups_ctx_reset(&ctx);
    }
    bridge_bstn_cups_realloc = realloc;
    bridge_bstn_cups_transfer_limits = BRIDGE_BSTN_CUPS_LIMITS;
}

} // namespace
