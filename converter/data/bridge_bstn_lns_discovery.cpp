// LNS client: endpoint URI, request/response exchange and router-info discovery.
#include "converter/data/bridge_bstn_lns_internal.h"

#include "common/bridge_bstn_config.h"
#include "common/bridge_json_helpers.h"
#include "common/bridge_utils.h"

#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <netinet/in.h>
#include <resolv.h>
#include <unistd.h>
#include <uriparser/Uri.h>

using namespace bridge_json_fields;

namespace {

constexpr size_t LNS_PORT_TEXT_SZ = 32;

// Frees the parser's data on every path once parsing succeeded.
struct lns_uri_guard {
    UriUriA *uri;
    ~lns_uri_guard() { uriFreeUriMembersA(uri); }
};

int lns_range_len(const UriTextRangeA &r) {
    return (r.first && r.afterLast) ? static_cast<int>(r.afterLast - r.first) : 0;
}

} // namespace

int lns_parse_uri(const char *uri_buf, char *host, size_t host_sz, int32_t *port, char *path, size_t path_sz) {
    BRIDGE_ASSERT(uri_buf != NULL);
    BRIDGE_ASSERT(host != NULL);
    BRIDGE_ASSERT(port != 0);
    BRIDGE_ASSERT(path != NULL);
    BRIDGE_ASSERT(path_sz != 0);
    BRIDGE_ASSERT(host_sz != 0);
    LOG_TRACE("parsing URI: %s", uri_buf);

    UriUriA uri;
    const char *error_pos = nullptr;
    if (uriParseSingleUriA(&uri, uri_buf, &error_pos) != URI_SUCCESS) {
        LOG_ERROR("failed to parse URI: %s", uri_buf);
        return -1;
    }
    lns_uri_guard guard{&uri};
    int host_len = lns_range_len(uri.hostText);
    if (host_len == 0) {
        LOG_ERROR("failed to parse URI: %s", uri_buf);
        return -1;
    }
    if (static_cast<size_t>(host_len) >= host_sz) {
        LOG_ERROR("hostname %.*s is too long to fit into the output buffer", host_len, uri.hostText.first);
        return -1;
    }
    memcpy(host, uri.hostText.first, static_cast<size_t>(host_len));
    host[host_len] = '\0';

    size_t written = 0;
    for (const UriPathSegmentA *seg = uri.pathHead; seg; seg = seg->next) {
        int seg_len = lns_range_len(seg->text);
        LOG_TRACE("processing path segment: %.*s (size [%zu])", seg_len, seg->text.first ? seg->text.first : "",
                  static_cast<size_t>(seg_len));
        if (written + static_cast<size_t>(seg_len) + 2 >= path_sz) {
            LOG_ERROR("path segment %.*s can't fit into the output buffer", seg_len,
                      seg->text.first ? seg->text.first : "");
            return -1;
        }
        path[written++] = '/';
        if (seg_len) memcpy(path + written, seg->text.first, static_cast<size_t>(seg_len));
        written += static_cast<size_t>(seg_len);
    }
    path[written] = '\0';

    int port_len = lns_range_len(uri.portText);
    if (static_cast<size_t>(port_len) >= LNS_PORT_TEXT_SZ) {
        LOG_ERROR("port string %.*s can't fit into the output buffer", port_len, uri.portText.first);
        return -1;
    }
    if (port_len == 0) {
        // Only the default port follows the scheme: the connection always uses TLS.
        *port = strncmp(uri_buf, "wss://", 6) == 0 ? 443 : 80;
        LOG_TRACE("LNS port isn't set in URI, using default: %d", *port);
    } else {
        char port_text[LNS_PORT_TEXT_SZ];
        memcpy(port_text, uri.portText.first, static_cast<size_t>(port_len));
        port_text[port_len] = '\0';
        errno = 0;
        char *end = nullptr;
        unsigned long value = strtoul(port_text, &end, 10);
        int conv_errno = errno;
        if (end == port_text || *end != '\0' || value == 0 || value > 65535) {
            LOG_ERROR("invalid port string: %s", port_text);
            return conv_errno ? -conv_errno : -1;
        }
        *port = static_cast<int32_t>(value);
    }
    LOG_DEBUG("WS host parsed: %s, port: %u path: %s", host, static_cast<unsigned>(*port), path);
    return 0;
}

