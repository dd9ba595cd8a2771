// Base64 decoding (and the encode/decode round trip) of arbitrary text.
#include <cstring>
#include <vector>

#include "common/base64.h"
#include "fuzz_support.h"

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    fuzz_quiet_logging();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size > 4096) return 0;
    fuzz_text in(data, size);

    // Decode into a buffer of exactly the announced size.
    const int room = Base64decode_len(in.str);
    FUZZ_CHECK(room >= 1);
    std::vector<unsigned char> out(static_cast<size_t>(room));
    const int n = Base64decode(out.data(), in.str);
    FUZZ_CHECK(n >= 0 && n < room);
    FUZZ_CHECK(out[static_cast<size_t>(n)] == 0);

    // Re-encoding the decoded bytes and decoding again gives the same bytes.
    std::vector<char> text(static_cast<size_t>(Base64encode_len(n)));
    const int written = Base64encode(text.data(), out.data(), n);
    FUZZ_CHECK(written == static_cast<int>(text.size()));
    std::vector<unsigned char> again(static_cast<size_t>(Base64decode_len(text.data())));
    FUZZ_CHECK(Base64decode(again.data(), text.data()) == n);
    FUZZ_CHECK(memcmp(again.data(), out.data(), static_cast<size_t>(n)) == 0);

    // Any raw bytes survive encode then decode.
    std::vector<char> raw_text(static_cast<size_t>(Base64encode_len(static_cast<int>(size))));
    Base64encode(raw_text.data(), data, static_cast<int>(size));
    std::vector<unsigned char> raw(static_cast<size_t>(Base64decode_len(raw_text.data())));
    FUZZ_CHECK(Base64decode(raw.data(), raw_text.data()) == static_cast<int>(size));
    FUZZ_CHECK(size == 0 || memcmp(raw.data(), data, size) == 0);
    return 0;
}
