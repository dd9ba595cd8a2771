// GWMP header codec and the dataplane's decisions per datagram and per downlink, driven
// without the worker thread. The LNS client is not running: translated uplinks stop at its
// "in transition" check, which takes them.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <optional>
#include <poll.h>
#include <string>
#include <unistd.h>
#include <vector>

#include "common/base64.h"
#include "common/bridge_bstn_config.h"
#include "common/bridge_health.h"
#include "common/bridge_utils.h"
#include "converter/data/bridge_data_conv.h"
#include "converter/data/bridge_translator.h"

namespace {

using bytes = std::vector<uint8_t>;

TEST(DataplaneGwmp, HeaderRoundTrip) {
    struct {
        const char *fault;
        bytes wire;
        int rc;
        gwmp_header h;
    } rows[] = {
        {"token bytes swapped in the echo", {2, 0xef, 0xbe, GWMP_PUSH_DATA, 0}, 0, {2, 0xbeef, GWMP_PUSH_DATA}},
        {"version 1 refused", {1, 0x01, 0x00, GWMP_PULL_DATA}, 0, {1, 0x0001, GWMP_PULL_DATA}},
        {"3-byte datagram read past its end", {2, 1, 0}, GWMP_TOO_SHORT, {}},
        {"version 3 accepted", {3, 1, 0, GWMP_PUSH_DATA}, GWMP_BAD_VERSION, {}},
        {"version 0 accepted", {0, 1, 0, GWMP_PUSH_DATA}, GWMP_BAD_VERSION, {}},
    };
    for (const auto &r : rows) {
        SCOPED_TRACE(r.fault);
        gwmp_header h{};
        ASSERT_EQ(bridge_gwmp_read_header(r.wire.data(), r.wire.size(), &h), r.rc);
        if (r.rc != 0) continue;
        EXPECT_EQ(h.version, r.h.version);
        EXPECT_EQ(h.token, r.h.token);
        EXPECT_EQ(h.id, r.h.id);
        uint8_t back[GWMP_HEADER_SZ];
        EXPECT_EQ(bridge_gwmp_write_header(h, back), GWMP_HEADER_SZ);
        EXPECT_EQ(bytes(back, back + GWMP_HEADER_SZ), bytes(r.wire.begin(), r.wire.begin() + GWMP_HEADER_SZ));
    }
}

// The forwarder's socket: the address datagrams come from, and where acknowledgements go.
struct Forwarder {
    int fd = socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in addr{};
    Forwarder() {
        addr.sin_family = AF_INET;
        addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        bind(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr);
        socklen_t l = sizeof addr;
        getsockname(fd, reinterpret_cast<sockaddr *>(&addr), &l);
    }
    ~Forwarder() { close(fd); }
    std::optional<bytes> recv() const {
        pollfd p{fd, POLLIN, 0};
        if (poll(&p, 1, 100) <= 0) return std::nullopt;
        bytes b(64);
        ssize_t n = ::recv(fd, b.data(), b.size(), 0);
        b.resize(n < 0 ? 0 : static_cast<size_t>(n));
        return b;
    }
};

bytes gwmp(uint8_t version, uint8_t id, const std::string &json = "") {
    static const uint8_t gw_eui[GWMP_EUI_SZ] = {0x00, 0x16, 0xc0, 0x01, 0xff, 0x10, 0xa2, 0x35};
    bytes d = {version, 0x34, 0x12, id};
    d.reserve(GWMP_HEADER_SZ + GWMP_EUI_SZ + json.size());
    d.insert(d.end(), gw_eui, gw_eui + GWMP_EUI_SZ);
    d.insert(d.end(), json.begin(), json.end());
    return d;
}

// A data frame of DevAddr 0x260b1234 with FCnt and tmst from `fcnt`.
std::string rxpk(int fcnt) {
    const bytes phy = {0x40, 0x34, 0x12, 0x0b, 0x26, 0x00, static_cast<uint8_t>(fcnt), 0x00, 1, 2, 3, 4, 5};
    std::string b64(static_cast<size_t>(Base64encode_len(static_cast<int>(phy.size()))), '\0');
    Base64encode(b64.data(), phy.data(), static_cast<int>(phy.size()));
    return R"({"tmst":)" + std::to_string(1000000 + fcnt) + R"(,"chan":0,"rfch":0,"freq":868.1,"stat":1,)"
           R"("modu":"LORA","datr":"SF7BW125","codr":"4/5","rssi":-50,"lsnr":7.5,"size":1,"data":")" +
           b64.c_str() + "\"}";
}

