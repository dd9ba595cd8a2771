// The update-info exchange against the Python CUPS peer: request body, URL,
// client authentication, CA verification, retry rhythm and main/backup sets.
#include <gtest/gtest.h>

#include <cstring>
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
#include "common/bridge_bstn_config.h"
#include "common/bridge_utils.h"
#include "support/test_support.h"

using kes_test::file_exists;
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

size_t realloc_calls = 0;
size_t realloc_fail_at = 0;
void *flaky_realloc(void *p, size_t n) {
    return ++realloc_calls == realloc_fail_at ? nullptr : realloc(p, n);
}

std::string str_member(json_object *o, const char *key) {
    json_object *v = nullptr;
    if (!json_object_object_get_ex(o, key, &v) || json_object_get_type(v) == json_type_null) return "<null>";
    return json_object_get_string(v);
}

// One line the peer printed about a request.
struct Record {
    bool tls_error = false;
    std::string path, content_type, authorization, client_cn, status;
    std::string body_text;
    bridge_json_ptr body;

    std::vector<std::string> body_keys() const {
        std::vector<std::string> keys;
        if (!body) return keys;
        json_object_iterator it = json_object_iter_begin(body.get()), end = json_object_iter_end(body.get());
        for (; !json_object_iter_equal(&it, &end); json_object_iter_next(&it)) keys.push_back(json_object_iter_peek_name(&it));
        return keys;
    }
    std::string member(const char *key) const { return body ? str_member(body.get(), key) : "<no body>"; }
};

class CupsExchange : public ::testing::Test {
public:
    static void SetUpTestSuite() {
        certs = new kes_test::TempDir();
        ASSERT_TRUE(kes_test::make_certs(certs->path()));
    }
    static void TearDownTestSuite() {
        delete certs;
        certs = nullptr;
    }

