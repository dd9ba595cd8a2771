// CUPS update-info exchange: an HTTPS POST describing the gateway and the
// CRC-32 of its credential sets, answered by a binary update that is applied
// to the URI and credential files. Retries transient failures forever and
// falls back to the backup CUPS credentials after a 401.
#include "bstn/bridge_bstn_cups.h"
#include "bstn/bridge_bstn_cups_internal.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <string_view>
#include <strings.h>
#include <netinet/in.h>
#include <resolv.h>
#include <unistd.h>

#include "common/bridge_bstn_config.h"
#include "common/bridge_health.h"
#include "common/bridge_utils.h"

using namespace bridge_json_fields;

namespace {

constexpr size_t CUPS_URI_BUF_SZ = 256;
constexpr size_t CUPS_TOKEN_BUF_SZ = 512;
constexpr size_t CUPS_HEXDUMP_COLS = 16;
constexpr unsigned CUPS_RETRY_NO_CONNECTION_S = 5;
constexpr unsigned CUPS_RETRY_FAILED_S = 15;
constexpr long CUPS_KEEPALIVE_IDLE_S = 30;
constexpr long CUPS_KEEPALIVE_INTERVAL_S = 15;

// Sleeps in slices of at most a second, so that the watchdog and the summary
// line keep going while the CUPS server is unreachable.
int default_retry_wait(unsigned seconds) {
    for (unsigned i = 0; i < seconds; ++i) {
        bridge_watchdog_ping();
        bridge_health_tick(bridge_health_now_ms());
        sleep(1);
    }
    bridge_watchdog_ping();
    return 0;
}

struct curl_url_free {
    void operator()(CURLU *u) const { curl_url_cleanup(u); }
};
struct curl_text_free {
    void operator()(char *p) const { curl_free(p); }
};
struct curl_slist_cleanup {
    void operator()(curl_slist *l) const { curl_slist_free_all(l); }
};

const char *err_text(int negated_errno) {
    return strerror(-negated_errno);
}

void strip_trailing_space(char *text) {
    size_t len = strlen(text);
    while (len > 1 && isspace(static_cast<unsigned char>(text[len - 1]))) text[--len] = '\0';
}

// Reads a URI file into `buf` (CUPS_URI_BUF_SZ bytes) without trailing white space.
int read_uri_file(const char *path, char *buf) {
    int rc = bridge_utils_read_text_file_to_buf(path, buf, CUPS_URI_BUF_SZ);
    if (rc == 0) strip_trailing_space(buf);
    return rc;
}

// The steps of preparing a request; the caller undoes a failure.
int prepare_request(bridge_bstn_cups_ctx *ctx, bool use_backup) {
    const bridge_cfg_root *cfg = bridge_config_get_root();

    std::unique_ptr<CURLU, curl_url_free> url(curl_url());
    if (!url) {
        LOG_ERROR("failed to allocate cURL URI object");
        return -1;
    }
    ctx->curl.reset(curl_easy_init());
    if (!ctx->curl) {
        LOG_ERROR("failed to initialise cURL");
        return -1;
    }

    int rc = bridge_bstn_cups_check_mandatory_files(use_backup);
    if (rc != 0) return rc;

    // The checksums always describe the main sets, also for a backup attempt.
    uint32_t cups_crc = 0;
    uint32_t lns_crc = 0;
    rc = bridge_bstn_cups_cups_cred_crc(ctx, &cups_crc, false);
    if (rc < 0) return rc;
    rc = bridge_bstn_cups_lns_cred_crc(ctx, &lns_crc, false);
    if (rc < 0) return rc;

    const bridge_bstn_cred_files cups_set = bridge_bstn_cups_cred_files(cfg->cups, use_backup);
    const bridge_bstn_cred_files lns_set = bridge_bstn_cups_cred_files(cfg->lns, use_backup);
    char cups_uri[CUPS_URI_BUF_SZ];
    rc = read_uri_file(cups_set.uri, cups_uri);
    if (rc != 0) {
        LOG_ERROR("failed to read CUPS URI file %s from %s set: %s", cups_set.uri, cups_set.set_name, err_text(rc));
        return rc;
    }

    // Servers read every member unconditionally: an LNS URI not known yet is
    // sent as the empty string.
    char lns_uri[CUPS_URI_BUF_SZ];
    rc = read_uri_file(lns_set.uri, lns_uri);
    if (rc == -ENOENT) {
        LOG_DEBUG("LNS endpoint file is missing, must be downloaded via CUPS");
        lns_uri[0] = '\0';
    } else if (rc != 0) {
        LOG_ERROR("failed to process LNS endpoints from file: %s: %s (%s set)", err_text(rc), lns_set.uri,
                  lns_set.set_name);
        return rc;
    }

    ctx->req_obj.reset(json_object_new_object());
    if (!ctx->req_obj) {
        LOG_ERROR("failed to allocate JSON object");
        return -1;
    }
    const int64_t cups_crc64 = cups_crc;
    const int64_t lns_crc64 = lns_crc;
    const bridge_json_out_field fields[] = {
        out_string("router", cfg->general.gw_eui),
        out_string("cupsUri", cups_uri),
        out_int("cupsCredCrc", &cups_crc64),
        out_int("tcCredCrc", &lns_crc64),
        out_string("station", cfg->general.name),
        out_string("model", cfg->general.model),
        out_string("package", cfg->general.package),
        out_string("tcUri", lns_uri),
    };
    rc = bridge_json_serialize(ctx->req_obj.get(), fields, sizeof fields / sizeof fields[0]);
    if (rc != 0) return rc;
    const char *body = json_object_to_json_string(ctx->req_obj.get());
    LOG_DEBUG("CUPS request body: %s", body);

    // "./update-info" replaces the last path segment of the CUPS URI.
    curl_url_set(url.get(), CURLUPART_URL, cups_uri, CURLU_NON_SUPPORT_SCHEME);
    curl_url_set(url.get(), CURLUPART_URL, "./update-info", CURLU_NON_SUPPORT_SCHEME);
    char *text = nullptr;
    if (curl_url_get(url.get(), CURLUPART_URL, &text, 0) != CURLUE_OK) {
        LOG_ERROR("failed to construct endpoint URL: \"%s\" in %s", cups_uri, cups_set.uri);
        return 1;
    }
    std::unique_ptr<char, curl_text_free> url_text(text);
    rc = bridge_bstn_cups_require_https(cups_uri, strlen(cups_uri), cups_set.uri);
    if (rc != 0) return rc;
    LOG_DEBUG("using CUPS request URI: %s", url_text.get());

    CURL *curl = ctx->curl.get();
    curl_easy_setopt(curl, CURLOPT_URL, url_text.get());
    curl_easy_setopt(curl, CURLOPT_POSTFIELDS, body);
    curl_easy_setopt(curl, CURLOPT_POSTFIELDSIZE, static_cast<long>(strlen(body)));
    BRIDGE_ASSERT(ctx->resp_data == NULL);
    ctx->resp_len = 0;
    ctx->body_too_large = false;
    curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, bridge_bstn_cups_write_cb);
    curl_easy_setopt(curl, CURLOPT_WRITEDATA, ctx);
    return 0;
}

