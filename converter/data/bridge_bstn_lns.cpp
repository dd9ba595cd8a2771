// LNS client: context, message rings and the libwebsockets transport.
#include "converter/data/bridge_bstn_lns_internal.h"

#include "common/bridge_bstn_config.h"
#include "common/bridge_utils.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>

bridge_bstn_lns_ctx lns;
int lns_exchange_timeout_secs = LNS_TIMEOUT_SECS;
unsigned lns_retry_pause_secs = LNS_RETRY_PAUSE_SECS;

namespace {

constexpr lws_usec_t LNS_TICK_US = LNS_SERVICE_WAIT_MS * LWS_US_PER_MS;

const struct lws_protocols lns_protocols[] = {
    {"lws-lns", lns_ws_callback, 0, 0, 0, nullptr, 0},
    {nullptr, nullptr, 0, 0, 0, nullptr, 0},
};

// Keeps one timer pending so that each lws_service call returns within a service round.
void lns_tick_cb(lws_sorted_usec_list_t *sul) {
    auto *tick = lws_container_of(sul, bridge_bstn_lns_tick, sul);
    lws_sul_schedule(tick->context, 0, &tick->sul, lns_tick_cb, LNS_TICK_US);
}

void lns_tick_start(bridge_bstn_lns_ctx *ctx, struct lws_context *context) {
    ctx->tick.context = context;
    lws_sul_schedule(context, 0, &ctx->tick.sul, lns_tick_cb, LNS_TICK_US);
}

// The timer lives in `lns`, outside the library context: unlink it before the context goes.
void lns_ws_ctx_destroy(bridge_bstn_lns_ctx *ctx, struct lws_context *context) {
    if (ctx->tick.context == context) {
        lws_sul_cancel(&ctx->tick.sul);
        memset(&ctx->tick, 0, sizeof(ctx->tick));
    }
    lws_context_destroy(context);
}

void lns_ring_flush(struct lws_ring *ring) {
    for (unsigned i = 0; i < LNS_RING_ELEMENTS && lws_ring_get_count_waiting_elements(ring, nullptr) > 0; ++i)
        lws_ring_consume(ring, nullptr, nullptr, 1);
}

void lns_log_downlink_counts(struct lws_ring *ring) {
    LOG_TRACE("downlink ringbuffer free elements: %zu", lws_ring_get_count_free_elements(ring));
    LOG_TRACE("downlink ringbuffer waiting elements: %zu", lws_ring_get_count_waiting_elements(ring, nullptr));
}

int64_t lns_monotonic_ms() {
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

} // namespace

// ---- context -------------------------------------------------------------------------

int lns_ctx_init(bridge_bstn_lns_ctx *ctx) {
    BRIDGE_ASSERT(ctx != NULL);
    BRIDGE_ASSERT(!ctx->inited);
    LOG_TRACE("initializing LNS context");
    memset(ctx, 0, sizeof(*ctx));
    if (pthread_mutex_init(&ctx->mutex, nullptr) != 0) {
        LOG_ERROR("failed to initialize mutex");
        return -1;
    }
    ctx->buffers.downlink_ring =
        lws_ring_create(sizeof(bridge_bstn_lns_ring_msg), LNS_RING_ELEMENTS, lns_ring_msg_destroy);
    if (!ctx->buffers.downlink_ring) {
        LOG_ERROR("failed to allocate downlink ringbuffer");
        int destroy_rc = pthread_mutex_destroy(&ctx->mutex);
        BRIDGE_ASSERT(destroy_rc == 0);
        return -1;
    }
    ctx->buffers.uplink_ring =
        lws_ring_create(sizeof(bridge_bstn_lns_ring_msg), LNS_RING_ELEMENTS, lns_ring_msg_destroy);
    if (!ctx->buffers.uplink_ring) {
        LOG_ERROR("failed to allocate uplink ringbuffer");
        lws_ring_destroy(ctx->buffers.downlink_ring);
        ctx->buffers.downlink_ring = nullptr;
        int destroy_rc = pthread_mutex_destroy(&ctx->mutex);
        BRIDGE_ASSERT(destroy_rc == 0);
        return -1;
    }
    ctx->inited = true;
    return 0;
}

void lns_ctx_deinit(bridge_bstn_lns_ctx *ctx) {
    BRIDGE_ASSERT(ctx != NULL);
    BRIDGE_ASSERT(ctx->inited);
    LOG_TRACE("de-initializing LNS context");
    if (ctx->ws_ctx) lns_ws_ctx_destroy(ctx, ctx->ws_ctx);
    int rc = pthread_mutex_destroy(&ctx->mutex);
    BRIDGE_ASSERT(rc == 0);
    lws_ring_destroy(ctx->buffers.downlink_ring);
    lws_ring_destroy(ctx->buffers.uplink_ring);
    memset(ctx, 0, sizeof(*ctx));
}

void lns_lock(bridge_bstn_lns_ctx *ctx) {
    BRIDGE_ASSERT(ctx != NULL);
    BRIDGE_ASSERT(ctx->inited);
    int rc = pthread_mutex_lock(&ctx->mutex);
    BRIDGE_ASSERT(rc == 0);
}

void lns_unlock(bridge_bstn_lns_ctx *ctx) {
    BRIDGE_ASSERT(ctx != NULL);
    BRIDGE_ASSERT(ctx->inited);
    int rc = pthread_mutex_unlock(&ctx->mutex);
    BRIDGE_ASSERT(rc == 0);
}

void bridge_bstn_lns_stop() {
    BRIDGE_ASSERT(lns.inited);
    lns_ctx_deinit(&lns);
}

// ---- rings ---------------------------------------------------------------------------

void lns_ring_msg_destroy(void *ring_msg) {
    LOG_TRACE("destroying LNS ring message...");
    auto *msg = static_cast<bridge_bstn_lns_ring_msg *>(ring_msg);
    free(msg->data);
    msg->data = nullptr;
}

int lns_ring_msg_alloc(bridge_bstn_lns_ring_msg *ring_msg, size_t size) {
    BRIDGE_ASSERT(ring_msg != NULL);
    BRIDGE_ASSERT(ring_msg->data == NULL);
    ring_msg->data = static_cast<char *>(malloc(size));
    if (!ring_msg->data) {
        LOG_ERROR("failed to allocate memory for ringbuffer message");
        return -1;
    }
    return 0;
}

int lns_ring_insert(struct lws_ring *ring, bridge_bstn_lns_ring_msg *ring_msg) {
    BRIDGE_ASSERT(ring);
    BRIDGE_ASSERT(ring_msg);
    if (lws_ring_insert(ring, ring_msg, 1) != 1) {
        LOG_ERROR("failed to insert a message into the ringbuffer");
        return -1;
    }
    return 0;
}

int lns_ring_push_copy(struct lws_ring *ring, const char *data) {
    BRIDGE_ASSERT(ring);
    BRIDGE_ASSERT(data);
    bridge_bstn_lns_ring_msg msg{};
    size_t sz = strlen(data) + 1;
    if (lns_ring_msg_alloc(&msg, sz) != 0) return -1;
    memcpy(msg.data, data, sz);
    if (lns_ring_insert(ring, &msg) != 0) {
        lns_ring_msg_destroy(&msg);
        return -1;
    }
    return 0;
}

// ---- connection ----------------------------------------------------------------------

int lns_ws_connect(bridge_bstn_lns_ctx *ctx, const char *host, const char *path, int32_t port, bool use_backup) {
    BRIDGE_ASSERT(host);
    BRIDGE_ASSERT(path);
    BRIDGE_ASSERT(port);
    BRIDGE_ASSERT(ctx != NULL);
    BRIDGE_ASSERT(ctx->lws_conn == NULL);
    LOG_DEBUG("connecting to WS server with host: %s path: %s and port: [%d]", host, path, port);
    const bridge_cfg_root *cfg = bridge_config_get_root();
    BRIDGE_ASSERT(cfg);

    const char *trust = use_backup ? cfg->lns.trust_backup : cfg->lns.trust;
    const char *cert = use_backup ? cfg->lns.cert_backup : cfg->lns.cert;
    const char *key = use_backup ? cfg->lns.key_backup : cfg->lns.key;
    LOG_DEBUG("using trust: %s cert: %s and key: %s", trust, cert, key);

    struct lws_context_creation_info info;
    memset(&info, 0, sizeof(info));
    info.port = CONTEXT_PORT_NO_LISTEN;
    info.protocols = lns_protocols;
    info.options = LWS_SERVER_OPTION_DO_SSL_GLOBAL_INIT;
    info.client_ssl_ca_filepath = trust;
    info.ka_time = 15;
    info.ka_probes = 5;
    info.ka_interval = 5;
    info.timeout_secs = LNS_TIMEOUT_SECS;

    int rc = bridge_utils_file_exists(cert);
    if (rc == 0) {
        info.client_ssl_cert_filepath = cert;
        info.client_ssl_private_key_filepath = key;
        // A token read for an earlier connection (e.g. the primary set) must not follow this one.
        lns_lock(ctx);
        ctx->token_auth = false;
        lns_unlock(ctx);
    } else if (rc == -ENOENT) {
        LOG_DEBUG("LNS certificate is missing, switching to token-based auth...");
        lns_lock(ctx);
        rc = bridge_utils_read_text_file_to_buf(key, ctx->auth_hdr, sizeof(ctx->auth_hdr));
        if (rc < 0) {
            LOG_ERROR("failed to read LNS token");
            lns_unlock(ctx);
            return rc;
        }
        LOG_DEBUG("constructed auth header: \"%s\"", ctx->auth_hdr);
        ctx->token_auth = true;
        lns_unlock(ctx);
    } else {
        return rc;
    }

    struct lws_context *context = lws_create_context(&info);
    if (!context) {
        LOG_ERROR("lws init failed");
        return -1;
    }
    lns_tick_start(ctx, context);

    char host_hdr[512];
    snprintf(host_hdr, sizeof(host_hdr), "%s:%d", host, port);
    struct lws_client_connect_info ccinfo;
    memset(&ccinfo, 0, sizeof(ccinfo));
    ccinfo.context = context;
    ccinfo.address = host;
    ccinfo.port = port;
    ccinfo.ssl_connection = LCCSCF_USE_SSL | LCCSCF_ALLOW_SELFSIGNED | LCCSCF_SKIP_SERVER_CERT_HOSTNAME_CHECK;
    ccinfo.path = path;
    ccinfo.host = host_hdr;
    ccinfo.protocol = "lws-lns";
    ccinfo.local_protocol_name = "lws-lns";
    ccinfo.userdata = ctx;

    ctx->conn_closed = false;
    struct lws *conn = lws_client_connect_via_info(&ccinfo);
    if (!conn) {
        LOG_ERROR("failed to connect via webscokets");
        lns_ws_ctx_destroy(ctx, context);
        return -1;
    }
    lns_lock(ctx);
    ctx->lws_conn = conn;
    ctx->ws_ctx = context;
    lns_unlock(ctx);
    return 0;
}

int lns_ws_disconnect(bridge_bstn_lns_ctx *ctx) {
    LOG_DEBUG("disconnecting WS stream");
    lns_lock(ctx);
    if (ctx->ws_ctx) {
        lns_ws_ctx_destroy(ctx, ctx->ws_ctx);
        ctx->ws_ctx = nullptr;
    }
    ctx->lws_conn = nullptr;
    lns_unlock(ctx);
    return 0;
}

// ---- protocol callback ---------------------------------------------------------------

int lns_ws_on_receive(struct lws *wsi, bridge_bstn_lns_ctx *ctx, const void *data, size_t data_sz) {
    BRIDGE_ASSERT(wsi);
    BRIDGE_ASSERT(ctx != NULL);
    BRIDGE_ASSERT(data);
    BRIDGE_ASSERT(data_sz > 0);
    LOG_TRACE("reading [%zu] bytes from WS stream", data_sz);
    bridge_bstn_lns_ring_msg msg{};
    if (lns_ring_msg_alloc(&msg, data_sz + 1) != 0) return -1;
    memcpy(msg.data, data, data_sz);
    msg.data[data_sz] = '\0';
    LOG_DEBUG("data received from WS stream:\n%s", msg.data);
    // A full ring drops this text; the session goes on.
    if (lns_ring_insert(ctx->buffers.downlink_ring, &msg) != 0) lns_ring_msg_destroy(&msg);
    return 0;
}

int lns_ws_on_writeable(struct lws *wsi, bridge_bstn_lns_ctx *ctx) {
    BRIDGE_ASSERT(wsi);
    BRIDGE_ASSERT(ctx != NULL);
    BRIDGE_ASSERT(ctx->buffers.uplink_ring);
    struct lws_ring *ring = ctx->buffers.uplink_ring;
    size_t free_elems = lws_ring_get_count_free_elements(ring);
    size_t waiting = lws_ring_get_count_waiting_elements(ring, nullptr);
    LOG_TRACE("uplink ringbuffer free elements: %zu", free_elems);
    LOG_TRACE("uplink ringbuffer waiting elements: %zu", waiting);
    if (waiting == 0) {
        LOG_TRACE("no pending uplink messages present, skipping write");
        return 0;
    }
    auto *msg = static_cast<const bridge_bstn_lns_ring_msg *>(lws_ring_get_element(ring, nullptr));
    if (!msg) {
        LOG_ERROR("can't get a message from a ringbuffer");
        return -1;
    }
    BRIDGE_ASSERT(msg->data != NULL);
    size_t req_body_len = strlen(msg->data);
    BRIDGE_ASSERT(req_body_len != 0);

    std::unique_ptr<unsigned char, decltype(&free)> buf(
        static_cast<unsigned char *>(malloc(LWS_PRE + req_body_len + 1)), &free);
    if (!buf) {
        LOG_ERROR("failed to allocate a buffer for request");
        int consumed_on_err = static_cast<int>(lws_ring_consume(ring, nullptr, nullptr, 1));
        BRIDGE_ASSERT(consumed_on_err == 1);
        return -1;
    }
    unsigned char *text = buf.get() + LWS_PRE;
    memcpy(text, msg->data, req_body_len + 1);
    LOG_DEBUG("sending [%zu] bytes to WS stream", req_body_len);
    LOG_DEBUG("payload:\n%s", reinterpret_cast<const char *>(text));

    int written = lws_write(wsi, text, req_body_len, LWS_WRITE_TEXT);
    int result = 0;
    if (written < 0 || static_cast<size_t>(written) != req_body_len) {
        LOG_ERROR("failed to write request data into the LWS stream");
        result = written;
    }
    buf.reset();
    lws_ring_consume(ring, nullptr, nullptr, 1);
    if (waiting > 1) lws_callback_on_writable(wsi);
    return result;
}

int lns_ws_callback(struct lws *wsi, enum lws_callback_reasons reason, void *user, void *in, size_t len) {
    BRIDGE_ASSERT(wsi);
    auto *ctx = static_cast<bridge_bstn_lns_ctx *>(user);
    switch (reason) {
    case LWS_CALLBACK_CLIENT_CONNECTION_ERROR:
        LOG_ERROR("WS client connection error: %s", in ? static_cast<const char *>(in) : "(null)");
        break;
    case LWS_CALLBACK_CLIENT_ESTABLISHED:
        LOG_DEBUG("WS connection established");
        lws_callback_on_writable(wsi);
        break;
    case LWS_CALLBACK_CLIENT_RECEIVE: {
        BRIDGE_ASSERT(ctx != NULL);
        lns_lock(ctx);
        int rc = lns_ws_on_receive(wsi, ctx, in, len);
        lns_unlock(ctx);
        if (rc != 0) {
            LOG_TRACE("notifying outer loop to stop processing due to reader error");
            ctx->stop_processing = true;
        }
        break;
    }
    case LWS_CALLBACK_CLIENT_WRITEABLE: {
        BRIDGE_ASSERT(ctx != NULL);
        LOG_TRACE("WS stream is ready for write");
        lns_lock(ctx);
        int rc = lns_ws_on_writeable(wsi, ctx);
        lns_unlock(ctx);
        if (rc != 0) {
            LOG_TRACE("notifying outer loop to stop processing due to writer error");
            ctx->stop_processing = true;
        }
        break;
    }
    case LWS_CALLBACK_CLIENT_APPEND_HANDSHAKE_HEADER: {
        BRIDGE_ASSERT(ctx != NULL);
        if (!ctx->token_auth) break;
        LOG_TRACE("token auth is required, populating headers");
        size_t hdr_len = strlen(ctx->auth_hdr);
        bridge_utils_hexdump_stderr(ctx->auth_hdr, hdr_len + 1, 16);
        auto **pos = static_cast<unsigned char **>(in);
        if (len > hdr_len) {
            memcpy(*pos, ctx->auth_hdr, hdr_len + 1);
            *pos += hdr_len;
        } else {
            LOG_ERROR("auth token is too long to be placed in headers");
            return -1;
        }
        break;
    }
    case LWS_CALLBACK_WSI_DESTROY:
        // Only the client connection carries the context; other library handles leave it alone.
        if (ctx) {
            LOG_DEBUG("WSI destroyed, notifying outer loop to stop processing");
            ctx->stop_processing = true;
            ctx->conn_closed = true;
        } else {
            LOG_TRACE("WS event: %d", static_cast<int>(reason));
        }
        break;
    case LWS_CALLBACK_EVENT_WAIT_CANCELLED:
        LOG_TRACE("WS service wait canceled");
        break;
    case LWS_CALLBACK_CLIENT_CLOSED:
        LOG_DEBUG("WS connection closed");
        break;
    default:
        LOG_TRACE("WS event: %d", static_cast<int>(reason));
        break;
    }
    return lws_callback_http_dummy(wsi, reason, user, in, len);
}

// ---- service loops -------------------------------------------------------------------

int lns_ws_send_and_wait(bridge_bstn_lns_ctx *ctx, const char *path, const char *req_body) {
    BRIDGE_ASSERT(path != NULL);
    BRIDGE_ASSERT(req_body != NULL);
    BRIDGE_ASSERT(ctx != NULL);
    BRIDGE_ASSERT(ctx->ws_ctx != NULL);
    BRIDGE_ASSERT(ctx->buffers.downlink_ring != NULL);
    BRIDGE_ASSERT(ctx->buffers.uplink_ring != NULL);
    LOG_DEBUG("performing get to WS server with path: %s body: %s", path, req_body);

    lns_lock(ctx);
    int rc = lns_ring_push_copy(ctx->buffers.uplink_ring, req_body);
    lns_unlock(ctx);
    if (rc != 0) return -1;

    int status = 0;
    size_t waiting = 0;
    bool timed_out = false;
    const int64_t deadline = lns_monotonic_ms() + static_cast<int64_t>(lns_exchange_timeout_secs) * 1000;
    ctx->stop_processing = false;
    while (status >= 0 && !ctx->stop_processing) {
        lns_lock(ctx);
        waiting = lws_ring_get_count_waiting_elements(ctx->buffers.downlink_ring, nullptr);
        lns_unlock(ctx);
        if (waiting != 0) break;
        if (lns_monotonic_ms() >= deadline) {
            timed_out = true;
            break;
        }
        status = lws_service(ctx->ws_ctx, LNS_SERVICE_WAIT_MS);
    }

    // Servers answer router-info and close at once; the reply and the close can be handled in
    // the same service call. A stop with the reply already queued is therefore no failure:
    // look at the ring before giving up on the exchange.
    lns_lock(ctx);
    waiting = lws_ring_get_count_waiting_elements(ctx->buffers.downlink_ring, nullptr);
    if (timed_out || (ctx->stop_processing && waiting == 0)) {
        if (timed_out)
            LOG_ERROR("no reply from LNS within %d seconds", lns_exchange_timeout_secs);
        else
            LOG_DEBUG("WS loop stopped due to error, restart required");
        lns_ring_flush(ctx->buffers.downlink_ring);
        lns_unlock(ctx);
        return LNS_STATUS_RESTART_REQUIRED;
    }
    LOG_TRACE("WS service returned: [%d]", status);
    lns_log_downlink_counts(ctx->buffers.downlink_ring);
    if (waiting != 1) {
        LOG_ERROR("unexpected elements waiting in a downlink queue: [%zu], expected: 1", waiting);
        lns_ring_flush(ctx->buffers.downlink_ring);
        lns_unlock(ctx);
        return -1;
    }
    lns_unlock(ctx);
    return status;
}

int lns_main_loop(bridge_bstn_lns_ctx *ctx) {
    BRIDGE_ASSERT(ctx != NULL);
    LOG_DEBUG("starting LWS main loop...");
    int status = 0;
    ctx->stop_processing = false;
    // The connection may already be gone (closed right after the handshake reply): the
    // session is over, and the stale connection handle must not be used.
    if (ctx->conn_closed) ctx->stop_processing = true;
    while (status >= 0 && !ctx->stop_processing) {
        status = lws_service(ctx->ws_ctx, LNS_SERVICE_WAIT_MS);

        lns_lock(ctx);
        size_t up_waiting = lws_ring_get_count_waiting_elements(ctx->buffers.uplink_ring, nullptr);
        LOG_TRACE("uplink ringbuffer waiting elements: %zu", up_waiting);
        if (up_waiting != 0 && !ctx->conn_closed) lws_callback_on_writable(ctx->lws_conn);

        // A handler failure in this pass wins over later successes: it ends the session.
        struct lws_ring *ring = ctx->buffers.downlink_ring;
        bool handled = false;
        for (size_t waiting = lws_ring_get_count_waiting_elements(ring, nullptr); waiting > 0; --waiting) {
            lns_log_downlink_counts(ring);
            auto *msg = static_cast<const bridge_bstn_lns_ring_msg *>(lws_ring_get_element(ring, nullptr));
            if (!msg) {
                LOG_ERROR("failed to extract element from downlink queue");
                status = -1;
                break;
            }
            int rc = lns_handle_message(ctx, msg->data);
            if (!handled || status >= 0) status = rc;
            handled = true;
            int consumed = static_cast<int>(lws_ring_consume(ring, nullptr, nullptr, 1));
            BRIDGE_ASSERT(consumed == 1);
        }
        lns_unlock(ctx);
    }
    LOG_DEBUG("stopping LWS main loop...");
    return status;
}
