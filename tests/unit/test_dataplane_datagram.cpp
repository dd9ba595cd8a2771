// GWMP handling of the UDP dataplane: datagrams in, acknowledgements and
// PULL_RESP out, over real sockets on 127.0.0.1. The LNS client is not running,
// so translated uplinks stop at its "in transition" check (and count as sent).
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <cstring>
#include <json-c/json.h>
#include <netinet/in.h>
#include <optional>
#include <poll.h>
#include <string>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

#include "common/base64.h"
#include "common/bridge_utils.h"
#include "converter/data/bridge_data_conv.h"
#include "converter/data/bridge_translator.h"
#include "support/test_support.h"

namespace {

using bytes = std::vector<uint8_t>;

constexpr uint8_t EUI[8] = {0x00, 0x16, 0xc0, 0x01, 0xff, 0x10, 0xa2, 0x35};
constexpr int64_t BASE = (int64_t{0x2a} << 48) | 1000000; // epoch 42, counter 1 s

int failure_calls = 0;
void count_failure(uint32_t, void *) { ++failure_calls; }

// A forwarder socket bound to an ephemeral port on 127.0.0.1.
class UdpPeer {
public:
    UdpPeer() {
        fd_ = socket(AF_INET, SOCK_DGRAM, 0);
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        bind(fd_, reinterpret_cast<sockaddr *>(&a), sizeof a);
        socklen_t l = sizeof addr_;
        getsockname(fd_, reinterpret_cast<sockaddr *>(&addr_), &l);
    }
    ~UdpPeer() { close(fd_); }
    const sockaddr *addr() const { return reinterpret_cast<const sockaddr *>(&addr_); }
    socklen_t addr_len() const { return sizeof addr_; }
    void send_to(int port, const bytes &d) const {
        sockaddr_in to{};
        to.sin_family = AF_INET;
        to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        to.sin_port = htons(static_cast<uint16_t>(port));
        sendto(fd_, d.data(), d.size(), 0, reinterpret_cast<sockaddr *>(&to), sizeof to);
    }
    std::optional<bytes> recv(int timeout_ms = 2000) const {
        pollfd p{fd_, POLLIN, 0};
        if (poll(&p, 1, timeout_ms) <= 0) return std::nullopt;
        bytes b(65536);
        ssize_t n = ::recv(fd_, b.data(), b.size(), 0);
        if (n < 0) return std::nullopt;
        b.resize(static_cast<size_t>(n));
        return b;
    }
private:
    int fd_ = -1;
    sockaddr_in addr_{};
};

int free_udp_port() {
    int fd = socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    bind(fd, reinterpret_cast<sockaddr *>(&a), sizeof a);
    socklen_t l = sizeof a;
    getsockname(fd, reinterpret_cast<sockaddr *>(&a), &l);
    close(fd);
    return ntohs(a.sin_port);
}

bytes header(uint8_t version, uint16_t token, uint8_t id) {
    return {version, static_cast<uint8_t>(token & 0xff), static_cast<uint8_t>(token >> 8), id};
}

bytes gwmp(uint8_t version, uint16_t token, uint8_t id, const std::string &json = "") {
    bytes d = header(version, token, id);
    d.resize(4 + 8 + json.size());
    memcpy(d.data() + 4, EUI, 8);
    memcpy(d.data() + 12, json.data(), json.size());
    return d;
}

std::string b64(const bytes &phy) {
    std::string out(static_cast<size_t>(Base64encode_len(static_cast<int>(phy.size()))), '\0');
    Base64encode(out.data(), phy.data(), static_cast<int>(phy.size()));
    out.resize(strlen(out.c_str()));
    return out;
}

// Unconfirmed data frame: DevAddr 0x260b1234, FCnt 7, FPort 1, payload 010203.
const bytes DATA_FRAME = {0x40, 0x34, 0x12, 0x0b, 0x26, 0x00, 0x07, 0x00, 0x01,
                          0x01, 0x02, 0x03, 0x0d, 0x0c, 0x0b, 0x0a};

std::string rxpk_v2(uint32_t tmst) {
    return R"({"tmst":)" + std::to_string(tmst) +
           R"(,"chan":0,"rfch":0,"freq":868.1,"stat":1,"modu":"LORA","datr":"SF7BW125","codr":"4/5",)"
           R"("rssi":-50,"lsnr":7.5,"size":16,"data":")" + b64(DATA_FRAME) + R"("})";
}

std::string dnmsg(int64_t xtime, const char *extra = "") {
    return R"({"msgtype":"dnmsg","DevEui":"00-00-00-00-00-00-00-01","dC":0,"diid":1,"pdu":"0a0b0c0d",)"
           R"("RxDelay":1,"RX1DR":5,"RX1Freq":868100000,"priority":0,"xtime":)" + std::to_string(xtime) +
           R"(,"rctx":0,"DR":"SF7BW125","Freq":868100000)" + extra + "}";
}

void deliver_downlink(const std::string &text) {
    bridge_dataplane_downlink_cb(0, nullptr, text.c_str(), text.size() + 1);
}

bool has(const std::string &log, const std::string &needle) { return log.find(needle) != std::string::npos; }

class DataplaneTest : public ::testing::Test {
protected:
    void SetUp() override {
        bridge_log_init(BRIDGE_LOG_TRACE, true);
        failure_calls = 0;
        ASSERT_EQ(bridge_dataplane_init(count_failure, nullptr), 0);
    }
    void TearDown() override {
        if (started_) bridge_dataplane_stop_server();
        EXPECT_EQ(bridge_dataplane_deinit(), 0);
    }
    void start() {
        port_ = free_udp_port();
        ASSERT_EQ(bridge_dataplane_start_server(port_), 0);
        started_ = true;
    }
    // The worker handles datagrams in order: a PULL_ACK proves everything sent before was handled.
    void sync_with_worker(const UdpPeer &p, uint16_t token = 0x7777) {
        p.send_to(port_, gwmp(2, token, GWMP_PULL_DATA));
        auto ack = p.recv();
        ASSERT_TRUE(ack.has_value());
        ASSERT_EQ(*ack, header(2, token, GWMP_PULL_ACK));
    }
    void sync_time_base(const UdpPeer &p) {
        bridge_bstn_xtime_set_base(BASE & ~int64_t{0xFFFFFFFFFFFF});
        p.send_to(port_, gwmp(2, 0x0101, GWMP_PUSH_DATA, R"({"stat":{"count":1000000}})"));
        ASSERT_EQ(p.recv(), header(2, 0x0101, GWMP_PUSH_ACK));
        ASSERT_EQ(bridge_bstn_xtime_base(), BASE);
    }
    int port_ = 0;
    bool started_ = false;
};

// ---- datagrams that are dropped before any reply ------------------------------------------------

struct Rejected {
    const char *name;
    bytes datagram;
    const char *message;
};

TEST_F(DataplaneTest, MalformedDatagramsAreDroppedWithTheirMessage) {
    const std::string too_long(1500, ' ');
    const std::vector<Rejected> cases = {
        {"three bytes", {2, 1, 0}, "not enough data to continue: 4"},
        {"version 3", gwmp(3, 1, GWMP_PULL_DATA), "invalid version: 3"},
        {"version 0", gwmp(0, 1, GWMP_PUSH_DATA, "{}"), "invalid version: 0"},
        {"header only", header(2, 1, GWMP_PUSH_DATA), "no data to handle"},
        {"EUI alone", gwmp(2, 1, GWMP_PUSH_DATA), "no data to handle"},
        {"EUI and one byte", gwmp(2, 1, GWMP_PUSH_DATA, "{"), "no data to handle"},
        {"garbage JSON", gwmp(2, 1, GWMP_PUSH_DATA, "{\"rxpk\":[nope"), "failed to allocate tokener"},
        {"1500 bytes cut to 1023", gwmp(2, 1, GWMP_PUSH_DATA, R"({"stat":{"count":5},"x":")" + too_long + "\"}"),
         "failed to allocate tokener"},
        {"unknown identifier", gwmp(2, 1, 0x07), "invalid packet type: 7"},
        {"PULL_ACK from the forwarder", header(2, 1, GWMP_PULL_ACK), "invalid packet type: 4"},
    };
    UdpPeer fwd;
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        kes_test::StderrCapture cap;
        EXPECT_LT(bridge_dataplane_handle_datagram(c.datagram.data(), c.datagram.size(), fwd.addr(),
                                                   fwd.addr_len()), 0);
        EXPECT_PRED2(has, cap.stop(), c.message);
        EXPECT_FALSE(fwd.recv(50).has_value());
    }
    // The 1500-byte stat never reached the time base.
    EXPECT_EQ(bridge_bstn_xtime_base() & 0xFFFFFFFFFFFF, 0);
}

