// DER length decoding of a credentials item (CUPS response).
#include <vector>

#include "bstn/bridge_bstn_cups_internal.h"
#include "fuzz_support.h"

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    fuzz_quiet_logging();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    // A heap copy of exactly `size` bytes: ASan catches a length byte read past the end.
    std::vector<uint8_t> item(data, data + size);
    const int32_t len = bridge_bstn_cups_der_seq_len(item.data(), item.size());
    FUZZ_CHECK(len == -1 || len >= 2);
    if (size < 2) {
        FUZZ_CHECK(len == -1);
    } else if (item[1] < 0x80) {
        FUZZ_CHECK(len == item[1] + 2);
    } else {
        const size_t n = item[1] & 0x7f;
        if (size < 2 + n) FUZZ_CHECK(len == -1);
        else if (len >= 0) FUZZ_CHECK(static_cast<size_t>(len) >= n + 2);
    }
    return 0;
}
