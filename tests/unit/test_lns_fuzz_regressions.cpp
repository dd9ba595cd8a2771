// Inputs that the libFuzzer target fuzz_lns_message found crashing, replayed from
// fuzz/regressions/lns_message/ through the same message dispatch and dnmsg processing.
#include <cmath>
#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "common/bridge_json_helpers.h"
#include "common/bridge_utils.h"
#include "converter/data/bridge_bstn_lns_internal.h"
#include "support/test_support.h"

namespace {

std::vector<std::string> g_delivered;
int record_downlink(int, void *, const char *data, size_t) { g_delivered.emplace_back(data); return 0; }

// xtime + seconds, modulo 2^64 as the dnmsg processing computes it.
int64_t wrapped(int64_t xtime, int64_t seconds) {
    return static_cast<int64_t>(static_cast<uint64_t>(xtime) + static_cast<uint64_t>(seconds) * 1000000u);
}

class LnsFuzzRegressions : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(lns_ctx_init(&lns), 0);
        // No connection: a stand-in handle marked closed, as in the fuzz target.
        lns.lws_conn = reinterpret_cast<struct lws *>(&conn_stand_in);
        lns.conn_closed = true;
        const bridge_bstn_lns_dr table[] = {{12, 125, false}, {11, 125, false}, {10, 125, false}, {9, 125, false},
                                            {8, 125, false},  {7, 125, false},  {7, 250, false},  {0, 0, false}};
        memcpy(lns.drs, table, sizeof(table));
        lns.drs_count = 8;
        lns.downlink_cb = record_downlink;
        g_delivered.clear();
        bridge_log_init(BRIDGE_LOG_ERROR, true);
    }
    void TearDown() override {
        lns.lws_conn = nullptr;
        if (lns.inited) lns_ctx_deinit(&lns);
        bridge_log_init(BRIDGE_LOG_INFO, true);
    }
    // xtime of the queued dntxed (consumed), or nothing.
    bool pop_dntxed_xtime(int64_t *xtime) {
        auto *msg = static_cast<const bridge_bstn_lns_ring_msg *>(lws_ring_get_element(lns.buffers.uplink_ring, nullptr));
        if (!msg) return false;
        bridge_json_ptr obj(json_tokener_parse(msg->data));
        lws_ring_consume(lns.buffers.uplink_ring, nullptr, nullptr, 1);
        json_object *v = nullptr;
        if (!obj || !json_object_object_get_ex(obj.get(), "xtime", &v)) return false;
        *xtime = json_object_get_int64(v);
        return true;
    }
    int conn_stand_in = 0;
};

TEST_F(LnsFuzzRegressions, ReplayedInputsAreHandledWithoutUndefinedBehaviour) {
    struct Row {
        const char *file;
        bool delivered;       // a downlink reached the subscriber (and a dntxed was queued)
        int64_t dntxed_xtime; // when delivered
    } rows[] = {
        // xtime given as 1.16e20 saturates to INT64_MAX; RX1 (RX2Freq misspelt) adds one second:
        // the sum used to overflow signed 64-bit arithmetic.
        {"dnmsg_xtime_overflow", true, wrapped(INT64_MAX, 1)},
        // MuxTime 1.7e17 s is beyond 64-bit milliseconds: converting it was undefined.
        {"muxtime_out_of_range", true, wrapped(1161084279931466, 2)},
        {"timesync_muxtime_huge", false, 0},
    };
    for (const Row &r : rows) {
        SCOPED_TRACE(r.file);
        g_delivered.clear();
        // A time reference from an earlier message (a failed conversion would also give 0).
        lns.muxtime = 1234;
        lns.reftime = 5678;
        const std::string text =
            kes_test::read_file(kes_test::source_dir() + "/fuzz/regressions/lns_message/" + r.file);
        ASSERT_FALSE(text.empty());
        EXPECT_EQ(lns_handle_message(&lns, text.c_str()), 0);
        // An out-of-range MuxTime leaves the time reference as it was.
        EXPECT_EQ(lns.muxtime, 1234u);
        EXPECT_EQ(lns.reftime, 5678u);
        int64_t xtime = 0;
        if (r.delivered) {
            EXPECT_EQ(g_delivered.size(), 1u);
            ASSERT_TRUE(pop_dntxed_xtime(&xtime));
            EXPECT_EQ(xtime, r.dntxed_xtime);
        } else {
            EXPECT_TRUE(g_delivered.empty());
            EXPECT_FALSE(pop_dntxed_xtime(&xtime));
        }
    }
}

TEST_F(LnsFuzzRegressions, MuxTimeAtTheEdgeOfTheRange) {
    struct Row {
        double seconds;
        uint64_t muxtime; // 1234: ignored, the earlier value stays
    } rows[] = {
        {1700000000.5, 1700000000500u},
        {1.8e16, 18000000000000000000u},  // still below 2^64 ms
        {1.9e16, 1234},                   // beyond
        {HUGE_VAL, 1234},
    };
    for (const Row &r : rows) {
        lns.muxtime = 1234;
        lns_muxtime_set(&lns, r.seconds);
        EXPECT_EQ(lns.muxtime, r.muxtime) << r.seconds;
    }
}

} // namespace