// Sets the token header list on the handle; the list must outlive the transfer.
int set_token_auth(CURL *curl, const bridge_bstn_cred_files &set,
                   std::unique_ptr<curl_slist, curl_slist_cleanup> *headers) {
    char token[CUPS_TOKEN_BUF_SZ];
    int rc = bridge_utils_read_text_file_to_buf(set.key, token, sizeof token);
    if (rc != 0) {
        LOG_ERROR("failed to open CUPS keyfile: %s: %s (%s set)", err_text(rc), set.key, set.set_name);
        return rc;
    }
    size_t len = strlen(token);
    if (len > 2 && token[len - 2] == '\r' && token[len - 1] == '\n') {
        len -= 2;
        token[len] = '\0';
    }
    // The secret stays out of the log: only the header name is shown.
    const char *colon = strchr(token, ':');
    LOG_DEBUG("constructed auth header: \"%.*s: ...\" (%zu bytes)", colon ? static_cast<int>(colon - token) : 0,
              token, len);

    curl_slist *list = curl_slist_append(nullptr, token);
    if (!list) {
        LOG_ERROR("failed to append HTTP headers: token");
        return -1;
    }
    headers->reset(list);
    list = curl_slist_append(list, "Content-Type: application/json");
    if (!list) {
        LOG_ERROR("failed to append HTTP headers: content-type");
        headers->reset();
        return -1;
    }
    curl_easy_setopt(curl, CURLOPT_HTTPHEADER, list);
    return 0;
}