TEST_F(DataplaneTest, TxAckIsLoggedAndNotAnswered) {
    UdpPeer fwd;
    const bytes ack = gwmp(2, 9, GWMP_TX_ACK, R"({"txpk_ack":{"error":"NONE"}})");
    kes_test::StderrCapture cap;
    EXPECT_EQ(bridge_dataplane_handle_datagram(ack.data(), ack.size(), fwd.addr(), fwd.addr_len()), 0);
    EXPECT_PRED2(has, cap.stop(), "TX_ACK received with size: " + std::to_string(ack.size() + 1 - 4));
    EXPECT_FALSE(fwd.recv(50).has_value());
}

// ---- acknowledgements through the running worker -------------------------------------------------

TEST_F(DataplaneTest, AcknowledgementsEchoVersionAndTokenToTheRequestingPort) {
    start();
    UdpPeer push, pull;
    for (uint8_t version : {1, 2}) {
        SCOPED_TRACE(version);
        pull.send_to(port_, gwmp(version, 0xbeef, GWMP_PULL_DATA));
        EXPECT_EQ(pull.recv(), header(version, 0xbeef, GWMP_PULL_ACK));
        push.send_to(port_, gwmp(version, 0x1234, GWMP_PUSH_DATA, R"({"stat":{"rxnb":0}})"));
        EXPECT_EQ(push.recv(), header(version, 0x1234, GWMP_PUSH_ACK));
        EXPECT_FALSE(pull.recv(50).has_value()) << "PUSH_ACK must go to the PUSH_DATA port only";
    }
}

