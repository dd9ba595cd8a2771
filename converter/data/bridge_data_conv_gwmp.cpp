// GWMP datagram header codec.
#include "converter/data/bridge_data_conv_gwmp.h"

int bridge_gwmp_read_header(const uint8_t *buf, size_t len, gwmp_header *h) {
    if (len < GWMP_HEADER_SZ) return GWMP_TOO_SHORT;
    if (buf[0] != 1 && buf[0] != 2) return GWMP_BAD_VERSION;
    h->version = buf[0];
    h->token = static_cast<uint16_t>(buf[1] | buf[2] << 8);
    h->id = buf[3];
    return 0;
}

size_t bridge_gwmp_write_header(const gwmp_header &h, uint8_t *buf) {
    buf[0] = h.version;
    buf[1] = static_cast<uint8_t>(h.token & 0xff);
    buf[2] = static_cast<uint8_t>(h.token >> 8);
    buf[3] = h.id;
    return GWMP_HEADER_SZ;
}
