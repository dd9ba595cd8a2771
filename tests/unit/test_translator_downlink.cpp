// Downlink translator dnmsg -> txpk (the LNS client has already rewritten DR and chosen Freq).
#include <gtest/gtest.h>

#include <string>

#include "common/bridge_json_helpers.h"
#include "converter/data/bridge_translator.h"
#include "support/test_support.h"

namespace {

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
