// UDP dataplane: speaks GWMP with the local packet forwarder on one worker
// thread, and carries downlinks from the LNS client to that thread through a pipe.
#include "converter/data/bridge_data_conv.h"

#include <arpa/inet.h>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/select.h>
#include <unistd.h>

#include "common/bridge_bstn_config.h"
#include "common/bridge_health.h"
#include "common/bridge_json_helpers.h"
#include "common/bridge_utils.h"
#include "common/thpool.h"
#include "converter/data/bridge_bstn_lns.h"
#include "converter/data/bridge_translator.h"

namespace {

constexpr size_t HOST_SZ = 128;
constexpr int POOL_THREADS = 2;
constexpr char STOP_MSG = 'X';
// Smallest JSON text worth parsing after the EUI ("{}").
constexpr size_t PUSH_DATA_MIN_JSON = 2;

struct bridge_dataplane_ctx {
    char gw_host[HOST_SZ];
    char pull_port[HOST_SZ];
    char push_port[HOST_SZ];
    threadpool pool;
    // Set by the worker once the forwarder's downlink address is known; read by the downlink
    // callback on the LNS thread.
    std::atomic<bool> rx_allowed;
    bridge_dataplane_cb cb;
    void *cb_arg;
    int pipe_fds[2];
    // Version of the last PUSH_DATA or PULL_DATA; read by the downlink callback.
    std::atomic<uint32_t> version;
    int sock;
    bool inited;
    // Written by the supervision thread, read by the worker.
    std::atomic<bool> stop;
    bool uplink_forwarded; // the first forwarded uplink of this run was announced
    uint8_t rx_buf[BRIDGE_DATAPLANE_RX_BUF_SZ]; // the worker's receive buffer
};

bridge_dataplane_ctx converter_ctx{};

struct addrinfo_free {
    void operator()(addrinfo *a) const { if (a) freeaddrinfo(a); }
};
struct tokener_free {
    void operator()(json_tokener *t) const { if (t) json_tokener_free(t); }
};

// One place fills the translation records: the forwarder side is semtech of the datagram's
// version, the network-server side whatever get_version_and_ns_format names.
int dataplane_translate(uint32_t direction, uint32_t semtech_version, const uint8_t *eui, json_object *in,
                        json_object *out, uint32_t *token = nullptr) {
    uint32_t ns_version = 0, ns_format = 0;
    if (get_version_and_ns_format(&ns_version, &ns_format) < 0) {
        LOG_ERROR("failed to extract NS version and data format");
        return -1;
    }
    bridge_translate_msg semtech{};
    bridge_translate_msg ns{};
    semtech.format = DATA_TYPE_SEMTECH;
    semtech.version = semtech_version;
    ns.format = ns_format;
    ns.version = ns_version;
    semtech.direction = ns.direction = direction;
    if (eui != nullptr) {
        memcpy(semtech.eui, eui, GWMP_EUI_SZ);
        memcpy(ns.eui, eui, GWMP_EUI_SZ);
    }
    const bool downlink = direction == BRIDGE_DIRECTION_DOWNLINK;
    bridge_translate_msg &from = downlink ? ns : semtech;
    bridge_translate_msg &to = downlink ? semtech : ns;
    from.data = in;
    to.data = out;
    const int rc = bridge_translate_generic(&from, &to);
    if (token != nullptr) *token = to.token;
    return rc;
}

// Sends one datagram to the forwarder's host at `port` (a numeric port text).
int dataplane_send(const uint8_t *buf, size_t len, const char *port) {
    // Host and port are always numeric texts (getnameinfo with NI_NUMERIC*). Saying so spares
    // glibc its per-call interface probe over netlink (AI_ADDRCONFIG, the default without
    // hints): six system calls on every acknowledgement.
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_DGRAM;
    hints.ai_flags = AI_NUMERICHOST | AI_NUMERICSERV;
    addrinfo *list = nullptr;
    int rc = getaddrinfo(converter_ctx.gw_host, port, &hints, &list);
    std::unique_ptr<addrinfo, addrinfo_free> owner(list);
    if (rc != 0) {
        LOG_WARN_LIMITED("unable to get service info: %s", gai_strerror(rc));
        return rc;
    }
    LOG_DEBUG("sending to: %s:%s", converter_ctx.gw_host, port);
    ssize_t sent = sendto(converter_ctx.sock, buf, len, 0, list->ai_addr, list->ai_addrlen);
    if (sent < 1) {
        LOG_WARN_LIMITED("failed to send packet: %d %m", static_cast<int>(sent));
        return static_cast<int>(sent);
    }
    return 0;
}

// PUSH_ACK and PULL_ACK: the request's version and token with the acknowledgement's identifier.
int dataplane_send_ack(const gwmp_header &request, uint8_t ack_id, const char *port) {
    uint8_t ack[GWMP_HEADER_SZ];
    bridge_gwmp_write_header({request.version, request.token, ack_id}, ack);
    return dataplane_send(ack, sizeof ack, port);
}

// PUSH_DATA and PULL_DATA tell where the forwarder is and which protocol version it speaks.
int dataplane_remember_forwarder(const gwmp_header &h, char *port, const sockaddr *from, socklen_t from_len) {
    int rc = getnameinfo(from, from_len, converter_ctx.gw_host, HOST_SZ, port, HOST_SZ,
                         NI_NUMERICHOST | NI_NUMERICSERV);
    if (rc != 0) {
        LOG_ERROR_LIMITED("error getting gateway info: %s", gai_strerror(rc));
        return -1;
    }
    LOG_TRACE("received datagram from %s , port %s", converter_ctx.gw_host, port);
    converter_ctx.version = h.version;
    return 0;
}

void dataplane_uplink_forwarded() {
    bridge_health_count(BRIDGE_CNT_UP_FORWARDED);
    if (!converter_ctx.uplink_forwarded) {
        converter_ctx.uplink_forwarded = true;
        LOG_INFO("first uplink forwarded to the LNS");
    }
}

// Each rxpk becomes a message of its own. A packet that does not translate is dropped alone;
// one the LNS client refuses ends the datagram unacknowledged (the rest would be refused too).
int dataplane_handle_rxpk(uint32_t version, const uint8_t *eui, json_object *rxpk) {
    const size_t count = json_object_array_length(rxpk);
    bridge_health_count(BRIDGE_CNT_UP_RECEIVED, static_cast<uint32_t>(count));
    for (size_t i = 0; i < count; ++i) {
        bridge_json_ptr out(json_object_new_object());
        if (!out) {
            LOG_ERROR("failed to create object");
            bridge_health_count(BRIDGE_CNT_UP_DROP_INVALID, static_cast<uint32_t>(count - i));
            return -1;
        }
        if (dataplane_translate(BRIDGE_DIRECTION_UPLINK, version, eui, json_object_array_get_idx(rxpk, i),
                                out.get()) < 0) {
            LOG_TRACE("failed to translate message");
            bridge_health_count(BRIDGE_CNT_UP_DROP_INVALID);
            continue;
        }
        const int pushed = bridge_bstn_lns_uplink_push(out.get());
        if (pushed < 0) {
            LOG_ERROR_LIMITED("failed to send message to LNS");
            bridge_health_count(BRIDGE_CNT_UP_DROP_LNS, static_cast<uint32_t>(count - i));
            BRIDGE_ASSERT(converter_ctx.cb);
            converter_ctx.cb(0, converter_ctx.cb_arg);
            return -1;
        }
        if (pushed == 0) // a refusal (1) was counted by the LNS client
            dataplane_uplink_forwarded();
    }
    return 0;
}

// `body` is the gateway EUI and the JSON text, followed by a zero byte; `len` counts the first two.
int dataplane_handle_push_body(uint32_t version, const uint8_t *body, size_t len) {
    if (len < GWMP_EUI_SZ + PUSH_DATA_MIN_JSON) {
        LOG_DEBUG("no data to handle");
        bridge_health_count(BRIDGE_CNT_UP_DROP_INVALID);
        return -1;
    }
    const uint8_t *eui = body;
    const char *text = reinterpret_cast<const char *>(body + GWMP_EUI_SZ);
    LOG_DEBUG("PUSH_DATA message body: %s", text);
    bridge_json_ptr doc(json_tokener_parse(text));
    if (!doc) {
        LOG_ERROR_LIMITED("failed to allocate tokener: the PUSH_DATA body is not a JSON text");
        bridge_health_count(BRIDGE_CNT_UP_DROP_INVALID);
        return -1;
    }

    json_object *rxpk = nullptr;
    json_object *stat = nullptr;
    json_object *locpk = nullptr;
    if (!json_object_object_get_ex(doc.get(), "rxpk", &rxpk))
        LOG_TRACE("no rxpk array in %s", text);
    if (!json_object_object_get_ex(doc.get(), "stat", &stat) || !json_object_is_type(stat, json_type_object)) {
        LOG_TRACE("no statistics object in %s", text);
        stat = nullptr;
    }
    if (!json_object_object_get_ex(doc.get(), "locpk", &locpk))
        LOG_TRACE("no geoloc object in %s", text);

    int rc = 0;
    if (json_object_is_type(rxpk, json_type_array))
        rc = dataplane_handle_rxpk(version, eui, rxpk);
    // A stat `count` only keeps the time base in step; nothing goes to the LNS.
    if (stat != nullptr) {
        bridge_json_ptr stat_out(json_object_new_object());
        if (!stat_out) {
            LOG_DEBUG("failed to create statistics object");
            return -1;
        }
        const int stat_rc = dataplane_translate(BRIDGE_DIRECTION_STATS, version, eui, stat, stat_out.get());
        if (rc == 0) rc = stat_rc;
    }
    return rc;
}

// ---- one handler per datagram type (body: after the header, zero-terminated) --------------

int dataplane_on_push_data(const gwmp_header &h, const uint8_t *body, size_t len, const sockaddr *from,
                           socklen_t from_len) {
    if (dataplane_remember_forwarder(h, converter_ctx.push_port, from, from_len) != 0) return -1;
    LOG_TRACE("PUSH_DATA received with version: %d", h.version);
    const int rc = dataplane_handle_push_body(h.version, body, len);
    if (rc != 0) return rc; // the forwarder counts what was not acknowledged
    return dataplane_send_ack(h, GWMP_PUSH_ACK, converter_ctx.push_port);
}

int dataplane_on_pull_data(const gwmp_header &h, const uint8_t *, size_t, const sockaddr *from,
                           socklen_t from_len) {
    if (dataplane_remember_forwarder(h, converter_ctx.pull_port, from, from_len) != 0) return -1;
    LOG_TRACE("PULL_DATA received");
    converter_ctx.rx_allowed = true;
    return dataplane_send_ack(h, GWMP_PULL_ACK, converter_ctx.pull_port);
}

// The forwarder's verdict on a PULL_RESP: {"txpk_ack":{"error":"TOO_LATE"}}, "NONE" or no
// body when the downlink was scheduled.
int dataplane_on_tx_ack(const gwmp_header &, const uint8_t *body, size_t len, const sockaddr *, socklen_t) {
    LOG_TRACE("TX_ACK received with size: %zu", len + 1);
    if (len <= GWMP_EUI_SZ) return 0;
    bridge_json_ptr doc(json_tokener_parse(reinterpret_cast<const char *>(body + GWMP_EUI_SZ)));
    json_object *ack = nullptr, *error = nullptr;
    if (!doc || !json_object_object_get_ex(doc.get(), "txpk_ack", &ack) ||
        !json_object_object_get_ex(ack, "error", &error) || !json_object_is_type(error, json_type_string))
        return 0;
    const char *text = json_object_get_string(error);
    if (strcmp(text, "NONE") == 0) return 0;
    const bridge_counter kind = bridge_health_txack_counter(text);
    bridge_health_count(kind);
    // One limiter per kind: a steady TOO_LATE does not hide a first COLLISION_PACKET.
    static std::array<bridge_log_limit, BRIDGE_CNT_COUNT> limits{};
    bridge_log_print_limited(&limits[kind], BRIDGE_LOG_WARN, __FILE__, __LINE__,
                             "TX_ACK error from the packet forwarder: %s", text);
    return 0;
}

using gwmp_handler = int (*)(const gwmp_header &h, const uint8_t *body, size_t len, const sockaddr *from,
                             socklen_t from_len);

gwmp_handler dataplane_handler(uint8_t id) {
    switch (id) {
    case GWMP_PUSH_DATA: return dataplane_on_push_data;
    case GWMP_PULL_DATA: return dataplane_on_pull_data;
    case GWMP_TX_ACK: return dataplane_on_tx_ack;
    default: return nullptr;
    }
}

// `buf` holds `len` received bytes followed by one zero byte.
int dataplane_handle_datagram(const uint8_t *buf, size_t len, const sockaddr *from, socklen_t from_len) {
    gwmp_header h{};
    const int rc = bridge_gwmp_read_header(buf, len, &h);
    if (rc == GWMP_TOO_SHORT) {
        LOG_TRACE("not enough data to continue: %zu", len + 1);
        return -1;
    }
    if (rc == GWMP_BAD_VERSION) {
        LOG_TRACE("invalid version: %d", buf[0]);
        return -1;
    }
    const gwmp_handler handle = dataplane_handler(h.id);
    if (handle == nullptr) {
        LOG_TRACE("invalid packet type: %d", h.id);
        return -1;
    }
    return handle(h, buf + GWMP_HEADER_SZ, len - GWMP_HEADER_SZ, from, from_len);
}

void dataplane_downlink_send(const uint8_t *msg, size_t len) {
    if (dataplane_send(msg, len, converter_ctx.pull_port) < 0) {
        LOG_ERROR_LIMITED("downlink send failed");
        bridge_health_count(BRIDGE_CNT_DN_DROP_NO_FORWARDER);
        return;
    }
    bridge_health_count(BRIDGE_CNT_DN_SENT);
}

void dataplane_worker(void *) {
    LOG_DEBUG("uplink/downlink worker thread starting");
    const int pipe_rd = converter_ctx.pipe_fds[0];
    const int sock = converter_ctx.sock;
    const int max_fd = pipe_rd > sock ? pipe_rd : sock;
    uint8_t *rx_buf = converter_ctx.rx_buf;

    while (!converter_ctx.stop) {
        fd_set read_set;
        FD_ZERO(&read_set);
        FD_SET(pipe_rd, &read_set);
        FD_SET(sock, &read_set);

        if (select(max_fd + 1, &read_set, nullptr, nullptr, nullptr) < 0) {
            if (errno == EINTR)
                LOG_TRACE("interrupted by a signal");
            else
                LOG_ERROR("select failed, starting again");
            continue;
        }

        // The pipe goes first: a ready socket is served on the next round.
        if (FD_ISSET(pipe_rd, &read_set)) {
            uint8_t pipe_buf[BRIDGE_DATAPLANE_PIPE_MSG_SZ];
            ssize_t n = read(pipe_rd, pipe_buf, sizeof pipe_buf);
            if (n < 0) {
                if (errno != EAGAIN) LOG_ERROR("failed to read from pipe");
                continue;
            }
            LOG_TRACE("pipe data received: %d bytes", static_cast<int>(n));
            if (n == 1 && pipe_buf[0] == STOP_MSG)
                break;
            if (n > 0) dataplane_downlink_send(pipe_buf, static_cast<size_t>(n));
            continue;
        }

        if (FD_ISSET(sock, &read_set)) {
            sockaddr_storage from{};
            socklen_t from_len = sizeof from;
            ssize_t n = recvfrom(sock, rx_buf, BRIDGE_DATAPLANE_RX_BUF_SZ - 1, 0,
                                 reinterpret_cast<sockaddr *>(&from), &from_len);
            if (n < 0) {
                LOG_ERROR_LIMITED("error while receiving uplink message: %m");
                continue;
            }
            rx_buf[n] = 0;
            if (dataplane_handle_datagram(rx_buf, static_cast<size_t>(n), reinterpret_cast<const sockaddr *>(&from),
                                          from_len) < 0)
                LOG_ERROR_LIMITED("failed to process uplink message");
        }
    }
    LOG_DEBUG("uplink/downlink worker thread exiting");
}

// Room for a full downlink ring and more: in packet mode every message takes a page of its own.
void dataplane_size_pipe(int fd) {
    const long page = sysconf(_SC_PAGESIZE);
    const size_t slot = page > static_cast<long>(BRIDGE_DATAPLANE_PIPE_MSG_SZ) ? static_cast<size_t>(page)
                                                                                : BRIDGE_DATAPLANE_PIPE_MSG_SZ;
    const int want = static_cast<int>(slot * BRIDGE_DATAPLANE_PIPE_MSGS);
    if (fcntl(fd, F_SETPIPE_SZ, want) < want)
        LOG_WARN("failed to size the downlink pipe for %zu messages (%d bytes): %m; fewer downlinks can wait",
                 BRIDGE_DATAPLANE_PIPE_MSGS, want);
}

} // namespace

