// Uplink translators rxpk -> jreq/updf, versions 1 and 2, with the LoRaWAN frame parser they
// share (frames built by hand from the LoRaWAN frame layout).
#include <gtest/gtest.h>

#include <ctime>
#include <string>
#include <vector>

#include "common/base64.h"
#include "common/bridge_json_helpers.h"
#include "common/bridge_utils.h"
#include "converter/data/bridge_translator.h"

namespace {

constexpr uint64_t EPOCH = 0x2Aull << 48;     // 11821949021847552
constexpr uint64_t SYNCED = EPOCH | 1000000;  // last count 1000000

// Hand-built PHYs (see the LoRaWAN frame layout):
// join request 00 | JoinEUI 01..08 | DevEUI 11..18 | DevNonce 34 12 | MIC AA BB CC DD
const char *JOIN_B64 = "AAECAwQFBgcIERITFBUWFxg0Eqq7zN0=";
// unconfirmed up: DevAddr 26011BDA, FCtrl 0x83 (ADR, 3 FOpts: LinkCheckReq,
// LinkADRAns 07), FCnt 0x0102, FPort 10, payload 01020304, MIC 11223344
const char *UPDF_B64 = "QNobASaDAgECAwcKAQIDBBEiM0Q=";

struct Result {
    int rc;
    std::string out;
};

std::string plain(json_object *o) {
    return json_object_to_json_string_ext(o, JSON_C_TO_STRING_PLAIN | JSON_C_TO_STRING_NOSLASHESCAPE);
}

Result translate(uint32_t version, const std::string &rxpk_json, uint64_t base = SYNCED,
                 const char *initial_out = "{}") {
    bridge_bstn_xtime_set_base(static_cast<int64_t>(base));
    bridge_json_ptr rxpk(json_tokener_parse(rxpk_json.c_str()));
    EXPECT_NE(rxpk, nullptr) << rxpk_json;
    bridge_json_ptr out(json_tokener_parse(initial_out));
    bridge_translate_msg from{};
    from.version = version;
    int rc = version == 1 ? bridge_translate_uplink_semtech_v1_to_bstn_v1(&from, rxpk.get(), out.get())
                          : bridge_translate_uplink_semtech_v2_to_bstn_v1(&from, rxpk.get(), out.get());
    return {rc, plain(out.get())};
}

std::string b64(const std::vector<uint8_t> &phy) {
    std::string out(static_cast<size_t>(Base64encode_len(static_cast<int>(phy.size()))), '\0');
    Base64encode(out.data(), phy.data(), static_cast<int>(phy.size()));
    return out.c_str();
}

bool has(const std::string &text, const std::string &part) {
    return text.find(part) != std::string::npos;
}

// rxtime is the bridge's clock: check it is now, then pin it for byte-exact comparison.
std::string pin_rxtime(const std::string &out_json, time_t before, time_t after) {
    bridge_json_ptr out(json_tokener_parse(out_json.c_str()));
    json_object *upinfo = nullptr, *rxtime = nullptr;
    EXPECT_TRUE(json_object_object_get_ex(out.get(), "upinfo", &upinfo));
    EXPECT_TRUE(json_object_object_get_ex(upinfo, "rxtime", &rxtime));
    int64_t t = json_object_get_int64(rxtime);
    EXPECT_GE(t, before);
    EXPECT_LE(t, after);
    json_object_object_add(upinfo, "rxtime", json_object_new_int64(1700000000));
    return plain(out.get());
}

std::string v1_rxpk(const std::string &data, const std::string &extra = "") {
    return R"({"time":"2024-05-01T10:00:00.000000Z","tmst":1500000,"rfch":0,"freq":868.1,"stat":1,)"
           R"("modu":"LORA","datr":"SF7BW125","size":23,"codr":"4/5","data":")" +
           data + "\"" + extra + "}";
}