// Only the configured trust file is a trust anchor (no system CA file or
// folder), only https is spoken, and a silent or trickling server cannot hold
// the bridge.
void set_transport_options(CURL *curl, const char *trust) {
    const bridge_bstn_cups_limits &lim = bridge_bstn_cups_transfer_limits;
    curl_easy_setopt(curl, CURLOPT_CAINFO, trust);
    curl_easy_setopt(curl, CURLOPT_CAPATH, nullptr);
    curl_easy_setopt(curl, CURLOPT_SSL_VERIFYPEER, 1L);
    curl_easy_setopt(curl, CURLOPT_SSL_VERIFYHOST, 2L);
    curl_easy_setopt(curl, CURLOPT_PROTOCOLS_STR, "https");
    curl_easy_setopt(curl, CURLOPT_REDIR_PROTOCOLS_STR, "https");
    curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(curl, CURLOPT_CONNECTTIMEOUT_MS, lim.connect_timeout_ms);
    curl_easy_setopt(curl, CURLOPT_LOW_SPEED_LIMIT, 1L);
    curl_easy_setopt(curl, CURLOPT_LOW_SPEED_TIME, lim.low_speed_time_s);
    curl_easy_setopt(curl, CURLOPT_MAXFILESIZE_LARGE, static_cast<curl_off_t>(lim.max_body));
    curl_easy_setopt(curl, CURLOPT_TCP_KEEPALIVE, 1L);
    curl_easy_setopt(curl, CURLOPT_TCP_KEEPIDLE, CUPS_KEEPALIVE_IDLE_S);
    curl_easy_setopt(curl, CURLOPT_TCP_KEEPINTVL, CUPS_KEEPALIVE_INTERVAL_S);
}

// Names the limit that ended a failed transfer, if one did.
void report_limit(const bridge_bstn_cups_ctx *ctx, CURLcode res) {
    const bridge_bstn_cups_limits &lim = bridge_bstn_cups_transfer_limits;
    if (ctx->body_too_large || res == CURLE_FILESIZE_EXCEEDED) {
        LOG_ERROR("CUPS transfer abandoned: the answer exceeds %zu bytes", lim.max_body);
    } else if (res == CURLE_OPERATION_TIMEDOUT) {
        curl_off_t tls_done_us = 0;
        curl_easy_getinfo(ctx->curl.get(), CURLINFO_APPCONNECT_TIME_T, &tls_done_us);
        if (tls_done_us == 0) {
            LOG_ERROR("CUPS transfer abandoned: no TLS connection within %ld ms", lim.connect_timeout_ms);
        } else {
            LOG_ERROR("CUPS transfer abandoned: less than 1 byte/s for %ld s", lim.low_speed_time_s);
        }
    }
}

