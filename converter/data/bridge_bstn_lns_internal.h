// Internals of the LNS client, shared by its source files and exposed to its tests.
#pragma once

#include "converter/data/bridge_bstn_lns.h"
#include "common/bridge_json_helpers.h"

#include <libwebsockets.h>
#include <pthread.h>

constexpr size_t LNS_DRS_MAX = 32; // data rates kept from router_config
// lws ring parameters (a ring holds one element less). The uplink ring takes a burst of
// two seconds of a 16-channel gateway at its ceiling; its memory is bounded by the count.
constexpr unsigned LNS_UPLINK_RING_ELEMENTS = 1024;
constexpr unsigned LNS_DOWNLINK_RING_ELEMENTS = 128;
constexpr size_t LNS_MSG_MAX = 64 * 1024;     // longest LNS message, fragments joined
constexpr int LNS_SERVICE_WAIT_MS = 100;      // one service round
constexpr int LNS_TIMEOUT_SECS = 120;         // library time-out and bound of an exchange
constexpr unsigned LNS_RETRY_PAUSE_SECS = 10; // pause after a failed discovery or session start
constexpr size_t LNS_URI_SZ = 256;
constexpr size_t LNS_HOST_SZ = 256;
constexpr size_t LNS_PATH_SZ = 64;
constexpr size_t LNS_AUTH_HDR_SZ = 512;
constexpr size_t LNS_CAUSE_SZ = 768;

// Bounds the wait of one request/response exchange; tests may lower it.
extern int lns_exchange_timeout_secs;
// Pause after a failed discovery or session start; tests may lower it.
extern unsigned lns_retry_pause_secs;
// Log level of the run (bridge_bstn_lns_init_discovery): hex dumps only at TRACE.
extern unsigned lns_log_level;

struct bridge_bstn_lns_dr {
    int32_t sf;
    int32_t bw; // kHz
    bool dnonly;
};

// One queued JSON text; the ring owns `data` once the element is inserted.
struct bridge_bstn_lns_ring_msg {
    char *data;
};

struct bridge_bstn_lns_buffers {
    struct lws_ring *uplink_ring;   // texts to send to the LNS
    struct lws_ring *downlink_ring; // texts received from the LNS
};

// Periodic wake-up of the service loop: lws_service ignores its own time-out.
struct bridge_bstn_lns_tick {
    lws_sorted_usec_list_t sul;
    struct lws_context *context;
};

// Fragments of the WebSocket message being received (service thread only).
struct bridge_bstn_lns_rx {
    char *buf;
    size_t len;
};

struct bridge_bstn_lns_ctx {
    struct lws *lws_conn;
    struct lws_context *ws_ctx;
    pthread_mutex_t mutex;
    bridge_bstn_lns_buffers buffers;
    bridge_bstn_lns_dr drs[LNS_DRS_MAX];
    int32_t drs_count;
    uint64_t muxtime; // ms, 0 = none yet
    uint64_t reftime; // local ms when muxtime was recorded
    char lns_uri[LNS_URI_SZ];
    char auth_hdr[LNS_AUTH_HDR_SZ];
    bool token_auth;
    bridge_bstn_lns_downlink_cb downlink_cb;
    void *downlink_cb_arg;
    bool inited;
    bool stop_processing;
    // Service thread only: the library destroyed the connection (lws_conn is stale until
    // lns_ws_disconnect), so nothing may be asked of it any more.
    bool conn_closed;
    // Service thread only: a received message could not be taken (too long): the session
    // ends as after a text that is not JSON.
    bool rx_failed;
    bool conn_backup; // the connection uses the backup credential set
    // An uplink push has woken the service loop and the loop has not run since: further
    // pushes need not wake it again (the wake-up pipe's write end may block when full).
    bool wake_pending;
    bridge_bstn_lns_rx rx;
    char tls_cause[LNS_CAUSE_SZ]; // why TLS failed on the current connection, "" if it did not
    bool tls_up;                  // the TLS handshake of the current connection completed
    bridge_bstn_lns_tick tick;
};

extern bridge_bstn_lns_ctx lns;

// The files of one credential set of the `lns` configuration section.
struct lns_cred_set {
    const char *name; // "main" or "backup"
    const char *uri;
    const char *trust;
    const char *cert;
    const char *key;
};
lns_cred_set lns_creds(bool use_backup);

// context, rings, transport
int lns_ctx_init(bridge_bstn_lns_ctx *ctx);
void lns_ctx_deinit(bridge_bstn_lns_ctx *ctx);
void lns_lock(bridge_bstn_lns_ctx *ctx);
void lns_unlock(bridge_bstn_lns_ctx *ctx);

// Holds the context lock for its scope.
class lns_lock_guard {
public:
    explicit lns_lock_guard(bridge_bstn_lns_ctx *ctx) : ctx_(ctx) { lns_lock(ctx_); }
    ~lns_lock_guard() { lns_unlock(ctx_); }
    lns_lock_guard(const lns_lock_guard &) = delete;
    lns_lock_guard &operator=(const lns_lock_guard &) = delete;
private:
    bridge_bstn_lns_ctx *ctx_;
};

