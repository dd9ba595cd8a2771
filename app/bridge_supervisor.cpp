#include "app/bridge_supervisor.h"

#include "common/bridge_utils.h"

namespace {

// The dataplane reports failures to hand an uplink to the LNS; the session
// itself notices a broken LNS connection, so there is nothing to do here.
void dataplane_failure_noop(uint32_t, void *) {}

} // namespace

int bridge_supervisor_pass(const bridge_stages &st, const bridge_cfg_root &cfg, uint32_t level,
                           bool use_stderr) {
    int rc;
    if (!cfg.general.skip_cups) {
        rc = st.cups_bootstrap();
        if (rc != 0) return rc;
    }

    // A failed discovery has already torn the LNS context down.
    rc = st.lns_init_discovery(level, use_stderr);
    if (rc != 0) return rc;

    rc = st.dataplane_init(dataplane_failure_noop, nullptr);
    if (rc != 0) {
        st.lns_stop();
        return rc;
    }

    rc = st.dataplane_start_server(static_cast<int>(cfg.semtech.bind_port));
    if (rc != 0) {
        st.dataplane_deinit();
        st.lns_stop();
        return rc;
    }

    rc = st.dataplane_ns_connect();
    if (rc != 0) {
        st.dataplane_stop_server();
        st.dataplane_deinit();
        st.lns_stop();
        return rc;
    }

    rc = st.lns_start();

    st.dataplane_ns_disconnect();
    st.dataplane_stop_server();
    st.dataplane_deinit();
    st.lns_stop();
    return rc;
}

void bridge_supervisor_report(int result) {
    LOG_WARN("non-critical error raised: [%d]", result);
    LOG_WARN("restarting Basic Station in 20 seconds...");
}
