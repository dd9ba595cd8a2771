// LNS client: context, message rings and the libwebsockets transport.
#include "converter/data/bridge_bstn_lns_internal.h"

#include "common/bridge_bstn_config.h"
#include "common/bridge_health.h"
#include "common/bridge_utils.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>

bridge_bstn_lns_ctx lns;
int lns_exchange_timeout_secs = LNS_TIMEOUT_SECS;
unsigned lns_retry_pause_secs = LNS_RETRY_PAUSE_SECS;
unsigned lns_log_level = BRIDGE_LOG_INFO;

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
    while (lws_ring_get_count_waiting_elements(ring, nullptr) > 0) lws_ring_consume(ring, nullptr, nullptr, 1);
}

void lns_rx_reset(bridge_bstn_lns_ctx *ctx) {
    free(ctx->rx.buf);
    ctx->rx.buf = nullptr;
    ctx->rx.len = 0;
}

struct lns_x509_free {
    void operator()(X509 *x) const { X509_free(x); }
};
struct lns_pkey_free {
    void operator()(EVP_PKEY *k) const { EVP_PKEY_free(k); }
};

// Reads the first PEM certificate of `path`; on failure names the path and the reason.
std::unique_ptr<X509, lns_x509_free> lns_read_pem_cert(const char *path, const char *what, char *cause,
                                                       size_t cause_sz) {
    bridge_unique_file f(fopen(path, "r"));
    if (!f) {
        snprintf(cause, cause_sz, "%s %s: %s", what, path, strerror(errno));
        return nullptr;
    }
    std::unique_ptr<X509, lns_x509_free> cert(PEM_read_X509(f.get(), nullptr, nullptr, nullptr));
    if (!cert) snprintf(cause, cause_sz, "%s %s: no PEM certificate in it", what, path);
    ERR_clear_error();
    return cert;
}

// The library's own error on unusable credential files says little ("lws init failed"):
// check them first and name the file and the reason.
int lns_check_cred_files(const lns_cred_set &c, bool client_cert, char *cause, size_t cause_sz) {
    if (!lns_read_pem_cert(c.trust, "trust file", cause, cause_sz)) return -1;
    if (!client_cert) return 0;
    auto cert = lns_read_pem_cert(c.cert, "certificate", cause, cause_sz);
    if (!cert) return -1;
    bridge_unique_file f(fopen(c.key, "r"));
    if (!f) {
        snprintf(cause, cause_sz, "key %s: %s", c.key, strerror(errno));
        return -1;
    }
    std::unique_ptr<EVP_PKEY, lns_pkey_free> key(PEM_read_PrivateKey(f.get(), nullptr, nullptr, nullptr));
    int rc = 0;
    if (!key) {
        snprintf(cause, cause_sz, "key %s: no PEM private key in it", c.key);
        rc = -1;
    } else if (X509_check_private_key(cert.get(), key.get()) != 1) {
        snprintf(cause, cause_sz, "key %s does not match the certificate %s", c.key, c.cert);
        rc = -1;
    }
    ERR_clear_error();
    return rc;
}

// Our verification of the LNS server certificate failed: keep OpenSSL's reason.
void lns_note_verify_failure(struct lws *wsi, X509_STORE_CTX *store) {
    auto *ctx = static_cast<bridge_bstn_lns_ctx *>(lws_wsi_user(wsi));
    if (!ctx || ctx->tls_cause[0] != '\0') return;
    const int err = X509_STORE_CTX_get_error(store);
    char subject[128] = "?";
    if (X509 *cert = X509_STORE_CTX_get_current_cert(store))
        X509_NAME_oneline(X509_get_subject_name(cert), subject, sizeof(subject));
    snprintf(ctx->tls_cause, sizeof(ctx->tls_cause),
             "this bridge refused the LNS server certificate: %s (certificate %s, depth %d; trust file %s)",
             X509_verify_cert_error_string(err), subject, X509_STORE_CTX_get_error_depth(store),
             lns_creds(ctx->conn_backup).trust);
}

const char *lns_client_cert_text(const bridge_bstn_lns_ctx *ctx) {
    return ctx->token_auth ? "no client certificate, token mode" : lns_creds(ctx->conn_backup).cert;
}

// A fatal TLS alert from the LNS: it refused the handshake (for example our certificate).
// OpenSSL's own callback, set on the client TLS context: the library's info event cannot be
// used for client connections (it looks the connection up by a descriptor it does not have).
void lns_tls_info_cb(const SSL *, int where, int ret) {
    bridge_bstn_lns_ctx *ctx = &lns;
    if (!ctx->inited) return;
    if (where & SSL_CB_HANDSHAKE_DONE) ctx->tls_up = true;
    const bool fatal = (ret >> 8) == SSL3_AL_FATAL;
    if (!(where & SSL_CB_READ_ALERT) || !fatal || ctx->tls_cause[0] != '\0') return;
    snprintf(ctx->tls_cause, sizeof(ctx->tls_cause), "the LNS refused the TLS handshake: alert \"%s\" (%s)",
             SSL_alert_desc_string_long(ret), lns_client_cert_text(ctx));
}

