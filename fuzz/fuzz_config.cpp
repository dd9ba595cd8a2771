// Configuration loading: the input is the TOML file.
#include <cstring>

#include "common/bridge_bstn_config.h"
#include "fuzz_support.h"

namespace {
std::string cfg_path;
}

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    fuzz_quiet_logging();
    cfg_path = fuzz_temp_dir() + "/bridge.toml";
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size > 16384) return 0;
    fuzz_write_file(cfg_path, data, size);
    bridge_cfg_root *root = bridge_config_get_root();
    memset(root, 0, sizeof *root);
    const int rc = bridge_config_process(cfg_path.c_str());
    FUZZ_CHECK(rc == 0 || rc == -1);
    // Every text stays terminated within its field, whatever the file held.
    for (const char *field : {root->general.gw_eui, root->general.name, root->general.fw_version,
                              root->general.model, root->general.package, root->lns.uri, root->lns.key_backup,
                              root->cups.uri, root->cups.key_backup})
        FUZZ_CHECK(memchr(field, '\0', BRIDGE_CFG_STR_SZ) != nullptr);
    return 0;
}
