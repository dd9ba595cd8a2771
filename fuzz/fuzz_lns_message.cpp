// A text received from the LNS through message dispatch (lns_handle_message),
// dnmsg processing and, through the dataplane's downlink subscriber, the
// downlink translator. The context holds the data-rate table that an EU868
// router_config gives; there is no WebSocket: lws_conn is a stand-in marked
// closed, so dnmsg processing queues its dntxed but asks nothing of the library.
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include "common/bridge_json_helpers.h"
#include "converter/data/bridge_bstn_lns_internal.h"
#include "converter/data/bridge_data_conv.h"
#include "fuzz_support.h"

namespace {

// DRs of an EU868 router_config: [sf, bw, dnonly], unused indexes as [-1, 0, 0].
constexpr bridge_bstn_lns_dr EU868_DRS[] = {
    {12, 125, false}, {11, 125, false}, {10, 125, false}, {9, 125, false}, {8, 125, false}, {7, 125, false},
    {7, 250, false},  {0, 0, false},    {-1, 0, false},   {-1, 0, false},  {-1, 0, false}, {-1, 0, false},
    {-1, 0, false},   {-1, 0, false},   {-1, 0, false},   {-1, 0, false},
};

int pipe_rd = -1; // read end of the dataplane's downlink pipe
alignas(8) char fake_conn[64];

void ignore_failure(uint32_t, void *) {}

// The dataplane keeps its pipe private: find the non-blocking read end of a FIFO.
int find_pipe_read_end() {
    for (int fd = 3; fd < 1024; ++fd) {
        struct stat st;
        if (fstat(fd, &st) != 0 || !S_ISFIFO(st.st_mode)) continue;
        int flags = fcntl(fd, F_GETFL);
        if (flags >= 0 && (flags & O_ACCMODE) == O_RDONLY && (flags & O_NONBLOCK)) return fd;
    }
    return -1;
}

// Every PULL_RESP handed to the worker is whole: header, JSON text with "txpk", zero byte.
void drain_pipe() {
    uint8_t msg[BRIDGE_DATAPLANE_PIPE_MSG_SZ + 1];
    for (;;) {
        ssize_t n = read(pipe_rd, msg, sizeof msg);
        if (n < 0) {
            FUZZ_CHECK(errno == EAGAIN || errno == EWOULDBLOCK);
            return;
        }
        FUZZ_CHECK(n > static_cast<ssize_t>(GWMP_HEADER_SZ) + 1);
        FUZZ_CHECK(static_cast<size_t>(n) <= BRIDGE_DATAPLANE_PIPE_MSG_SZ);
        FUZZ_CHECK(msg[3] == GWMP_PULL_RESP && msg[n - 1] == 0);
        bridge_json_ptr obj(json_tokener_parse(reinterpret_cast<const char *>(msg + GWMP_HEADER_SZ)));
        json_object *txpk = nullptr;
        FUZZ_CHECK(obj && json_object_object_get_ex(obj.get(), "txpk", &txpk));
    }
}

void drain_uplink_ring() {
    while (lws_ring_get_count_waiting_elements(lns.buffers.uplink_ring, nullptr) > 0) {
        const auto *msg = static_cast<const bridge_bstn_lns_ring_msg *>(
            lws_ring_get_element(lns.buffers.uplink_ring, nullptr));
        FUZZ_CHECK(msg && msg->data);
        bridge_json_ptr dntxed(json_tokener_parse(msg->data));
        FUZZ_CHECK(dntxed);
        lws_ring_consume(lns.buffers.uplink_ring, nullptr, nullptr, 1);
    }
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    fuzz_quiet_logging();
    FUZZ_CHECK(bridge_dataplane_init(ignore_failure, nullptr) == 0);
    pipe_rd = find_pipe_read_end();
    // A version-2 TX_ACK makes the dataplane speak protocol version 2, the one that takes downlinks.
    const uint8_t tx_ack[] = {2, 0, 0, GWMP_TX_ACK};
    sockaddr_storage from{};
    from.ss_family = AF_INET;
    FUZZ_CHECK(bridge_dataplane_handle_datagram(tx_ack, sizeof tx_ack, reinterpret_cast<sockaddr *>(&from),
                                                sizeof(sockaddr_in)) == 0);
    FUZZ_CHECK(pipe_rd >= 0);
    FUZZ_CHECK(lns_ctx_init(&lns) == 0);
    static_assert(sizeof EU868_DRS / sizeof EU868_DRS[0] <= LNS_DRS_MAX);
    memcpy(lns.drs, EU868_DRS, sizeof EU868_DRS);
    lns.drs_count = sizeof EU868_DRS / sizeof EU868_DRS[0];
    lns.lws_conn = reinterpret_cast<struct lws *>(fake_conn);
    lns.conn_closed = true;
    FUZZ_CHECK(bridge_dataplane_ns_connect() == 0);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size > 8192) return 0;
    fuzz_text text(data, size);
    lns.muxtime = 0;
    lns.reftime = 0;
    lns_lock(&lns);
    (void)lns_handle_message(&lns, text.str);
    lns_unlock(&lns);
    drain_pipe();
    drain_uplink_ring();
    return 0;
}
