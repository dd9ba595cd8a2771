// What one supervision pass starts and tears down after each possible failure.
#include <gtest/gtest.h>

#include <string>

#include "app/bridge_supervisor.h"

namespace {

std::string calls, failing; // stages run, each followed by a blank; the stage that fails
int seen_port = 0;

int record(const char *name) { return calls += std::string(name) + " ", failing == name ? -7 : 0; }

const bridge_stages recorder = {
    [] { return record("cups"); }, [](uint32_t, bool) { return record("discovery"); },
    [](bridge_stage_dataplane_cb, void *) { return record("dp_init"); },
    [](int port) { return seen_port = port, record("dp_start"); }, [] { return record("dp_connect"); },
    [] { return record("session"); }, [] { return record("dp_disconnect"); }, [] { return record("dp_stop"); },
    [] { return record("dp_deinit"); }, [] { return record("lns_stop"); },
};

TEST(SupervisorTest, StartsInOrderAndUndoesOnlyWhatStartedNewestFirst) {
    const struct { const char *failing; bool skip_cups; const char *expected, *fault; } rows[] = {
        {"", false, "cups discovery dp_init dp_start dp_connect session dp_disconnect dp_stop dp_deinit lns_stop ",
         "a stage skipped or torn down in the wrong order"},
        {"session", true, "discovery dp_init dp_start dp_connect session dp_disconnect dp_stop dp_deinit lns_stop ",
         "CUPS asked despite skip_cups; no teardown after a failed session"},
        {"cups", false, "cups ", "later stages run after a failed CUPS exchange"},
        {"discovery", true, "discovery ", "LNS context stopped twice after a failed discovery"},
        {"dp_init", true, "discovery dp_init lns_stop ", "LNS context leaked"},
        {"dp_start", true, "discovery dp_init dp_start dp_deinit lns_stop ", "dataplane leaked"},
        {"dp_connect", true, "discovery dp_init dp_start dp_connect dp_stop dp_deinit lns_stop ", "server left up"},
    };
    for (const auto &r : rows) {
        calls.clear();
        failing = r.failing;
        bridge_cfg_root cfg{};
        cfg.general.skip_cups = r.skip_cups;
        cfg.semtech.bind_port = 1700;
        EXPECT_EQ(bridge_supervisor_pass(recorder, cfg, 3, true), failing.empty() ? 0 : -7) << r.fault;
        EXPECT_EQ(calls, r.expected) << r.fault;
    }
    EXPECT_EQ(seen_port, 1700) << "the configured port not passed";
}

} // namespace
