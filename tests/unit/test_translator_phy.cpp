// LoRaWAN uplink PHYPayload parsing, with frames built by hand from the
// LoRaWAN frame layout.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include <cstring>
#include "converter/data/bridge_translator.h"

namespace {

using bytes = std::vector<uint8_t>;

struct Parsed {
    int rc;
    uplink_frame frame;
};

// The parser may read one byte past the PHY: give it exactly that (a heap
// buffer of len + 1 bytes ending in the terminator) so that ASan catches any
// read further out.
Parsed parse(const bytes &phy, uint32_t version = 2, int64_t xtime = 0x2A000012345678ll) {
    std::vector<uint8_t> buf(phy);
    buf.push_back(0);
    Parsed p{};
    memset(&p.frame, 0x5A, sizeof(p.frame));
    p.rc = bridge_translate_parse_uplink_phy(buf.data(), phy.size(), xtime, version, &p.frame);
    return p;
}

const bytes JOIN_REQUEST = {0x00, 0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x07, 0x08, 0x11, 0x12, 0x13,
                            0x14, 0x15, 0x16, 0x17, 0x18, 0x34, 0x12, 0xAA, 0xBB, 0xCC, 0xDD};

TEST(TranslatorPhy, JoinRequestFields) {
    Parsed p = parse(JOIN_REQUEST);
    ASSERT_EQ(p.rc, 0);
    EXPECT_EQ(p.frame.frame_type, BRIDGE_FRAME_JOIN_REQUEST);
    EXPECT_EQ(p.frame.mhdr, 0x00);
    EXPECT_STREQ(p.frame.join_eui, "08-07-06-05-04-03-02-01");
    EXPECT_STREQ(p.frame.dev_eui, "18-17-16-15-14-13-12-11");
    EXPECT_EQ(p.frame.dev_nonce, 0x1234);
    EXPECT_EQ(p.frame.mic, -0x22334456);
}

TEST(TranslatorPhy, RejectedFrames) {
    bytes join22(JOIN_REQUEST.begin(), JOIN_REQUEST.end() - 1);
    bytes join24(JOIN_REQUEST);
    join24.push_back(0xEE);
    struct {
        const char *what;
        bytes phy;
    } rows[] = {
        {"join request of 22 bytes", join22},
        {"join request of 24 bytes", join24},
        {"join accept", bytes(17, 0x20)},
        {"rejoin request", bytes(19, 0xC0)},
        {"proprietary", bytes(12, 0xE0)},
        {"data frame of 6 bytes", {0x40, 1, 2, 3, 4, 0x00}},
        {"data frame of 3 bytes", {0x40, 1, 2}},
        {"FOptsLen 5 in 11 bytes", {0x40, 1, 2, 3, 4, 0x05, 0, 0, 1, 2, 3}},
    };
    for (const auto &r : rows) {
        SCOPED_TRACE(r.what);
        Parsed p = parse(r.phy);
        EXPECT_EQ(p.rc, -1);
    }
}

TEST(TranslatorPhy, DataFrames) {
    struct {
        const char *what;
        bytes phy;
        uint8_t type;
        int32_t dev_addr;
        uint8_t fctrl;
        uint16_t fcnt;
        const char *fopts;
        int64_t fport;
        const char *payload;
        int32_t mic;
    } rows[] = {
        {"12 bytes, no FOpts: no port", {0x40, 0x04, 0x03, 0x02, 0x01, 0x00, 0x01, 0x00, 0xA1, 0xA2, 0xA3, 0x04},
         2, 0x01020304, 0x00, 1, "", -1, "", 0x04A3A2A1},
        {"13 bytes: port, empty payload",
         {0x40, 0x04, 0x03, 0x02, 0x01, 0x00, 0x01, 0x00, 0x07, 0xA1, 0xA2, 0xA3, 0x04}, 2, 0x01020304, 0x00, 1, "",
         7, "", 0x04A3A2A1},
        {"FCtrl 0x83 in 15 bytes: FOpts only",
         {0x40, 0x04, 0x03, 0x02, 0x01, 0x83, 0x05, 0x00, 0x02, 0x03, 0x07, 1, 2, 3, 4}, 2, 0x01020304, 0x83, 5,
         "020307", -1, "", 0x04030201},
        {"unconfirmed up with FOpts, port and payload",
         {0x40, 0xDA, 0x1B, 0x01, 0x26, 0x83, 0x02, 0x01, 0x02, 0x03, 0x07, 0x0A, 1, 2, 3, 4, 0x11, 0x22, 0x33,
          0x44},
         2, 0x26011BDA, 0x83, 0x0102, "020307", 10, "01020304", 0x44332211},
        {"confirmed up, port 0 MAC commands",
         {0x80, 0x78, 0x56, 0x34, 0xF2, 0x80, 0x07, 0x00, 0x00, 0xA1, 0xB2, 0xC3, 0xD4, 0xE5, 0xF6, 0xDE, 0xAD,
          0xBE, 0xEF},
         4, -0x0DCBA988, 0x80, 7, "", 0, "a1b2c3d4e5f6", static_cast<int32_t>(0xEFBEADDE)},
        {"unconfirmed down (type 3) parsed as data", {0x60, 1, 2, 3, 4, 0, 0, 0, 1, 2, 3, 4}, 3, 0x04030201, 0, 0,
         "", -1, "", 0x04030201},
        {"confirmed down (type 5) with port", {0xA0, 1, 2, 3, 4, 0, 9, 0, 0x33, 0xFF, 1, 2, 3, 4}, 5, 0x04030201, 0,
         9, "", 0x33, "ff", 0x04030201},
        {"smallest data frame, 7 bytes: FCnt high byte is the terminator", {0x40, 1, 2, 3, 4, 0, 1}, 2, 0x04030201, 0, 1, "", -1, "",
         0x01000403},
    };
    for (const auto &r : rows) {
        SCOPED_TRACE(r.what);
        Parsed p = parse(r.phy);
        ASSERT_EQ(p.rc, 0);
        EXPECT_EQ(p.frame.frame_type, r.type);
        EXPECT_EQ(p.frame.mhdr, r.phy[0]);
        EXPECT_EQ(p.frame.dev_addr, r.dev_addr);
        EXPECT_EQ(p.frame.fctrl, r.fctrl);
        EXPECT_EQ(p.frame.fcnt, r.fcnt);
        EXPECT_STREQ(p.frame.fopts, r.fopts);
        EXPECT_EQ(p.frame.fport, r.fport);
        EXPECT_STREQ(p.frame.frm_payload, r.payload);
        EXPECT_EQ(p.frame.mic, r.mic);
    }
}

// FOptsLen 15 in a 22-byte frame passes the length check; the FOpts then run
// into the MIC and end on the terminator after the PHY.
TEST(TranslatorPhy, FOptsReachingTheTerminator) {
    bytes phy = {0x40, 0x01, 0x00, 0x00, 0x00, 0x0F, 0x02, 0x00};
    for (uint8_t b = 1; b <= 14; b++) phy.push_back(b); // PHY[8..21]
    ASSERT_EQ(phy.size(), 22u);
    Parsed p = parse(phy);
    ASSERT_EQ(p.rc, 0);
    EXPECT_STREQ(p.frame.fopts, "0102030405060708090a0b0c0d0e00");
    EXPECT_EQ(p.frame.fport, -1);
    EXPECT_STREQ(p.frame.frm_payload, "");
    EXPECT_EQ(p.frame.mic, 0x0E0D0C0B);
}

// The largest PHY (255 bytes) gives the longest payload text (242 bytes).
TEST(TranslatorPhy, LargestDataFrame) {
    bytes phy = {0x40, 1, 2, 3, 4, 0x00, 0, 0, 0x01};
    while (phy.size() < 255) phy.push_back(static_cast<uint8_t>(phy.size()));
    Parsed p = parse(phy);
    ASSERT_EQ(p.rc, 0);
    EXPECT_EQ(p.frame.fport, 1);
    EXPECT_EQ(strlen(p.frame.frm_payload), 484u);
    EXPECT_EQ(std::string(p.frame.frm_payload).substr(0, 6), "090a0b");
}

} // namespace
