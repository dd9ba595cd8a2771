// GWMP (the Semtech packet-forwarder protocol over UDP): the 4-byte datagram header, read
// and written in this one place. No I/O here.
#pragma once

#include <cstddef>
#include <cstdint>

enum : uint8_t {
    GWMP_PUSH_DATA = 0x00,
    GWMP_PUSH_ACK = 0x01,
    GWMP_PULL_DATA = 0x02,
    GWMP_PULL_RESP = 0x03,
    GWMP_PULL_ACK = 0x04,
    GWMP_TX_ACK = 0x05,
};

constexpr size_t GWMP_HEADER_SZ = 4; // version, token (2 bytes), identifier
constexpr size_t GWMP_EUI_SZ = 8;    // gateway EUI after the header (PUSH_DATA, PULL_DATA, TX_ACK)

struct gwmp_header {
    uint8_t version;
    uint16_t token; // the two wire bytes, low byte first; echoed unchanged in acknowledgements
    uint8_t id;
};

enum : int {
    GWMP_TOO_SHORT = -1,   // fewer than 4 bytes
    GWMP_BAD_VERSION = -2, // protocol version other than 1 or 2
};

// Reads the header of a received datagram of `len` bytes: 0 or a GWMP_* failure.
int bridge_gwmp_read_header(const uint8_t *buf, size_t len, gwmp_header *h);
// Writes the header into buf[0..3]; returns GWMP_HEADER_SZ.
size_t bridge_gwmp_write_header(const gwmp_header &h, uint8_t *buf);