int get_version_and_ns_format(uint32_t *version, uint32_t *format) {
    BRIDGE_ASSERT(version);
    BRIDGE_ASSERT(format);
    *format = DATA_TYPE_BSTN;
    *version = 1;
    return 0;
}

int bridge_dataplane_init(bridge_dataplane_cb cb, void *cb_arg) {
    BRIDGE_ASSERT(cb);
    BRIDGE_ASSERT(converter_ctx.inited == false);

    threadpool pool = thpool_init(POOL_THREADS);
    if (!pool) {
        LOG_ERROR("unable to allocate thread pool for UDP bridge");
        return -1;
    }
    std::unique_ptr<thpool_, void (*)(threadpool)> pool_owner(pool, thpool_destroy);

    bridge_unique_fd sock(socket(AF_INET, SOCK_DGRAM, 0));
    if (!sock) {
        LOG_ERROR("ERROR opening socket: %m");
        return -1;
    }
    // Packet mode keeps each downlink write a separate read, so two PULL_RESP queued back to
    // back never reach the forwarder as one datagram. Both ends are non-blocking: the writer
    // runs under the LNS client's lock and must drop rather than wait.
    int fds[2];
    if (pipe2(fds, O_DIRECT | O_NONBLOCK) != 0) {
        LOG_ERROR("failed to create pipe: %m");
        return -1;
    }
    bridge_unique_fd pipe_rd(fds[0]);
    bridge_unique_fd pipe_wr(fds[1]);
    dataplane_size_pipe(pipe_wr.get());

    converter_ctx.pool = pool_owner.release();
    converter_ctx.sock = sock.release();
    converter_ctx.pipe_fds[0] = pipe_rd.release();
    converter_ctx.pipe_fds[1] = pipe_wr.release();
    converter_ctx.inited = true;
    converter_ctx.rx_allowed = false;
    converter_ctx.cb = cb;
    converter_ctx.cb_arg = cb_arg;
    converter_ctx.version = 1;
    converter_ctx.stop = false;
    converter_ctx.uplink_forwarded = false;
    bridge_bstn_xtime_init();
    LOG_DEBUG("UDP bridge is initialized");
    return 0;
}

