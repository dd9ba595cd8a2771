// Downlink translator dnmsg -> txpk and the converter dispatch.
#include <gtest/gtest.h>

#include <string>

#include "common/bridge_json_helpers.h"
#include "converter/data/bridge_translator.h"

namespace {

struct Result {
    int rc;
    std::string out;
};

std::string plain(json_object *o) {
    return json_object_to_json_string_ext(o, JSON_C_TO_STRING_PLAIN | JSON_C_TO_STRING_NOSLASHESCAPE);
}

bool has(const std::string &text, const std::string &part) {
    return text.find(part) != std::string::npos;
}

Result downlink(const std::string &dnmsg_json, uint32_t semtech_version = 2) {
    bridge_json_ptr dnmsg(json_tokener_parse(dnmsg_json.c_str()));
    EXPECT_NE(dnmsg, nullptr) << dnmsg_json;
    bridge_json_ptr txpk(json_object_new_object());
    uint32_t token = 0;
    int rc = semtech_version == 2
                 ? bridge_translate_downlink_bstn_v1_to_semtech_v2(dnmsg.get(), txpk.get(), &token)
                 : bridge_translate_downlink_bstn_v1_to_semtech_v1(dnmsg.get(), txpk.get(), &token);
    EXPECT_EQ(token, 0u);
    return {rc, plain(txpk.get())};
}

// A dnmsg as the LNS client hands it over (DR rewritten, Freq chosen).
std::string dnmsg(const std::string &members, int dc = 0, const std::string &pdu = "60DA1B012600010001D2F5AB9C") {
    return R"({"msgtype":"dnmsg","DevEui":"00-00-00-00-00-00-00-01","dC":)" + std::to_string(dc) +
           R"(,"diid":17,"pdu":")" + pdu + R"(","DR":"SF9BW125","Freq":869525000,"priority":0,"rctx":0)" +
           members + "}";
}

const std::string TXPK_HEAD = R"({"imme":false,"freq":869.525000,"rfch":0,"powe":27,"modu":"LORA",)"
                              R"("datr":"SF9BW125","codr":"4/5","ipol":true,"size":13,"data":"YNobASYAAQAB0vWrnA==")";

TEST(TranslatorDownlink, Txpk) {
    std::string head_c = TXPK_HEAD;
    head_c.replace(head_c.find("false"), 5, "true");
    struct {
        const char *fault;
        std::string dnmsg;
        std::string txpk; // all of it, or the part that matters
    } rows[] = {
        {"class A: key order, freq text, Base64 or delay wrong", dnmsg(R"(,"xtime":1000,"RX1DR":3,"MuxTime":1.5)"),
         TXPK_HEAD + R"(,"tmst":1001000})"},
        {"class A RX2 not one second after RX1", dnmsg(R"(,"xtime":1000,"RX2DR":0,"RX2Freq":869525000)"),
         TXPK_HEAD + R"(,"tmst":2001000})"},
        {"class A with RX2DR alone taken as RX2", dnmsg(R"(,"xtime":1000,"RX2DR":0)"),
         TXPK_HEAD + R"(,"tmst":1001000})"},
        {"class A RX2 with RxDelay 0 disagrees with dntxed",
         dnmsg(R"(,"xtime":1000,"RxDelay":0,"RX2DR":0,"RX2Freq":869525000)"), TXPK_HEAD + R"(,"tmst":2001000})"},
        {"class B gpstime not truncated to ms", dnmsg(R"(,"gpstime":1234567890999)", 1),
         TXPK_HEAD + R"(,"tmms":1234567890})"},
        {"class C not immediate, or RX2 second added", dnmsg(R"(,"RX2DR":0,"RX2Freq":869525000)", 2),
         head_c + R"(,"tmst":1000000})"},
        {"empty pdu refused", dnmsg(R"(,"xtime":1)", 0, ""), R"("size":0,"data":"",)"},
        {"upper-case hex refused", dnmsg(R"(,"xtime":1)", 0, "A0FF"), R"("size":2,"data":"oP8=",)"},
        {"255-byte frame cut", dnmsg(R"(,"xtime":1)", 0, std::string(510, 'f')), R"("size":255,"data":"////)"},
        {"frequency below 1 MHz printed as 0",
         R"({"msgtype":"dnmsg","DevEui":"x","dC":0,"diid":1,"pdu":"00","DR":"SF7BW125","Freq":1,"xtime":1})",
         R"("freq":0.000001,)"},
    };
    for (const auto &r : rows) {
        SCOPED_TRACE(r.fault);
        Result res = downlink(r.dnmsg);
        ASSERT_EQ(res.rc, 0);
        EXPECT_TRUE(has(res.out, r.txpk)) << res.out;
    }
}

// Each refused dnmsg: a negative result and nothing written into the txpk.
TEST(TranslatorDownlink, RejectedDownlinks) {
    struct {
        const char *fault;
        std::string msg;
    } rows[] = {
        {"missing pdu accepted", R"({"msgtype":"dnmsg","DevEui":"x","dC":0,"diid":1,"DR":"SF7BW125","Freq":1,"xtime":1})"},
        {"Freq text accepted", R"({"msgtype":"dnmsg","DevEui":"x","dC":0,"diid":1,"pdu":"00","DR":"a","Freq":"x"})"},
        {"pdu of 512 characters overflows", dnmsg(R"(,"xtime":1)", 0, std::string(512, '0'))},
        {"dC 3 accepted", dnmsg(R"(,"xtime":1)", 3)},
        {"dC -1 accepted", dnmsg(R"(,"xtime":1)", -1)},
        {"class A without xtime accepted", dnmsg("")},
        {"class B without gpstime accepted", dnmsg(R"(,"xtime":1)", 1)},
        {"odd pdu length accepted", dnmsg(R"(,"xtime":1)", 0, "60D")},
        {"non-hex pdu accepted", dnmsg(R"(,"xtime":1)", 0, "60zz")},
        {"dnmsg not an object", "[1]"},
    };
    for (const auto &r : rows) {
        SCOPED_TRACE(r.fault);
        Result res = downlink(r.msg);
        EXPECT_LT(res.rc, 0);
        EXPECT_EQ(res.out, "{}");
    }
    Result v1 = downlink(dnmsg(R"(,"xtime":1000)"), 1);
    EXPECT_EQ(v1.rc, -95) << "a version-1 forwarder cannot take downlinks";
    EXPECT_EQ(v1.out, "{}");
}

// ---- converter dispatch -----------------------------------------------------

TEST(TranslatorDispatch, PicksTheTranslatorOrRefuses) {
    const char *rxpk = R"({"tmst":1500000,"chan":2,"rfch":0,"freq":868.5,"stat":1,"modu":"LORA","datr":"SF9BW125",)"
                       R"("codr":"4/5","rssi":-97,"lsnr":-7.26,"size":20,"data":"QNobASaDAgECAwcKAQIDBBEiM0Q="})";
    const char *dn = R"({"msgtype":"dnmsg","DevEui":"x","dC":0,"diid":1,"pdu":"00","DR":"SF7BW125","Freq":1,"xtime":1})";
    struct {
        const char *fault;
        uint32_t dir, ff, fv, tf, tv;
        const char *in;
        int rc;
        const char *out_has;
    } rows[] = {
        {"uplink v2 not translated", BRIDGE_DIRECTION_UPLINK, DATA_TYPE_SEMTECH, 2, DATA_TYPE_BSTN, 1, rxpk, 0,
         "\"updf\""},
        {"uplink v3 finds a translator", BRIDGE_DIRECTION_UPLINK, DATA_TYPE_SEMTECH, 3, DATA_TYPE_BSTN, 1, rxpk, -1,
         "{}"},
        {"statistics v0 finds a translator", BRIDGE_DIRECTION_STATS, DATA_TYPE_SEMTECH, 0, DATA_TYPE_BSTN, 1,
         R"({"count":7})", -1, "{}"},
        {"downlink indexes swapped", BRIDGE_DIRECTION_DOWNLINK, DATA_TYPE_BSTN, 1, DATA_TYPE_SEMTECH, 2, dn, 0,
         "\"tmst\":1000001"},
        {"downlink to v1 sent", BRIDGE_DIRECTION_DOWNLINK, DATA_TYPE_BSTN, 1, DATA_TYPE_SEMTECH, 1, dn, -95, "{}"},
        {"downlink from ChirpStack translated", BRIDGE_DIRECTION_DOWNLINK, DATA_TYPE_CHIRPSTACK, 3, DATA_TYPE_SEMTECH,
         2, dn, -1, "{}"},
    };
    for (const auto &r : rows) {
        SCOPED_TRACE(r.fault);
        bridge_bstn_xtime_set_base(static_cast<int64_t>((0x2Aull << 48) | 1000000));
        bridge_json_ptr in(json_tokener_parse(r.in));
        bridge_json_ptr out(json_object_new_object());
        bridge_translate_msg from{}, to{};
        from = {{}, 0, r.ff, r.dir, r.fv, in.get()};
        to = {{}, 0, r.tf, r.dir, r.tv, out.get()};
        EXPECT_EQ(bridge_translate_generic(&from, &to), r.rc);
        EXPECT_TRUE(has(plain(out.get()), r.out_has)) << plain(out.get());
        EXPECT_EQ(to.token, 0u);
    }
}

} // namespace
