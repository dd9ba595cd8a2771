// The LoRaWAN uplink frame parser, for both forwarder protocol versions.
#include <cstring>
#include <vector>

#include "common/bridge_utils.h"
#include "converter/data/bridge_translator.h"
#include "fuzz_support.h"

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    fuzz_quiet_logging();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    // The translator hands over 1..255 decoded bytes followed by the decoder's zero byte.
    if (size == 0 || size > 255) return 0;
    std::vector<uint8_t> phy(data, data + size);
    phy.push_back(0);

    for (uint32_t version : {1u, 2u}) {
        uplink_frame frame;
        memset(&frame, 0xA5, sizeof frame);
        const int rc = bridge_translate_parse_uplink_phy(phy.data(), size, 0x0001000000001234LL, version, &frame);
        FUZZ_CHECK(rc == 0 || rc == -1);
        if (rc != 0) continue;
        FUZZ_CHECK(frame.mhdr == data[0] && frame.frame_type == data[0] >> 5);
        if (frame.frame_type == BRIDGE_FRAME_JOIN_REQUEST) {
            FUZZ_CHECK(size == 23);
            FUZZ_CHECK(strnlen(frame.join_eui, sizeof frame.join_eui) == 23);
            FUZZ_CHECK(strnlen(frame.dev_eui, sizeof frame.dev_eui) == 23);
        } else {
            FUZZ_CHECK(size >= 7);
            const size_t fopts_len = frame.fctrl & 0x0F;
            FUZZ_CHECK(strnlen(frame.fopts, sizeof frame.fopts) == 2 * fopts_len);
            FUZZ_CHECK(frame.fport >= -1 && frame.fport <= 255);
            const size_t payload_hex = strnlen(frame.frm_payload, sizeof frame.frm_payload);
            FUZZ_CHECK(payload_hex < sizeof frame.frm_payload);
            if (frame.fport == -1) FUZZ_CHECK(payload_hex == 0);
            else FUZZ_CHECK(payload_hex == 2 * (size - 4 - (8 + fopts_len) - 1));
        }
    }
    return 0;
}
