// Uplink translators rxpk -> jreq/updf, versions 1 and 2, with the LoRaWAN frame parser they
// share (frames built by hand from the LoRaWAN frame layout).
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "common/base64.h"
#include "common/bridge_json_helpers.h"
#include "converter/data/bridge_translator.h"
#include "support/test_support.h"

namespace {

using bytes = std::vector<uint8_t>;

// join request 00 | JoinEUI 01..08 | DevEUI 11..18 | DevNonce 34 12 | MIC AA BB CC DD
const std::string JOIN = "AAECAwQFBgcIERITFBUWFxg0Eqq7zN0=";
// unconfirmed up: DevAddr 26011BDA, FCtrl 0x83 (ADR, FOpts 02 03 07), FCnt 0x0102, FPort 10, 01020304, MIC 11223344
const std::string UPDF = "QNobASaDAgECAwcKAQIDBBEiM0Q=";

// Translates one rxpk into an object holding {"keep":1}; returns the result code and that object.
std::pair<int, std::string> translate(uint32_t version, const std::string &rxpk_json) {
    bridge_bstn_xtime_set_base(static_cast<int64_t>((0x2Aull << 48) | 1000000)); // synchronised at count 1000000
    bridge_json_ptr rxpk(json_tokener_parse(rxpk_json.c_str())), out(json_tokener_parse(R"({"keep":1})"));
    bridge_translate_msg from{};
    from.version = version;
    int rc = version == 1 ? bridge_translate_uplink_semtech_v1_to_bstn_v1(&from, rxpk.get(), out.get())
                          : bridge_translate_uplink_semtech_v2_to_bstn_v1(&from, rxpk.get(), out.get());
    return {rc, json_object_to_json_string_ext(out.get(), JSON_C_TO_STRING_PLAIN | JSON_C_TO_STRING_NOSLASHESCAPE)};
}

std::string b64(const bytes &phy) {
    std::string out(static_cast<size_t>(Base64encode_len(static_cast<int>(phy.size()))), '\0');
    Base64encode(out.data(), phy.data(), static_cast<int>(phy.size()));
    return out.c_str();
}

// One rxpk as both versions send it (version 1 reads its signal from rsig, and has no tmms).
std::string rx(const std::string &data, const std::string &extra = "") {
    return R"({"time":"2024-05-01T10:00:00.000000Z","tmms":1398600000123,"tmst":1500000,"chan":2,"rfch":0,)"
           R"("freq":868.5,"stat":1,"modu":"LORA","datr":"SF9BW125","codr":"4/5","rssi":-97,"lsnr":-7.26,)"
           R"("size":20,"data":")" + data + "\"" + extra + "}";
}