const char *lns_read_error_text(int rc) {
    if (rc == -ENOBUFS) return "longer than the buffer allows";
    return strerror(-rc);
}

int lns_resolve_endpoint(bridge_bstn_lns_ctx *ctx, char *host_out, size_t host_sz, char *path, size_t path_sz,
                         int32_t *port, bool use_backup) {
    BRIDGE_ASSERT(host_out != NULL);
    BRIDGE_ASSERT(port != NULL);
    if (ctx->lns_uri[0] != '\0') return lns_parse_uri(ctx->lns_uri, host_out, host_sz, port, path, path_sz);

    const lns_cred_set creds = lns_creds(use_backup);
    char lns_uri[LNS_URI_SZ] = {};
    int rc = bridge_utils_read_text_file_to_buf(creds.uri, lns_uri, sizeof(lns_uri));
    if (rc < 0) {
        LOG_ERROR("failed to read LNS uri: %s: %s%s", creds.uri, lns_read_error_text(rc),
                  use_backup ? " (the optional backup URI file, tried because the main LNS failed)" : "");
        return rc;
    }
    size_t uri_len = strlen(lns_uri);
    if (uri_len == 0) {
        LOG_ERROR("can't process URI: string is empty: %s", creds.uri);
        return -1;
    }
    size_t start = 0;
    while (start < uri_len && isspace(static_cast<unsigned char>(lns_uri[start]))) ++start;
    size_t uri_end = uri_len - 1;
    while (uri_end > start && isspace(static_cast<unsigned char>(lns_uri[uri_end]))) --uri_end;
    BRIDGE_ASSERT(uri_end + 1 <= uri_len);
    BRIDGE_ASSERT(uri_end + 1 < sizeof(lns_uri));
    lns_uri[uri_end + 1] = '\0';
    return lns_parse_uri(lns_uri + start, host_out, host_sz, port, path, path_sz);
}

int lns_request(bridge_bstn_lns_ctx *ctx, const char *path, const char *req_body, json_object **resp_obj,
                bool use_backup, bool do_connect) {
    BRIDGE_ASSERT(path);
    BRIDGE_ASSERT(req_body);
    BRIDGE_ASSERT(resp_obj);
    char host[LNS_HOST_SZ];
    char ws_path[LNS_PATH_SZ];
    int32_t port = 0;
    int rc = lns_resolve_endpoint(ctx, host, sizeof(host), ws_path, sizeof(ws_path), &port, use_backup);
    if (rc != 0) return rc;

    size_t ep_len = strlen(ws_path);
    if (strlen(path) + 3 >= sizeof(ws_path) - ep_len) {
        LOG_ERROR("buffer is too small for URI path: %s", path);
        return -1;
    }
    if (path[0] != '\0') snprintf(ws_path + ep_len, sizeof(ws_path) - ep_len, "/%s", path);
    LOG_TRACE("WS path constructed: %s", ws_path);

    if (do_connect) {
        rc = lns_ws_connect(ctx, host, ws_path, port, use_backup);
        if (rc != 0) return rc;
    }
    // No connection may outlive a failed exchange that opened it.
    auto fail = [&](int status) {
        if (do_connect) lns_ws_disconnect(ctx);
        return status;
    };

    rc = lns_ws_send_and_wait(ctx, path, req_body);
    if (rc != 0) return fail(rc);

    const char *reply = nullptr;
    {
        lns_lock_guard guard(ctx);
        auto *msg = static_cast<const bridge_bstn_lns_ring_msg *>(
            lws_ring_get_element(ctx->buffers.downlink_ring, nullptr));
        reply = msg ? msg->data : nullptr;
    }
    if (!reply) {
        LOG_ERROR("failed to extract message from downlink queue");
        return fail(-1);
    }
    if (do_connect) lns_ws_disconnect(ctx);

    bridge_json_ptr obj(json_tokener_parse(reply));
    int consumed = 0;
    {
        lns_lock_guard guard(ctx);
        struct lws_ring *ring = ctx->buffers.downlink_ring;
        LOG_TRACE("downlink ringbuffer free elements: %zu", lws_ring_get_count_free_elements(ring));
        LOG_TRACE("downlink ringbuffer waiting elements: %zu", lws_ring_get_count_waiting_elements(ring, nullptr));
        consumed = static_cast<int>(lws_ring_consume(ring, nullptr, nullptr, 1));
    }
    if (!obj) {
        LOG_ERROR("failed to parse JSON response");
        BRIDGE_ASSERT(consumed == 1);
        return -1;
    }
    if (consumed != 1) {
        LOG_ERROR("failed to release downlink message from the downlink queue");
        return -1;
    }
    *resp_obj = obj.release();
    return 0;
}

