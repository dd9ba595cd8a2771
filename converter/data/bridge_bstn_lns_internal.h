// Internals of the LNS client, shared by its source files and exposed to its tests.
#pragma once

#include "converter/data/bridge_bstn_lns.h"

#include <libwebsockets.h>
#include <pthread.h>

constexpr size_t LNS_DRS_MAX = 32;            // data rates kept from router_config
constexpr unsigned LNS_RING_ELEMENTS = 16;    // lws ring parameter: holds one element less
constexpr int LNS_SERVICE_WAIT_MS = 100;      // one service round
constexpr int LNS_TIMEOUT_SECS = 120;         // library time-out and bound of an exchange
constexpr unsigned LNS_RETRY_PAUSE_SECS = 10; // pause after a failed discovery or session start
constexpr size_t LNS_URI_SZ = 256;
constexpr size_t LNS_HOST_SZ = 256;
constexpr size_t LNS_PATH_SZ = 64;
constexpr size_t LNS_AUTH_HDR_SZ = 512;

// Bounds the wait of one request/response exchange; tests may lower it.
extern int lns_exchange_timeout_secs;
// Pause after a failed discovery or session start; tests may lower it.
extern unsigned lns_retry_pause_secs;

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
    bridge_bstn_lns_tick tick;
};

extern bridge_bstn_lns_ctx lns;

// context, rings, transport
int lns_ctx_init(bridge_bstn_lns_ctx *ctx);
void lns_ctx_deinit(bridge_bstn_lns_ctx *ctx);
void lns_lock(bridge_bstn_lns_ctx *ctx);
void lns_unlock(bridge_bstn_lns_ctx *ctx);
void lns_ring_msg_destroy(void *ring_msg);
int lns_ring_msg_alloc(bridge_bstn_lns_ring_msg *ring_msg, size_t size);
int lns_ring_insert(struct lws_ring *ring, bridge_bstn_lns_ring_msg *ring_msg);
int lns_ring_push_copy(struct lws_ring *ring, const char *data);
int lns_ws_connect(bridge_bstn_lns_ctx *ctx, const char *host, const char *path, int32_t port, bool use_backup);
int lns_ws_disconnect(bridge_bstn_lns_ctx *ctx);
int lns_ws_send_and_wait(bridge_bstn_lns_ctx *ctx, const char *path, const char *req_body);
int lns_main_loop(bridge_bstn_lns_ctx *ctx);
int lns_ws_callback(struct lws *wsi, enum lws_callback_reasons reason, void *user, void *in, size_t len);
int lns_ws_on_receive(struct lws *wsi, bridge_bstn_lns_ctx *ctx, const void *data, size_t data_sz);
int lns_ws_on_writeable(struct lws *wsi, bridge_bstn_lns_ctx *ctx);

// endpoint and discovery
int lns_parse_uri(const char *uri_buf, char *host, size_t host_sz, int32_t *port, char *path, size_t path_sz);
int lns_resolve_endpoint(bridge_bstn_lns_ctx *ctx, char *host_out, size_t host_sz, char *path, size_t path_sz,
                         int32_t *port, bool use_backup);
int lns_request(bridge_bstn_lns_ctx *ctx, const char *path, const char *req_body, json_object **resp_obj,
                bool use_backup, bool do_connect);
int lns_discover(bridge_bstn_lns_ctx *ctx, bool use_backup);
int lns_connect(bridge_bstn_lns_ctx *ctx, bool use_backup);

// station session
int lns_version_exchange(bridge_bstn_lns_ctx *ctx, bool use_backup);
int lns_handle_message(bridge_bstn_lns_ctx *ctx, const char *data);
int lns_handle_dnmsg(bridge_bstn_lns_ctx *ctx, json_object *single_downlink);
void lns_muxtime_from_msg(bridge_bstn_lns_ctx *ctx, json_object *msg);
void lns_muxtime_set(bridge_bstn_lns_ctx *ctx, double new_muxtime);
uint64_t lns_now_ms();