// Each row: one change to a well-formed packet; the expected part of the output, or nullptr
// when the packet must be refused with the output untouched.
TEST(TranslatorUplink, PacketsAndFrames) {
    std::string rsig32 = ",\"rsig\":[";
    for (int i = 0; i < 32; i++)
        rsig32 += R"({"ant":0,"chan":1,"rssic":)" + std::to_string(-1 - i) + R"(,"lsnr":0.5},)";
    const std::string rsig33 = rsig32 + R"({"ant":0,"chan":1,"rssic":-1,"lsnr":1}])";
    rsig32.back() = ']';
    bytes largest = {0x40, 1, 2, 3, 4, 0x00, 0, 0, 0x01}, fopts15 = {0x40, 1, 0, 0, 0, 0x0F, 2, 0};
    while (largest.size() < 255) largest.push_back(static_cast<uint8_t>(largest.size()));
    for (uint8_t b = 1; b <= 14; b++) fopts15.push_back(b);
    const std::string t127 = ",\"time\":\"" + std::string(127, 't') + "\"";
    const std::string t128 = t127.substr(0, 9) + 't' + t127.substr(9);
    std::string no_tmst = rx(UPDF);
    no_tmst.erase(no_tmst.find(R"("tmst")"), 15);
    struct {
        const char *fault;
        uint32_t version;
        std::string rxpk;
        const char *expect; // nullptr: refused
    } rows[] = {
        {"v1 join request: key order, EUI byte order, signed MIC, not the first rsig element", 1,
         rx(JOIN, R"(,"rsig":[{"ant":0,"chan":3,"rssic":-42,"lsnr":-7.26},{"ant":1,"chan":3,"rssic":-50,"lsnr":1}])"),
         R"({"keep":1,"DR":"SF9BW125","Freq":868500000,"upinfo":{"rctx":0,"xtime":11821949023347552,"gpstime":0,)"
         R"("rssi":-42,"snr":-7.3,"chan":3},"msgtype":"jreq","MHdr":0,"JoinEui":"08-07-06-05-04-03-02-01",)"
         R"("DevEui":"18-17-16-15-14-13-12-11","DevNonce":4660,"MIC":-573785174})"},
        {"v2 data frame: gpstime not from tmms, FOpts, port or payload wrong", 2, rx(UPDF),
         R"("xtime":11821949023347552,"gpstime":1398600000123000,"rssi":-97,"snr":-7.3,"chan":2},"msgtype":"updf",)"
         R"("MHdr":64,"DevAddr":637606874,"FCtrl":131,"FCnt":258,"FOpts":"020307","FPort":10,"FRMPayload":"01020304",)"
         R"("MIC":1144201745})"},
        {"v1 without rsig refused", 1, rx(UPDF), R"("gpstime":0,"rssi":0,"snr":0.0,"chan":0})"},
        {"v1 with 32 rsig elements refused", 1, rx(UPDF, rsig32), R"("rssi":-1,"snr":0.5,)"},
        {"v1 with 33 rsig elements accepted", 1, rx(UPDF, rsig33), nullptr},
        {"v1 rsig element without lsnr accepted", 1, rx(UPDF, R"(,"rsig":[{"ant":1,"chan":0,"rssic":-1}])"), nullptr},
        {"v1 rsig object accepted as an array", 1, rx(UPDF, R"(,"rsig":{"ant":0})"), nullptr},
        {"time of 127 characters refused", 2, rx(UPDF, t127), R"("msgtype":"updf")"},
        {"time of 128 characters overflows", 2, rx(UPDF, t128), nullptr},
        {"CRC-error packet or size mismatch refused", 2, rx(UPDF, R"(,"stat":-1,"size":99)"), R"("msgtype":"updf")"},
        {"FSK datr number refused", 2, rx(UPDF, R"(,"datr":50000)"), R"("DR":"50000",)"},
        {"datr of 16 characters overflows", 2, rx(UPDF, R"(,"datr":"SF12BW125XXXXXXX")"), nullptr},
        {"missing tmst accepted", 2, no_tmst, nullptr},
        {"tmst text accepted as 0", 2, rx(UPDF, R"(,"tmst":"soon")"), nullptr},
        {"infinite freq overflows Freq", 2, rx(UPDF, R"(,"freq":1e400)"), nullptr},
        {"lsnr not finite printed", 2, rx(UPDF, R"(,"lsnr":-Infinity)"), nullptr},
        {"rxpk not an object", 2, "[1,2,3]", nullptr},
        {"text after the Base64 padding refused", 2, rx(JOIN + " junk!"), R"("msgtype":"jreq")"},
        {"341 Base64 characters overflow the PHY", 2, rx(std::string(341, 'A')), nullptr},
        {"4 Base64 characters: PHY too small", 2, rx("QNob"), nullptr},
        {"12 bytes: MIC taken as port", 2, rx(b64({0x40, 4, 3, 2, 1, 0, 1, 0, 0xA1, 0xA2, 0xA3, 4})),
         R"("DevAddr":16909060,"FCtrl":0,"FCnt":1,"FOpts":"","FPort":-1,"FRMPayload":"","MIC":77832865})"},
        {"13 bytes: port lost", 2, rx(b64({0x40, 4, 3, 2, 1, 0, 1, 0, 7, 0xA1, 0xA2, 0xA3, 4})),
         R"("FOpts":"","FPort":7,"FRMPayload":"","MIC":77832865})"},
        {"FOpts taken as port", 2, rx(b64({0x40, 4, 3, 2, 1, 0x83, 5, 0, 2, 3, 7, 1, 2, 3, 4})),
         R"("FCtrl":131,"FCnt":5,"FOpts":"020307","FPort":-1,"FRMPayload":"","MIC":67305985})"},
        {"confirmed up: DevAddr or MIC unsigned, port 0 lost", 2,
         rx(b64({0x80, 0x78, 0x56, 0x34, 0xF2, 0x80, 7, 0, 0, 0xA1, 0xB2, 0xDE, 0xAD, 0xBE, 0xEF})),
         R"("MHdr":128,"DevAddr":-231451016,"FCtrl":128,"FCnt":7,"FOpts":"","FPort":0,"FRMPayload":"a1b2",)"
         R"("MIC":-272716322})"},
        {"downlink frame type refused", 2, rx(b64({0xA0, 1, 2, 3, 4, 0, 9, 0, 0x33, 0xFF, 1, 2, 3, 4})),
         R"("MHdr":160,"DevAddr":67305985,"FCtrl":0,"FCnt":9,"FOpts":"","FPort":51,"FRMPayload":"ff",)"},
        {"7-byte frame read past the decoder's terminator", 2, rx(b64({0x40, 1, 2, 3, 4, 0, 1})),
         R"("FCnt":1,"FOpts":"","FPort":-1,"FRMPayload":"","MIC":16778243})"},
        {"15 FOpts bytes in 22 bytes overrun", 2, rx(b64(fopts15)),
         R"("FCtrl":15,"FCnt":2,"FOpts":"0102030405060708090a0b0c0d0e00","FPort":-1,"FRMPayload":"","MIC":235736075})"},
        {"255-byte frame cut", 2, rx(b64(largest)), R"("FPort":1,"FRMPayload":"090a0b0c)"},
        {"join request of 22 bytes accepted", 2, rx(b64(bytes(22, 0))), nullptr},
        {"join request of 24 bytes accepted", 2, rx(b64(bytes(24, 0))), nullptr},
        {"join accept accepted", 2, rx(b64(bytes(17, 0x20))), nullptr},
        {"rejoin request accepted", 2, rx(b64(bytes(19, 0xC0))), nullptr},
        {"proprietary frame accepted", 2, rx(b64(bytes(12, 0xE0))), nullptr},
        {"6-byte data frame accepted", 2, rx(b64({0x40, 1, 2, 3, 4, 0})), nullptr},
        {"FOpts longer than the frame accepted", 2, rx(b64({0x40, 1, 2, 3, 4, 5, 0, 0, 1, 2, 3})), nullptr},
    };
    for (const auto &r : rows) {
        auto [rc, out] = translate(r.version, r.rxpk);
        if (r.expect == nullptr) EXPECT_TRUE(rc < 0 && out == R"({"keep":1})") << r.fault << ": " << rc << " " << out;
        else EXPECT_TRUE(rc == 0 && kes_test::contains(out, r.expect)) << r.fault << ": " << rc << " " << out;
    }
}

} // namespace
