// UDP dataplane: speaks GWMP with the local packet forwarder on one worker
// thread, and carries downlinks from the LNS client to that thread through a pipe.
#include "converter/data/bridge_data_conv.h"

#include <atomic>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/select.h>
#include <unistd.h>

#include "common/bridge_json_helpers.h"
#include "common/bridge_utils.h"
#include "common/thpool.h"
#include "converter/data/bridge_bstn_lns.h"
#include "converter/data/bridge_translator.h"

namespace {

constexpr size_t HOST_SZ = 128;
constexpr int POOL_THREADS = 2;
constexpr char STOP_MSG = 'X';

struct bridge_dataplane_ctx {
    char gw_host[HOST_SZ];
    char pull_port[HOST_SZ];
    char push_port[HOST_SZ];
    threadpool pool;
    bool rx_allowed;
    bridge_dataplane_cb cb;
    void *cb_arg;
    int pipe_fds[2];
    // Written by the worker, read by the downlink callback on the LNS thread.
    std::atomic<uint32_t> version;
    int sock;
    bool inited;
    // Written by the supervision thread, read by the worker.
    std::atomic<bool> stop;
};

bridge_dataplane_ctx converter_ctx{};

struct addrinfo_free {
    void operator()(addrinfo *a) const { if (a) freeaddrinfo(a); }
};
struct tokener_free {
    void operator()(json_tokener *t) const { if (t) json_tokener_free(t); }
};

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
        LOG_WARN("unable to get service info: %s", gai_strerror(rc));
        return rc;
    }
    LOG_DEBUG("sending to: %s:%s", converter_ctx.gw_host, port);
    ssize_t sent = sendto(converter_ctx.sock, buf, len, 0, list->ai_addr, list->ai_addrlen);
    if (sent < 1) {
        LOG_WARN("failed to send packet: %d %m", static_cast<int>(sent));
        return static_cast<int>(sent);
    }
    return 0;
}

// PUSH_ACK and PULL_ACK: the request's version byte and token echoed with the ack identifier.
int dataplane_send_ack(const uint8_t *request, uint8_t ack_id, const char *port) {
    const uint8_t ack[GWMP_HEADER_SZ] = {static_cast<uint8_t>(converter_ctx.version.load()), request[1],
                                         request[2], ack_id};
    return dataplane_send(ack, sizeof ack, port);
}

int dataplane_downlink_send(const uint8_t *msg, size_t len) {
    if (!converter_ctx.rx_allowed) {
        LOG_WARN("RX is not yet allowed");
        return 0;
    }
    return dataplane_send(msg, len, converter_ctx.pull_port);
}

// Statistics keep the xtime base in step with the forwarder's counter; nothing goes to the LNS.
int dataplane_handle_stat(const uint8_t *eui, uint32_t version, json_object *stat) {
    bridge_json_ptr stat_out(json_object_new_object());
    if (!stat_out) {
        LOG_DEBUG("failed to create statistics object");
        return -1;
    }
    uint32_t ns_version = 0, ns_format = 0;
    int rc = get_version_and_ns_format(&ns_version, &ns_format);
    if (rc < 0) {
        LOG_ERROR("failed to extract NS version and data format");
        return rc;
    }
    bridge_translate_msg from{};
    bridge_translate_msg to{};
    memcpy(from.eui, eui, GWMP_EUI_SZ);
    from.format = DATA_TYPE_SEMTECH;
    from.direction = BRIDGE_DIRECTION_STATS;
    from.version = version;
    from.data = stat;
    memcpy(to.eui, eui, GWMP_EUI_SZ);
    to.format = ns_format;
    to.direction = BRIDGE_DIRECTION_STATS;
    to.version = ns_version;
    to.data = stat_out.get();
    return bridge_translate_generic(&from, &to);
}