std::string v2_rxpk(const std::string &data, const std::string &extra = "") {
    return R"({"time":"2024-05-01T10:00:00.000000Z","tmms":1398600000123,"tmst":1500000,"chan":2,"rfch":0,)"
           R"("freq":868.5,"stat":1,"modu":"LORA","datr":"SF9BW125","codr":"4/5","rssi":-97,"lsnr":-7.26,)"
           R"("size":20,"data":")" +
           data + "\"" + extra + "}";
}

const std::string RSIG = R"(,"rsig":[{"ant":0,"chan":3,"rssic":-42,"lsnr":-7.26},{"ant":1,"chan":3,"rssic":-50,"lsnr":1.0}])";

TEST(TranslatorUplink, ByteExactMessages) {
    const char *v1_upinfo = R"({"DR":"SF7BW125","Freq":868100000,"upinfo":{"rctx":0,"xtime":11821949023347552,)"
                            R"("gpstime":0,"rssi":-42,"snr":-7.3,"chan":3},)";
    struct {
        const char *fault;
        uint32_t version;
        std::string rxpk;
        std::string out;
    } rows[] = {
        {"v1 join request: EUI byte order, signed MIC, key order", 1, v1_rxpk(JOIN_B64, RSIG),
         std::string(v1_upinfo) + R"("msgtype":"jreq","MHdr":0,"JoinEui":"08-07-06-05-04-03-02-01",)"
                                  R"("DevEui":"18-17-16-15-14-13-12-11","DevNonce":4660,"MIC":-573785174})"},
        {"v1 data frame: FOpts, port, payload, first rsig element", 1, v1_rxpk(UPDF_B64, RSIG),
         std::string(v1_upinfo) + R"("msgtype":"updf","MHdr":64,"DevAddr":637606874,"FCtrl":131,"FCnt":258,)"
                                  R"("FOpts":"020307","FPort":10,"FRMPayload":"01020304","MIC":1144201745})"},
        {"v2 data frame: rxtime before xtime, gpstime from tmms", 2, v2_rxpk(UPDF_B64),
         R"({"DR":"SF9BW125","Freq":868500000,"upinfo":{"rctx":0,"rxtime":1700000000,)"
         R"("xtime":11821949023347552,"gpstime":1398600000123000,"rssi":-97,"snr":-7.3,"chan":2},)"
         R"("msgtype":"updf","MHdr":64,"DevAddr":637606874,"FCtrl":131,"FCnt":258,"FOpts":"020307",)"
         R"("FPort":10,"FRMPayload":"01020304","MIC":1144201745})"},
        {"v2 join request: xtime before rxtime", 2, v2_rxpk(JOIN_B64),
         R"({"DR":"SF9BW125","Freq":868500000,"upinfo":{"rctx":0,"xtime":11821949023347552,)"
         R"("rxtime":1700000000,"gpstime":1398600000123000,"rssi":-97,"snr":-7.3,"chan":2},)"
         R"("msgtype":"jreq","MHdr":0,"JoinEui":"08-07-06-05-04-03-02-01",)"
         R"("DevEui":"18-17-16-15-14-13-12-11","DevNonce":4660,"MIC":-573785174})"},
    };
    for (const auto &r : rows) {
        SCOPED_TRACE(r.fault);
        const time_t before = time(NULL);
        Result res = translate(r.version, r.rxpk);
        ASSERT_EQ(res.rc, 0);
        EXPECT_EQ(r.version == 2 ? pin_rxtime(res.out, before, time(NULL)) : res.out, r.out);
    }
}