    void SetUp() override { fresh(); }
    // Recording seams, a new empty folder and a configuration naming files in it.
    void fresh() {
        bridge_log_init(BRIDGE_LOG_TRACE, true);
        tmp = std::make_unique<kes_test::TempDir>();
        delays.clear();
        stop_after_waits = 1;
        bridge_bstn_cups_retry_wait = record_wait;
        realloc_calls = 0;
        realloc_fail_at = 0;
        bridge_bstn_cups_realloc = flaky_realloc;

        bridge_cfg_root *cfg = bridge_config_get_root();
        kes_test::point_credentials_at(tmp->path());
        snprintf(cfg->general.gw_eui, sizeof cfg->general.gw_eui, "00-16-c0-01-ff-10-a2-35");
        snprintf(cfg->general.name, sizeof cfg->general.name, "gateway-7");
        snprintf(cfg->general.model, sizeof cfg->general.model, "kes-model");
        snprintf(cfg->general.package, sizeof cfg->general.package, "1.7.1");
    }
    void TearDown() override {
        peer.stop();
        bridge_bstn_cups_retry_wait = nullptr;
        bridge_bstn_cups_realloc = realloc;
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

    void keypair_set(bool backup) {
        bridge_cfg_creds &c = cups();
        write_file(backup ? c.trust_backup : c.trust, cert_file("ca.pem"));
        write_file(backup ? c.cert_backup : c.cert, cert_file("client.pem"));
        write_file(backup ? c.key_backup : c.key, cert_file("client.key"));
    }
    void token_set(bool backup, const std::string &token) {
        bridge_cfg_creds &c = cups();
        write_file(backup ? c.trust_backup : c.trust, cert_file("ca.pem"));
        write_file(backup ? c.key_backup : c.key, token);
    }

    int bootstrap() {
        kes_test::StderrCapture cap;
        int rc = bridge_bstn_cups_bootstrap();
        log = cap.stop();
        return rc;
    }
    bool logged(const std::string &text) const { return log.find(text) != std::string::npos; }

    // Everything the peer has printed so far (it prints before answering).
    std::vector<Record> records() {
        std::vector<Record> out;
        for (;;) {
            std::string line = peer.read_line(300);
            if (line.empty()) return out;
            bridge_json_ptr o(json_tokener_parse(line.c_str()));
            if (!o) continue;
            Record r;
            json_object *v = nullptr;
            if (json_object_object_get_ex(o.get(), "tls_error", &v)) {
                r.tls_error = true;
            } else {
                json_object *h = nullptr;
                json_object_object_get_ex(o.get(), "headers", &h);
                r.path = str_member(o.get(), "path");
                r.content_type = str_member(h, "content-type");
                r.authorization = str_member(h, "authorization");
                r.client_cn = str_member(o.get(), "client_cn");
                r.status = str_member(o.get(), "status");
                r.body_text = str_member(o.get(), "body");
                r.body.reset(json_tokener_parse(r.body_text.c_str()));
            }
            out.push_back(std::move(r));
        }
    }

    static kes_test::TempDir *certs;
    std::unique_ptr<kes_test::TempDir> tmp;
    kes_test::Process peer;
    int port = 0;
    std::string log;
};
kes_test::TempDir *CupsExchange::certs = nullptr;

const std::vector<std::string> all_members = {"router", "cupsUri", "cupsCredCrc", "tcCredCrc",
                                              "station", "model", "package", "tcUri"};

TEST_F(CupsExchange, KeypairUpdateIsBackedUpAndApplied) {
    start_peer({"--require-cert", "--respond",
                R"({"cups_uri": "https://cups.example/next", "lns_uri": "wss://lns.example:8887",)"
                R"( "lns_creds": {"trust": "ca.der", "cert": "client_ec.der", "key": "client_ec.key.der"}})"});
    keypair_set(false);
    const std::string cups_uri_text = base() + "/cups/main\n  \t\n";
    write_file(cups().uri, cups_uri_text);
    write_file(lns().uri, "wss://old.lns:8887\n");
    write_file(lns().trust, "old lns trust");
    write_file(lns().key, "Authorization: Bearer old\r\n");

    ASSERT_EQ(bootstrap(), 0) << log;
    auto recs = records();
    ASSERT_EQ(recs.size(), 1u);
    const Record &r = recs[0];
    EXPECT_EQ(r.path, "/cups/update-info");
    EXPECT_EQ(r.client_cn, "0016c001ff10a235");
    EXPECT_EQ(r.content_type, "application/x-www-form-urlencoded");   // libcurl's default for POST data
    EXPECT_EQ(r.body_keys(), all_members) << r.body_text;
    EXPECT_EQ(r.member("router"), "00-16-c0-01-ff-10-a2-35");
    EXPECT_EQ(r.member("cupsUri"), base() + "/cups/main");
    EXPECT_EQ(r.member("cupsCredCrc"),
              std::to_string(kes_test::reference_crc32(cert_file("ca.pem") + cert_file("client.pem") + cert_file("client.key"))));
    EXPECT_EQ(r.member("tcCredCrc"), std::to_string(kes_test::reference_crc32("old lns trustAuthorization: Bearer old\r\n")));
    EXPECT_EQ(r.member("station"), "gateway-7");
    EXPECT_EQ(r.member("model"), "kes-model");
    EXPECT_EQ(r.member("package"), "1.7.1");
    EXPECT_EQ(r.member("tcUri"), "wss://old.lns:8887");
    EXPECT_TRUE(logged("using TLS keypair for client auth"));
    EXPECT_TRUE(delays.empty());

    // The CUPS set was backed up before the update was applied.
    EXPECT_EQ(read_file(cups().uri_backup), cups_uri_text);
    EXPECT_EQ(read_file(cups().trust_backup), cert_file("ca.pem"));
    EXPECT_EQ(read_file(cups().cert_backup), cert_file("client.pem"));
    EXPECT_EQ(read_file(cups().key_backup), cert_file("client.key"));
    EXPECT_EQ(read_file(cups().uri), "https://cups.example/next");
    EXPECT_EQ(read_file(lns().uri), "wss://lns.example:8887");
    EXPECT_EQ(read_file(lns().trust), cert_file("ca.pem"));
    EXPECT_EQ(read_file(lns().cert), cert_file("client_ec.pem"));
    struct stat st {};
    ASSERT_EQ(stat(lns().key, &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0600u);
}

TEST_F(CupsExchange, TokenAuthWithoutLnsUriFile) {
    struct Case {
        std::string key_file;
        std::string authorization;
    };
    // A trailing CR LF is cut off. A lone LF is sent as it is: libcurl then
    // ends the header block early, so only the authorization arrives intact.
    const Case cases[] = {
        {"Authorization: Bearer main-token\r\n", "Bearer main-token"},
        {"Authorization: Bearer main-token", "Bearer main-token"},
        {"Authorization: Bearer main-token\n", "Bearer main-token"},
    };
    start_peer({"--token", "Authorization: Bearer main-token"});
    write_file(cups().uri, base() + "/");
    for (const Case &c : cases) {
        SCOPED_TRACE(c.key_file);
        token_set(false, c.key_file);
        ASSERT_EQ(bootstrap(), 0) << log;
        auto recs = records();
        ASSERT_EQ(recs.size(), 1u);
        EXPECT_EQ(recs[0].authorization, c.authorization);
        EXPECT_EQ(recs[0].client_cn, "<null>");
        EXPECT_TRUE(logged("using token for client auth"));
        EXPECT_TRUE(logged("LNS endpoint file is missing, must be downloaded via CUPS"));
        std::string expected_header = c.key_file;
        if (expected_header.ends_with("\r\n")) expected_header.resize(expected_header.size() - 2);
        EXPECT_TRUE(logged("constructed auth header: \"" + expected_header + "\"")) << log;
        if (c.key_file.back() != '\n' || c.key_file.ends_with("\r\n")) {
            EXPECT_EQ(recs[0].content_type, "application/json");
            std::vector<std::string> seven(all_members.begin(), all_members.end() - 1);
            EXPECT_EQ(recs[0].body_keys(), seven) << recs[0].body_text;
            EXPECT_EQ(recs[0].member("cupsCredCrc"),
                      std::to_string(kes_test::reference_crc32(cert_file("ca.pem") + c.key_file)));
            EXPECT_EQ(recs[0].member("tcCredCrc"), "0");
        }
    }
}

TEST_F(CupsExchange, BackupSetAnsweredAfterMainRefusedIsAppliedWithoutBackupCopy) {
    start_peer({"--token", "Authorization: Bearer backup", "--respond",
                R"({"cups_uri": "https://cups.example/updated", "cups_creds": {"trust": "ca.der",)"
                R"( "token": "Authorization: Bearer fresh"}})"});
    token_set(false, "Authorization: Bearer main");
    token_set(true, "Authorization: Bearer backup");
    write_file(cups().trust, cert_file("ca.pem"));
    write_file(cups().trust_backup, cert_file("ca.pem") + "\n");
    write_file(cups().uri, base() + "/main/x");
    write_file(cups().uri_backup, base() + "/backup/x");
    write_file(lns().uri, "wss://lns.main");
    write_file(lns().uri_backup, "wss://lns.backup");

    ASSERT_EQ(bootstrap(), 0) << log;
    auto recs = records();
    ASSERT_EQ(recs.size(), 2u);
    EXPECT_EQ(recs[0].path, "/main/update-info");
    EXPECT_EQ(recs[0].authorization, "Bearer main");
    EXPECT_EQ(recs[0].status, "401");
    EXPECT_EQ(recs[1].path, "/backup/update-info");
    EXPECT_EQ(recs[1].authorization, "Bearer backup");
    EXPECT_EQ(recs[1].status, "200");
    EXPECT_EQ(recs[1].member("cupsUri"), base() + "/backup/x");
    EXPECT_EQ(recs[1].member("tcUri"), "wss://lns.backup");
    // The checksums describe the main sets in both requests.
    const std::string main_crc = std::to_string(kes_test::reference_crc32(cert_file("ca.pem") + "Authorization: Bearer main"));
    EXPECT_EQ(recs[0].member("cupsCredCrc"), main_crc);
    EXPECT_EQ(recs[1].member("cupsCredCrc"), main_crc);
    EXPECT_TRUE(logged("CUPS main credentials auth error: trying backup creds instead"));
    EXPECT_TRUE(delays.empty());

    // Applied to the main files; the backup files, the only set known to work,
    // are untouched.
    EXPECT_EQ(read_file(cups().uri), "https://cups.example/updated");
    EXPECT_EQ(read_file(cups().key), "Authorization: Bearer fresh");
    EXPECT_EQ(read_file(cups().trust), cert_file("ca.pem"));
    EXPECT_EQ(read_file(cups().uri_backup), base() + "/backup/x");
    EXPECT_EQ(read_file(cups().key_backup), "Authorization: Bearer backup");
    EXPECT_EQ(read_file(cups().trust_backup), cert_file("ca.pem") + "\n");
}

TEST_F(CupsExchange, BothSetsRefusedRetriesWithMainAfter15Seconds) {
    start_peer({"--respond", "401", "--respond", "401", "--respond", "empty"});
    token_set(false, "Authorization: Bearer main");
    token_set(true, "Authorization: Bearer backup");
    write_file(cups().uri, base() + "/main/x");
    write_file(cups().uri_backup, base() + "/backup/x");
    stop_after_waits = 2;

    ASSERT_EQ(bootstrap(), 0) << log;
    EXPECT_EQ(delays, std::vector<unsigned>{15});
    EXPECT_TRUE(logged("retrying to connect within 15 seconds"));
    auto recs = records();
    ASSERT_EQ(recs.size(), 3u);
    EXPECT_EQ(recs[0].authorization, "Bearer main");
    EXPECT_EQ(recs[1].authorization, "Bearer backup");
    EXPECT_EQ(recs[1].path, "/backup/update-info");
    EXPECT_EQ(recs[2].authorization, "Bearer main");
    EXPECT_EQ(recs[2].path, "/main/update-info");
}

TEST_F(CupsExchange, BackupSetFailingLocallyRetriesIn15Seconds) {
    start_peer({"--respond", "401", "--respond", "empty"});
    token_set(false, "Authorization: Bearer main");
    token_set(true, std::string(600, 'x'));   // too long for the token buffer
    write_file(cups().uri, base() + "/");
    write_file(cups().uri_backup, base() + "/");
    stop_after_waits = 2;

    ASSERT_EQ(bootstrap(), 0) << log;
    EXPECT_EQ(delays, std::vector<unsigned>{15});
    EXPECT_TRUE(logged("failed to open CUPS keyfile: No buffer space available")) << log;
    EXPECT_EQ(records().size(), 2u);
}

TEST_F(CupsExchange, FailedTransfersRetryIn15Seconds) {
    struct Case {
        const char *spec;
        const char *message;
    };
    const Case cases[] = {
        {"500", "CUPS response code: 500"},
        {"404", "CUPS response code: 404"},
        {"truncated", "CURL request failed: [0x12]"},
        {"close", "CURL request failed: [0x34]"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.spec);
        delays.clear();
        stop_after_waits = 2;
        start_peer({"--respond", c.spec, "--respond", "empty"});
        keypair_set(false);
        write_file(cups().uri, base());
        write_file(cups().uri_backup, "untouched");
        ASSERT_EQ(bootstrap(), 0) << log;
        EXPECT_EQ(delays, std::vector<unsigned>{15});
        EXPECT_TRUE(logged(c.message)) << log;
        EXPECT_EQ(records().size(), 2u);
        // Only the successful answer led to a backup copy.
        EXPECT_EQ(read_file(cups().uri_backup), base());
        peer.stop();
    }
}

TEST_F(CupsExchange, RefusedConnectionRetriesEvery5Seconds) {
    int s = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof a;
    ASSERT_EQ(bind(s, reinterpret_cast<sockaddr *>(&a), sizeof a), 0);
    ASSERT_EQ(getsockname(s, reinterpret_cast<sockaddr *>(&a), &len), 0);
    close(s);   // nothing listens there now
    keypair_set(false);
    write_file(cups().uri, "https://127.0.0.1:" + std::to_string(ntohs(a.sin_port)) + "/");
    stop_after_waits = 3;

    EXPECT_EQ(bootstrap(), STOP);
    EXPECT_EQ(delays, (std::vector<unsigned>{5, 5, 5}));
    EXPECT_TRUE(logged("CURL request failed: [0x7]")) << log;
    EXPECT_TRUE(logged("retrying to connect within 5 seconds"));
}

TEST_F(CupsExchange, RequestUrlIsResolvedAgainstTheCupsUri) {
    start_peer({});
    keypair_set(false);
    struct Case {
        std::string uri, path;
    };
    const Case cases[] = {
        {base(), "/update-info"},
        {base() + "/", "/update-info"},
        {base() + "/cups/", "/cups/update-info"},
        {base() + "/a/b/c\n \t\n", "/a/b/update-info"},
        {"https://localhost:" + std::to_string(port) + "/a?x=1", "/update-info"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.uri);
        write_file(cups().uri, c.uri);
        ASSERT_EQ(bootstrap(), 0) << log;
        auto recs = records();
        ASSERT_EQ(recs.size(), 1u);
        EXPECT_EQ(recs[0].path, c.path);
    }
}

TEST_F(CupsExchange, ServerNotChainingToTrustFails) {
    start_peer({});
    keypair_set(false);
    write_file(cups().trust, cert_file("client.pem"));   // not the server's CA
    write_file(cups().uri, base());
    EXPECT_EQ(bootstrap(), STOP);
    EXPECT_EQ(delays, std::vector<unsigned>{15});
    EXPECT_TRUE(logged("CURL request failed: [0x3c]")) << log;
    auto recs = records();
    ASSERT_EQ(recs.size(), 1u);
    EXPECT_TRUE(recs[0].tls_error);
}

TEST_F(CupsExchange, BodyThatCannotBeStoredIsNeverApplied) {
    start_peer({"--respond", R"({"cups_uri": "https://cups.example/changed", "blob": ")" + std::string(120000, '0') +
                                 R"("})",
                "--respond", "empty"});
    keypair_set(false);
    write_file(cups().uri, base());
    realloc_fail_at = 2;   // the second chunk of the first answer
    stop_after_waits = 2;