// Appends to the library's connection error text what it leaves out.
void lns_log_connection_error(struct lws *wsi, bridge_bstn_lns_ctx *ctx, const char *in) {
    const char *text = in ? in : "(null)";
    if (!ctx) {
        LOG_ERROR("WS client connection error: %s", text);
        return;
    }
    char cause[LNS_CAUSE_SZ + 32] = "";
    const unsigned status = lws_http_client_http_response(wsi);
    if (ctx->tls_cause[0] != '\0')
        snprintf(cause, sizeof(cause), ": %s", ctx->tls_cause);
    else if (status != 0 && status != 101)
        snprintf(cause, sizeof(cause), ": the LNS answered the WebSocket upgrade with HTTP status %u", status);
    else if (ctx->tls_up)
        // With TLS 1.3 a server checks the client certificate after the handshake; its alert
        // may be lost when it drops the connection at once.
        snprintf(cause, sizeof(cause), ": the LNS ended the connection without answering the WebSocket upgrade (%s)",
                 lns_client_cert_text(ctx));
    LOG_ERROR("WS client connection error: %s%s (%s credentials)", text, cause, lns_creds(ctx->conn_backup).name);
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
        lws_ring_create(sizeof(bridge_bstn_lns_ring_msg), LNS_DOWNLINK_RING_ELEMENTS, lns_ring_msg_destroy);
    if (!ctx->buffers.downlink_ring) {
        LOG_ERROR("failed to allocate downlink ringbuffer");
        int destroy_rc = pthread_mutex_destroy(&ctx->mutex);
        BRIDGE_ASSERT(destroy_rc == 0);
        return -1;
    }
    ctx->buffers.uplink_ring =
        lws_ring_create(sizeof(bridge_bstn_lns_ring_msg), LNS_UPLINK_RING_ELEMENTS, lns_ring_msg_destroy);
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
    lns_rx_reset(ctx);
    memset(ctx, 0, sizeof(*ctx));
}