int lns_request_frame(bridge_bstn_lns_ctx *ctx, const char *path, const char *what,
                      const bridge_json_out_field *frame, uint32_t count, bridge_json_ptr &resp, bool use_backup,
                      bool do_connect) {
    bridge_json_ptr req(json_object_new_object());
    if (!req) {
        LOG_ERROR("failed to allocate JSON object");
        return -1;
    }
    int rc = bridge_json_serialize(req.get(), frame, count);
    if (rc != 0) return rc;
    const char *body = json_object_to_json_string(req.get());
    LOG_DEBUG("LNS request %s body: %s", what, body);
    json_object *resp_raw = nullptr;
    rc = lns_request(ctx, path, body, &resp_raw, use_backup, do_connect);
    if (rc != 0) return rc;
    BRIDGE_ASSERT(resp_raw);
    resp.reset(resp_raw);
    return 0;
}

int lns_discover(bridge_bstn_lns_ctx *ctx, bool use_backup) {
    const bridge_cfg_root *cfg = bridge_config_get_root();
    BRIDGE_ASSERT(cfg);
    const bridge_json_out_field req_frame[] = {
        out_string("router", cfg->general.gw_eui),
    };
    bridge_json_ptr resp;
    int rc = lns_request_frame(ctx, "router-info", "info", req_frame, resp, use_backup, true);
    if (rc != 0) return rc;

    const bridge_json_field resp_frame[] = {
        in_string("uri", ctx->lns_uri),
    };
    {
        lns_lock_guard guard(ctx);
        rc = bridge_json_deserialize(resp.get(), resp_frame);
        if (rc == 0) lns_muxtime_from_msg(ctx, resp.get());
    }
    if (rc != 0) {
        ctx->lns_uri[0] = '\0';
        return rc;
    }
    LOG_DEBUG("new LNS uri received: %s", ctx->lns_uri);
    LOG_INFO("LNS discovered: %s", ctx->lns_uri);
    return 0;
}

int lns_connect(bridge_bstn_lns_ctx *ctx, bool use_backup) {
    BRIDGE_ASSERT(ctx != NULL);
    char host[LNS_HOST_SZ];
    char path[LNS_PATH_SZ];
    int32_t port = 0;
    int rc = lns_resolve_endpoint(ctx, host, sizeof(host), path, sizeof(path), &port, use_backup);
    if (rc != 0) return rc;
    return lns_ws_connect(ctx, host, path, port, use_backup);
}

int bridge_bstn_lns_init_discovery(uint32_t level, bool use_stderr) {
    int status = lns_ctx_init(&lns);
    if (status != 0) return status;
    lns_log_level = level;
    if (use_stderr) {
        // Every library level up to the chosen one, so that its own errors show at every level.
        int mask = 0;
        switch (level) {
        case 0: mask = LLL_ERR; break;
        case 1: mask = LLL_ERR | LLL_WARN; break;
        case 2: mask = LLL_ERR | LLL_WARN | LLL_NOTICE | LLL_INFO; break;
        case 3:
        case 4: mask = LLL_ERR | LLL_WARN | LLL_NOTICE | LLL_INFO | LLL_DEBUG; break;
        default: BRIDGE_ASSERT(0); break;
        }
        lws_set_log_level(mask, nullptr);
    }
    status = lns_discover(&lns, false);
    // Only a failed or lost connection makes the backup endpoint worth a try.
    if (status == LNS_STATUS_RESTART_REQUIRED) status = lns_discover(&lns, true);
    if (status == 0) return 0;
    res_init();
    lns_ctx_deinit(&lns);
    sleep(lns_retry_pause_secs);
    return status;
}
