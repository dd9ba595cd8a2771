// CUPS client internals: the per-bootstrap context, the steps of the
// update-info exchange, the response walk and the credential file operations.
// Exposed for the tests; the daemon only calls bridge_bstn_cups_bootstrap().
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <sys/types.h>

#include <curl/curl.h>

#include "common/bridge_json_helpers.h"

struct bridge_bstn_curl_cleanup {
    void operator()(CURL *c) const { if (c) curl_easy_cleanup(c); }
};
struct bridge_bstn_free {
    void operator()(void *p) const { free(p); }
};

// One per bootstrap call, on the caller's stack; all members empty when idle.
struct bridge_bstn_cups_ctx {
    std::unique_ptr<CURL, bridge_bstn_curl_cleanup> curl;
    // Owns the POST body text: libcurl does not copy POSTFIELDS.
    bridge_json_ptr req_obj;
    std::unique_ptr<uint8_t, bridge_bstn_free> resp_data;
    uint32_t resp_len;
};

// Result of one attempt (bridge_bstn_cups_perform_request); negative values
// are local failures before the transfer.
enum bridge_bstn_cups_result : int {
    CUPS_RESULT_OK = 0,
    CUPS_RESULT_FAILED = 1,
    CUPS_RESULT_AUTH_ERROR = 2,
    CUPS_RESULT_NO_CONNECTION = 3,
};

// ---- update-info exchange ----------------------------------------------------
int bridge_bstn_cups_prepare_request(bridge_bstn_cups_ctx *ctx, bool use_backup);
int bridge_bstn_cups_perform_request(bridge_bstn_cups_ctx *ctx, bool use_backup);
size_t bridge_bstn_cups_write_cb(char *data, size_t size, size_t nmemb, void *user_ctx);
void bridge_bstn_cups_ctx_reset(bridge_bstn_cups_ctx *ctx);

// Seams for the tests. The retry pause defaults to sleep(seconds) and 0; a
// non-zero value ends the bootstrap with that value (never in the daemon).
// The response buffer grows through realloc unless replaced.
extern int (*bridge_bstn_cups_retry_wait)(unsigned seconds);
extern void *(*bridge_bstn_cups_realloc)(void *ptr, size_t size);

// ---- response processing -------------------------------------------------------
int bridge_bstn_cups_process_response(bridge_bstn_cups_ctx *ctx);
int bridge_bstn_cups_store_credentials(const uint8_t *data, size_t sz, bool cups_set);
int32_t bridge_bstn_cups_der_seq_len(const uint8_t *p, size_t left);
int bridge_bstn_cups_write_x509_pem(const uint8_t *der_data, size_t der_sz, const char *filepath);
int bridge_bstn_cups_write_pkey_pem(const uint8_t *der_data, size_t der_sz, const char *filepath);

// ---- credential file sets --------------------------------------------------------
int bridge_bstn_cups_check_mandatory_files(bool use_backup);
int bridge_bstn_cups_cups_cred_crc(bridge_bstn_cups_ctx *ctx, uint32_t *crc_out, bool use_backup);
int bridge_bstn_cups_lns_cred_crc(bridge_bstn_cups_ctx *ctx, uint32_t *crc_out, bool use_backup);
int bridge_bstn_cups_file_crc(bridge_bstn_cups_ctx *ctx, const char *filepath, uint32_t *out_crc,
                              uint32_t crc_in);
int bridge_bstn_cups_backup_cups_set(bridge_bstn_cups_ctx *ctx);
int bridge_bstn_cups_copy_file(const char *srcpath, const char *destpath);
