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

#include "common/bridge_bstn_config.h"
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
    // The answer grew past the body cap: the write callback ended the transfer.
    bool body_too_large;
};

// Result of one attempt (bridge_bstn_cups_perform_request); negative values
// are local failures before the transfer.
enum bridge_bstn_cups_result : int {
    CUPS_RESULT_OK = 0,
    CUPS_RESULT_FAILED = 1,
    CUPS_RESULT_AUTH_ERROR = 2,
    CUPS_RESULT_NO_CONNECTION = 3,
};

// The files of one credential set, main or backup, chosen once.
struct bridge_bstn_cred_files {
    const char *uri;
    const char *trust;
    const char *cert;
    const char *key;
    const char *set_name;   // "main" or "backup", for messages
};
bridge_bstn_cred_files bridge_bstn_cups_cred_files(const bridge_cfg_creds &creds, bool use_backup);

// ---- update-info exchange ----------------------------------------------------
int bridge_bstn_cups_prepare_request(bridge_bstn_cups_ctx *ctx, bool use_backup);
int bridge_bstn_cups_perform_request(bridge_bstn_cups_ctx *ctx, bool use_backup);
size_t bridge_bstn_cups_write_cb(char *data, size_t size, size_t nmemb, void *user_ctx);
void bridge_bstn_cups_ctx_reset(bridge_bstn_cups_ctx *ctx);
// 0 when `uri` (of `len` bytes) has the https scheme; otherwise ERROR naming the
// scheme and what the URI is (`what`), result -EPROTONOSUPPORT.
int bridge_bstn_cups_require_https(const char *uri, size_t len, const char *what);

// Limits of one transfer: a silent or trickling server must not hold the bridge.
struct bridge_bstn_cups_limits {
    long connect_timeout_ms;   // TCP and TLS set-up
    long low_speed_time_s;     // abandoned when fewer than 1 byte/s arrive for this long
    size_t max_body;           // larger answers are abandoned
};
constexpr bridge_bstn_cups_limits BRIDGE_BSTN_CUPS_LIMITS = {30000, 60, 256 * 1024};

// Seams for the tests. The retry pause defaults to a sleep that keeps the
// watchdog and the summary line going, and 0; a non-zero value ends the
// bootstrap with that value (never in the daemon). The response buffer grows
// through realloc unless replaced. The limits default to BRIDGE_BSTN_CUPS_LIMITS.
extern int (*bridge_bstn_cups_retry_wait)(unsigned seconds);
extern void *(*bridge_bstn_cups_realloc)(void *ptr, size_t size);
extern bridge_bstn_cups_limits bridge_bstn_cups_transfer_limits;

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

// ---- atomic file replacement -------------------------------------------------------
// Every file the CUPS client writes goes to a temporary file in the same folder
// (mode 0600 whatever the umask), is synced, renamed over the target, and the
// folder is synced. A failure at any step removes the temporary file and leaves
// the old target as it was.
enum bridge_bstn_cups_write_step { CUPS_WRITE_OPEN, CUPS_WRITE_DATA, CUPS_WRITE_SYNC, CUPS_WRITE_RENAME,
                                   CUPS_WRITE_DIR_SYNC };
// Names of the steps, for messages ("create", "write", ...).
const char *bridge_bstn_cups_write_step_name(bridge_bstn_cups_write_step step);
// Replaces `path` by the bytes of `buf`. 0, or the negated errno with *failed set;
// logs nothing (callers name what they were writing).
int bridge_bstn_cups_replace_file(const char *path, const void *buf, size_t len,
                                  bridge_bstn_cups_write_step *failed);
// Seam for the tests: the system calls of the replacement that can fail late.
struct bridge_bstn_cups_file_syscalls {
    ssize_t (*write)(int fd, const void *buf, size_t n);
    int (*fsync)(int fd);
    int (*rename)(const char *from, const char *to);
};
extern bridge_bstn_cups_file_syscalls bridge_bstn_cups_file_sys;
