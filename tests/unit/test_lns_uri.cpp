// LNS endpoint: URI splitting, URI file reading and trimming, request path construction.
#include <cerrno>
#include <cstring>
#include <string>

#include <gtest/gtest.h>

#include "common/bridge_bstn_config.h"
#include "common/bridge_utils.h"
#include "converter/data/bridge_bstn_lns_internal.h"
#include "support/test_support.h"

namespace {

struct ParseRow {
    std::string uri;
    int rc;
    std::string host;
    int32_t port;
    std::string path;
    const char *message; // expected log text, or nullptr
};

TEST(LnsParseUri, SplitsHostPortAndPath) {
    const std::string host255(255, 'h');
    const std::string seg61(61, 's');
    const ParseRow rows[] = {
        {"wss://lns.example.com:8887/traffic/eui-0016c001ff10a235", 0, "lns.example.com", 8887,
         "/traffic/eui-0016c001ff10a235", nullptr},
        {"ws://lns.example.com", 0, "lns.example.com", 80, "", "LNS port isn't set in URI, using default: 80"},
        {"wss://lns.example.com", 0, "lns.example.com", 443, "", "LNS port isn't set in URI, using default: 443"},
        {"WSS://lns.example.com", 0, "lns.example.com", 80, "", nullptr}, // scheme compared as written
        {"https://10.0.0.1/", 0, "10.0.0.1", 80, "/", nullptr},
        {"wss://h/a/b?x=1#frag", 0, "h", 443, "/a/b", nullptr},
        {"wss://h:65535", 0, "h", 65535, "", nullptr},
        {"wss://h:1", 0, "h", 1, "", "WS host parsed: h, port: 1 path: "},
        {"wss://h:0", -1, "", 0, "", "invalid port string: 0"},
        {"wss://h:70000", -1, "", 0, "", "invalid port string: 70000"},
        {"wss://h:99999999999999999999999", -ERANGE, "", 0, "", "invalid port string: 99999999999999999999999"},
        {"wss://h:" + std::string(32, '1'), -1, "", 0, "", "can't fit into the output buffer"},
        {"wss://h:abc", -1, "", 0, "", "failed to parse URI: wss://h:abc"},
        {"not a uri", -1, "", 0, "", "failed to parse URI: not a uri"},
        {"", -1, "", 0, "", "failed to parse URI: "},
        {"wss://" + host255 + "/p", 0, host255, 443, "/p", nullptr},
        {"wss://" + host255 + "h/p", -1, "", 0, "", "is too long to fit into the output buffer"},
        {"wss://h/" + seg61, 0, "h", 443, "/" + seg61, nullptr},
        {"wss://h/" + seg61 + "s", -1, "", 0, "", "can't fit into the output buffer"},
        {"wss://h/" + std::string(30, 'a') + "/" + std::string(30, 'b'), 0, "h", 443,
         "/" + std::string(30, 'a') + "/" + std::string(30, 'b'), nullptr},
        {"wss://h/" + std::string(30, 'a') + "/" + std::string(31, 'b'), -1, "", 0, "",
         "can't fit into the output buffer"},
    };
    bridge_log_init(BRIDGE_LOG_TRACE, true);
    for (const ParseRow &r : rows) {
        char host[LNS_HOST_SZ] = "untouched";
        char path[LNS_PATH_SZ] = "untouched";
        int32_t port = -7;
        kes_test::StderrCapture cap;
        int rc = lns_parse_uri(r.uri.c_str(), host, sizeof(host), &port, path, sizeof(path));
        std::string log = cap.stop();
        EXPECT_EQ(rc, r.rc) << r.uri << "\n" << log;
        if (r.rc == 0) {
            EXPECT_EQ(host, r.host) << r.uri;
            EXPECT_EQ(port, r.port) << r.uri;
            EXPECT_EQ(path, r.path) << r.uri;
        }
        if (r.message) {
            EXPECT_NE(log.find(r.message), std::string::npos) << r.uri << "\n" << log;
        }
    }
    bridge_log_init(BRIDGE_LOG_INFO, true);
}

class LnsEndpointTest : public ::testing::Test {
protected:
    void SetUp() override {
        bridge_cfg_root *cfg = bridge_config_get_root();
        memset(cfg, 0, sizeof(*cfg));
        snprintf(cfg->lns.uri, sizeof(cfg->lns.uri), "%s", dir.file("tc.uri").c_str());
        snprintf(cfg->lns.uri_backup, sizeof(cfg->lns.uri_backup), "%s", dir.file("tc-bak.uri").c_str());
        ASSERT_EQ(lns_ctx_init(&lns), 0);
        bridge_log_init(BRIDGE_LOG_TRACE, true);
    }
    void TearDown() override {
        lns_ctx_deinit(&lns);
        bridge_log_init(BRIDGE_LOG_INFO, true);
    }
    kes_test::TempDir dir;
};

TEST_F(LnsEndpointTest, UriFileIsTrimmedAndParsed) {
    struct Row {
        std::string content;
        int rc;
        std::string host;
        int32_t port;
        std::string path;
        const char *message;
    } rows[] = {
        {"  wss://lns.example.com/path\n", 0, "lns.example.com", 443, "/path", nullptr},
        {"\t\r\nwss://10.1.2.3:1234/a/b \r\n\n", 0, "10.1.2.3", 1234, "/a/b", nullptr},
        {"ws://gw-lns", 0, "gw-lns", 80, "", nullptr},
        {"x", -1, "", 0, "", "failed to parse URI: x"},
        {"", -1, "", 0, "", "can't process URI: string is empty"},
        {" \n\t ", -1, "", 0, "", "failed to parse URI: "},
        {std::string(256, 'w'), -ENOBUFS, "", 0, "", "failed to read LNS uri"},
        {"wss://h/" + std::string(240, 'p') + "\n", -1, "", 0, "", "can't fit into the output buffer"},
    };
    for (const Row &r : rows) {
        kes_test::write_file(dir.file("tc.uri"), r.content);
        char host[LNS_HOST_SZ] = {};
        char path[LNS_PATH_SZ] = {};
        int32_t port = 0;
        kes_test::StderrCapture cap;
        int rc = lns_resolve_endpoint(&lns, host, sizeof(host), path, sizeof(path), &port, false);
        std::string log = cap.stop();
        EXPECT_EQ(rc, r.rc) << r.content << "\n" << log;
        if (r.rc == 0) {
            EXPECT_EQ(host, r.host);
            EXPECT_EQ(port, r.port);
            EXPECT_EQ(path, r.path);
        }
        if (r.message) {
            EXPECT_NE(log.find(r.message), std::string::npos) << r.content << "\n" << log;
        }
    }
}

TEST_F(LnsEndpointTest, BackupFileMissingFileAndDiscoveredUri) {
    kes_test::write_file(dir.file("tc.uri"), "wss://primary:1");
    kes_test::write_file(dir.file("tc-bak.uri"), "wss://backup:2");
    char host[LNS_HOST_SZ] = {};
    char path[LNS_PATH_SZ] = {};
    int32_t port = 0;
    ASSERT_EQ(lns_resolve_endpoint(&lns, host, sizeof(host), path, sizeof(path), &port, true), 0);
    EXPECT_STREQ(host, "backup");
    EXPECT_EQ(port, 2);

    // The discovered URI wins over both files, whatever use_backup says.
    snprintf(lns.lns_uri, sizeof(lns.lns_uri), "wss://traffic:3/traffic/gw");
    ASSERT_EQ(lns_resolve_endpoint(&lns, host, sizeof(host), path, sizeof(path), &port, true), 0);
    EXPECT_STREQ(host, "traffic");
    EXPECT_STREQ(path, "/traffic/gw");
    lns.lns_uri[0] = '\0';

    unlink(dir.file("tc.uri").c_str());
    kes_test::StderrCapture cap;
    EXPECT_EQ(lns_resolve_endpoint(&lns, host, sizeof(host), path, sizeof(path), &port, false), -ENOENT);
    EXPECT_NE(cap.stop().find("failed to read LNS uri"), std::string::npos);
}

TEST_F(LnsEndpointTest, RequestPathMustFitBesideEndpointPath) {
    struct Row {
        std::string endpoint_path; // without the leading slash
        const char *request;
        bool fits;
    } rows[] = {
        {std::string(49, 'p'), "router-info", false}, // endpoint path of 50: 11 + 3 is not below 14
        {std::string(48, 'p'), "router-info", true},
        {std::string(59, 'p'), "", true},
        {std::string(60, 'p'), "", false}, // 0 + 3 is not below 64 - 61
    };
    for (const Row &r : rows) {
        kes_test::write_file(dir.file("tc.uri"), "wss://127.0.0.1:1/" + r.endpoint_path);
        json_object *resp = nullptr;
        kes_test::StderrCapture cap;
        // No credential files are configured: a fitting path gets as far as the connect step,
        // which fails on the missing token file.
        int rc = lns_request(&lns, r.request, "{}", &resp, false, true);
        std::string log = cap.stop();
        std::string expected_path = "/" + r.endpoint_path + (r.request[0] ? std::string("/") + r.request : "");
        if (r.fits) {
            EXPECT_EQ(rc, -ENOENT) << log;
            EXPECT_NE(log.find("WS path constructed: " + expected_path + "\n"), std::string::npos) << log;
        } else {
            EXPECT_EQ(rc, -1) << r.endpoint_path.size();
            EXPECT_NE(log.find(std::string("buffer is too small for URI path: ") + r.request), std::string::npos)
                << log;
        }
        EXPECT_EQ(lns.ws_ctx, nullptr);
        EXPECT_EQ(resp, nullptr);
    }
}

} // namespace