// TRACE dump of the answer, 16 bytes a row, like the hex dump of the utilities
// but through the log level (the answer may hold private keys).
void trace_dump(const uint8_t *data, size_t len) {
    if (!bridge_log_uses_stderr()) return;
    for (size_t row = 0; row < len; row += CUPS_HEXDUMP_COLS) {
        char hex[CUPS_HEXDUMP_COLS * 3 + 1] = "";
        char text[CUPS_HEXDUMP_COLS + 1] = "";
        for (size_t i = 0; i < CUPS_HEXDUMP_COLS; ++i) {
            const bool in = row + i < len;
            snprintf(hex + 3 * i, 4, in ? "%02x " : "   ", in ? data[row + i] : 0);
            text[i] = !in ? ' ' : isprint(data[row + i]) ? static_cast<char>(data[row + i]) : '.';
        }
        LOG_TRACE("0x%06zx: %s%s", row, hex, text);
    }
}

} // namespace

int (*bridge_bstn_cups_retry_wait)(unsigned seconds) = default_retry_wait;
void *(*bridge_bstn_cups_realloc)(void *ptr, size_t size) = realloc;
bridge_bstn_cups_limits bridge_bstn_cups_transfer_limits = BRIDGE_BSTN_CUPS_LIMITS;

void bridge_bstn_cups_ctx_reset(bridge_bstn_cups_ctx *ctx) {
    BRIDGE_ASSERT(ctx != NULL);
    ctx->curl.reset();
    ctx->req_obj.reset();
    ctx->resp_data.reset();
    ctx->resp_len = 0;
    ctx->body_too_large = false;
}

int bridge_bstn_cups_prepare_request(bridge_bstn_cups_ctx *ctx, bool use_backup) {
    BRIDGE_ASSERT(ctx->curl == NULL);
    BRIDGE_ASSERT(ctx->req_obj == NULL);
    int rc = prepare_request(ctx, use_backup);
    if (rc != 0) {
        ctx->curl.reset();
        ctx->req_obj.reset();
    }
    return rc;
}

int bridge_bstn_cups_perform_request(bridge_bstn_cups_ctx *ctx, bool use_backup) {
    BRIDGE_ASSERT(ctx->curl != NULL);
    const bridge_bstn_cred_files set = bridge_bstn_cups_cred_files(bridge_config_get_root()->cups, use_backup);
    CURL *curl = ctx->curl.get();
    LOG_DEBUG("performing CUPS request");

    std::unique_ptr<curl_slist, curl_slist_cleanup> headers;
    int rc = bridge_utils_file_exists(set.cert);
    if (rc == 0) {
        LOG_DEBUG("using TLS keypair for client auth");
        curl_easy_setopt(curl, CURLOPT_SSLKEY, set.key);
        curl_easy_setopt(curl, CURLOPT_SSLCERT, set.cert);
    } else if (rc == -ENOENT) {
        LOG_DEBUG("using token for client auth");
        rc = set_token_auth(curl, set, &headers);
        if (rc != 0) return rc;
    } else {
        return rc;
    }
    set_transport_options(curl, set.trust);
    char detail[CURL_ERROR_SIZE] = "";
    curl_easy_setopt(curl, CURLOPT_ERRORBUFFER, detail);

    CURLcode res = curl_easy_perform(curl);
    headers.reset();
    curl_easy_setopt(curl, CURLOPT_ERRORBUFFER, nullptr);
    if (res != CURLE_OK) {
        const char *url = nullptr;
        curl_easy_getinfo(curl, CURLINFO_EFFECTIVE_URL, &url);
        LOG_ERROR("CURL request failed: [%#x] %s: %s (%s set): %s", static_cast<unsigned>(res),
                  curl_easy_strerror(res), url ? url : "?", set.set_name, detail);
        report_limit(ctx, res);
        return res == CURLE_COULDNT_CONNECT ? CUPS_RESULT_NO_CONNECTION : CUPS_RESULT_FAILED;
    }
    long status = 0;
    curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &status);
    LOG_DEBUG("CUPS response code: %ld", status);
    // The answer may hold private keys: dumped only at TRACE.
    if (ctx->resp_len > 0) trace_dump(ctx->resp_data.get(), ctx->resp_len);
    if (status == 200) return CUPS_RESULT_OK;
    if (status == 401) return CUPS_RESULT_AUTH_ERROR;
    return CUPS_RESULT_FAILED;
}

