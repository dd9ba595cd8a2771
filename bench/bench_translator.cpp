// Per-message cost of the three hot translations: rxpk data frame -> updf,
// rxpk join request -> jreq (both v2) and class-A dnmsg -> txpk.
#include <benchmark/benchmark.h>

#include <cstdlib>

#include "common/bridge_json_helpers.h"
#include "common/bridge_utils.h"
#include "converter/data/bridge_translator.h"

namespace {

// Errors only, so that the measured time is translation, not logging.
void quiet_logs_and_synced_base() {
    bridge_log_init(BRIDGE_LOG_ERROR, true);
    bridge_bstn_xtime_set_base(static_cast<int64_t>((0x2Aull << 48) | 1000000));
}

bridge_json_ptr parse(const char *text) {
    bridge_json_ptr o(json_tokener_parse(text));
    if (!o) abort();
    return o;
}

void run_uplink(benchmark::State &state, const char *rxpk_text) {
    quiet_logs_and_synced_base();
    bridge_json_ptr rxpk = parse(rxpk_text);
    bridge_translate_msg from{};
    for (auto _ : state) {
        bridge_json_ptr out(json_object_new_object());
        if (bridge_translate_uplink_semtech_v2_to_bstn_v1(&from, rxpk.get(), out.get()) != 0) abort();
        benchmark::DoNotOptimize(out.get());
    }
}

void BM_uplink_v2_updf(benchmark::State &state) {
    // Unconfirmed data up with 3 bytes of FOpts, port 10 and a 4-byte payload.
    run_uplink(state, R"({"time":"2024-05-01T10:00:00.000000Z","tmms":1398600000123,"tmst":1500000,"chan":2,)"
                      R"("rfch":0,"freq":868.5,"stat":1,"modu":"LORA","datr":"SF9BW125","codr":"4/5",)"
                      R"("rssi":-97,"lsnr":-7.26,"size":20,"data":"QNobASaDAgECAwcKAQIDBBEiM0Q="})");
}
BENCHMARK(BM_uplink_v2_updf);

void BM_uplink_v2_jreq(benchmark::State &state) {
    run_uplink(state, R"({"time":"2024-05-01T10:00:00.000000Z","tmst":1500000,"chan":0,"rfch":0,"freq":868.1,)"
                      R"("stat":1,"modu":"LORA","datr":"SF12BW125","codr":"4/5","rssi":-110,"lsnr":-12.5,)"
                      R"("size":23,"data":"AAECAwQFBgcIERITFBUWFxg0Eqq7zN0="})");
}
BENCHMARK(BM_uplink_v2_jreq);

void BM_downlink_class_a_txpk(benchmark::State &state) {
    quiet_logs_and_synced_base();
    bridge_json_ptr dnmsg = parse(
        R"({"msgtype":"dnmsg","DevEui":"00-16-c0-01-ff-10-a2-35","dC":0,"diid":17,)"
        R"("pdu":"60DA1B012600010001D2F5AB9C","RxDelay":1,"RX1DR":3,"RX1Freq":868100000,"RX2DR":0,)"
        R"("RX2Freq":869525000,"priority":0,"xtime":11821949023347552,"rctx":0,"MuxTime":1714557600.123,)"
        R"("DR":"SF12BW125","Freq":869525000})");
    for (auto _ : state) {
        bridge_json_ptr txpk(json_object_new_object());
        uint32_t token = 0;
        if (bridge_translate_downlink_bstn_v1_to_semtech_v2(dnmsg.get(), txpk.get(), &token) != 0) abort();
        benchmark::DoNotOptimize(txpk.get());
    }
}
BENCHMARK(BM_downlink_class_a_txpk);

} // namespace