// Each row: one change to a well-formed packet; the expected part of the output, or nullptr
// when the packet must be refused with `out` untouched.
TEST(TranslatorUplink, PacketsAndFrames) {
    using bytes = std::vector<uint8_t>;
    std::string rsig32 = ",\"rsig\":[";
    for (int i = 0; i < 32; i++)
        rsig32 += std::string(i ? "," : "") + R"({"ant":0,"chan":1,"rssic":)" + std::to_string(-1 - i) +
                  R"(,"lsnr":0.5})";
    const std::string rsig33 = rsig32 + R"(,{"ant":0,"chan":1,"rssic":-1,"lsnr":1}])";
    rsig32 += "]";
    bytes join22(23, 0), largest = {0x40, 1, 2, 3, 4, 0x00, 0, 0, 0x01}, fopts15 = {0x40, 1, 0, 0, 0, 0x0F, 2, 0};
    join22.pop_back();
    while (largest.size() < 255) largest.push_back(static_cast<uint8_t>(largest.size()));
    for (uint8_t b = 1; b <= 14; b++) fopts15.push_back(b);
    struct {
        const char *fault;
        uint32_t version;
        std::string rxpk;
        const char *expect; // nullptr: refused
        uint64_t base = SYNCED;
    } rows[] = {
        // rxpk members
        {"uplink refused before a stat count (stock forwarder)", 2, v2_rxpk(UPDF_B64), R"("xtime":11821949023347552,)",
         EPOCH},
        {"v1 without rsig refused", 1, v1_rxpk(UPDF_B64), R"("gpstime":0,"rssi":0,"snr":0.0,"chan":0})"},
        {"v1 with 32 rsig elements refused", 1, v1_rxpk(UPDF_B64, rsig32), R"("rssi":-1,"snr":0.5,)"},
        {"v1 with 33 rsig elements accepted", 1, v1_rxpk(UPDF_B64, rsig33), nullptr},
        {"v1 rsig element without lsnr accepted", 1, v1_rxpk(UPDF_B64, R"(,"rsig":[{"ant":1,"chan":0,"rssic":-1}])"),
         nullptr},
        {"v1 rsig object accepted as an array", 1, v1_rxpk(UPDF_B64, R"(,"rsig":{"ant":0})"), nullptr},
        {"v2 tmms not turned into gpstime us", 2, v2_rxpk(UPDF_B64), R"("gpstime":1398600000123000,)"},
        {"time of 127 characters refused", 2, v2_rxpk(UPDF_B64, ",\"time\":\"" + std::string(127, 't') + "\""),
         R"("msgtype":"updf")"},
        {"time of 128 characters overflows", 2, v2_rxpk(UPDF_B64, ",\"time\":\"" + std::string(128, 't') + "\""),
         nullptr},
        {"CRC-error packet or size mismatch refused", 2, v2_rxpk(UPDF_B64, R"(,"stat":-1,"size":99)"),
         R"("msgtype":"updf")"},
        {"FSK datr number refused", 2, v2_rxpk(UPDF_B64, R"(,"datr":50000)"), R"("DR":"50000",)"},
        {"datr of 16 characters overflows", 2, v2_rxpk(UPDF_B64, R"(,"datr":"SF12BW125XXXXXXX")"), nullptr},
        {"missing tmst accepted", 2, R"({"chan":2,"rfch":0,"freq":868.5,"stat":1,"modu":"LORA","datr":"SF9BW125",)"
                                     R"("codr":"4/5","rssi":-97,"lsnr":-7.26,"size":20,"data":"QNob"})", nullptr},
        {"tmst text accepted as 0", 2, v2_rxpk(UPDF_B64, R"(,"tmst":"soon")"), nullptr},
        {"infinite freq overflows Freq", 2, v2_rxpk(UPDF_B64, R"(,"freq":1e400)"), nullptr},
        {"lsnr not finite printed", 2, v2_rxpk(UPDF_B64, R"(,"lsnr":-Infinity)"), nullptr},
        {"rxpk not an object", 2, "[1,2,3]", nullptr},
        // Base64 payload
        {"text after the Base64 padding refused", 2, v2_rxpk(std::string(JOIN_B64) + " junk!"), R"("msgtype":"jreq")"},
        {"341 Base64 characters overflow the PHY", 2, v2_rxpk(std::string(341, 'A')), nullptr},
        {"4 Base64 characters: PHY too small", 2, v2_rxpk("QNob"), nullptr},
        // LoRaWAN frames
        {"12 bytes: MIC taken as port", 2, v2_rxpk(b64({0x40, 4, 3, 2, 1, 0, 1, 0, 0xA1, 0xA2, 0xA3, 4})),
         R"("DevAddr":16909060,"FCtrl":0,"FCnt":1,"FOpts":"","FPort":-1,"FRMPayload":"","MIC":77832865})"},
        {"13 bytes: port lost", 2, v2_rxpk(b64({0x40, 4, 3, 2, 1, 0, 1, 0, 7, 0xA1, 0xA2, 0xA3, 4})),
         R"("FOpts":"","FPort":7,"FRMPayload":"","MIC":77832865})"},
        {"FOpts taken as port", 2, v2_rxpk(b64({0x40, 4, 3, 2, 1, 0x83, 5, 0, 2, 3, 7, 1, 2, 3, 4})),
         R"("FCtrl":131,"FCnt":5,"FOpts":"020307","FPort":-1,"FRMPayload":"","MIC":67305985})"},
        {"confirmed up: DevAddr or MIC unsigned, port 0 lost", 2,
         v2_rxpk(b64({0x80, 0x78, 0x56, 0x34, 0xF2, 0x80, 7, 0, 0, 0xA1, 0xB2, 0xC3, 0xD4, 0xE5, 0xF6, 0xDE, 0xAD,
                      0xBE, 0xEF})),
         R"("MHdr":128,"DevAddr":-231451016,"FCtrl":128,"FCnt":7,"FOpts":"","FPort":0,"FRMPayload":"a1b2c3d4e5f6",)"
         R"("MIC":-272716322})"},
        {"downlink frame type refused", 2, v2_rxpk(b64({0xA0, 1, 2, 3, 4, 0, 9, 0, 0x33, 0xFF, 1, 2, 3, 4})),
         R"("MHdr":160,"DevAddr":67305985,"FCtrl":0,"FCnt":9,"FOpts":"","FPort":51,"FRMPayload":"ff",)"},
        {"7-byte frame read past the decoder's terminator", 2, v2_rxpk(b64({0x40, 1, 2, 3, 4, 0, 1})),
         R"("FCnt":1,"FOpts":"","FPort":-1,"FRMPayload":"","MIC":16778243})"},
        {"15 FOpts bytes in 22 bytes overrun", 2, v2_rxpk(b64(fopts15)),
         R"("FCtrl":15,"FCnt":2,"FOpts":"0102030405060708090a0b0c0d0e00","FPort":-1,"FRMPayload":"","MIC":235736075})"},
        {"255-byte frame cut", 2, v2_rxpk(b64(largest)), R"("FPort":1,"FRMPayload":"090a0b0c)"},
        {"join request of 22 bytes accepted", 2, v2_rxpk(b64(join22)), nullptr},
        {"join request of 24 bytes accepted", 2, v2_rxpk(b64(bytes(24, 0))), nullptr},
        {"join accept accepted", 2, v2_rxpk(b64(bytes(17, 0x20))), nullptr},
        {"rejoin request accepted", 2, v2_rxpk(b64(bytes(19, 0xC0))), nullptr},
        {"proprietary frame accepted", 2, v2_rxpk(b64(bytes(12, 0xE0))), nullptr},
        {"6-byte data frame accepted", 2, v2_rxpk(b64({0x40, 1, 2, 3, 4, 0})), nullptr},
        {"FOpts longer than the frame accepted", 2, v2_rxpk(b64({0x40, 1, 2, 3, 4, 5, 0, 0, 1, 2, 3})), nullptr},
    };
    for (const auto &r : rows) {
        SCOPED_TRACE(r.fault);
        Result res = translate(r.version, r.rxpk, r.base, R"({"keep":1})");
        if (r.expect == nullptr) {
            EXPECT_LT(res.rc, 0);
            EXPECT_EQ(res.out, R"({"keep":1})");
        } else {
            EXPECT_EQ(res.rc, 0);
            EXPECT_TRUE(has(res.out, r.expect)) << res.out;
        }
    }
}

} // namespace
