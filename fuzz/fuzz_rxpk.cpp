// One rxpk object (JSON text) through both uplink translators, time base synchronised.
#include <cstring>

#include "common/bridge_json_helpers.h"
#include "converter/data/bridge_translator.h"
#include "fuzz_support.h"

namespace {
// Epoch 0x42, counter 1000000 (a stat count has been seen).
constexpr int64_t SYNCED_BASE = (0x42LL << 48) | 1000000;
}

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    fuzz_quiet_logging();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size > 4096) return 0;
    fuzz_text text(data, size);
    bridge_json_ptr rxpk(json_tokener_parse(text.str));
    if (!rxpk) return 0;

    bridge_translate_msg from{};
    from.format = DATA_TYPE_SEMTECH;
    from.direction = BRIDGE_DIRECTION_UPLINK;
    from.data = rxpk.get();
    for (auto translate : {bridge_translate_uplink_semtech_v1_to_bstn_v1, bridge_translate_uplink_semtech_v2_to_bstn_v1}) {
        bridge_bstn_xtime_set_base(SYNCED_BASE);
        bridge_json_ptr out(json_object_new_object());
        const int rc = translate(&from, rxpk.get(), out.get());
        if (rc != 0) {
            // A refused packet leaves the output untouched.
            FUZZ_CHECK(rc < 0);
            FUZZ_CHECK(json_object_object_length(out.get()) == 0);
            continue;
        }
        json_object *msgtype = nullptr;
        FUZZ_CHECK(json_object_object_get_ex(out.get(), "msgtype", &msgtype));
        const char *type = json_object_get_string(msgtype);
        FUZZ_CHECK(strcmp(type, "jreq") == 0 || strcmp(type, "updf") == 0);
        FUZZ_CHECK(json_object_object_length(out.get()) == (strcmp(type, "jreq") == 0 ? 9 : 12));
        FUZZ_CHECK(json_object_to_json_string(out.get()) != nullptr);
    }
    return 0;
}