const std::string DNMSG = R"({"msgtype":"dnmsg","DevEui":"00-00-00-00-00-00-00-01","dC":0,"diid":1,)"
                          R"("pdu":"0a0b0c0d","RxDelay":1,"priority":0,"xtime":1000,"rctx":0,"DR":"SF7BW125",)"
                          R"("Freq":868100000})";

struct Step {
    const char *fault;
    bytes datagram;     // handled as received from the forwarder, or empty:
    std::string dnmsg;  // handed to the downlink callback
    int rc;
    std::optional<bytes> reply;
    std::vector<std::pair<bridge_counter, uint32_t>> counted;
    int64_t base_low = -1; // counter the time base holds afterwards
};

void ignore_failure(uint32_t, void *) {}

TEST(Dataplane, DatagramAndDownlinkDecisions) {
    bridge_log_init(BRIDGE_LOG_ERROR, true);
    ASSERT_EQ(bridge_dataplane_init(ignore_failure, nullptr), 0);
    Forwarder fwd;
    const bytes push_ack_v2 = {2, 0x34, 0x12, GWMP_PUSH_ACK};
    const std::string bad_second = R"({"rxpk":[)" + rxpk(7) + R"(,{"freq":868.1},)" + rxpk(2) + "]}";
    const Step steps[] = { // in order: each step starts where the one before left the dataplane
        {"stat count not synchronising the time base", gwmp(2, GWMP_PUSH_DATA, R"({"stat":{"count":77}})"), "", 0,
         push_ack_v2, {}, 77},
        {"v1 acknowledgement with the wrong version", gwmp(1, GWMP_PUSH_DATA, R"({"stat":{}})"), "", 0,
         bytes{1, 0x34, 0x12, GWMP_PUSH_ACK}, {}},
        {"PUSH_DATA with a 1-byte body accepted", gwmp(2, GWMP_PUSH_DATA, "{"), "", -1, std::nullopt,
         {{BRIDGE_CNT_UP_DROP_INVALID, 1}}},
        {"garbage JSON acknowledged", gwmp(2, GWMP_PUSH_DATA, R"({"rxpk":[nope)"), "", -1, std::nullopt,
         {{BRIDGE_CNT_UP_DROP_INVALID, 1}}},
        {"one bad rxpk loses the rest of its batch", gwmp(2, GWMP_PUSH_DATA, bad_second), "", 0, push_ack_v2,
         // no session here: the LNS client refuses the two good ones and counts them
         {{BRIDGE_CNT_UP_RECEIVED, 3}, {BRIDGE_CNT_UP_DROP_LNS, 2}, {BRIDGE_CNT_UP_DROP_INVALID, 1}}},
        {"unknown identifier answered", gwmp(2, 0x07, "{}"), "", -1, std::nullopt, {}},
        {"downlink to a version-1 forwarder confirmed", gwmp(1, GWMP_PULL_DATA), DNMSG, -1,
         bytes{1, 0x34, 0x12, GWMP_PULL_ACK}, {{BRIDGE_CNT_DN_DROP_NO_FORWARDER, 1}}},
        {"PULL_ACK with the wrong identifier", gwmp(2, GWMP_PULL_DATA), "", 0, bytes{2, 0x34, 0x12, GWMP_PULL_ACK},
         {}},
        {"TX_ACK error not counted, or TX_ACK answered or sets the version",
         gwmp(1, GWMP_TX_ACK, R"({"txpk_ack":{"error":"TOO_LATE"}})"), DNMSG, 0, std::nullopt,
         {{BRIDGE_CNT_TXACK_TOO_LATE, 1}}},
        {"TX_ACK without error counted", gwmp(2, GWMP_TX_ACK, R"({"txpk_ack":{"error":"NONE"}})"), "", 0,
         std::nullopt, {}},
        {"unparsable downlink confirmed", {}, "{oops", -1, std::nullopt, {{BRIDGE_CNT_DN_DROP_INVALID, 1}}},
        {"incomplete dnmsg confirmed", {}, R"({"msgtype":"dnmsg","dC":0,"DR":"SF7BW125"})", -1,
         std::nullopt, {{BRIDGE_CNT_DN_DROP_INVALID, 1}}},
    };
    for (const auto &s : steps) {
        SCOPED_TRACE(s.fault);
        bridge_health_take();
        if (!s.datagram.empty()) {
            int rc = bridge_dataplane_handle_datagram(s.datagram.data(), s.datagram.size(),
                                                      reinterpret_cast<const sockaddr *>(&fwd.addr), sizeof fwd.addr);
            if (s.dnmsg.empty()) {
                EXPECT_EQ(rc, s.rc);
            }
            EXPECT_EQ(fwd.recv(), s.reply);
        }
        if (!s.dnmsg.empty()) {
            EXPECT_EQ(bridge_dataplane_downlink_cb(0, nullptr, s.dnmsg.c_str(), s.dnmsg.size() + 1), s.rc);
        }
        const bridge_health_snapshot got = bridge_health_take();
        bridge_health_snapshot want{};
        for (const auto &[counter, n] : s.counted) want.v[counter] = n;
        for (unsigned c = 0; c < BRIDGE_CNT_COUNT; c++) EXPECT_EQ(got.v[c], want.v[c]) << "counter " << c;
        if (s.base_low >= 0) {
            EXPECT_EQ(bridge_bstn_xtime_base() & 0xFFFFFFFF, s.base_low);
        }
    }
    EXPECT_EQ(bridge_bstn_xtime_base() & 0xFFFFFFFF, 1000007) << "uplink tmst did not keep the time base in step";

    // Nobody drains the pipe: a full ring of downlinks fits, then they are dropped, never waited for.
    int queued = 1; // the downlink of the TX_ACK step
    while (queued < 1000 && bridge_dataplane_downlink_cb(0, nullptr, DNMSG.c_str(), DNMSG.size() + 1) == 0)
        ++queued;
    EXPECT_GE(queued, static_cast<int>(BRIDGE_DATAPLANE_PIPE_MSGS)) << "pipe too small for a downlink ring";
    EXPECT_LT(queued, 1000) << "the pipe never filled";
    EXPECT_EQ(bridge_health_take().v[BRIDGE_CNT_DN_DROP_PIPE_FULL], 1u);
    EXPECT_EQ(bridge_dataplane_deinit(), 0);
}

TEST(Dataplane, BindAddress) {
    struct {
        const char *fault;
        const char *address;
        bool ok;
    } rows[] = {
        {"loopback refused", "127.0.0.1", true},
        {"a host name taken for an address", "localhost", false},
        {"an address of another machine bound", "192.0.2.1", false},
    };
    for (const auto &r : rows) {
        SCOPED_TRACE(r.fault);
        snprintf(bridge_config_get_root()->semtech.bind_address, BRIDGE_CFG_STR_SZ, "%s", r.address);
        ASSERT_EQ(bridge_dataplane_init(ignore_failure, nullptr), 0);
        Forwarder probe; // a free port on every address: bind to it after closing
        const int port = ntohs(probe.addr.sin_port);
        close(probe.fd);
        probe.fd = -1;
        const int rc = bridge_dataplane_start_server(port);
        EXPECT_EQ(rc == 0, r.ok);
        if (rc == 0) {
            bridge_dataplane_stop_server();
        }
        EXPECT_EQ(bridge_dataplane_deinit(), 0);
    }
    bridge_config_get_root()->semtech.bind_address[0] = '\0';
}

} // namespace
