// Base64 with the standard alphabet and "=" padding.
#include "common/base64.h"

#include <array>
#include <cstddef>
#include <cstdint>

namespace {

constexpr char alphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
constexpr uint8_t NOT_B64 = 64;

constexpr std::array<uint8_t, 256> make_decode_table() {
    std::array<uint8_t, 256> table{};
    for (auto &v : table)
        v = NOT_B64;
    for (uint8_t i = 0; i < 64; i++)
        table[static_cast<uint8_t>(alphabet[i])] = i;
    return table;
}

constexpr std::array<uint8_t, 256> decode_table = make_decode_table();

uint8_t sextet(char c) {
    return decode_table[static_cast<uint8_t>(c)];
}

// Characters from the start of `in` up to the first one outside the alphabet.
size_t alphabet_run(const char *in) {
    size_t n = 0;
    while (sextet(in[n]) != NOT_B64)
        n++;
    return n;
}

} // namespace

int Base64encode_len(int len) {
    if (len < 0)
        len = 0;
    return ((len + 2) / 3) * 4 + 1;
}

int Base64encode(char *out, const unsigned char *in, int len) {
    char *p = out;
    int i = 0;
    for (; i + 2 < len; i += 3) {
        *p++ = alphabet[in[i] >> 2];
        *p++ = alphabet[((in[i] & 0x03) << 4) | (in[i + 1] >> 4)];
        *p++ = alphabet[((in[i + 1] & 0x0F) << 2) | (in[i + 2] >> 6)];
        *p++ = alphabet[in[i + 2] & 0x3F];
    }
    if (i < len) {
        *p++ = alphabet[in[i] >> 2];
        if (i + 1 == len) {
            *p++ = alphabet[(in[i] & 0x03) << 4];
            *p++ = '=';
        } else {
            *p++ = alphabet[((in[i] & 0x03) << 4) | (in[i + 1] >> 4)];
            *p++ = alphabet[(in[i + 1] & 0x0F) << 2];
        }
        *p++ = '=';
    }
    *p++ = '\0';
    return static_cast<int>(p - out);
}

int Base64decode_len(const char *in) {
    const size_t n = alphabet_run(in);
    return static_cast<int>(((n + 3) / 4) * 3 + 1);
}

int Base64decode(unsigned char *out, const char *in) {
    const size_t n = alphabet_run(in);
    unsigned char *p = out;
    size_t i = 0;
    for (; i + 4 <= n; i += 4) {
        const uint32_t v = (uint32_t{sextet(in[i])} << 18) | (uint32_t{sextet(in[i + 1])} << 12) |
                           (uint32_t{sextet(in[i + 2])} << 6) | sextet(in[i + 3]);
        *p++ = static_cast<unsigned char>(v >> 16);
        *p++ = static_cast<unsigned char>(v >> 8);
        *p++ = static_cast<unsigned char>(v);
    }
    // A final group of two or three characters carries one or two bytes; a
    // lone character carries fewer than eight bits and gives none.
    const size_t rest = n - i;
    if (rest >= 2) {
        uint32_t v = (uint32_t{sextet(in[i])} << 18) | (uint32_t{sextet(in[i + 1])} << 12);
        if (rest == 3)
            v |= uint32_t{sextet(in[i + 2])} << 6;
        *p++ = static_cast<unsigned char>(v >> 16);
        if (rest == 3)
            *p++ = static_cast<unsigned char>(v >> 8);
    }
    *p = '\0';
    return static_cast<int>(p - out);
}
