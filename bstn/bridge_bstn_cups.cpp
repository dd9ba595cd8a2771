// CUPS update-info exchange: an HTTPS POST describing the gateway and the
// CRC-32 of its credential sets, answered by a binary update that is applied
// to the URI and credential files. Retries transient failures forever and
// falls back to the backup CUPS credentials after a 401.
#include "bstn/bridge_bstn_cups.h"
#include "bstn/bridge_bstn_cups_internal.h"

#include <cctype>
#include <cerrno>
#include <cstring>
#include <netinet/in.h>
#include <resolv.h>
#include <unistd.h>

#include "common/bridge_bstn_config.h"
#include "common/bridge_utils.h"

using namespace bridge_json_fields;

namespace {

constexpr size_t CUPS_URI_BUF_SZ = 256;
constexpr size_t CUPS_TOKEN_BUF_SZ = 512;
constexpr size_t CUPS_HEXDUMP_COLS = 16;
constexpr unsigned CUPS_RETRY_NO_CONNECTION_S = 5;
constexpr unsigned CUPS_RETRY_FAILED_S = 15;

int default_retry_wait(unsigned seconds) {
    sleep(seconds);
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

const char *err_text(int negated_errno, char *buf, size_t sz) {
    return strerror_r(-negated_errno, buf, sz);
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

    char cups_uri[CUPS_URI_BUF_SZ];
    rc = read_uri_file(use_backup ? cfg->cups.uri_backup : cfg->cups.uri, cups_uri);
    if (rc != 0) return rc;

    char lns_uri[CUPS_URI_BUF_SZ];
    bool has_lns_uri = true;
    rc = read_uri_file(use_backup ? cfg->lns.uri_backup : cfg->lns.uri, lns_uri);
    if (rc == -ENOENT) {
        LOG_DEBUG("LNS endpoint file is missing, must be downloaded via CUPS");
        has_lns_uri = false;
    } else if (rc != 0) {
        char ebuf[128];
        LOG_ERROR("failed to process LNS endpoints from file: %s", err_text(rc, ebuf, sizeof ebuf));
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
    const uint32_t count = has_lns_uri ? 8 : 7;
    rc = bridge_json_serialize(ctx->req_obj.get(), fields, count);
    if (rc != 0) return rc;
    const char *body = json_object_to_json_string(ctx->req_obj.get());
    LOG_DEBUG("CUPS request body: %s", body);

    // "./update-info" replaces the last path segment of the CUPS URI.
    curl_url_set(url.get(), CURLUPART_URL, cups_uri, 0);
    curl_url_set(url.get(), CURLUPART_URL, "./update-info", 0);
    char *text = nullptr;
    if (curl_url_get(url.get(), CURLUPART_URL, &text, 0) != CURLUE_OK) {
        LOG_ERROR("failed to construct endpoint URL");
        return 1;
    }
    std::unique_ptr<char, curl_text_free> url_text(text);
    LOG_DEBUG("using CUPS request URI: %s", url_text.get());

    CURL *curl = ctx->curl.get();
    curl_easy_setopt(curl, CURLOPT_URL, url_text.get());
    curl_easy_setopt(curl, CURLOPT_POSTFIELDS, body);
    curl_easy_setopt(curl, CURLOPT_POSTFIELDSIZE, static_cast<long>(strlen(body)));
    BRIDGE_ASSERT(ctx->resp_data == NULL);
    ctx->resp_len = 0;
    curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, bridge_bstn_cups_write_cb);
    curl_easy_setopt(curl, CURLOPT_WRITEDATA, ctx);
    return 0;
}

// Sets the token header list on the handle; the list must outlive the transfer.
int set_token_auth(CURL *curl, const char *key_path, std::unique_ptr<curl_slist, curl_slist_cleanup> *headers) {
    char token[CUPS_TOKEN_BUF_SZ];
    int rc = bridge_utils_read_text_file_to_buf(key_path, token, sizeof token);
    if (rc != 0) {
        char ebuf[128];
        LOG_ERROR("failed to open CUPS keyfile: %s", err_text(rc, ebuf, sizeof ebuf));
        return rc;
    }
    size_t len = strlen(token);
    if (len > 2 && token[len - 2] == '\r' && token[len - 1] == '\n') token[len - 2] = '\0';
    LOG_DEBUG("constructed auth header: \"%s\"", token);

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

} // namespace

int (*bridge_bstn_cups_retry_wait)(unsigned seconds) = default_retry_wait;
void *(*bridge_bstn_cups_realloc)(void *ptr, size_t size) = realloc;

void bridge_bstn_cups_ctx_reset(bridge_bstn_cups_ctx *ctx) {
    BRIDGE_ASSERT(ctx != NULL);
    ctx->curl.reset();
    ctx->req_obj.reset();
    ctx->resp_data.reset();
    ctx->resp_len = 0;
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
    const bridge_cfg_creds &cups = bridge_config_get_root()->cups;
    const char *key = use_backup ? cups.key_backup : cups.key;
    const char *cert = use_backup ? cups.cert_backup : cups.cert;
    const char *trust = use_backup ? cups.trust_backup : cups.trust;
    CURL *curl = ctx->curl.get();
    LOG_DEBUG("performing CUPS request");

    std::unique_ptr<curl_slist, curl_slist_cleanup> headers;
    int rc = bridge_utils_file_exists(cert);
    if (rc == 0) {
        LOG_DEBUG("using TLS keypair for client auth");
        curl_easy_setopt(curl, CURLOPT_SSLKEY, key);
        curl_easy_setopt(curl, CURLOPT_SSLCERT, cert);
    } else if (rc == -ENOENT) {
        LOG_DEBUG("using token for client auth");
        rc = set_token_auth(curl, key, &headers);
        if (rc != 0) return rc;
    } else {
        return rc;
    }

    // The server must chain to the trust file; no time-outs: libcurl's defaults.
    curl_easy_setopt(curl, CURLOPT_CAINFO, trust);
    curl_easy_setopt(curl, CURLOPT_SSL_VERIFYPEER, 1L);

    CURLcode res = curl_easy_perform(curl);
    headers.reset();
    if (res != CURLE_OK) {
        LOG_ERROR("CURL request failed: [%#x] %s", static_cast<unsigned>(res), curl_easy_strerror(res));
        return res == CURLE_COULDNT_CONNECT ? CUPS_RESULT_NO_CONNECTION : CUPS_RESULT_FAILED;
    }
    long status = 0;
    curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &status);
    LOG_DEBUG("CUPS response code: %ld", status);
    if (ctx->resp_len > 0) bridge_utils_hexdump_stderr(ctx->resp_data.get(), ctx->resp_len, CUPS_HEXDUMP_COLS);
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

    // The total and its extra byte must fit the 32-bit count (and size_t on 32-bit ARM).
    const bool fits = chunk < UINT32_MAX - ctx->resp_len;
    const size_t total = static_cast<size_t>(ctx->resp_len) + chunk;
    void *grown = fits ? bridge_bstn_cups_realloc(ctx->resp_data.get(), total + 1) : nullptr;
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