lns_cred_set lns_creds(bool use_backup) {
    const bridge_cfg_root *cfg = bridge_config_get_root();
    BRIDGE_ASSERT(cfg);
    const bridge_cfg_creds &l = cfg->lns;
    if (use_backup) return {"backup", l.uri_backup, l.trust_backup, l.cert_backup, l.key_backup};
    return {"main", l.uri, l.trust, l.cert, l.key};
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
        // A full queue refuses every text of a burst: one line, then one a minute.
        LOG_ERROR_LIMITED("failed to insert a message into the ringbuffer");
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
    const lns_cred_set creds = lns_creds(use_backup);
    LOG_DEBUG("using trust: %s cert: %s and key: %s (%s credentials)", creds.trust, creds.cert, creds.key,
              creds.name);

    struct lws_context_creation_info info;
    memset(&info, 0, sizeof(info));
    info.port = CONTEXT_PORT_NO_LISTEN;
    info.protocols = lns_protocols;
    info.options = LWS_SERVER_OPTION_DO_SSL_GLOBAL_INIT;
    info.client_ssl_ca_filepath = creds.trust;
    info.ka_time = 15;
    info.ka_probes = 5;
    info.ka_interval = 5;
    info.timeout_secs = LNS_TIMEOUT_SECS;

    // The token is read outside the lock: nothing that can wait on a file runs under it.
    char auth_hdr[LNS_AUTH_HDR_SZ] = {};
    bool token_auth = false;
    int rc = bridge_utils_file_exists(creds.cert);
    if (rc == 0) {
        info.client_ssl_cert_filepath = creds.cert;
        info.client_ssl_private_key_filepath = creds.key;
    } else if (rc == -ENOENT) {
        LOG_DEBUG("LNS certificate is missing, switching to token-based auth...");
        rc = bridge_utils_read_text_file_to_buf(creds.key, auth_hdr, sizeof(auth_hdr));
        if (rc < 0) {
            LOG_ERROR("failed to read LNS token: %s: %s (%s credentials)", creds.key, lns_read_error_text(rc),
                      creds.name);
            return rc;
        }
        // The header holds the secret: never above TRACE.
        LOG_TRACE("constructed auth header: \"%s\"", auth_hdr);
        token_auth = true;
    } else {
        LOG_ERROR("failed to check LNS certificate: %s: %s (%s credentials)", creds.cert, strerror(-rc), creds.name);
        return rc;
    }
    {
        // A token read for an earlier connection (e.g. the primary set) must not follow this one.
        lns_lock_guard guard(ctx);
        memcpy(ctx->auth_hdr, auth_hdr, sizeof(ctx->auth_hdr));
        ctx->token_auth = token_auth;
        ctx->conn_backup = use_backup;
    }

    char cause[LNS_CAUSE_SZ];
    if (lns_check_cred_files(creds, !token_auth, cause, sizeof(cause)) != 0) {
        LOG_ERROR("lws init failed: %s (%s credentials)", cause, creds.name);
        return -1;
    }
    struct lws_context *context = lws_create_context(&info);
    if (!context) {
        LOG_ERROR("lws init failed: the TLS library refused trust %s, certificate %s or key %s (%s credentials)",
                  creds.trust, token_auth ? "(none)" : creds.cert, token_auth ? "(none)" : creds.key, creds.name);
        return -1;
    }
    lns_tick_start(ctx, context);

    int flags = LCCSCF_USE_SSL;
    if (cfg->lns_opts.allow_self_signed) {
        LOG_WARN("LNS server certificate not verified: allow_self_signed = true accepts a self-signed "
                 "certificate outside %s and any host name",
                 creds.trust);
        flags |= LCCSCF_ALLOW_SELFSIGNED | LCCSCF_SKIP_SERVER_CERT_HOSTNAME_CHECK;
    }
    char host_hdr[512];
    snprintf(host_hdr, sizeof(host_hdr), "%s:%d", host, port);
    struct lws_client_connect_info ccinfo;
    memset(&ccinfo, 0, sizeof(ccinfo));
    ccinfo.context = context;
    ccinfo.address = host;
    ccinfo.port = port;
    ccinfo.ssl_connection = flags;
    ccinfo.path = path;
    ccinfo.host = host_hdr;
    ccinfo.protocol = "lws-lns";
    ccinfo.local_protocol_name = "lws-lns";
    ccinfo.userdata = ctx;

    ctx->conn_closed = false;
    ctx->rx_failed = false;
    ctx->tls_cause[0] = '\0';
    ctx->tls_up = false;
    lns_rx_reset(ctx);
    struct lws *conn = lws_client_connect_via_info(&ccinfo);
    if (!conn) {
        LOG_ERROR("failed to connect via webscokets: %s:%d (%s credentials)", host, port, creds.name);
        lns_ws_ctx_destroy(ctx, context);
        return -1;
    }
    lns_lock_guard guard(ctx);
    ctx->lws_conn = conn;
    ctx->ws_ctx = context;
    ctx->wake_pending = false;
    return 0;
}

int lns_ws_disconnect(bridge_bstn_lns_ctx *ctx) {
    LOG_DEBUG("disconnecting WS stream");
    struct lws_context *context = nullptr;
    {
        lns_lock_guard guard(ctx);
        context = ctx->ws_ctx;
        ctx->ws_ctx = nullptr;
        ctx->lws_conn = nullptr;
    }
    // Destroyed outside the lock: with both pointers cleared no other thread reaches it.
    if (context) lns_ws_ctx_destroy(ctx, context);
    lns_rx_reset(ctx);
    return 0;
}

// ---- protocol callback ---------------------------------------------------------------