void lns_ring_msg_destroy(void *ring_msg);
int lns_ring_msg_alloc(bridge_bstn_lns_ring_msg *ring_msg, size_t size);
int lns_ring_insert(struct lws_ring *ring, bridge_bstn_lns_ring_msg *ring_msg);
int lns_ring_push_copy(struct lws_ring *ring, const char *data);
int lns_ws_connect(bridge_bstn_lns_ctx *ctx, const char *host, const char *path, int32_t port, bool use_backup);
int lns_ws_disconnect(bridge_bstn_lns_ctx *ctx);
int lns_ws_send_and_wait(bridge_bstn_lns_ctx *ctx, const char *path, const char *req_body);
int lns_main_loop(bridge_bstn_lns_ctx *ctx);
int lns_ws_callback(struct lws *wsi, enum lws_callback_reasons reason, void *user, void *in, size_t len);
// One receive event: `last` when it ends its WebSocket message. 0, or -1 when the message
// cannot be taken (the session must end).
int lns_ws_on_receive(bridge_bstn_lns_ctx *ctx, const void *data, size_t data_sz, bool last);
int lns_ws_on_writeable(struct lws *wsi, bridge_bstn_lns_ctx *ctx);

// endpoint and discovery
int lns_parse_uri(const char *uri_buf, char *host, size_t host_sz, int32_t *port, char *path, size_t path_sz);
int lns_resolve_endpoint(bridge_bstn_lns_ctx *ctx, char *host_out, size_t host_sz, char *path, size_t path_sz,
                         int32_t *port, bool use_backup);
int lns_request(bridge_bstn_lns_ctx *ctx, const char *path, const char *req_body, json_object **resp_obj,
                bool use_backup, bool do_connect);
// Serialises `frame` (`count` fields) into one request on `path` and parses the answer into `resp`;
// `what` names the request in the DEBUG line that shows its body.
int lns_request_frame(bridge_bstn_lns_ctx *ctx, const char *path, const char *what,
                      const bridge_json_out_field *frame, uint32_t count, bridge_json_ptr &resp, bool use_backup,
                      bool do_connect);
template <size_t N>
int lns_request_frame(bridge_bstn_lns_ctx *ctx, const char *path, const char *what,
                      const bridge_json_out_field (&frame)[N], bridge_json_ptr &resp, bool use_backup, bool do_connect) {
    return lns_request_frame(ctx, path, what, frame, static_cast<uint32_t>(N), resp, use_backup, do_connect);
}
int lns_discover(bridge_bstn_lns_ctx *ctx, bool use_backup);
int lns_connect(bridge_bstn_lns_ctx *ctx, bool use_backup);
// Reason text of a failed file read (a negated errno of bridge_utils_read_text_file_to_buf).
const char *lns_read_error_text(int rc);

// station session
// The data-rate table of a router_config; `count` is set only on success (0).
int lns_parse_drs(json_object *router_config, bridge_bstn_lns_dr (&drs)[LNS_DRS_MAX], int32_t *count);
int lns_version_exchange(bridge_bstn_lns_ctx *ctx, bool use_backup);
int lns_handle_message(bridge_bstn_lns_ctx *ctx, const char *data);
int lns_handle_dnmsg(bridge_bstn_lns_ctx *ctx, json_object *single_downlink);
void lns_muxtime_from_msg(bridge_bstn_lns_ctx *ctx, json_object *msg);
void lns_muxtime_set(bridge_bstn_lns_ctx *ctx, double new_muxtime);
uint64_t lns_now_ms();

// ---- pure arithmetic and decisions ---------------------------------------------------

// The dnmsg members that decide where and when a downlink goes (-1 = absent).
struct lns_dn_request {
    int64_t dc, xtime, gpstime, dr, freq, rx1_dr, rx1_freq, rx2_dr, rx2_freq, rx_delay;
};
struct lns_dn_window {
    int64_t dr;      // index into the router_config data rates
    int64_t freq;    // Hz
    int64_t tx_time; // xtime (or gpstime) of the transmission, the dntxed's xtime
};
enum lns_dn_verdict : unsigned {
    LNS_DN_OK,
    LNS_DN_NO_TIME,
    LNS_DN_NO_WINDOW_A,
    LNS_DN_NO_WINDOW_C,
    LNS_DN_BAD_CLASS,
    LNS_DN_BAD_DR,
};
// Class A takes RX2 when offered (one second after RX1), class C RX1 first, class B its own
// DR and Freq; the chosen DR must index the `drs_count` data rates.
lns_dn_verdict lns_choose_window(const lns_dn_request &rq, int32_t drs_count, lns_dn_window *out);
// MuxTime seconds as milliseconds; 0 when not positive or beyond 64 bits.
uint64_t lns_muxtime_ms(double seconds);
// RefTime of an uplink at local `now_ms`: the MuxTime advanced by the time since it came.
double lns_reftime_s(uint64_t muxtime_ms, uint64_t reftime_ms, uint64_t now_ms);