TEST_F(DataplaneTest, StatCountSynchronisesTheTimeBaseAndUplinksFlowAfterwards) {
    start();
    UdpPeer fwd;
    const uint32_t tmst = 1500000;
    // Before any count the uplink is refused by the translator: no PUSH_ACK.
    fwd.send_to(port_, gwmp(2, 0x0201, GWMP_PUSH_DATA, R"({"rxpk":[)" + rxpk_v2(tmst) + "]}"));
    EXPECT_FALSE(fwd.recv(200).has_value());

    sync_time_base(fwd);

    kes_test::StderrCapture cap;
    fwd.send_to(port_, gwmp(2, 0x0202, GWMP_PUSH_DATA, R"({"rxpk":[)" + rxpk_v2(tmst) + "," + rxpk_v2(tmst + 1) + "]}"));
    EXPECT_EQ(fwd.recv(), header(2, 0x0202, GWMP_PUSH_ACK));
    const std::string log = cap.stop();
    // Both packets reached the LNS client, which is not running.
    size_t pushes = 0;
    for (size_t at = log.find("LNS service is in transition state"); at != std::string::npos;
         at = log.find("LNS service is in transition state", at + 1))
        ++pushes;
    EXPECT_EQ(pushes, 2u);
    EXPECT_EQ(failure_calls, 0);
}

TEST_F(DataplaneTest, AFailedRxpkStopsTheDatagramWithoutAckOrStat) {
    start();
    UdpPeer fwd;
    sync_time_base(fwd);
    // Second element lacks its mandatory tmst; the stat beside it must not be applied.
    const std::string body = R"({"rxpk":[)" + rxpk_v2(1200000) + R"(,{"freq":868.1}],"stat":{"count":2000000}})";
    fwd.send_to(port_, gwmp(2, 0x0303, GWMP_PUSH_DATA, body));
    sync_with_worker(fwd);
    EXPECT_FALSE(fwd.recv(50).has_value());
    EXPECT_EQ(bridge_bstn_xtime_base(), BASE);
}

