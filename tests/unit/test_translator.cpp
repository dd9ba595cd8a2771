// The translators: the concentrator time base (pure arithmetic, the local clock passed in), rxpk ->
// jreq/updf in versions 1 and 2 with the LoRaWAN frame parser they share (frames built by hand from the
// LoRaWAN frame layout), and dnmsg -> txpk (the LNS client has already rewritten DR and chosen Freq).
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "common/base64.h"
#include "common/bridge_json_helpers.h"
#include "converter/data/bridge_translator.h"
#include "support/test_support.h"

namespace {

constexpr uint64_t EPOCH = 0x2Aull << 48, NEXT = 0x2Bull << 48, WRAP = 1ull << 32, S = 1000000, H3 = 3 * 3600 * S;
constexpr uint64_t TOP = BRIDGE_XTIME_COUNTER_MASK;
constexpr auto STEP = BRIDGE_XTIME_IN_STEP, JUMP = BRIDGE_XTIME_JUMPED;

// Each row: state before, counter reported (low 32 bits count), local clock; the xtime the
// observation yields (also the base afterwards unless `base_after` is set) and its kind.
TEST(TranslatorXtime, ObserveAndFirstEpoch) {
    struct {
        const char *fault;
        bridge_xtime_state before;
        uint64_t counter, now_us, xtime;
        bridge_xtime_change change;
        uint64_t base_after = 0;
    } rows[] = {
        {"first observation does not synchronise", {EPOCH, 0, false}, 1000, 5, EPOCH | 1000, BRIDGE_XTIME_SYNCED},
        {"xtime no longer base + counter delta", {EPOCH | S, 0, true}, S + S / 2, S / 2, EPOCH | (S + S / 2), STEP},
        {"older packet moves the base back or jumps", {EPOCH | S, 0, true}, S - 100000, 0, EPOCH | (S - 100000), STEP,
         EPOCH | S},
        {"packet 9 s behind the clock starts a new epoch", {EPOCH | S, 0, true}, S, 9 * S, EPOCH | S, STEP},
        {"wrap not carried into bit 32, or missed by a counter ahead of the clock", {EPOCH | (WRAP - 256), 0, true}, 5,
         250, EPOCH + WRAP + 5, STEP},
        {"carry of earlier wraps lost", {EPOCH + 2 * WRAP + 100, 7, true}, 200, 107, EPOCH + 2 * WRAP + 200, STEP},
        {"3 h of silence in the wrong 2^32 period", {EPOCH | 1000, 0, true}, (1000 + H3) % WRAP, H3,
         EPOCH + 1000 + H3, STEP},
        {"3 h of silence with 2 s drift", {EPOCH | 1000, 0, true}, (1000 + H3 + 2 * S) % WRAP, H3,
         EPOCH + 1000 + H3 + 2 * S, STEP},
        {"forwarder restart keeps the old epoch", {EPOCH | 3000000000u, 0, true}, 2 * S, 60 * S, NEXT | 2 * S, JUMP},
        {"counter 6 s ahead taken as in step", {EPOCH | S, 0, true}, 7 * S, 0, NEXT | 7 * S, JUMP},
        {"counter 11 s behind taken as in step", {EPOCH | 20 * S, 0, true}, 9 * S, 0, NEXT | 9 * S, JUMP},
        {"epoch after 255 is 0", {0xFFull << 48 | 1000, 0, true}, 500, 3600 * S, 1ull << 48 | 500, JUMP},
        {"48-bit overflow not a new epoch", {EPOCH | (TOP - 100), 0, true}, (TOP + 900) % WRAP, 1000,
         NEXT | ((TOP + 900) % WRAP), JUMP},
    };
    for (const auto &r : rows) {
        SCOPED_TRACE(r.fault);
        bridge_xtime_state s = r.before;
        const bridge_xtime_step step = bridge_xtime_observe(&s, static_cast<int64_t>(r.counter), r.now_us);
        EXPECT_EQ(static_cast<uint64_t>(step.xtime), r.xtime);
        EXPECT_EQ(step.change, r.change);
        EXPECT_EQ(s.base, r.base_after ? r.base_after : r.xtime);
        EXPECT_TRUE(s.synced);
    }
    const struct { int draw; uint32_t previous; uint64_t base; const char *fault; } starts[] = {
        {0, 0, 1ull << 48, "a draw of 0 gives epoch 0 (xtime 0 is the error value)"},
        {0x12345, 0, 0x45ull << 48, "bits above the low 8 leak into the epoch"},
        {0x2A, 0x2A, 0x2Bull << 48, "a restart draws the epoch of the run before it"},
        {0, 1, 2ull << 48, "a draw of 0 after epoch 1 repeats it"},
        {0xFF, 0xFF, 1ull << 48, "epoch after 255 is 0"},
    };
    for (const auto &s : starts) EXPECT_EQ(bridge_xtime_initial_base(s.draw, s.previous), s.base) << s.fault;
}

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

std::pair<int, std::string> downlink(const std::string &dnmsg_json, uint32_t semtech_version = 2) {
    bridge_json_ptr dnmsg(json_tokener_parse(dnmsg_json.c_str())), txpk(json_object_new_object());
    uint32_t token = 0;
    int rc = semtech_version == 2 ? bridge_translate_downlink_bstn_v1_to_semtech_v2(dnmsg.get(), txpk.get(), &token)
                                  : bridge_translate_downlink_bstn_v1_to_semtech_v1(dnmsg.get(), txpk.get(), &token);
    return {rc, json_object_to_json_string_ext(txpk.get(), JSON_C_TO_STRING_PLAIN | JSON_C_TO_STRING_NOSLASHESCAPE)};
}

std::string dnmsg(const std::string &members, int dc = 0, const std::string &pdu = "60DA1B012600010001D2F5AB9C") {
    return R"({"msgtype":"dnmsg","DevEui":"00-00-00-00-00-00-00-01","dC":)" + std::to_string(dc) +
           R"(,"diid":17,"pdu":")" + pdu + R"(","DR":"SF9BW125","Freq":869525000,"priority":0,"rctx":0)" + members +
           "}";
}

// Each row: a dnmsg; all of the txpk or the part that matters, or "" when the dnmsg must be
// refused with nothing written into the txpk.
TEST(TranslatorDownlink, Txpk) {
    const std::string head = R"({"imme":false,"freq":869.525000,"rfch":0,"powe":27,"modu":"LORA","datr":"SF9BW125",)"
                             R"("codr":"4/5","ipol":true,"size":13,"data":"YNobASYAAQAB0vWrnA==")";
    const std::string head_c = R"({"imme":true)" + head.substr(13), rx2 = R"(,"RX2DR":0,"RX2Freq":869525000)";
    const std::string xt = R"(,"xtime":)" + std::to_string((0x2Aull << 48) + (3ull << 32) + 1000);
    struct {
        const char *fault;
        std::string dnmsg, txpk;
        uint32_t semtech_version = 2;
    } rows[] = {
        {"class A: key order, freq text, Base64, delay, epoch or wraps in tmst",
         dnmsg(xt + R"(,"RX1DR":3,"MuxTime":1.5)"), head + R"(,"tmst":1001000})"},
        {"class A RX2 not one second after RX1", dnmsg(xt + rx2), head + R"(,"tmst":2001000})"},
        {"class A with RX2DR alone taken as RX2", dnmsg(xt + R"(,"RX2DR":0)"), head + R"(,"tmst":1001000})"},
        {"RxDelay taken as microseconds", dnmsg(xt + R"(,"RxDelay":5)"), head + R"(,"tmst":5001000})"},
        {"RxDelay 0 sent at once instead of after 1 s", dnmsg(xt + R"(,"RxDelay":0)"), head + R"(,"tmst":1001000})"},
        {"class A RX2 with RxDelay 0 disagrees with dntxed", dnmsg(xt + R"(,"RxDelay":0)" + rx2),
         head + R"(,"tmst":2001000})"},
        {"class B gpstime not truncated to ms", dnmsg(R"(,"gpstime":1234567890999)", 1),
         head + R"(,"tmms":1234567890})"},
        {"class C not immediate, or RX2 second added", dnmsg(rx2, 2), head_c + R"(,"tmst":1000000})"},
        {"empty pdu refused", dnmsg(xt, 0, ""), R"("size":0,"data":"",)"},
        {"upper-case hex refused", dnmsg(xt, 0, "A0FF"), R"("size":2,"data":"oP8=",)"},
        {"255-byte frame cut", dnmsg(xt, 0, std::string(510, 'f')), R"("size":255,"data":"////)"},
        {"frequency below 1 MHz printed as 0", dnmsg(xt + R"(,"Freq":1)"), R"("freq":0.000001,)"},
        {"missing pdu accepted",
         R"({"msgtype":"dnmsg","DevEui":"x","dC":0,"diid":1,"DR":"SF7BW125","Freq":1,"xtime":1})", ""},
        {"Freq text accepted", dnmsg(xt + R"(,"Freq":"x")"), ""},
        {"pdu of 512 characters overflows", dnmsg(xt, 0, std::string(512, '0')), ""},
        {"dC 3 accepted", dnmsg(xt, 3), ""},
        {"dC -1 accepted", dnmsg(xt, -1), ""},
        {"class A without xtime accepted", dnmsg(""), ""},
        {"class B without gpstime accepted", dnmsg(xt, 1), ""},
        {"odd pdu length accepted", dnmsg(xt, 0, "60D"), ""},
        {"half a digit taken as a byte", dnmsg(xt, 0, "600g"), ""},
        {"blank taken as a digit", dnmsg(xt, 0, "60 1"), ""},
        {"dnmsg not an object", "[1]", ""},
        {"a version-1 forwarder given downlinks", dnmsg(xt), "", 1},
    };
    for (const auto &r : rows) {
        auto [rc, out] = downlink(r.dnmsg, r.semtech_version);
        EXPECT_TRUE(r.txpk.empty() ? rc < 0 && out == "{}" : rc == 0 && kes_test::contains(out, r.txpk))
            << r.fault << ": " << rc << " " << out;
    }
}

} // namespace