int bridge_dataplane_deinit() {
    if (!converter_ctx.inited)
        return -1;
    thpool_destroy(converter_ctx.pool);
    converter_ctx.pool = nullptr;
    close(converter_ctx.pipe_fds[0]);
    close(converter_ctx.pipe_fds[1]);
    close(converter_ctx.sock);
    converter_ctx.pipe_fds[0] = converter_ctx.pipe_fds[1] = converter_ctx.sock = -1;
    converter_ctx.inited = false;
    LOG_DEBUG("UDP bridge is deinitialized");
    return 0;
}

int bridge_dataplane_start_server(int port) {
    BRIDGE_ASSERT(converter_ctx.inited);
    BRIDGE_ASSERT(port > 0);
    // [semtech] bind_address: empty for every IPv4 address.
    const char *address = bridge_config_get_root()->semtech.bind_address;
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_ANY);
    addr.sin_port = htons(static_cast<uint16_t>(port));
    if (address[0] != '\0' && inet_pton(AF_INET, address, &addr.sin_addr) != 1) {
        LOG_ERROR("invalid [semtech] bind_address \"%s\": expected an IPv4 address such as 127.0.0.1", address);
        return -1;
    }
    int rc = bind(converter_ctx.sock, reinterpret_cast<const sockaddr *>(&addr), sizeof addr);
    if (rc != 0) {
        LOG_ERROR("cannot bind: %m: %s:%d", address[0] != '\0' ? address : "0.0.0.0", port);
        return rc;
    }
    converter_ctx.stop = false;
    converter_ctx.uplink_forwarded = false;
    rc = thpool_add_work(converter_ctx.pool, dataplane_worker, nullptr);
    if (rc < 0)
        LOG_ERROR("failed to launch uplink worker thread");
    return rc;
}

