// Shared set-up of the LNS client integration tests: certificates, configuration root and
// the Python LNS peer (sim/lns_peer.py) with its JSON event lines.
#pragma once

#include <chrono>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "common/bridge_bstn_config.h"
#include "common/bridge_json_helpers.h"
#include "common/bridge_utils.h"
#include "converter/data/bridge_bstn_lns_internal.h"
#include "support/test_support.h"

namespace lns_test {

inline const char *GW_EUI = "0016c001ff10a235";

// One PKI for the whole test program: key generation is the slow part.
inline const std::string &certs_dir() {
    static kes_test::TempDir dir;
    static bool made = false;
    if (!made) {
        EXPECT_TRUE(kes_test::make_certs(dir.path()));
        made = true;
    }
    return dir.path();
}

using kes_test::set_text;

// Fills the configuration root: primary and backup credentials are the same client files.
inline void configure(const kes_test::TempDir &dir, const std::string &uri_text,
                      const std::string &backup_uri_text = "") {
    bridge_cfg_root *cfg = bridge_config_get_root();
    memset(cfg, 0, sizeof(*cfg));
    set_text(cfg->general.gw_eui, GW_EUI);
    set_text(cfg->general.name, "kes-test-station");
    set_text(cfg->general.fw_version, "1.7.1");
    set_text(cfg->general.model, "kes-model");
    set_text(cfg->general.package, "kes-package");
    kes_test::write_file(dir.file("tc.uri"), uri_text);
    kes_test::write_file(dir.file("tc-bak.uri"), backup_uri_text);
    set_text(cfg->lns.uri, dir.file("tc.uri"));
    set_text(cfg->lns.uri_backup, dir.file("tc-bak.uri"));
    const std::string &c = certs_dir();
    set_text(cfg->lns.trust, c + "/ca.pem");
    set_text(cfg->lns.trust_backup, c + "/ca.pem");
    set_text(cfg->lns.cert, c + "/client.pem");
    set_text(cfg->lns.cert_backup, c + "/client.pem");
    set_text(cfg->lns.key, c + "/client.key");
    set_text(cfg->lns.key_backup, c + "/client.key");
}

// Switches the configuration to token mode: no certificate file, the key file holds the header.
inline void configure_token(const kes_test::TempDir &dir, const std::string &header_lines) {
    bridge_cfg_root *cfg = bridge_config_get_root();
    kes_test::write_file(dir.file("tc.key"), header_lines);
    set_text(cfg->lns.cert, dir.file("missing.crt"));
    set_text(cfg->lns.cert_backup, dir.file("missing.crt"));
    set_text(cfg->lns.key, dir.file("tc.key"));
    set_text(cfg->lns.key_backup, dir.file("tc.key"));
}

// A TCP port on 127.0.0.1 where nothing listens (bound, then released).
inline int unused_port() {
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof(a);
    bind(fd, reinterpret_cast<sockaddr *>(&a), sizeof(a));
    getsockname(fd, reinterpret_cast<sockaddr *>(&a), &len);
    close(fd);
    return ntohs(a.sin_port);
}

class Peer {
public:
    explicit Peer(std::vector<std::string> extra = {}) {
        std::vector<std::string> argv = {kes_test::python(), kes_test::source_dir() + "/sim/lns_peer.py",
                                         "--certs", certs_dir()};
        argv.insert(argv.end(), extra.begin(), extra.end());
        port = std::stoi(proc.start(argv, "READY"));
    }
    std::string uri() const { return "wss://127.0.0.1:" + std::to_string(port); }

    // Next event line for which `pred` holds (others are skipped); null on time-out.
    bridge_json_ptr wait_event(const std::function<bool(json_object *)> &pred, int timeout_ms = 10000) {
        auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
        for (;;) {
            auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline -
                                                                              std::chrono::steady_clock::now());
            if (left.count() <= 0) return nullptr;
            std::string line = proc.read_line(static_cast<int>(left.count()));
            if (line.empty()) return nullptr;
            bridge_json_ptr ev(json_tokener_parse(line.c_str()));
            if (ev && pred(ev.get())) return ev;
        }
    }
    // Next message received on the given endpoint kind with the given msgtype ("" = any).
    bridge_json_ptr wait_recv(const std::string &kind, const std::string &msgtype, int timeout_ms = 10000) {
        bridge_json_ptr ev = wait_event(
            [&](json_object *e) {
                if (str(e, "event") != "recv" || str(e, "kind") != kind) return false;
                json_object *msg = nullptr;
                if (!json_object_object_get_ex(e, "msg", &msg)) return false;
                return msgtype.empty() || str(msg, "msgtype") == msgtype;
            },
            timeout_ms);
        if (!ev) return nullptr;
        json_object *msg = nullptr;
        json_object_object_get_ex(ev.get(), "msg", &msg);
        return bridge_json_ptr(json_object_get(msg));
    }
    bridge_json_ptr wait_named(const std::string &event, int timeout_ms = 10000) {
        return wait_event([&](json_object *e) { return str(e, "event") == event; }, timeout_ms);
    }
    void command(const std::string &json_line) { proc.write_line(json_line); }

    static std::string str(json_object *o, const char *key) {
        json_object *v = nullptr;
        if (!o || !json_object_object_get_ex(o, key, &v) || !json_object_is_type(v, json_type_string)) return {};
        return json_object_get_string(v);
    }
    static int64_t num(json_object *o, const char *key) {
        json_object *v = nullptr;
        if (!o || !json_object_object_get_ex(o, key, &v)) return -12345;
        return json_object_get_int64(v);
    }

    kes_test::Process proc;
    int port = 0;
};

} // namespace lns_test
