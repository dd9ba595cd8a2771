// LNS URI splitting (lns_parse_uri) and the URI file path of endpoint resolution
// (white-space trimming before the split).
#include <cstring>

#include "common/bridge_bstn_config.h"
#include "converter/data/bridge_bstn_lns_internal.h"
#include "fuzz_support.h"

namespace {
std::string uri_file;
}

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    fuzz_quiet_logging();
    uri_file = fuzz_temp_dir() + "/tc.uri";
    snprintf(bridge_config_get_root()->lns.uri, BRIDGE_CFG_STR_SZ, "%s", uri_file.c_str());
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size > 1024) return 0;
    fuzz_text uri(data, size);

    // The daemon's own buffers (256-byte host, 64-byte path) and small ones.
    for (auto [host_sz, path_sz] : {std::pair<size_t, size_t>{LNS_HOST_SZ, LNS_PATH_SZ}, {8, 4}, {1, 1}}) {
        std::string host(host_sz, 'H');
        std::string path(path_sz, 'P');
        int32_t port = -7;
        const int rc = lns_parse_uri(uri.str, host.data(), host_sz, &port, path.data(), path_sz);
        if (rc != 0) {
            FUZZ_CHECK(rc < 0);
            continue;
        }
        FUZZ_CHECK(memchr(host.data(), '\0', host_sz) != nullptr);
        FUZZ_CHECK(memchr(path.data(), '\0', path_sz) != nullptr);
        FUZZ_CHECK(port >= 1 && port <= 65535);
        FUZZ_CHECK(path[0] == '\0' || path[0] == '/');
    }

    // The same text as the content of the LNS URI file (read into 256 bytes, then trimmed).
    fuzz_write_file(uri_file, data, size);
    char host[LNS_HOST_SZ];
    char path[LNS_PATH_SZ];
    int32_t port = 0;
    lns.lns_uri[0] = '\0';
    const int rc = lns_resolve_endpoint(&lns, host, sizeof host, path, sizeof path, &port, false);
    if (rc == 0) FUZZ_CHECK(port >= 1 && port <= 65535);
    return 0;
}
