// Inputs that the libFuzzer target fuzz_cups_response found crashing, replayed from
// fuzz/regressions/cups_response/ through the same response and credentials walks.
#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "bstn/bridge_bstn_cups_internal.h"
#include "common/bridge_bstn_config.h"
#include "common/bridge_utils.h"
#include "support/test_support.h"

namespace {

class CupsFuzzRegressions : public ::testing::Test {
protected:
    void SetUp() override {
        saved_ = *bridge_config_get_root();
        bridge_cfg_root *cfg = bridge_config_get_root();
        for (auto [set, prefix] : {std::pair{&cfg->cups, "cups"}, std::pair{&cfg->lns, "tc"}}) {
            const std::string p = dir_.file(prefix);
            snprintf(set->uri, sizeof set->uri, "%s.uri", p.c_str());
            snprintf(set->trust, sizeof set->trust, "%s.trust", p.c_str());
            snprintf(set->cert, sizeof set->cert, "%s.crt", p.c_str());
            snprintf(set->key, sizeof set->key, "%s.key", p.c_str());
        }
        bridge_log_init(BRIDGE_LOG_ERROR, true);
    }
    void TearDown() override {
        *bridge_config_get_root() = saved_;
        bridge_log_init(BRIDGE_LOG_INFO, true);
    }
    static std::vector<uint8_t> regression(const char *name) {
        const std::string text =
            kes_test::read_file(kes_test::source_dir() + "/fuzz/regressions/cups_response/" + name);
        return {text.begin(), text.end()};
    }
    kes_test::TempDir dir_;
    bridge_cfg_root saved_{};
};

// A long-form DER length whose sum with its header wraps past 2^32 used to come out as
// a tiny (even empty) item: an empty key item then failed the "der_sz != 0" assertion.
TEST_F(CupsFuzzRegressions, WrappedDerLengthIsUndecodable) {
    struct Row {
        std::vector<uint8_t> item;
        int32_t len;
    } rows[] = {
        {{0x30, 0x88, 0, 0, 0, 0, 0xff, 0xff, 0xff, 0xf6}, -1},       // L + 10 wraps to 0
        {{0x30, 0x88, 0, 0, 0, 0, 0xff, 0xff, 0xff, 0xf8}, -1},       // wraps to 2
        {{0x30, 0x84, 0xff, 0xff, 0xff, 0xfa}, -1},                   // L + 6 wraps to 0
        {{0x30, 0x84, 0x7f, 0xff, 0xff, 0xf0}, 0x7ffffff6},           // largest positive total
        {{0x30, 0x85, 0x01, 0x00, 0x00, 0x00, 0x10}, 0x10 + 7},       // leading byte shifts out
    };
    for (const Row &r : rows)
        EXPECT_EQ(bridge_bstn_cups_der_seq_len(r.item.data(), r.item.size()), r.len);
}

TEST_F(CupsFuzzRegressions, ReplayedCredentialsBlobFailsWithoutAborting) {
    const std::vector<uint8_t> blob = regression("der_len_wraps_to_zero_key");
    ASSERT_FALSE(blob.empty());
    kes_test::StderrCapture cap;
    EXPECT_EQ(bridge_bstn_cups_store_credentials(blob.data(), blob.size(), false), -1);
    const std::string log = cap.stop();
    EXPECT_NE(log.find("can't decode sequence length at offset [8]"), std::string::npos) << log;
    EXPECT_FALSE(kes_test::file_exists(bridge_config_get_root()->lns.key));

    // The same blob as the LNS credentials section of a whole response.
    std::vector<uint8_t> body = {0, 0, 0, 0, static_cast<uint8_t>(blob.size()), 0};
    body.insert(body.end(), blob.begin(), blob.end());
    body.insert(body.end(), 8, 0);
    bridge_bstn_cups_ctx ctx;
    ctx.resp_data.reset(static_cast<uint8_t *>(malloc(body.size())));
    memcpy(ctx.resp_data.get(), body.data(), body.size());
    ctx.resp_len = static_cast<uint32_t>(body.size());
    EXPECT_EQ(bridge_bstn_cups_process_response(&ctx), -1);
    EXPECT_FALSE(kes_test::file_exists(bridge_config_get_root()->lns.key));
}

} // namespace