TEST_F(DataplaneTest, GoodTrafficContinuesAfterBadDatagrams) {
    start();
    UdpPeer fwd;
    fwd.send_to(port_, {1, 2});
    fwd.send_to(port_, gwmp(3, 1, GWMP_PUSH_DATA, "{}"));
    fwd.send_to(port_, gwmp(2, 1, GWMP_PUSH_DATA, "not json"));
    fwd.send_to(port_, gwmp(2, 1, GWMP_PUSH_DATA, R"({"stat":{"count":5},"x":")" + std::string(1500, ' ') + "\"}"));
    fwd.send_to(port_, gwmp(2, 0x4444, GWMP_PUSH_DATA, R"({"stat":{}})"));
    EXPECT_EQ(fwd.recv(), header(2, 0x4444, GWMP_PUSH_ACK)) << "only the good datagram is answered";
    EXPECT_FALSE(fwd.recv(100).has_value());
}

// ---- downlinks -------------------------------------------------------------------------------

struct PullResp {
    bytes head;
    std::string json;
    bool zero_terminated;
};

std::optional<PullResp> split(const std::optional<bytes> &d) {
    if (!d || d->size() < 5) return std::nullopt;
    PullResp r{bytes(d->begin(), d->begin() + 4), std::string(d->begin() + 4, d->end() - 1), d->back() == 0};
    return r;
}

int64_t txpk_int(const std::string &json, const char *key) {
    json_object *o = json_tokener_parse(json.c_str());
    json_object *txpk = nullptr, *v = nullptr;
    int64_t out = -1;
    if (o && json_object_object_get_ex(o, "txpk", &txpk) && json_object_object_get_ex(txpk, key, &v))
        out = json_object_get_int64(v);
    json_object_put(o);
    return out;
}

TEST_F(DataplaneTest, DownlinkBeforeAnyPullDataIsDropped) {
    start();
    UdpPeer fwd;
    // A PUSH_DATA (not a PULL_DATA) makes the forwarder known but does not open the downlink path.
    fwd.send_to(port_, gwmp(2, 5, GWMP_PUSH_DATA, R"({"stat":{}})"));
    EXPECT_EQ(fwd.recv(), header(2, 5, GWMP_PUSH_ACK));
    kes_test::StderrCapture cap;
    deliver_downlink(dnmsg(BASE + 500000));
    fwd.send_to(port_, gwmp(2, 6, GWMP_PUSH_DATA, R"({"stat":{}})"));
    EXPECT_EQ(fwd.recv(), header(2, 6, GWMP_PUSH_ACK));
    EXPECT_PRED2(has, cap.stop(), "RX is not yet allowed");
    EXPECT_FALSE(fwd.recv(100).has_value());
}

TEST_F(DataplaneTest, DownlinkBecomesOnePullRespToTheLatestPullPort) {
    start();
    UdpPeer push, old_pull, new_pull;
    sync_with_worker(old_pull);
    sync_with_worker(new_pull, 0x1111); // the forwarder's downlink port changed
    push.send_to(port_, gwmp(2, 6, GWMP_PUSH_DATA, R"({"stat":{}})"));
    ASSERT_TRUE(push.recv().has_value());

    const int64_t xtime = (int64_t{7} << 48) | 0xFFFF0000;
    deliver_downlink(dnmsg(xtime));
    auto resp = split(new_pull.recv());
    ASSERT_TRUE(resp.has_value());
    EXPECT_EQ(resp->head, header(2, 0, GWMP_PULL_RESP));
    EXPECT_TRUE(resp->zero_terminated);
    EXPECT_EQ(txpk_int(resp->json, "tmst"), (0xFFFF0000 + 1000000) & 0xFFFFFFFF);
    EXPECT_EQ(txpk_int(resp->json, "size"), 4);
    EXPECT_FALSE(old_pull.recv(50).has_value());
    EXPECT_FALSE(push.recv(50).has_value());
}

TEST_F(DataplaneTest, BackToBackDownlinksStaySeparateDatagrams) {
    start();
    UdpPeer pull;
    sync_with_worker(pull);
    constexpr int N = 12;
    for (int i = 0; i < N; ++i)
        deliver_downlink(dnmsg(BASE + i));
    for (int i = 0; i < N; ++i) {
        auto resp = split(pull.recv());
        ASSERT_TRUE(resp.has_value()) << i;
        EXPECT_TRUE(resp->zero_terminated);
        EXPECT_EQ(txpk_int(resp->json, "tmst"), ((BASE + i) & 0xFFFFFFFF) + 1000000) << resp->json;
    }
    EXPECT_FALSE(pull.recv(50).has_value());
}