// `body` is the gateway EUI, the JSON text and its zero byte; `size` counts all three.
int dataplane_handle_push_data(const uint8_t *body, size_t size, uint32_t version) {
    if (size <= GWMP_EUI_SZ + 2) {
        LOG_DEBUG("no data to handle");
        return -1;
    }
    const uint8_t *eui = body;
    const char *text = reinterpret_cast<const char *>(body + GWMP_EUI_SZ);

    bridge_json_ptr out(json_object_new_object());
    if (!out) {
        LOG_ERROR("failed to create object");
        return -1;
    }
    LOG_DEBUG("PUSH_DATA message body: %s", text);
    bridge_json_ptr doc(json_tokener_parse(text));
    if (!doc) {
        LOG_ERROR("failed to allocate tokener");
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
    if (json_object_is_type(rxpk, json_type_array)) {
        const size_t count = json_object_array_length(rxpk);
        for (size_t i = 0; i < count; ++i) {
            uint32_t ns_version = 0, ns_format = 0;
            rc = get_version_and_ns_format(&ns_version, &ns_format);
            if (rc < 0) {
                LOG_ERROR("failed to extract NS version and data format");
                break;
            }
            bridge_translate_msg from{};
            bridge_translate_msg to{};
            memcpy(from.eui, eui, GWMP_EUI_SZ);
            from.format = DATA_TYPE_SEMTECH;
            from.direction = BRIDGE_DIRECTION_UPLINK;
            from.version = version;
            from.data = json_object_array_get_idx(rxpk, i);
            memcpy(to.eui, eui, GWMP_EUI_SZ);
            to.format = ns_format;
            to.direction = BRIDGE_DIRECTION_UPLINK;
            to.version = ns_version;
            to.data = out.get();
            rc = bridge_translate_generic(&from, &to);
            if (rc < 0) {
                LOG_TRACE("failed to translate message");
                break;
            }
            rc = bridge_bstn_lns_uplink_push(out.get());
            if (rc < 0) {
                LOG_ERROR("failed to send message to LNS");
                BRIDGE_ASSERT(converter_ctx.cb);
                converter_ctx.cb(0, converter_ctx.cb_arg);
                break;
            }
        }
    }
    if (rc >= 0 && stat != nullptr)
        rc = dataplane_handle_stat(eui, version, stat);
    return rc;
}

// `buf` holds the datagram followed by one zero byte; `length` counts that byte.
int dataplane_handle_datagram(const uint8_t *buf, size_t length, const sockaddr *from, socklen_t from_len) {
    if (length < GWMP_HEADER_SZ + 1) {
        LOG_TRACE("not enough data to continue: %zu", length);
        return -1;
    }
    const uint8_t version = buf[0];
    if (version != 1 && version != 2) {
        LOG_TRACE("invalid version: %d", version);
        return -1;
    }
    converter_ctx.version = version;

    const uint8_t id = buf[3];
    if (id == GWMP_PUSH_DATA || id == GWMP_PULL_DATA) {
        char *port = id == GWMP_PUSH_DATA ? converter_ctx.push_port : converter_ctx.pull_port;
        int rc = getnameinfo(from, from_len, converter_ctx.gw_host, HOST_SZ, port, HOST_SZ,
                             NI_NUMERICHOST | NI_NUMERICSERV);
        if (rc != 0) {
            LOG_ERROR("error getting gateway info: %s", gai_strerror(rc));
            return -1;
        }
        LOG_TRACE("received datagram from %s , port %s", converter_ctx.gw_host, port);
    }

    switch (id) {
    case GWMP_PULL_DATA:
        LOG_TRACE("PULL_DATA received");
        converter_ctx.rx_allowed = true;
        return dataplane_send_ack(buf, GWMP_PULL_ACK, converter_ctx.pull_port);
    case GWMP_TX_ACK:
        LOG_TRACE("TX_ACK received with size: %zu", length - GWMP_HEADER_SZ);
        return 0;
    case GWMP_PUSH_DATA: {
        LOG_TRACE("PUSH_DATA received with version: %d", version);
        int rc = dataplane_handle_push_data(buf + GWMP_HEADER_SZ, length - GWMP_HEADER_SZ, version);
        if (rc != 0)
            return rc;
        return dataplane_send_ack(buf, GWMP_PUSH_ACK, converter_ctx.push_port);
    }
    default:
        LOG_TRACE("invalid packet type: %d", id);
        return -1;
    }
}

void dataplane_worker(void *) {
    LOG_DEBUG("uplink/downlink worker thread starting");
    const int pipe_rd = converter_ctx.pipe_fds[0];
    const int sock = converter_ctx.sock;
    const int max_fd = pipe_rd > sock ? pipe_rd : sock;

    while (!converter_ctx.stop) {
        uint8_t rx_buf[BRIDGE_DATAPLANE_RX_BUF_SZ];
        uint8_t pipe_buf[BRIDGE_DATAPLANE_PIPE_MSG_SZ];
        memset(rx_buf, 0, sizeof rx_buf);
        memset(pipe_buf, 0, sizeof pipe_buf);
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
            ssize_t n = read(pipe_rd, pipe_buf, sizeof pipe_buf);
            if (n < 0) {
                LOG_ERROR("failed to read from pipe");
                continue;
            }
            LOG_TRACE("pipe data received: %d bytes", static_cast<int>(n));
            if (n == 1 && pipe_buf[0] == STOP_MSG)
                break;
            if (n > 0 && dataplane_downlink_send(pipe_buf, static_cast<size_t>(n)) < 0)
                LOG_ERROR("downlink send failed");
            continue;
        }

        if (FD_ISSET(sock, &read_set)) {
            sockaddr_storage from{};
            socklen_t from_len = sizeof from;
            ssize_t n = recvfrom(sock, rx_buf, sizeof rx_buf - 1, 0, reinterpret_cast<sockaddr *>(&from),
                                 &from_len);
            if (n < 0) {
                LOG_ERROR("error while receiving uplink message: %m");
                continue;
            }
            rx_buf[n] = 0;
            if (dataplane_handle_datagram(rx_buf, static_cast<size_t>(n) + 1,
                                          reinterpret_cast<const sockaddr *>(&from), from_len) < 0)
                LOG_ERROR("failed to process uplink message");
        }
    }
    LOG_DEBUG("uplink/downlink worker thread exiting");
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
        LOG_ERROR("ERROR opening socket");
        return -1;
    }
    // Packet mode keeps each downlink write a separate read, so two PULL_RESP
    // queued back to back never reach the forwarder as one datagram.
    int fds[2];
    if (pipe2(fds, O_DIRECT) != 0) {
        LOG_ERROR("failed to create pipe");
        return -1;
    }
    bridge_unique_fd pipe_rd(fds[0]);
    bridge_unique_fd pipe_wr(fds[1]);
    int flags = fcntl(pipe_rd.get(), F_GETFL);
    if (flags < 0) {
        LOG_ERROR("failed to get pipe flags");
        return -1;
    }
    if (fcntl(pipe_rd.get(), F_SETFL, flags | O_NONBLOCK) < 0) {
        LOG_ERROR("failed to set pipe flags");
        return -1;
    }

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
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_ANY);
    addr.sin_port = htons(static_cast<uint16_t>(port));
    int rc = bind(converter_ctx.sock, reinterpret_cast<const sockaddr *>(&addr), sizeof addr);
    if (rc != 0) {
        LOG_ERROR("cannot bind: %m");
        return rc;
    }
    converter_ctx.stop = false;
    rc = thpool_add_work(converter_ctx.pool, dataplane_worker, nullptr);
    if (rc < 0)
        LOG_ERROR("failed to launch uplink worker thread");
    return rc;
}

