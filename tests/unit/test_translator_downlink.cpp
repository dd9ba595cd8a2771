// Downlink translator dnmsg -> txpk and the converter dispatch.
#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <unistd.h>

#include "common/bridge_json_helpers.h"
#include "common/bridge_utils.h"
#include "converter/data/bridge_translator.h"
#include "support/test_support.h"

namespace {

struct Result {
    int rc;
    std::string out;
    std::string log;
};

std::string plain(json_object *o) {
    return json_object_to_json_string_ext(o, JSON_C_TO_STRING_PLAIN | JSON_C_TO_STRING_NOSLASHESCAPE);
}

bool has(const std::string &log, const std::string &text) {
    return log.find(text) != std::string::npos;
}

Result downlink(const std::string &dnmsg_json, uint32_t semtech_version = 2) {
    bridge_json_ptr dnmsg(json_tokener_parse(dnmsg_json.c_str()));
    EXPECT_NE(dnmsg, nullptr) << dnmsg_json;
    bridge_json_ptr txpk(json_object_new_object());
    uint32_t token = 0;
    bridge_log_init(BRIDGE_LOG_TRACE, true);
    kes_test::StderrCapture cap;
    int rc = semtech_version == 2
                 ? bridge_translate_downlink_bstn_v1_to_semtech_v2(dnmsg.get(), txpk.get(), &token)
                 : bridge_translate_downlink_bstn_v1_to_semtech_v1(dnmsg.get(), txpk.get(), &token);
    std::string log = cap.stop();
    bridge_log_init(BRIDGE_LOG_ERROR, true);
    EXPECT_EQ(token, 0u);
    return {rc, plain(txpk.get()), log};
}

// A class-A dnmsg as the LNS client hands it over (DR rewritten, Freq chosen).
std::string dnmsg(const std::string &members, int dc = 0, const char *pdu = "60DA1B012600010001D2F5AB9C") {
    return R"({"msgtype":"dnmsg","DevEui":"00-00-00-00-00-00-00-01","dC":)" + std::to_string(dc) +
           R"(,"diid":17,"pdu":")" + pdu + R"(","DR":"SF9BW125","Freq":869525000,"priority":0,"rctx":0)" +
           members + "}";
}

const char *TXPK_HEAD = R"({"imme":false,"freq":869.525000,"rfch":0,"powe":27,"modu":"LORA","datr":"SF9BW125",)"
                        R"("codr":"4/5","ipol":true,"size":13,"data":"YNobASYAAQAB0vWrnA==")";

TEST(TranslatorDownlink, ClassAByteExact) {
    Result r = downlink(dnmsg(R"(,"xtime":1000,"RX1DR":3,"RX1Freq":868100000,"MuxTime":1.5)"));
    ASSERT_EQ(r.rc, 0) << r.log;
    EXPECT_EQ(r.out, std::string(TXPK_HEAD) + R"(,"tmst":1001000})");
}

TEST(TranslatorDownlink, ClassBAndCByteExact) {
    Result b = downlink(dnmsg(R"(,"gpstime":1234567890123)", 1));
    ASSERT_EQ(b.rc, 0) << b.log;
    EXPECT_EQ(b.out, std::string(TXPK_HEAD) + R"(,"tmms":1234567890})");

    Result c = downlink(dnmsg(R"(,"RX2DR":0,"RX2Freq":869525000)", 2));
    ASSERT_EQ(c.rc, 0) << c.log;
    std::string head_c = TXPK_HEAD;
    head_c.replace(head_c.find("false"), 5, "true");
    EXPECT_EQ(c.out, head_c + R"(,"tmst":1000000})");
}

TEST(TranslatorDownlink, TransmitTime) {
    const int64_t epoch = 0x2All << 48;
    const std::string wrap_xtime = std::to_string(epoch | (0x100000000ll - 500000));
    struct {
        const char *what;
        int dc;
        std::string members;
        const char *time;
    } rows[] = {
        {"A: default RxDelay 1", 0, R"(,"xtime":1000)", R"("tmst":1001000})"},
        {"A: RxDelay 5", 0, R"(,"xtime":1000,"RxDelay":5)", R"("tmst":5001000})"},
        // RxDelay 0 counts as 1 s, as in the transmit time reported in dntxed.
        {"A: RxDelay 0 like 1", 0, R"(,"xtime":1000,"RxDelay":0)", R"("tmst":1001000})"},
        {"A: RX2 adds one second", 0, R"(,"xtime":1000,"RX2DR":0,"RX2Freq":869525000)", R"("tmst":2001000})"},
        {"A: RX2 and RxDelay 0", 0, R"(,"xtime":1000,"RxDelay":0,"RX2DR":0,"RX2Freq":869525000)",
         R"("tmst":2001000})"},
        {"A: only RX2DR", 0, R"(,"xtime":1000,"RX2DR":0)", R"("tmst":1001000})"},
        {"A: only RX2Freq", 0, R"(,"xtime":1000,"RX2Freq":869525000)", R"("tmst":1001000})"},
        {"A: wraps into the next counter period", 0, R"(,"xtime":)" + wrap_xtime + R"(,"RxDelay":1)",
         R"("tmst":500000})"},
        {"A: 1 s delay from the largest counter value", 0, R"(,"xtime":4294967295)", R"("tmst":999999})"},
        {"B: gpstime us to ms, truncated", 1, R"(,"gpstime":1234567890999)", R"("tmms":1234567890})"},
        {"C: without xtime", 2, "", R"("tmst":1000000})"},
        {"C: RxDelay 0 like 1", 2, R"(,"xtime":1000,"RxDelay":0)", R"("tmst":1001000})"},
        {"C: RxDelay 2, RX2 members add nothing", 2, R"(,"xtime":1000,"RxDelay":2,"RX2DR":0,"RX2Freq":1)",
         R"("tmst":2001000})"},
    };
    for (const auto &r : rows) {
        SCOPED_TRACE(r.what);
        Result res = downlink(dnmsg(r.members, r.dc));
        ASSERT_EQ(res.rc, 0) << res.log;
        EXPECT_TRUE(has(res.out, std::string("\"data\":\"YNobASYAAQAB0vWrnA==\",") + r.time)) << res.out;
        EXPECT_EQ(has(res.out, R"("imme":true)"), r.dc == 2) << res.out;
    }
}

TEST(TranslatorDownlink, PayloadAndFrequencyForms) {
    struct {
        const char *what;
        std::string msg;
        const char *expect;
    } rows[] = {
        {"empty pdu", dnmsg(R"(,"xtime":1)", 0, ""), R"("size":0,"data":"",)"},
        {"upper-case hex", dnmsg(R"(,"xtime":1)", 0, "A0FF"), R"("size":2,"data":"oP8=",)"},
        {"frequency with six decimals",
         R"({"msgtype":"dnmsg","DevEui":"x","dC":0,"diid":1,"pdu":"00","DR":"SF7BW125","Freq":868100000,"xtime":1})",
         R"("freq":868.100000,)"},
        {"frequency below 1 MHz", R"({"msgtype":"dnmsg","DevEui":"x","dC":0,"diid":1,"pdu":"00","DR":"SF7BW125","Freq":1,"xtime":1})",
         R"("freq":0.000001,)"},
        {"255-byte frame", dnmsg(R"(,"xtime":1)", 0, std::string(510, 'f').c_str()), R"("size":255,"data":"////)"},
    };
    for (const auto &r : rows) {
        SCOPED_TRACE(r.what);
        Result res = downlink(r.msg);
        ASSERT_EQ(res.rc, 0) << res.log;
        EXPECT_TRUE(has(res.out, r.expect)) << res.out;
    }
}

TEST(TranslatorDownlink, RejectedDownlinks) {
    const char *common = "failed to deserialize common part of the downlink packet: ";
    const char *klass = "failed to deserialize class-specific part of the downlink packet: ";
    struct {
        const char *what;
        std::string msg;
        const char *message;
    } rows[] = {
        {"missing pdu", R"({"msgtype":"dnmsg","DevEui":"x","dC":0,"diid":1,"DR":"SF7BW125","Freq":1,"xtime":1})",
         common},
        {"missing DR", R"({"msgtype":"dnmsg","DevEui":"x","dC":0,"diid":1,"pdu":"00","Freq":1,"xtime":1})", common},
        {"Freq not a number", R"({"msgtype":"dnmsg","DevEui":"x","dC":0,"diid":1,"pdu":"00","DR":"a","Freq":"x"})",
         common},
        {"pdu of 512 characters", dnmsg(R"(,"xtime":1)", 0, std::string(512, '0').c_str()), common},
        {"DR of 16 characters", R"({"msgtype":"dnmsg","DevEui":"x","dC":0,"diid":1,"pdu":"00",)"
                                R"("DR":"SF12BW125XXXXXXX","Freq":1,"xtime":1})",
         common},
        {"dC 3", dnmsg(R"(,"xtime":1)", 3), "invalid DC value received from BSTN: 3"},
        {"dC -1", dnmsg(R"(,"xtime":1)", -1), "invalid DC value received from BSTN: 4294967295"},
        {"class A without xtime", dnmsg(""), klass},
        {"class A xtime not a number", dnmsg(R"(,"xtime":"later")"), klass},
        {"class A RxDelay not a number", dnmsg(R"(,"xtime":1,"RxDelay":"one")"), klass},
        {"class B without gpstime", dnmsg(R"(,"xtime":1)", 1), klass},
        {"odd pdu length", dnmsg(R"(,"xtime":1)", 0, "60D"), "input string length must be divisible by 2"},
        {"pdu not hex", dnmsg(R"(,"xtime":1)", 0, "60zz"), "failed to convert a byte to a hexstring at offset [2]"},
        {"pdu of 511 characters", dnmsg(R"(,"xtime":1)", 0, std::string(511, '0').c_str()),
         "input string length must be divisible by 2"},
        {"dnmsg not an object", "[1]", common},
    };
    for (const auto &r : rows) {
        SCOPED_TRACE(r.what);
        Result res = downlink(r.msg);
        EXPECT_LT(res.rc, 0);
        EXPECT_EQ(res.out, "{}");
        EXPECT_TRUE(has(res.log, r.message)) << res.log;
    }
}

TEST(TranslatorDownlink, Version1RefusesAndTouchesNothing) {
    Result r = downlink(dnmsg(R"(,"xtime":1000)"), 1);
    EXPECT_EQ(r.rc, -95);
    EXPECT_EQ(r.out, "{}");
    EXPECT_EQ(r.log, "");
}

// ---- converter dispatch -----------------------------------------------------

struct Dispatch {
    int rc;
    std::string out;
    std::string log;
    uint32_t token;
};

Dispatch dispatch(uint32_t direction, uint32_t from_format, uint32_t from_version, uint32_t to_format,
                  uint32_t to_version, const char *in_json) {
    bridge_json_ptr in(json_tokener_parse(in_json));
    bridge_json_ptr out(json_object_new_object());
    bridge_translate_msg from{}, to{};
    from.format = from_format;
    from.version = from_version;
    from.direction = direction;
    from.data = in.get();
    to.format = to_format;
    to.version = to_version;
    to.direction = direction;
    to.data = out.get();
    bridge_log_init(BRIDGE_LOG_TRACE, true);
    kes_test::StderrCapture cap;
    int rc = bridge_translate_generic(&from, &to);
    std::string log = cap.stop();
    bridge_log_init(BRIDGE_LOG_ERROR, true);
    return {rc, plain(out.get()), log, to.token};
}

TEST(TranslatorDispatch, PicksTheTranslatorOrReportsTheMissingOne) {
    const char *rxpk = R"({"tmst":1500000,"chan":2,"rfch":0,"freq":868.5,"stat":1,"modu":"LORA","datr":"SF9BW125",)"
                       R"("codr":"4/5","rssi":-97,"lsnr":-7.26,"size":20,"data":"QNobASaDAgECAwcKAQIDBBEiM0Q="})";
    const char *rxpk_v1 = R"({"tmst":1500000,"rfch":0,"freq":868.5,"stat":1,"modu":"LORA","datr":"SF9BW125",)"
                          R"("size":20,"codr":"4/5","data":"QNobASaDAgECAwcKAQIDBBEiM0Q="})";
    const char *dn = R"({"msgtype":"dnmsg","DevEui":"x","dC":0,"diid":1,"pdu":"00","DR":"SF7BW125","Freq":1,"xtime":1})";
    struct {
        const char *what;
        uint32_t dir, ff, fv, tf, tv;
        const char *in;
        int rc;
        const char *out_has;
        const char *log_has;
    } rows[] = {
        {"uplink v2", BRIDGE_DIRECTION_UPLINK, DATA_TYPE_SEMTECH, 2, DATA_TYPE_BSTN, 1, rxpk, 0, "\"updf\"",
         "Format: [0x3], from version: [0x2], to version: [0x1]"},
        {"uplink v1", BRIDGE_DIRECTION_UPLINK, DATA_TYPE_SEMTECH, 1, DATA_TYPE_BSTN, 1, rxpk_v1, 0, "\"updf\"",
         "direction: [0]"},
        {"uplink v3 has no translator", BRIDGE_DIRECTION_UPLINK, DATA_TYPE_SEMTECH, 3, DATA_TYPE_BSTN, 1, rxpk, -1,
         "{}", "no uplink conveter is defined from semtech version [3] to NS type [3:1]"},
        {"uplink to kesns has no translator", BRIDGE_DIRECTION_UPLINK, DATA_TYPE_SEMTECH, 2, DATA_TYPE_KESNS, 1,
         rxpk, -1, "{}", "no uplink conveter is defined from semtech version [2] to NS type [0:1]"},
        {"statistics v2", BRIDGE_DIRECTION_STATS, DATA_TYPE_SEMTECH, 2, DATA_TYPE_BSTN, 1, R"({"count":7})", 0, "{}",
         "direction: [0x2]"},
        {"statistics v0", BRIDGE_DIRECTION_STATS, DATA_TYPE_SEMTECH, 0, DATA_TYPE_BSTN, 1, R"({"count":7})", -1, "{}",
         "no statistics conveter is defined from semtech version [0] to NS type [3:1]"},
        {"downlink to v2", BRIDGE_DIRECTION_DOWNLINK, DATA_TYPE_BSTN, 1, DATA_TYPE_SEMTECH, 2, dn, 0, "\"tmst\":1000001",
         "direction: [0x1]"},
        {"downlink to v1 refused", BRIDGE_DIRECTION_DOWNLINK, DATA_TYPE_BSTN, 1, DATA_TYPE_SEMTECH, 1, dn, -95, "{}",
         ""},
        {"downlink from ChirpStack v3", BRIDGE_DIRECTION_DOWNLINK, DATA_TYPE_CHIRPSTACK, 3, DATA_TYPE_SEMTECH, 2, dn,
         -1, "{}", "no downlink conveter is defined from NS type [1:3] to semtech version [2]"},
    };
    for (const auto &r : rows) {
        SCOPED_TRACE(r.what);
        bridge_bstn_xtime_set_base(static_cast<int64_t>((0x2Aull << 48) | 1000000));
        Dispatch d = dispatch(r.dir, r.ff, r.fv, r.tf, r.tv, r.in);
        EXPECT_EQ(d.rc, r.rc) << d.log;
        EXPECT_TRUE(has(d.out, r.out_has)) << d.out;
        EXPECT_TRUE(has(d.log, r.log_has)) << d.log;
        EXPECT_EQ(d.token, 0u);
    }
}

// Assertions print on standard output in stderr mode; send it to stderr so
// that the death test can match the text.
void dispatch_raw(uint32_t dir_from, uint32_t dir_to, uint32_t fv, uint32_t tv, uint32_t ff, uint32_t tf) {
    bridge_log_init(BRIDGE_LOG_ERROR, true);
    dup2(STDERR_FILENO, STDOUT_FILENO);
    bridge_translate_msg from{}, to{};
    from.direction = dir_from;
    to.direction = dir_to;
    from.version = fv;
    to.version = tv;
    from.format = ff;
    to.format = tf;
    bridge_translate_generic(&from, &to);
}

TEST(TranslatorDispatchDeathTest, BoundsAndDirectionAreAsserted) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(dispatch_raw(0, 0, 4, 1, 2, 3), "Assertion failed: \\( from->version <= VERSION_MAX \\)");
    EXPECT_DEATH(dispatch_raw(0, 0, 2, 4, 2, 3), "Assertion failed: \\( to->version <= VERSION_MAX \\)");
    EXPECT_DEATH(dispatch_raw(0, 0, 2, 1, 4, 3), "Assertion failed: \\( from->format <= DATA_TYPE_MAX \\)");
    EXPECT_DEATH(dispatch_raw(0, 0, 2, 1, 2, 4), "Assertion failed: \\( to->format <= DATA_TYPE_MAX \\)");
    EXPECT_DEATH(dispatch_raw(0, 1, 2, 1, 2, 3), "Assertion failed: \\( to->direction == from->direction \\)");
    EXPECT_DEATH(dispatch_raw(3, 3, 2, 1, 2, 3), "Assertion failed: \\( 0 \\)");
    EXPECT_DEATH(
        {
            bridge_log_init(BRIDGE_LOG_ERROR, true);
            dup2(STDERR_FILENO, STDOUT_FILENO);
            bridge_translate_generic(nullptr, nullptr);
        },
        "Assertion failed: \\( from \\)");
}

} // namespace