struct BadDownlink {
    const char *name;
    std::string text;
    size_t length;
    const char *message;
};

TEST_F(DataplaneTest, RefusedDownlinksSendNothing) {
    start();
    UdpPeer pull;
    sync_with_worker(pull);
    const std::string no_xtime = R"({"msgtype":"dnmsg","DevEui":"x","dC":0,"diid":1,"pdu":"00","DR":"SF7BW125","Freq":1})";
    const std::vector<BadDownlink> cases = {
        {"empty", "", 0, "empty payload received, skipping"},
        {"not JSON", "{oops", 6, "unable to parse downlink payload"},
        {"class A without xtime", no_xtime, no_xtime.size() + 1, "failed to translate downlink packet body"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        kes_test::StderrCapture cap;
        bridge_dataplane_downlink_cb(0, nullptr, c.text.c_str(), c.length);
        EXPECT_PRED2(has, cap.stop(), c.message);
    }
    EXPECT_FALSE(pull.recv(100).has_value());
}

TEST_F(DataplaneTest, ProtocolVersionOneForwarderGetsNoDownlink) {
    start();
    UdpPeer pull;
    pull.send_to(port_, gwmp(1, 0x0a0a, GWMP_PULL_DATA));
    ASSERT_EQ(pull.recv(), header(1, 0x0a0a, GWMP_PULL_ACK));
    kes_test::StderrCapture cap;
    deliver_downlink(dnmsg(BASE));
    EXPECT_PRED2(has, cap.stop(), "failed to translate downlink packet body");
    EXPECT_FALSE(pull.recv(100).has_value());
}

// ---- lifecycle -------------------------------------------------------------------------------

TEST_F(DataplaneTest, BindFailureIsReported) {
    const int busy = free_udp_port();
    int fd = socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(static_cast<uint16_t>(busy));
    ASSERT_EQ(bind(fd, reinterpret_cast<sockaddr *>(&a), sizeof a), 0);
    kes_test::StderrCapture cap;
    EXPECT_LT(bridge_dataplane_start_server(busy), 0);
    EXPECT_PRED2(has, cap.stop(), "cannot bind: Address already in use");
    close(fd);
}

TEST_F(DataplaneTest, StopEndsTheWorker) {
    start();
    kes_test::StderrCapture cap;
    EXPECT_EQ(bridge_dataplane_stop_server(), 0);
    started_ = false;
    EXPECT_PRED2(has, cap.stop(), "uplink/downlink worker thread exiting");
}

// Assertion texts go to standard output in stderr logging mode; death tests read standard error.
#define EXPECT_ASSERTS(stmt, text) \
    EXPECT_DEATH({ dup2(STDERR_FILENO, STDOUT_FILENO); stmt; }, "Assertion failed: \\( " text " \\)")

TEST(DataplaneLifecycle, MisuseIsRefused) {
    ::testing::FLAGS_gtest_death_test_style = "threadsafe";
    bridge_log_init(BRIDGE_LOG_TRACE, true);
    EXPECT_EQ(bridge_dataplane_deinit(), -1);
    EXPECT_ASSERTS(bridge_dataplane_start_server(1700), "converter_ctx.inited");
    EXPECT_ASSERTS(bridge_dataplane_init(nullptr, nullptr), "cb");
    ASSERT_EQ(bridge_dataplane_init(count_failure, nullptr), 0);
    EXPECT_ASSERTS(bridge_dataplane_init(count_failure, nullptr), "converter_ctx.inited == false");
    EXPECT_ASSERTS(bridge_dataplane_start_server(0), "port > 0");
    EXPECT_EQ(bridge_dataplane_deinit(), 0);
}

TEST(DataplaneFormat, NetworkServerSideIsBasicsStationVersionOne) {
    uint32_t version = 0, format = 0;
    EXPECT_EQ(get_version_and_ns_format(&version, &format), 0);
    EXPECT_EQ(format, DATA_TYPE_BSTN);
    EXPECT_EQ(version, 1u);
}

} // namespace
