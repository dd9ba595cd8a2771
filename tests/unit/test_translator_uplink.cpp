// Uplink translators rxpk -> jreq/updf, versions 1 and 2.
#include <gtest/gtest.h>

#include <ctime>
#include <string>

#include "common/base64.h"
#include "common/bridge_json_helpers.h"
#include "common/bridge_utils.h"
#include "converter/data/bridge_translator.h"
#include "support/test_support.h"

namespace {

constexpr uint64_t EPOCH = 0x2Aull << 48;     // 11821949021847552
constexpr uint64_t SYNCED = EPOCH | 1000000;  // last count 1000000

// Hand-built PHYs (see the LoRaWAN frame layout):
// join request 00 | JoinEUI 01..08 | DevEUI 11..18 | DevNonce 34 12 | MIC AA BB CC DD
const char *JOIN_B64 = "AAECAwQFBgcIERITFBUWFxg0Eqq7zN0=";
// unconfirmed up: DevAddr 26011BDA, FCtrl 0x83 (ADR, 3 FOpts: LinkCheckReq,
// LinkADRAns 07), FCnt 0x0102, FPort 10, payload 01020304, MIC 11223344
const char *UPDF_B64 = "QNobASaDAgECAwcKAQIDBBEiM0Q=";
// confirmed up, DevAddr F2345678, FCtrl 0x80, FCnt 7, FPort 0 with MAC commands
const char *PORT0_B64 = "gHhWNPKABwAAobLD1OX23q2+7w==";

struct Result {
    int rc;
    std::string out;
    std::string log;
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
    bridge_log_init(BRIDGE_LOG_TRACE, true);
    kes_test::StderrCapture cap;
    int rc = version == 1 ? bridge_translate_uplink_semtech_v1_to_bstn_v1(&from, rxpk.get(), out.get())
                          : bridge_translate_uplink_semtech_v2_to_bstn_v1(&from, rxpk.get(), out.get());
    std::string log = cap.stop();
    bridge_log_init(BRIDGE_LOG_ERROR, true);
    return {rc, plain(out.get()), log};
}

bool has(const std::string &log, const std::string &text) {
    return log.find(text) != std::string::npos;
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

TEST(TranslatorUplink, V1JoinRequestByteExact) {
    Result r = translate(1, v1_rxpk(JOIN_B64, RSIG));
    ASSERT_EQ(r.rc, 0) << r.log;
    EXPECT_EQ(r.out, R"({"DR":"SF7BW125","Freq":868100000,"upinfo":{"rctx":0,"xtime":11821949023347552,)"
                     R"("gpstime":0,"rssi":-42,"snr":-7.3,"chan":3},"msgtype":"jreq","MHdr":0,)"
                     R"("JoinEui":"08-07-06-05-04-03-02-01","DevEui":"18-17-16-15-14-13-12-11",)"
                     R"("DevNonce":4660,"MIC":-573785174})");
}

TEST(TranslatorUplink, V1DataFrameWithFOptsByteExact) {
    Result r = translate(1, v1_rxpk(UPDF_B64, RSIG));
    ASSERT_EQ(r.rc, 0) << r.log;
    EXPECT_EQ(r.out, R"({"DR":"SF7BW125","Freq":868100000,"upinfo":{"rctx":0,"xtime":11821949023347552,)"
                     R"("gpstime":0,"rssi":-42,"snr":-7.3,"chan":3},"msgtype":"updf","MHdr":64,)"
                     R"("DevAddr":637606874,"FCtrl":131,"FCnt":258,"FOpts":"020307","FPort":10,)"
                     R"("FRMPayload":"01020304","MIC":1144201745})");
}

TEST(TranslatorUplink, V2DataFrameByteExact) {
    time_t before = time(NULL);
    Result r = translate(2, v2_rxpk(UPDF_B64));
    time_t after = time(NULL);
    ASSERT_EQ(r.rc, 0) << r.log;
    EXPECT_EQ(pin_rxtime(r.out, before, after),
              R"({"DR":"SF9BW125","Freq":868500000,"upinfo":{"rctx":0,"rxtime":1700000000,)"
              R"("xtime":11821949023347552,"gpstime":1398600000123000,"rssi":-97,"snr":-7.3,"chan":2},)"
              R"("msgtype":"updf","MHdr":64,"DevAddr":637606874,"FCtrl":131,"FCnt":258,"FOpts":"020307",)"
              R"("FPort":10,"FRMPayload":"01020304","MIC":1144201745})");
}

TEST(TranslatorUplink, V2JoinRequestPutsXtimeBeforeRxtime) {
    time_t before = time(NULL);
    Result r = translate(2, v2_rxpk(JOIN_B64));
    time_t after = time(NULL);
    ASSERT_EQ(r.rc, 0) << r.log;
    EXPECT_EQ(pin_rxtime(r.out, before, after),
              R"({"DR":"SF9BW125","Freq":868500000,"upinfo":{"rctx":0,"xtime":11821949023347552,)"
              R"("rxtime":1700000000,"gpstime":1398600000123000,"rssi":-97,"snr":-7.3,"chan":2},)"
              R"("msgtype":"jreq","MHdr":0,"JoinEui":"08-07-06-05-04-03-02-01",)"
              R"("DevEui":"18-17-16-15-14-13-12-11","DevNonce":4660,"MIC":-573785174})");
}

TEST(TranslatorUplink, V2Port0MacCommands) {
    Result r = translate(2, v2_rxpk(PORT0_B64));
    ASSERT_EQ(r.rc, 0) << r.log;
    EXPECT_TRUE(has(r.out, R"("msgtype":"updf","MHdr":128,"DevAddr":-231451016,"FCtrl":128,"FCnt":7,)"
                           R"("FOpts":"","FPort":0,"FRMPayload":"a1b2c3d4e5f6","MIC":-272716322})"))
        << r.out;
}

// Variants that must translate: check one member of the output each.
TEST(TranslatorUplink, AcceptedVariants) {
    const std::string data340(340, 'A'); // 255 zero bytes: MHDR 0 -> a 255-byte "join request"
    struct {
        const char *what;
        uint32_t version;
        std::string rxpk;
        const char *expect_out;
        const char *expect_log;
    } rows[] = {
        {"v1 without rsig", 1, v1_rxpk(UPDF_B64), R"("gpstime":0,"rssi":0,"snr":0.0,"chan":0})",
         "no rsig array in a packet"},
        {"v1 with empty rsig", 1, v1_rxpk(UPDF_B64, R"(,"rsig":[])"), R"("rssi":0,"snr":0.0,"chan":0})", ""},
        {"v2 without tmms", 2, R"({"tmst":1500000,"chan":0,"rfch":0,"freq":868.1,"stat":1,"modu":"LORA",)"
                               R"("datr":"SF7BW125","codr":"4/5","rssi":-30,"lsnr":9.75,"size":20,"data":")" +
                                   std::string(UPDF_B64) + "\"}",
         R"("gpstime":0,"rssi":-30,"snr":9.8,"chan":0})", ""},
        {"time of 127 characters", 2, v2_rxpk(UPDF_B64, ",\"time\":\"" + std::string(127, 't') + "\""),
         R"("msgtype":"updf")", ""},
        {"CRC error packet is still translated, size mismatch ignored", 2,
         v2_rxpk(UPDF_B64, R"(,"stat":-1,"size":99)"), R"("msgtype":"updf")", ""},
        {"FSK datr number becomes text", 2, v2_rxpk(UPDF_B64, R"(,"datr":50000)"), R"({"DR":"50000",)", ""},
        {"datr of 15 characters", 2, v2_rxpk(UPDF_B64, R"(,"datr":"SF12BW125XXXXXX")"),
         R"({"DR":"SF12BW125XXXXXX",)", ""},
        {"tmst exactly 100 ms before the last count", 2, v2_rxpk(UPDF_B64, R"(,"tmst":900000)"),
         R"("xtime":11821949022747552,)", ""},
        {"tmst 1 us too old gives xtime 0 (v2 wording)", 2, v2_rxpk(UPDF_B64, R"(,"tmst":899999)"),
         R"("xtime":0,)", "Something seems to be wrong, UL timestamp: 899999, base: 11821949022847552"},
        {"tmst 1 us too old gives xtime 0 (v1 wording)", 1, v1_rxpk(UPDF_B64, R"(,"tmst":899999)"),
         R"("xtime":0,)", "Something seems to be wrong, UL timestamp: 899999, base: 11821949022847552"},
        {"340 Base64 characters (255 bytes) pass the size checks", 2, v2_rxpk(data340), nullptr,
         "invalid size of join request payload, expected 23 bytes, got: [255]"},
        {"v1 with 32 rsig elements uses the first", 1, "", R"("rssi":-1,"snr":0.5,"chan":1})", ""},
        {"trailing text after padding is ignored", 2, v2_rxpk(std::string(JOIN_B64) + " junk!"),
         R"("msgtype":"jreq")", ""},
    };
    // 32 well-formed elements
    std::string rsig32 = ",\"rsig\":[";
    for (int i = 0; i < 32; i++)
        rsig32 += std::string(i ? "," : "") + "{\"ant\":" + std::to_string(i) + ",\"chan\":" + std::to_string(i + 1) +
                  ",\"rssic\":" + std::to_string(-1 - i) + ",\"lsnr\":0.5}";
    rsig32 += "]";
    rows[11].rxpk = v1_rxpk(UPDF_B64, rsig32);

    for (const auto &r : rows) {
        SCOPED_TRACE(r.what);
        Result res = translate(r.version, r.rxpk);
        if (r.expect_out == nullptr) {
            EXPECT_EQ(res.rc, -1);
        } else {
            EXPECT_EQ(res.rc, 0) << res.log;
            EXPECT_TRUE(has(res.out, r.expect_out)) << res.out;
        }
        EXPECT_TRUE(has(res.log, r.expect_log)) << res.log;
    }
}

// Every malformed packet: a negative result, the expected message, and `out` untouched.
TEST(TranslatorUplink, RejectedPackets) {
    const char *deser = "failed to deserialize uplink packet: ";
    std::string rsig33 = ",\"rsig\":[";
    for (int i = 0; i < 33; i++) rsig33 += std::string(i ? "," : "") + R"({"ant":0,"chan":0,"rssic":-1,"lsnr":1})";
    rsig33 += "]";
    const std::string b64_341 = std::string(341, 'A');
    struct {
        const char *what;
        uint32_t version;
        std::string rxpk;
        uint64_t base;
        const char *message;
    } rows[] = {
        {"not synchronised", 2, v2_rxpk(UPDF_B64), EPOCH, "Drop packet. Not synced with gateway count, wait for sync"},
        {"not synchronised v1", 1, v1_rxpk(UPDF_B64), EPOCH, "Drop packet. Not synced with gateway count, wait for sync"},
        {"time of 128 characters", 2, v2_rxpk(UPDF_B64, ",\"time\":\"" + std::string(128, 't') + "\""), SYNCED,
         deser},
        {"datr of 16 characters", 2, v2_rxpk(UPDF_B64, R"(,"datr":"SF12BW125XXXXXXX")"), SYNCED, deser},
        {"codr of 8 characters", 1, v1_rxpk(UPDF_B64, R"(,"codr":"4/5xxxxx")"), SYNCED, deser},
        {"missing tmst", 2, R"({"chan":2,"rfch":0,"freq":868.5,"stat":1,"modu":"LORA","datr":"SF9BW125",)"
                            R"("codr":"4/5","rssi":-97,"lsnr":-7.26,"size":20,"data":"QNob"})",
         SYNCED, deser},
        {"tmst not a number", 2, v2_rxpk(UPDF_B64, R"(,"tmst":"soon")"), SYNCED, deser},
        {"freq not a number", 1, v1_rxpk(UPDF_B64, R"(,"freq":"high")"), SYNCED, deser},
        {"freq infinite", 2, v2_rxpk(UPDF_B64, R"(,"freq":1e400)"), SYNCED, deser},
        {"freq NaN", 2, v2_rxpk(UPDF_B64, R"(,"freq":NaN)"), SYNCED, deser},
        {"lsnr not finite", 2, v2_rxpk(UPDF_B64, R"(,"lsnr":-Infinity)"), SYNCED, deser},
        {"rssi missing (v2)", 2, R"({"tmst":1500000,"chan":0,"rfch":0,"freq":868.1,"stat":1,"modu":"LORA",)"
                                 R"("datr":"SF7BW125","codr":"4/5","lsnr":9.75,"size":20,"data":"QNob"})",
         SYNCED, deser},
        {"data not a string but null", 2, v2_rxpk(UPDF_B64, R"(,"data":null)"), SYNCED, deser},
        {"data of 2048 characters", 2, v2_rxpk(std::string(2048, 'A')), SYNCED, deser},
        {"v1 33 rsig elements", 1, v1_rxpk(UPDF_B64, rsig33), SYNCED, "too many rsig values received"},
        {"v1 rsig element without lsnr", 1,
         v1_rxpk(UPDF_B64, R"(,"rsig":[{"ant":0,"chan":0,"rssic":-1,"lsnr":1},{"ant":1,"chan":0,"rssic":-1}])"),
         SYNCED, "failed to deserialize rsig frame"},
        {"v1 rsig element null", 1, v1_rxpk(UPDF_B64, R"(,"rsig":[null])"), SYNCED, "failed to deserialize rsig frame"},
        {"v1 rsig element not an object", 1, v1_rxpk(UPDF_B64, R"(,"rsig":[5])"), SYNCED,
         "failed to deserialize rsig frame"},
        {"v1 rsig not an array", 1, v1_rxpk(UPDF_B64, R"(,"rsig":{"ant":0})"), SYNCED,
         "failed to deserialize rsig frame"},
        {"v1 rsig null", 1, v1_rxpk(UPDF_B64, R"(,"rsig":null)"), SYNCED, "failed to deserialize rsig frame"},
        {"341 Base64 characters", 2, v2_rxpk(b64_341), SYNCED, "LoRa PHY of [259] bytes is too big"},
        {"4 Base64 characters", 2, v2_rxpk("QNob"), SYNCED, "LoRa PHY of [4] bytes is too small"},
        {"empty data", 2, v2_rxpk(""), SYNCED, "LoRa PHY of [1] bytes is too small"},
        {"not Base64 at all", 2, v2_rxpk("!!!!!!!!!!!!"), SYNCED, "LoRa PHY of [1] bytes is too small"},
        {"5 Base64 characters: 3-byte data frame", 2, v2_rxpk("QNobA"), SYNCED,
         "LoRa PHY of [3] bytes is too small for data uplink"},
        {"join request of 22 bytes", 2, v2_rxpk("AAECAwQFBgcIERITFBUWFxg0Eqq7zA=="), SYNCED,
         "invalid size of join request payload, expected 23 bytes, got: [22]"},
        {"join accept frame type", 2, v2_rxpk("IAECAwQFBgcIERITFBUWFxg0Eqq7zN0="), SYNCED,
         "unknown uplink packet type: [0x1]"},
        {"FOpts longer than the frame", 1, v1_rxpk("QAECAwQPAAABAgME"), SYNCED,
         "LoRa data packet of [12] bytes is too small"},
        {"rxpk not an object", 2, "[1,2,3]", SYNCED, deser},
    };
    for (const auto &r : rows) {
        SCOPED_TRACE(r.what);
        Result res = translate(r.version, r.rxpk, r.base, R"({"keep":1})");
        EXPECT_LT(res.rc, 0);
        EXPECT_EQ(res.out, R"({"keep":1})");
        EXPECT_TRUE(has(res.log, r.message)) << res.log;
    }
}

TEST(TranslatorUplink, ReplacesExistingKeysAndKeepsOthers) {
    Result r = translate(2, v2_rxpk(UPDF_B64), SYNCED, R"({"keep":1,"DR":"old","MIC":5})");
    ASSERT_EQ(r.rc, 0) << r.log;
    EXPECT_EQ(r.out.rfind(R"({"keep":1,"DR":"SF9BW125","MIC":1144201745,"Freq":868500000,)", 0), 0u) << r.out;
}

TEST(TranslatorUplink, XtimeCrossesIntoTheNextCounterPeriod) {
    const uint64_t base = EPOCH | 0xFFFFFF00; // 2^32 - 256
    Result r = translate(2, v2_rxpk(UPDF_B64, R"(,"tmst":5)"), base);
    ASSERT_EQ(r.rc, 0) << r.log;
    EXPECT_TRUE(has(r.out, "\"xtime\":" + std::to_string(EPOCH + (1ull << 32) + 5) + ",")) << r.out;
}

} // namespace
