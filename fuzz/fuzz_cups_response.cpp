// A CUPS response body through the section walk and, as a credentials blob,
// through the credentials walk. The configured URI and credential files all
// live in a private temporary folder.
#include <cstdlib>
#include <cstring>
#include <openssl/err.h>

#include "bstn/bridge_bstn_cups_internal.h"
#include "common/bridge_bstn_config.h"
#include "fuzz_support.h"

namespace {

void set_path(char (&field)[BRIDGE_CFG_STR_SZ], const std::string &dir, const char *name) {
    snprintf(field, sizeof field, "%s/%s", dir.c_str(), name);
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    fuzz_quiet_logging();
    const std::string &dir = fuzz_temp_dir();
    bridge_cfg_root *cfg = bridge_config_get_root();
    for (auto [set, prefix] : {std::pair{&cfg->cups, "cups"}, std::pair{&cfg->lns, "tc"}}) {
        const std::string p(prefix);
        set_path(set->uri, dir, (p + ".uri").c_str());
        set_path(set->uri_backup, dir, (p + "-bak.uri").c_str());
        set_path(set->trust, dir, (p + ".trust").c_str());
        set_path(set->trust_backup, dir, (p + "-bak.trust").c_str());
        set_path(set->cert, dir, (p + ".crt").c_str());
        set_path(set->cert_backup, dir, (p + "-bak.crt").c_str());
        set_path(set->key, dir, (p + ".key").c_str());
        set_path(set->key_backup, dir, (p + "-bak.key").c_str());
    }
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size > 16384) return 0;
    {
        bridge_bstn_cups_ctx ctx;
        if (size > 0) {
            // The body as the transfer leaves it: a malloc'd buffer of exactly resp_len bytes.
            ctx.resp_data.reset(static_cast<uint8_t *>(malloc(size)));
            FUZZ_CHECK(ctx.resp_data);
            memcpy(ctx.resp_data.get(), data, size);
        }
        ctx.resp_len = static_cast<uint32_t>(size);
        const int rc = bridge_bstn_cups_process_response(&ctx);
        if (size < 14) FUZZ_CHECK(rc == -1);
    }
    if (size > 0) {
        uint8_t *blob = static_cast<uint8_t *>(malloc(size));
        FUZZ_CHECK(blob);
        memcpy(blob, data, size);
        (void)bridge_bstn_cups_store_credentials(blob, size, false);
        free(blob);
    }
    // A failed decode leaves errors on the thread's queue; they must not pile up across inputs.
    ERR_clear_error();
    return 0;
}