    ASSERT_EQ(bootstrap(), 0) << log;
    EXPECT_EQ(delays, std::vector<unsigned>{15});
    EXPECT_TRUE(logged("failed to allocate buffer for incoming data with size [")) << log;
    EXPECT_TRUE(logged("CURL request failed: [0x17]")) << log;
    EXPECT_EQ(read_file(cups().uri), base());
}

TEST_F(CupsExchange, WriteCallbackKeepsEarlierBufferWhenItCannotGrow) {
    bridge_bstn_cups_ctx ctx{};
    char a[] = "abc", b[] = "defgh";
    EXPECT_EQ(bridge_bstn_cups_write_cb(a, 1, 3, &ctx), 3u);
    realloc_fail_at = realloc_calls + 1;
    EXPECT_EQ(bridge_bstn_cups_write_cb(b, 5, 1, &ctx), 0u);
    ASSERT_EQ(ctx.resp_len, 3u);
    EXPECT_EQ(std::string(reinterpret_cast<char *>(ctx.resp_data.get()), 3), "abc");
    EXPECT_EQ(bridge_bstn_cups_write_cb(b, 5, 1, &ctx), 5u);
    EXPECT_EQ(std::string(reinterpret_cast<char *>(ctx.resp_data.get()), ctx.resp_len), "abcdefgh");
    bridge_bstn_cups_ctx_reset(&ctx);
    EXPECT_EQ(ctx.resp_data, nullptr);
    EXPECT_EQ(ctx.resp_len, 0u);
}

