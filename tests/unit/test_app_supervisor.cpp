// What one supervision pass starts and tears down after each possible failure.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "app/bridge_supervisor.h"
#include "common/bridge_utils.h"
#include "support/test_support.h"

namespace {

std::vector<std::string> calls;
std::string failing;      // stage that returns non-zero
int failing_rc = -7;
int session_rc = 0;       // result of the LNS session
int seen_port = 0;
uint32_t seen_level = 0;
bool seen_stderr = false;
bridge_stage_dataplane_cb seen_cb = nullptr;

int record(const char *name) {
    calls.emplace_back(name);
    return failing == name ? failing_rc : 0;
}

const bridge_stages recorder = {
    [] { return record("cups_bootstrap"); },
    [](uint32_t level, bool use_stderr) {
        seen_level = level;
        seen_stderr = use_stderr;
        return record("lns_init_discovery");
    },
    [](bridge_stage_dataplane_cb cb, void *) {
        seen_cb = cb;
        return record("dataplane_init");
    },
    [](int port) {
        seen_port = port;
        return record("dataplane_start_server");
    },
    [] { return record("dataplane_ns_connect"); },
    [] {
        record("lns_start");
        return session_rc;
    },
    [] { return record("dataplane_ns_disconnect"); },
    [] { return record("dataplane_stop_server"); },
    [] { return record("dataplane_deinit"); },
    [] { record("lns_stop"); },
};

struct PassCase {
    const char *failing;
    bool skip_cups;
    std::vector<std::string> expected;
};

class SupervisorPass : public ::testing::TestWithParam<PassCase> {};

TEST_P(SupervisorPass, StartsInOrderAndTearsDownOnlyWhatStarted) {
    const PassCase &c = GetParam();
    calls.clear();
    failing = c.failing;
    session_rc = 0;
    bridge_cfg_root cfg{};
    cfg.general.skip_cups = c.skip_cups;
    cfg.semtech.bind_port = 1700;

    int rc = bridge_supervisor_pass(recorder, cfg, 3, true);

    EXPECT_EQ(calls, c.expected);
    EXPECT_EQ(rc, failing.empty() ? 0 : failing_rc);
}

const std::vector<std::string> full_pass = {
    "cups_bootstrap", "lns_init_discovery", "dataplane_init", "dataplane_start_server", "dataplane_ns_connect",
    "lns_start", "dataplane_ns_disconnect", "dataplane_stop_server", "dataplane_deinit", "lns_stop"};

INSTANTIATE_TEST_SUITE_P(
    Stages, SupervisorPass,
    ::testing::Values(
        PassCase{"", false, full_pass},
        PassCase{"", true, std::vector<std::string>(full_pass.begin() + 1, full_pass.end())},
        PassCase{"cups_bootstrap", false, {"cups_bootstrap"}},
        // a failed discovery has already released the LNS context: no lns_stop
        PassCase{"lns_init_discovery", false, {"cups_bootstrap", "lns_init_discovery"}},
        PassCase{"dataplane_init", true, {"lns_init_discovery", "dataplane_init", "lns_stop"}},
        PassCase{"dataplane_start_server", true,
                 {"lns_init_discovery", "dataplane_init", "dataplane_start_server", "dataplane_deinit", "lns_stop"}},
        PassCase{"dataplane_ns_connect", true,
                 {"lns_init_discovery", "dataplane_init", "dataplane_start_server", "dataplane_ns_connect",
                  "dataplane_stop_server", "dataplane_deinit", "lns_stop"}}));

TEST(SupervisorPassDetails, SessionResultIsThePassResultAndTeardownStillRuns) {
    calls.clear();
    failing.clear();
    session_rc = 2;
    bridge_cfg_root cfg{};
    cfg.general.skip_cups = true;
    cfg.semtech.bind_port = 1700;
    EXPECT_EQ(bridge_supervisor_pass(recorder, cfg, 4, false), 2);
    EXPECT_EQ(calls.back(), "lns_stop");
    EXPECT_EQ(seen_port, 1700);
    EXPECT_EQ(seen_level, 4u);
    EXPECT_FALSE(seen_stderr);
    ASSERT_NE(seen_cb, nullptr);
    seen_cb(0, nullptr); // the failure callback given to the dataplane must be callable
}

TEST(SupervisorPassDetails, ReportLogsBothWarningsEvenForASuccessfulSession) {
    bridge_log_init(BRIDGE_LOG_WARN, true);
    kes_test::StderrCapture cap;
    bridge_supervisor_report(0);
    std::string out = cap.stop();
    auto first = out.find("non-critical error raised: [0]");
    auto second = out.find("restarting Basic Station in 20 seconds...");
    EXPECT_NE(first, std::string::npos) << out;
    EXPECT_NE(second, std::string::npos) << out;
    EXPECT_LT(first, second);
    EXPECT_NE(out.find("[WARN  ]"), std::string::npos) << out;
}

} // namespace
