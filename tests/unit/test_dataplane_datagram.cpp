// The dataplane's decisions per datagram and per downlink, driven without the worker thread. The LNS
// client is not running: it refuses translated uplinks and counts them.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <string>
#include <unistd.h>
#include <vector>

#include "common/bridge_bstn_config.h"
#include "common/bridge_health.h"
#include "common/bridge_utils.h"
#include "converter/data/bridge_data_conv.h"
#include "converter/data/bridge_translator.h"

namespace {

using bytes = std::vector<uint8_t>;

// The forwarder's socket: the address datagrams come from, and where acknowledgements go.
struct Forwarder {
    int fd = socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in addr{AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
    Forwarder() {
        socklen_t l = sizeof addr;
        bind(fd, reinterpret_cast<sockaddr *>(&addr), l);
        getsockname(fd, reinterpret_cast<sockaddr *>(&addr), &l);
    }
    ~Forwarder() { close(fd); }
    bytes recv() const { // empty: nothing came within 100 ms
        pollfd p{fd, POLLIN, 0};
        bytes b(poll(&p, 1, 100) > 0 ? 64 : 0);
        b.resize(b.empty() ? 0 : static_cast<size_t>(std::max<ssize_t>(0, ::recv(fd, b.data(), b.size(), 0))));
        return b;
    }
};

// A datagram of token 0x1234 from gateway 0016c001ff10a235.
bytes gwmp(uint8_t version, uint8_t id, const std::string &json = "") {
    bytes d = {version, 0x34, 0x12, id, 0x00, 0x16, 0xc0, 0x01, 0xff, 0x10, 0xa2, 0x35};
    d.reserve(d.size() + json.size()); // spares GCC's array-bounds false alarm on the insert
    d.insert(d.end(), json.begin(), json.end());
    return d;
}

// A data frame (DevAddr 26011BDA, FCnt 258) received at concentrator count `tmst`.
std::string rxpk(int tmst) {
    return R"({"tmst":)" + std::to_string(tmst) + R"(,"chan":0,"rfch":0,"freq":868.1,"stat":1,"modu":"LORA",)"
           R"("datr":"SF7BW125","codr":"4/5","rssi":-50,"lsnr":7.5,"size":20,"data":"QNobASaDAgECAwcKAQIDBBEiM0Q="})";
}

const std::string DNMSG = R"({"msgtype":"dnmsg","DevEui":"00-00-00-00-00-00-00-01","dC":0,"diid":1,)"
                          R"("pdu":"0a0b0c0d","RxDelay":1,"priority":0,"xtime":1000,"rctx":0,"DR":"SF7BW125",)"
                          R"("Freq":868100000})";

void ignore_failure(uint32_t, void *) {}

TEST(Dataplane, DatagramAndDownlinkDecisions) {
    bridge_log_init(BRIDGE_LOG_ERROR, true);
    ASSERT_EQ(bridge_dataplane_init(ignore_failure, nullptr), 0);
    Forwarder fwd;
    const bytes push_ack = {2, 0x34, 0x12, GWMP_PUSH_ACK}, none;
    const std::string bad_second = R"({"rxpk":[)" + rxpk(1000007) + R"(,{"freq":868.1},)" + rxpk(1000002) + "]}";
    constexpr auto INVALID = BRIDGE_CNT_UP_DROP_INVALID;
    struct {
        const char *fault;
        bytes datagram;    // handled as received from the forwarder, then:
        std::string dnmsg; // handed to the downlink callback, if any
        int rc;            // of the last of the two
        bytes reply;       // to the forwarder (empty: none)
        std::vector<std::pair<bridge_counter, uint32_t>> counted;
        int64_t base_low = -1; // counter the time base holds afterwards
    } steps[] = { // in order: each step starts where the one before left the dataplane
        {"stat count not synchronising the time base", gwmp(2, GWMP_PUSH_DATA, R"({"stat":{"count":77}})"), "", 0,
         push_ack, {}, 77},
        {"token bytes swapped, or v1 acknowledged as v2", gwmp(1, GWMP_PUSH_DATA, R"({"stat":{}})"), "", 0,
         {1, 0x34, 0x12, GWMP_PUSH_ACK}, {}},
        {"3-byte datagram read past its end", {2, 0x34, 0x12}, "", -1, none, {}},
        {"version 3 accepted", gwmp(3, GWMP_PUSH_DATA, R"({"stat":{}})"), "", -1, none, {}},
        {"version 0 accepted", gwmp(0, GWMP_PULL_DATA), "", -1, none, {}},
        {"PUSH_DATA with a 1-byte body accepted", gwmp(2, GWMP_PUSH_DATA, "{"), "", -1, none, {{INVALID, 1}}},
        {"garbage JSON acknowledged", gwmp(2, GWMP_PUSH_DATA, R"({"rxpk":[nope)"), "", -1, none, {{INVALID, 1}}},
        {"one bad rxpk loses the rest, or uplinks leave the time base", gwmp(2, GWMP_PUSH_DATA, bad_second), "", 0,
         push_ack, {{BRIDGE_CNT_UP_RECEIVED, 3}, {BRIDGE_CNT_UP_DROP_LNS, 2}, {INVALID, 1}}, 1000007},
        {"unknown identifier answered", gwmp(2, 0x07, "{}"), "", -1, none, {}},
        {"downlink to a version-1 forwarder confirmed", gwmp(1, GWMP_PULL_DATA), DNMSG, -1,
         {1, 0x34, 0x12, GWMP_PULL_ACK}, {{BRIDGE_CNT_DN_DROP_NO_FORWARDER, 1}}},
        {"PULL_ACK with the wrong identifier", gwmp(2, GWMP_PULL_DATA), "", 0, {2, 0x34, 0x12, GWMP_PULL_ACK}, {}},
        {"TX_ACK error not counted, or TX_ACK answered or sets the version",
         gwmp(1, GWMP_TX_ACK, R"({"txpk_ack":{"error":"TOO_LATE"}})"), DNMSG, 0, none,
         {{BRIDGE_CNT_TXACK_TOO_LATE, 1}}},
        {"TX_ACK without error counted", gwmp(2, GWMP_TX_ACK, R"({"txpk_ack":{"error":"NONE"}})"), "", 0, none, {}},
        {"unparsable downlink confirmed", {}, "{oops", -1, none, {{BRIDGE_CNT_DN_DROP_INVALID, 1}}},
        {"incomplete dnmsg confirmed", {}, R"({"msgtype":"dnmsg","dC":0,"DR":"SF7BW125"})", -1, none,
         {{BRIDGE_CNT_DN_DROP_INVALID, 1}}},
    };
    for (const auto &s : steps) {
        SCOPED_TRACE(s.fault);
        bridge_health_take();
        int rc = 0;
        if (!s.datagram.empty()) {
            rc = bridge_dataplane_handle_datagram(s.datagram.data(), s.datagram.size(),
                                                  reinterpret_cast<const sockaddr *>(&fwd.addr), sizeof fwd.addr);
            EXPECT_EQ(fwd.recv(), s.reply);
        }
        if (!s.dnmsg.empty()) rc = bridge_dataplane_downlink_cb(0, nullptr, s.dnmsg.c_str(), s.dnmsg.size() + 1);
        EXPECT_EQ(rc, s.rc);
        const bridge_health_snapshot got = bridge_health_take();
        bridge_health_snapshot want{};
        for (const auto &[counter, n] : s.counted) want.v[counter] = n;
        for (unsigned c = 0; c < BRIDGE_CNT_COUNT; c++) EXPECT_EQ(got.v[c], want.v[c]) << "counter " << c;
        EXPECT_TRUE(s.base_low < 0 || (bridge_bstn_xtime_base() & 0xFFFFFFFF) == s.base_low) << "time base";
    }

    // Nobody drains the pipe: a full ring of downlinks fits, then they are dropped, never waited for.
    int queued = 1; // the downlink of the TX_ACK step
    while (queued < 1000 && bridge_dataplane_downlink_cb(0, nullptr, DNMSG.c_str(), DNMSG.size() + 1) == 0) ++queued;
    EXPECT_GE(queued, static_cast<int>(BRIDGE_DATAPLANE_PIPE_MSGS)) << "pipe too small for a downlink ring";
    EXPECT_EQ(bridge_health_take().v[BRIDGE_CNT_DN_DROP_PIPE_FULL], 1u) << "the pipe never filled";
    EXPECT_EQ(bridge_dataplane_deinit(), 0);
}

TEST(Dataplane, BindAddress) {
    struct {
        const char *fault, *address;
        bool ok;
    } rows[] = {{"loopback refused", "127.0.0.1", true}, {"a host name taken for an address", "localhost", false},
                {"an address of another machine bound", "192.0.2.1", false}};
    for (const auto &r : rows) {
        snprintf(bridge_config_get_root()->semtech.bind_address, BRIDGE_CFG_STR_SZ, "%s", r.address);
        ASSERT_EQ(bridge_dataplane_init(ignore_failure, nullptr), 0);
        const int port = ntohs(Forwarder().addr.sin_port); // free on every address once the probe is closed
        const int rc = bridge_dataplane_start_server(port);
        EXPECT_EQ(rc == 0, r.ok) << r.fault;
        if (rc == 0) bridge_dataplane_stop_server();
        EXPECT_EQ(bridge_dataplane_deinit(), 0);
    }
    bridge_config_get_root()->semtech.bind_address[0] = '\0';
}

} // namespace