TEST_F(CupsExchange, LocalFailuresEndTheBootstrap) {
    struct Case {
        const char *name;
        void (*arrange)(CupsExchange *);
        int rc;
        std::string message;
    };
    const Case cases[] = {
        {"no credential files", [](CupsExchange *) {}, -ENOENT, "missing mandatory key file"},
        {"token too long", [](CupsExchange *t) { t->token_set(false, std::string(512, 't')); }, -ENOBUFS,
         "failed to open CUPS keyfile: No buffer space available"},
        {"empty CUPS URI",
         [](CupsExchange *t) {
             t->keypair_set(false);
             write_file(t->cups().uri, "");
         },
         1, "failed to construct endpoint URL"},
        {"CUPS URI missing", [](CupsExchange *t) { t->keypair_set(false); unlink(t->cups().uri); }, -ENOENT,
         "failed to open a file"},
        {"LNS URI unreadable",
         [](CupsExchange *t) {
             t->keypair_set(false);
             mkdir(t->lns().uri, 0700);
         },
         -EISDIR, "failed to process LNS endpoints from file: Is a directory"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        fresh();
        write_file(cups().uri, "https://127.0.0.1:1/");
        c.arrange(this);
        EXPECT_EQ(bootstrap(), c.rc);
        EXPECT_TRUE(logged(c.message)) << log;
        EXPECT_TRUE(delays.empty());
    }
}

TEST_F(CupsExchange, MissingBackupSetAfterRefusalEndsTheBootstrap) {
    start_peer({"--respond", "401"});
    keypair_set(false);
    write_file(cups().uri, base());
    EXPECT_EQ(bootstrap(), -ENOENT);
    EXPECT_TRUE(logged("missing mandatory key file " + std::string(cups().key_backup) + " from backup set")) << log;
    EXPECT_EQ(records().size(), 1u);
    // The empty 401 body is classified without a dump.
    EXPECT_TRUE(logged("CUPS response code: 401"));
    EXPECT_FALSE(logged("0x000000: ")) << log;
}

TEST_F(CupsExchange, CertificateFileSelectsKeypairModeOverAToken) {
    start_peer({});
    token_set(false, "Authorization: Bearer main");
    write_file(cups().cert, cert_file("client.pem"));
    write_file(cups().uri, base());
    EXPECT_EQ(bootstrap(), STOP);
    EXPECT_TRUE(logged("using TLS keypair for client auth"));
    EXPECT_FALSE(logged("constructed auth header"));
    EXPECT_TRUE(logged("CURL request failed: [0x3a]")) << log;   // the token is no private key
    EXPECT_EQ(delays, std::vector<unsigned>{15});
}

} // namespace
