// Hex text to bytes (and back), plus EUI formatting of raw bytes.
#include <cctype>
#include <vector>

#include "common/bridge_utils.h"
#include "fuzz_support.h"

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    fuzz_quiet_logging();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size > 4096) return 0;
    fuzz_text in(data, size);

    // Exactly the room the text needs: a success must stay inside it.
    const size_t need = in.len / 2;
    std::vector<uint8_t> arr(need > 0 ? need : 1);
    const int rc = bridge_utils_hexstring_to_array(in.str, arr.data(), need);
    FUZZ_CHECK(rc == 0 || rc == -1);
    if (rc == 0) {
        FUZZ_CHECK(in.len % 2 == 0);
        std::vector<char> back(2 * need + 1);
        FUZZ_CHECK(bridge_utils_array_to_hexstring(arr.data(), need, back.data(), back.size()) == 0);
        for (size_t i = 0; i < in.len; ++i)
            FUZZ_CHECK(back[i] == tolower(static_cast<unsigned char>(in.str[i])));
    }
    // One byte too little room is always refused for a non-empty text.
    if (need > 0) {
        std::vector<uint8_t> small(need - 1 > 0 ? need - 1 : 1);
        FUZZ_CHECK(bridge_utils_hexstring_to_array(in.str, small.data(), need - 1) == -1);
    }

    // Raw bytes to hex and back are the same bytes; a buffer of 2n bytes is refused.
    std::vector<char> hex(2 * size + 1);
    FUZZ_CHECK(bridge_utils_array_to_hexstring(data, size, hex.data(), hex.size()) == 0);
    FUZZ_CHECK(bridge_utils_array_to_hexstring(data, size, hex.data(), hex.size() - 1) == -1);
    std::vector<uint8_t> bytes(size > 0 ? size : 1);
    FUZZ_CHECK(bridge_utils_hexstring_to_array(hex.data(), bytes.data(), size) == 0);
    for (size_t i = 0; i < size; ++i) FUZZ_CHECK(bytes[i] == data[i]);

    char eui[24];
    const int eui_rc = bridge_utils_format_eui64(data, size, eui, sizeof eui);
    FUZZ_CHECK((eui_rc == 0) == (size == 8));
    return 0;
}