int bridge_dataplane_stop_server() {
    BRIDGE_ASSERT(converter_ctx.inited);
    converter_ctx.stop = true;
    if (write(converter_ctx.pipe_fds[1], &STOP_MSG, 1) != 1)
        LOG_ERROR("failed to write downlink packet into the pipe");
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
    uint8_t buf[BRIDGE_DATAPLANE_RX_BUF_SZ] = {};
    const size_t n = len < sizeof buf - 1 ? len : sizeof buf - 1;
    if (n > 0)
        memcpy(buf, data, n);
    return dataplane_handle_datagram(buf, n + 1, from, from_len);
}

int bridge_dataplane_downlink_cb(int, void *, const char *payload, size_t length) {
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
        LOG_WARN("unable to parse downlink payload");
        return -1;
    }
    bridge_json_ptr txpk(json_object_new_object());
    if (!txpk) {
        LOG_ERROR("failed to create object");
        return -1;
    }
    uint32_t ns_version = 0, ns_format = 0;
    if (get_version_and_ns_format(&ns_version, &ns_format) < 0) {
        LOG_ERROR("failed to extract the NS version and data format");
        return -1;
    }
    bridge_translate_msg from{};
    bridge_translate_msg to{};
    from.format = ns_format;
    from.direction = BRIDGE_DIRECTION_DOWNLINK;
    from.version = ns_version;
    from.data = msg.get();
    to.format = DATA_TYPE_SEMTECH;
    to.direction = BRIDGE_DIRECTION_DOWNLINK;
    to.version = converter_ctx.version.load();
    to.data = txpk.get();
    if (bridge_translate_generic(&from, &to) < 0) {
        LOG_WARN("failed to translate downlink packet body");
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
        LOG_WARN("packet body is too big: %zd bytes", static_cast<ssize_t>(n));
        return -1;
    }
    uint8_t pipe_msg[BRIDGE_DATAPLANE_PIPE_MSG_SZ];
    pipe_msg[0] = static_cast<uint8_t>(to.version);
    pipe_msg[1] = static_cast<uint8_t>(to.token & 0xff);
    pipe_msg[2] = static_cast<uint8_t>((to.token >> 8) & 0xff);
    pipe_msg[3] = GWMP_PULL_RESP;
    memcpy(pipe_msg + GWMP_HEADER_SZ, text, n);
    ssize_t written = write(converter_ctx.pipe_fds[1], pipe_msg, n + GWMP_HEADER_SZ);
    if (written < 0) {
        LOG_ERROR("failed to write downlink packet into the pipe");
        return -1;
    }
    if (static_cast<size_t>(written) < n + GWMP_HEADER_SZ) {
        LOG_WARN("pipe consumed less data: [%d] than expected: [%zu]", static_cast<int>(written),
                 n + GWMP_HEADER_SZ);
        return -1;
    }
    LOG_TRACE("bytes written to pipe: [%d]", static_cast<int>(written));
    return 0;
}
