#include "app/bridge_supervisor.h"

#include <array>
#include <unistd.h>

#include "common/bridge_health.h"
#include "common/bridge_utils.h"

namespace {

// The dataplane reports failures to hand an uplink to the LNS; the session
// itself notices a broken LNS connection, so there is nothing to do here.
void dataplane_failure_noop(uint32_t, void *) {}

// What a pass has started, undone newest first whatever way the pass ends.
class undo_list {
public:
    undo_list() = default;
    undo_list(const undo_list &) = delete;
    undo_list &operator=(const undo_list &) = delete;
    ~undo_list() {
        while (n_ > 0)
            steps_[--n_]();
    }
    void push(int (*step)()) { steps_[n_++] = step; }

private:
    std::array<int (*)(), 4> steps_{};
    size_t n_ = 0;
};

} // namespace

int bridge_supervisor_pass(const bridge_stages &st, const bridge_cfg_root &cfg, uint32_t level,
                           bool use_stderr) {
    if (!cfg.general.skip_cups)
        if (const int rc = st.cups_bootstrap(); rc != 0)
            return rc;

    undo_list undo;
    // A failed discovery has already torn the LNS context down.
    if (const int rc = st.lns_init_discovery(level, use_stderr); rc != 0)
        return rc;
    undo.push(st.lns_stop);
    if (const int rc = st.dataplane_init(dataplane_failure_noop, nullptr); rc != 0)
        return rc;
    undo.push(st.dataplane_deinit);
    if (const int rc = st.dataplane_start_server(static_cast<int>(cfg.semtech.bind_port)); rc != 0)
        return rc;
    undo.push(st.dataplane_stop_server);
    if (const int rc = st.dataplane_ns_connect(); rc != 0)
        return rc;
    undo.push(st.dataplane_ns_disconnect);
    return st.lns_start();
}

void bridge_supervisor_report(int result) {
    bridge_health_count(BRIDGE_CNT_SESSION_RESTARTS);
    LOG_WARN("non-critical error raised: [%d]", result);
    LOG_WARN("restarting Basic Station in 20 seconds...");
}

void bridge_supervisor_pause(unsigned seconds) {
    for (unsigned i = 0; i < seconds; i++) {
        bridge_watchdog_ping();
        bridge_health_tick(bridge_health_now_ms());
        sleep(1);
    }
    bridge_watchdog_ping();
}
