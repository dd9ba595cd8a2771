// kes_bstn entry point: options, logging, configuration, then the supervision
// loop that keeps the gateway connected for as long as the process lives.
#include <argp.h>
#include <cerrno>
#include <cstdio>
#include <cstdlib>

#include "app/bridge_supervisor.h"
#include "app/bridge_version.h"
#include "bstn/bridge_bstn_cups.h"
#include "common/bridge_bstn_config.h"
#include "common/bridge_health.h"
#include "common/bridge_utils.h"
#include "converter/data/bridge_bstn_lns.h"
#include "converter/data/bridge_data_conv.h"

const char *argp_program_version = "kes_bstn " BRIDGE_VERSION;
const char *argp_program_bug_address = "<support@kestrane.example>";

namespace {

struct bridge_options {
    const char *cfg_file = nullptr;
    bool use_stderr = false;
    unsigned level = BRIDGE_LOG_INFO;
};

constexpr argp_option options[] = {
    {"config", 'c', "FILE", 0, "Path to configuration file", 0},
    {"stderr", 'd', nullptr, 0, "Send log messages to the standard error descriptor instead of syslog.", 0},
    {"verbose", 'v', "LEVEL", 0, "Logs verbosity level:\n0 - ERROR, 1 - WARN, 2 - INFO, 3 - DEBUG, 4 - TRACE", 0},
    {},
};

error_t parse_opt(int key, char *arg, argp_state *state) {
    auto *opts = static_cast<bridge_options *>(state->input);
    switch (key) {
    case 'c':
        fprintf(stderr, "cfg file: %s\n", arg);
        opts->cfg_file = arg;
        return 0;
    case 'd':
        fwrite("logging to stderr is on\n", 1, 24, stderr);
        opts->use_stderr = true;
        return 0;
    case 'v': {
        char *end = nullptr;
        errno = 0;
        long level = strtol(arg, &end, 10);
        if (end == arg || level < 0 || level > static_cast<long>(BRIDGE_LOG_TRACE)) {
            fprintf(stderr, "Invalid log level value: %s\n", arg);
            argp_usage(state);
            return EINVAL;
        }
        opts->level = static_cast<unsigned>(level);
        fprintf(stderr, "log level: %d\n", static_cast<int>(level));
        return 0;
    }
    default:
        return ARGP_ERR_UNKNOWN;
    }
}

constexpr argp argp_def = {options, parse_opt, nullptr, "Kestrane Basic Station bridge " BRIDGE_VERSION,
                           nullptr, nullptr, nullptr};

int bridge_lns_stop_stage() {
    bridge_bstn_lns_stop();
    return 0;
}

constexpr bridge_stages bridge_daemon_stages = {
    bridge_bstn_cups_bootstrap,
    bridge_bstn_lns_init_discovery,
    bridge_dataplane_init,
    bridge_dataplane_start_server,
    bridge_dataplane_ns_connect,
    bridge_bstn_lns_start,
    bridge_dataplane_ns_disconnect,
    bridge_dataplane_stop_server,
    bridge_dataplane_deinit,
    bridge_lns_stop_stage,
};

} // namespace

int main(int argc, char **argv) {
    bridge_options opts;

    if (argc <= 1) {
        argp_help(&argp_def, stderr, ARGP_HELP_STD_HELP, argv[0]);
        return 1;
    }
    if (argp_parse(&argp_def, argc, argv, 0, nullptr, &opts) != 0) {
        fwrite("failed to parse arguments", 1, 25, stderr);
        return 1;
    }

    if (bridge_log_init(opts.level, opts.use_stderr) < 0) return 2;

    LOG_INFO("Starting Kestrane Basic Station bridge %s", BRIDGE_VERSION);

    if (opts.cfg_file == nullptr) {
        LOG_ERROR("missing configuration file argument, aborting...");
        return 3;
    }

    LOG_TRACE("loading configuration file: %s\n", opts.cfg_file);
    int rc = bridge_config_process(opts.cfg_file);
    if (rc != 0) {
        LOG_ERROR("aborting execution due to critical error: [%d]", rc);
        return -rc;
    }

    const bridge_cfg_root *cfg = bridge_config_get_root();
    BRIDGE_ASSERT(cfg != NULL);
    bridge_health_set_interval(static_cast<unsigned>(cfg->general.summary_interval));
    bridge_health_tick(bridge_health_now_ms()); // the first summary covers the time from here
    bridge_watchdog_ready();

    for (;;) {
        cfg = bridge_config_get_root();
        rc = bridge_supervisor_pass(bridge_daemon_stages, *cfg, opts.level, opts.use_stderr);
        bridge_supervisor_report(rc);
        bridge_supervisor_pause(BRIDGE_RESTART_PAUSE_S);
    }
}