int bridge_dataplane_stop_server() {
    BRIDGE_ASSERT(converter_ctx.inited);
    converter_ctx.stop = true;
    // A full pipe wakes the worker anyway, and it sees `stop` after that message.
    if (write(converter_ctx.pipe_fds[1], &STOP_MSG, 1) != 1 && errno != EAGAIN)
        LOG_ERROR("failed to write downlink packet into the pipe: %m");
    thpool_wait(converter_ctx.pool);
    return 0;
}

int bridge_dataplane_ns_connect() {
    BRIDGE_ASSERT(converter_ctx.inited);
    LOG_TRACE("connecting to NS");
    bridge_bstn_lns_downlink_subscribe(bridge_dataplane_downlink_cb, NULL);
    return 0;
}

int bridge_dataplane_ns_disconnect() {
    BRIDGE_ASSERT(converter_ctx.inited);
    bridge_bstn_lns_downlink_unsubscribe();
    return 0;
}

int bridge_dataplane_handle_datagram(const uint8_t *data, size_t len, const struct sockaddr *from,
                                     socklen_t from_len) {
    BRIDGE_ASSERT(converter_ctx.inited);
    const size_t n = len < BRIDGE_DATAPLANE_RX_BUF_SZ - 1 ? len : BRIDGE_DATAPLANE_RX_BUF_SZ - 1;
    if (n > 0)
        memcpy(converter_ctx.rx_buf, data, n);
    converter_ctx.rx_buf[n] = 0;
    return dataplane_handle_datagram(converter_ctx.rx_buf, n, from, from_len);
}