int lns_ws_on_receive(bridge_bstn_lns_ctx *ctx, const void *data, size_t data_sz, bool last) {
    BRIDGE_ASSERT(ctx != NULL);
    BRIDGE_ASSERT(data);
    BRIDGE_ASSERT(data_sz > 0);
    LOG_TRACE("reading [%zu] bytes from WS stream", data_sz);
    bridge_bstn_lns_rx &rx = ctx->rx;
    if (rx.len + data_sz > LNS_MSG_MAX) {
        LOG_ERROR("LNS message longer than %zu bytes dropped, ending the session", LNS_MSG_MAX);
        lns_rx_reset(ctx);
        return -1;
    }
    // Fragments of one message are joined; the last one hands the whole text to the ring.
    auto *buf = static_cast<char *>(realloc(rx.buf, rx.len + data_sz + 1));
    if (!buf) {
        LOG_ERROR("failed to allocate memory for ringbuffer message");
        lns_rx_reset(ctx);
        return -1;
    }
    memcpy(buf + rx.len, data, data_sz);
    rx.buf = buf;
    rx.len += data_sz;
    rx.buf[rx.len] = '\0';
    if (!last) return 0;

    bridge_bstn_lns_ring_msg msg{rx.buf};
    rx.buf = nullptr;
    rx.len = 0;
    LOG_DEBUG("data received from WS stream:\n%s", msg.data);
    lns_lock_guard guard(ctx);
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
        lns_log_connection_error(wsi, ctx, static_cast<const char *>(in));
        break;
    case LWS_CALLBACK_OPENSSL_PERFORM_SERVER_CERT_VERIFICATION:
        // `user` is the certificate store here; len is OpenSSL's verdict so far.
        if (len == 0) lns_note_verify_failure(wsi, static_cast<X509_STORE_CTX *>(user));
        return 0; // keep the library's verdict
    case LWS_CALLBACK_OPENSSL_LOAD_EXTRA_CLIENT_VERIFY_CERTS:
        // `user` is the client TLS context: the LNS's alerts name why it refused us.
        SSL_CTX_set_info_callback(static_cast<SSL_CTX *>(user), lns_tls_info_cb);
        return 0;
    case LWS_CALLBACK_CLIENT_ESTABLISHED:
        LOG_DEBUG("WS connection established");
        lws_callback_on_writable(wsi);
        break;
    case LWS_CALLBACK_CLIENT_RECEIVE: {
        BRIDGE_ASSERT(ctx != NULL);
        const bool last = lws_is_final_fragment(wsi) && lws_remaining_packet_payload(wsi) == 0;
        if (lns_ws_on_receive(ctx, in, len, last) != 0) {
            LOG_TRACE("notifying outer loop to stop processing due to reader error");
            ctx->rx_failed = true;
            ctx->stop_processing = true;
        }
        break;
    }
    case LWS_CALLBACK_CLIENT_WRITEABLE: {
        BRIDGE_ASSERT(ctx != NULL);
        LOG_TRACE("WS stream is ready for write");
        int rc = 0;
        {
            lns_lock_guard guard(ctx);
            rc = lns_ws_on_writeable(wsi, ctx);
        }
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
        // The header is the LNS secret: dumped only at TRACE.
        if (lns_log_level >= BRIDGE_LOG_TRACE) bridge_utils_hexdump_stderr(ctx->auth_hdr, hdr_len + 1, 16);
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

namespace {

// Every service round: the watchdog sees the loop moving, and the summary line comes due.
void lns_loop_alive() {
    bridge_watchdog_ping();
    bridge_health_tick(bridge_health_now_ms());
}

} // namespace

int lns_ws_send_and_wait(bridge_bstn_lns_ctx *ctx, const char *path, const char *req_body) {
    BRIDGE_ASSERT(path != NULL);
    BRIDGE_ASSERT(req_body != NULL);
    BRIDGE_ASSERT(ctx != NULL);
    BRIDGE_ASSERT(ctx->ws_ctx != NULL);
    BRIDGE_ASSERT(ctx->buffers.downlink_ring != NULL);
    BRIDGE_ASSERT(ctx->buffers.uplink_ring != NULL);
    LOG_DEBUG("performing get to WS server with path: %s body: %s", path, req_body);
    {
        lns_lock_guard guard(ctx);
        if (lns_ring_push_copy(ctx->buffers.uplink_ring, req_body) != 0) return -1;
    }

    int status = 0;
    size_t waiting = 0;
    bool timed_out = false;
    const int64_t deadline = lns_monotonic_ms() + static_cast<int64_t>(lns_exchange_timeout_secs) * 1000;
    ctx->stop_processing = false;
    while (status >= 0 && !ctx->stop_processing) {
        lns_loop_alive();
        {
            lns_lock_guard guard(ctx);
            waiting = lws_ring_get_count_waiting_elements(ctx->buffers.downlink_ring, nullptr);
        }
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
    lns_lock_guard guard(ctx);
    waiting = lws_ring_get_count_waiting_elements(ctx->buffers.downlink_ring, nullptr);
    if (timed_out || (ctx->stop_processing && waiting == 0)) {
        if (timed_out)
            LOG_ERROR("no reply from LNS within %d seconds", lns_exchange_timeout_secs);
        else
            LOG_DEBUG("WS loop stopped due to error, restart required");
        lns_ring_flush(ctx->buffers.downlink_ring);
        return LNS_STATUS_RESTART_REQUIRED;
    }
    LOG_TRACE("WS service returned: [%d]", status);
    lns_log_downlink_counts(ctx->buffers.downlink_ring);
    if (waiting != 1) {
        LOG_ERROR("unexpected elements waiting in a downlink queue: [%zu], expected: 1", waiting);
        lns_ring_flush(ctx->buffers.downlink_ring);
        return -1;
    }
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
        lns_loop_alive();

        lns_lock_guard guard(ctx);
        ctx->wake_pending = false;
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
    }
    // A message that could not be received ends the session like one that is not JSON.
    if (ctx->rx_failed && status >= 0) status = -1;
    LOG_DEBUG("stopping LWS main loop...");
    return status;
}
