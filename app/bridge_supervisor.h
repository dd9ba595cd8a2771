// One pass of the supervision loop: brings every stage up in order, runs the
// LNS session, and tears down exactly what was started.
#pragma once

#include <cstdint>

#include "common/bridge_bstn_config.h"

using bridge_stage_dataplane_cb = void (*)(uint32_t kind, void *arg);

// The stages a pass calls, in the order it calls them. The daemon fills it with
// the real modules; tests fill it with recorders.
struct bridge_stages {
    int (*cups_bootstrap)();
    int (*lns_init_discovery)(uint32_t level, bool use_stderr);
    int (*dataplane_init)(bridge_stage_dataplane_cb cb, void *cb_arg);
    int (*dataplane_start_server)(int port);
    int (*dataplane_ns_connect)();
    int (*lns_start)();
    int (*dataplane_ns_disconnect)();
    int (*dataplane_stop_server)();
    int (*dataplane_deinit)();
    int (*lns_stop)();
};

// Runs one pass and returns its result: the failing stage's status, or the
// LNS session's result.
int bridge_supervisor_pass(const bridge_stages &stages, const bridge_cfg_root &cfg, uint32_t level,
                           bool use_stderr);

// Logs the end of a pass and the coming restart, and counts the restart.
void bridge_supervisor_report(int result);

constexpr unsigned BRIDGE_RESTART_PAUSE_S = 20;

// Waits `seconds` in slices of at most one second, keeping the systemd watchdog
// fed and the periodic summary going while nothing else runs.
void bridge_supervisor_pause(unsigned seconds);
