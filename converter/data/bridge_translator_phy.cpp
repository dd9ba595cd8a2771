// LoRaWAN uplink PHYPayload parser: splits a join request or a data frame into
// the fields that Basics Station jreq/updf messages carry. No MIC check.
#include "converter/data/bridge_translator.h"

#include <cstring>

#include "common/bridge_health.h"
#include "common/bridge_utils.h"

namespace {

constexpr size_t JOIN_REQUEST_LEN = 23;   // MHDR, JoinEUI, DevEUI, DevNonce, MIC
constexpr size_t DATA_HEADER_LEN = 7;     // DevAddr, FCtrl, FCnt, MIC (no MHDR)
constexpr size_t FOPTS_OFFSET = 8;        // MHDR + DevAddr + FCtrl + FCnt
constexpr size_t MIC_LEN = 4;
constexpr size_t FOPTS_MAX = 15;

int32_t le32(const uint8_t *p) {
    return static_cast<int32_t>(static_cast<uint32_t>(p[0]) | static_cast<uint32_t>(p[1]) << 8 |
                                static_cast<uint32_t>(p[2]) << 16 | static_cast<uint32_t>(p[3]) << 24);
}

uint16_t le16(const uint8_t *p) {
    return static_cast<uint16_t>(p[0] | p[1] << 8);
}

int parse_join_request(const uint8_t *phy, size_t len, int64_t xtime, uint32_t version, uplink_frame *frame) {
    if (version == 1)
        LOG_TRACE("join request received");
    else
        LOG_TRACE("join request received: [%zu] bytes", len);

    if (len != JOIN_REQUEST_LEN) {
        LOG_ERROR_LIMITED("invalid size of join request payload, expected 23 bytes, got: [%zu]", len);
        return -1;
    }
    frame->mic = le32(phy + len - MIC_LEN);
    frame->dev_nonce = le16(phy + 17);

    // EUIs travel least significant byte first; the formatter prints them reversed.
    int rc = bridge_utils_format_eui64(phy + 1, 8, frame->join_eui, sizeof(frame->join_eui));
    BRIDGE_ASSERT(rc == 0);
    rc = bridge_utils_format_eui64(phy + 9, 8, frame->dev_eui, sizeof(frame->dev_eui));
    BRIDGE_ASSERT(rc == 0);

    LOG_TRACE("extracted dev EUI: %s join EUI: %s", frame->dev_eui, frame->join_eui);
    if (version == 1)
        LOG_TRACE("extracted MHdr: %#x Nonce: %#x MIC: %#x, xtime: %lli", frame->mhdr, frame->dev_nonce,
                  (unsigned)frame->mic, (long long)xtime);
    else
        LOG_TRACE("extracted MHdr: %#x Nonce: %#x MIC: %#x, xtime: %lld", frame->mhdr, frame->dev_nonce,
                  (unsigned)frame->mic, (long long)xtime);
    return 0;
}

int parse_data_frame(const uint8_t *phy, size_t len, int64_t xtime, uplink_frame *frame) {
    LOG_TRACE("data uplink request received, type: [%#x]", frame->frame_type);
    frame->fopts[0] = '\0';
    frame->frm_payload[0] = '\0';

    if (len < DATA_HEADER_LEN) {
        LOG_ERROR_LIMITED("LoRa PHY of [%zu] bytes is too small for data uplink", len);
        return -1;
    }
    frame->dev_addr = le32(phy + 1);
    frame->fctrl = phy[5];
    frame->fcnt = le16(phy + 6);
    size_t fopts_len = frame->fctrl & 0x0F;
    if (len < fopts_len + DATA_HEADER_LEN) {
        LOG_ERROR_LIMITED("LoRa data packet of [%zu] bytes is too small", len);
        return -1;
    }
    frame->mic = le32(phy + len - MIC_LEN);

    // With the length check above, the FOpts may reach one byte past the PHY
    // (the decoder's zero terminator), never further.
    uint8_t fopts[FOPTS_MAX + 1] = {};
    memcpy(fopts, phy + FOPTS_OFFSET, fopts_len);

    size_t p = FOPTS_OFFSET + fopts_len;
    size_t m = len - MIC_LEN;
    if (p < m) {
        frame->fport = phy[p];
        size_t payload_len = m - p - 1;
        if (payload_len > 0) {
            int rc = bridge_utils_array_to_hexstring(phy + p + 1, payload_len, frame->frm_payload,
                                                     sizeof(frame->frm_payload));
            if (rc != 0) return rc;
            LOG_TRACE("extracted FRMPayload: %s", frame->frm_payload);
        }
    } else {
        frame->fport = -1;
    }
    LOG_TRACE("extracted FCtrl: %#x, FCnt: %#x", frame->fctrl, frame->fcnt);

    if (fopts_len > 0) {
        int rc = bridge_utils_array_to_hexstring(fopts, fopts_len, frame->fopts, sizeof(frame->fopts));
        if (rc != 0) return rc;
    }
    LOG_TRACE("extracted FOpts: %s MHdr: %#x DevAddr: %#x, MIC: %#x, xtime: %lld", frame->fopts, frame->mhdr,
              (unsigned)frame->dev_addr, (unsigned)frame->mic, (long long)xtime);
    return 0;
}

} // namespace

int bridge_translate_parse_uplink_phy(const uint8_t *phy, size_t len, int64_t xtime, uint32_t version,
                                      uplink_frame *frame) {
    BRIDGE_ASSERT(phy != NULL);
    BRIDGE_ASSERT(frame != NULL);
    BRIDGE_ASSERT(len > 0);

    frame->mhdr = phy[0];
    frame->frame_type = static_cast<uint8_t>(frame->mhdr >> 5);
    switch (frame->frame_type) {
    case BRIDGE_FRAME_JOIN_REQUEST:
        return parse_join_request(phy, len, xtime, version, frame);
    case 2: // unconfirmed data up
    case 3: // unconfirmed data down
    case 4: // confirmed data up
    case 5: // confirmed data down
        return parse_data_frame(phy, len, xtime, frame);
    default:
        LOG_ERROR_LIMITED("unknown uplink packet type: [%#x]", frame->frame_type);
        return -1;
    }
}