size_t bridge_bstn_cups_write_cb(char *data, size_t size, size_t nmemb, void *user_ctx) {
    BRIDGE_ASSERT(data != NULL);
    BRIDGE_ASSERT(user_ctx != NULL);
    auto *ctx = static_cast<bridge_bstn_cups_ctx *>(user_ctx);
    const size_t chunk = size * nmemb;
    LOG_TRACE("received response chunk with length: %zu", chunk);

    // An answer without a length can still grow past the cap: the write
    // callback is where it is stopped.
    if (chunk > bridge_bstn_cups_transfer_limits.max_body - ctx->resp_len) {
        ctx->body_too_large = true;
        return 0;
    }
    const size_t total = static_cast<size_t>(ctx->resp_len) + chunk;
    void *grown = bridge_bstn_cups_realloc(ctx->resp_data.get(), total + 1);
    if (!grown) {
        // The earlier buffer stays owned by the context; returning a short count
        // makes libcurl abort the transfer, so a partial body is never applied.
        LOG_ERROR("failed to allocate buffer for incoming data with size [%zu]", total);
        return 0;
    }
    (void)ctx->resp_data.release();
    ctx->resp_data.reset(static_cast<uint8_t *>(grown));
    memcpy(ctx->resp_data.get() + ctx->resp_len, data, chunk);
    ctx->resp_len = static_cast<uint32_t>(total);
    return chunk;
}

int bridge_bstn_cups_require_https(const char *uri, size_t len, const char *what) {
    constexpr std::string_view https = "https://";
    const std::string_view text(uri, len);
    if (text.size() >= https.size() && strncasecmp(text.data(), https.data(), https.size()) == 0) return 0;
    const size_t colon = text.find(':');
    const std::string_view scheme = colon == std::string_view::npos ? std::string_view() : text.substr(0, colon);
    LOG_ERROR("refusing CUPS URI with scheme \"%.*s\": only https is allowed: %s", static_cast<int>(std::min<size_t>(scheme.size(), 32)),
              scheme.data(), what);
    return -EPROTONOSUPPORT;
}

int bridge_bstn_cups_bootstrap() {
    bridge_bstn_cups_ctx ctx{};
    int rc;
    for (;;) {
        bridge_bstn_cups_ctx_reset(&ctx);
        res_init();
        rc = bridge_bstn_cups_prepare_request(&ctx, false);
        if (rc != 0) break;

        rc = bridge_bstn_cups_perform_request(&ctx, false);
        if (rc == CUPS_RESULT_OK) {
            rc = bridge_bstn_cups_backup_cups_set(&ctx);
            if (rc == 0) rc = bridge_bstn_cups_process_response(&ctx);
            break;
        }
        if (rc < 0) break;
        bridge_bstn_cups_ctx_reset(&ctx);

        if (rc == CUPS_RESULT_AUTH_ERROR) {
            LOG_WARN("CUPS main credentials auth error: trying backup creds instead");
            rc = bridge_bstn_cups_prepare_request(&ctx, true);
            if (rc != 0) break;
            rc = bridge_bstn_cups_perform_request(&ctx, true);
            if (rc == CUPS_RESULT_OK) {
                // The backup set works while the main set was refused: apply the
                // update without the usual backup copy, which would overwrite the
                // only working credentials with the refused ones.
                rc = bridge_bstn_cups_process_response(&ctx);
                break;
            }
            bridge_bstn_cups_ctx_reset(&ctx);
        }

        unsigned delay;
        if (rc == CUPS_RESULT_NO_CONNECTION) {
            LOG_DEBUG("retrying to connect within 5 seconds");
            delay = CUPS_RETRY_NO_CONNECTION_S;
        } else {
            LOG_DEBUG("retrying to connect within 15 seconds");
            delay = CUPS_RETRY_FAILED_S;
        }
        rc = bridge_bstn_cups_retry_wait(delay);
        if (rc != 0) break;
    }
    bridge_bstn_cups_ctx_reset(&ctx);
    return rc;
}