namespace {

// Translates one dnmsg and queues its PULL_RESP for the worker: 0, or the counter of the drop.
int dataplane_queue_downlink(const char *payload, size_t length, bridge_counter *drop) {
    *drop = BRIDGE_CNT_DN_DROP_NO_FORWARDER;
    if (!converter_ctx.rx_allowed) {
        LOG_WARN_LIMITED("RX is not yet allowed: no PULL_DATA from the packet forwarder yet, downlink dropped");
        return -1;
    }
    *drop = BRIDGE_CNT_DN_DROP_INVALID;
    if (length == 0) {
        LOG_WARN("empty payload received, skipping");
        return -1;
    }
    std::unique_ptr<json_tokener, tokener_free> tok(json_tokener_new());
    if (!tok) {
        LOG_ERROR("failed to allocate tokener");
        return -1;
    }
    bridge_json_ptr msg(json_tokener_parse_ex(tok.get(), payload, static_cast<int>(length)));
    if (!msg) {
        LOG_WARN_LIMITED("unable to parse downlink payload");
        return -1;
    }
    bridge_json_ptr txpk(json_object_new_object());
    if (!txpk) {
        LOG_ERROR("failed to create object");
        return -1;
    }
    const uint32_t version = converter_ctx.version.load();
    uint32_t token = 0;
    const int rc = dataplane_translate(BRIDGE_DIRECTION_DOWNLINK, version, nullptr, msg.get(), txpk.get(), &token);
    if (rc == -EOPNOTSUPP) {
        *drop = BRIDGE_CNT_DN_DROP_NO_FORWARDER;
        LOG_WARN_LIMITED("failed to translate downlink packet body: the packet forwarder speaks protocol "
                         "version %u, which carries no downlinks", version);
        return -1;
    }
    if (rc < 0) {
        LOG_WARN_LIMITED("failed to translate downlink packet body");
        return -1;
    }

    bridge_json_ptr wrapper(json_object_new_object());
    if (!wrapper) {
        LOG_ERROR("failed to create object");
        return -1;
    }
    json_object_object_add(wrapper.get(), "txpk", txpk.release());
    const char *text = json_object_to_json_string(wrapper.get());
    if (!text) {
        LOG_WARN("failed to stringify downlink packet");
        return -1;
    }
    const size_t n = strlen(text) + 1;
    if (n + GWMP_HEADER_SZ > BRIDGE_DATAPLANE_PIPE_MSG_SZ) {
        LOG_WARN_LIMITED("packet body is too big: %zd bytes", static_cast<ssize_t>(n));
        return -1;
    }
    uint8_t pipe_msg[BRIDGE_DATAPLANE_PIPE_MSG_SZ];
    const size_t head = bridge_gwmp_write_header({static_cast<uint8_t>(version), static_cast<uint16_t>(token),
                                                  GWMP_PULL_RESP}, pipe_msg);
    memcpy(pipe_msg + head, text, n);
    ssize_t written = write(converter_ctx.pipe_fds[1], pipe_msg, head + n);
    if (written < 0 && errno == EAGAIN) {
        *drop = BRIDGE_CNT_DN_DROP_PIPE_FULL;
        LOG_ERROR_LIMITED("failed to write downlink packet into the pipe: %zu downlinks already wait for the "
                          "UDP worker, downlink dropped", BRIDGE_DATAPLANE_PIPE_MSGS);
        return -1;
    }
    if (written < 0) {
        LOG_ERROR_LIMITED("failed to write downlink packet into the pipe: %m");
        return -1;
    }
    if (static_cast<size_t>(written) < head + n) {
        LOG_WARN("pipe consumed less data: [%d] than expected: [%zu]", static_cast<int>(written), head + n);
        return -1;
    }
    LOG_TRACE("bytes written to pipe: [%d]", static_cast<int>(written));
    return 0;
}

} // namespace

int bridge_dataplane_downlink_cb(int, void *, const char *payload, size_t length) {
    bridge_counter drop = BRIDGE_CNT_DN_DROP_INVALID;
    if (dataplane_queue_downlink(payload, length, &drop) == 0) return 0;
    bridge_health_count(drop);
    return -1;
}
