#!/usr/bin/python3
"""Slow fault test (tests/slow, run by scripts/slow_tests.sh): an LNS that stalls.

Three bridges run side by side, each with its primary LNS URI on a server that never completes
an exchange, and (where the bridge has a fallback) a working LNS peer behind the backup URI:

  * discovery stall: the WebSocket opens, `router-info` is never answered. The exchange gives up
    after its 120 s bound, the backup settings are tried at once and the session starts there;
  * TLS stall: the TCP connection is accepted and nothing is ever sent (no TLS handshake); the
    same bound applies, then the backup;
  * handshake stall: discovery works but `version` is never answered. The session start gives
    up after 120 s, pauses 10 s, the pass ends with the restart line; the test then points the
    URI files at the working peer and the next pass carries traffic.

Takes about 3 minutes."""

import os
import sys
import time

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.join(HERE, "..", "e2e"))
sys.path.insert(0, os.path.join(HERE, "..", "..", "sim"))
import harness as e2e  # noqa: E402
import fault_support as fs  # noqa: E402
from harness import check  # noqa: E402

stacks = []
TIMEOUT_LINE = "no reply from LNS within"


def discovery_stall():
    st = fs.FaultStack(lns_args=(), skip_cups=True, prefix="kes_slow_stall_")
    stacks.append(st)
    e2e.make_certs(st.certs)
    bad = e2e.LnsPeer(st.certs, "--stall-discovery")
    st.cleanups.append(bad.stop)
    run_with_backup(st, bad.port, "discovery stall",
                    lambda: bad.find(lambda e: e.get("event") == "recv" and e.get("kind") == "discovery"))


def tls_stall():
    st = fs.FaultStack(lns_args=(), skip_cups=True, prefix="kes_slow_stall_")
    stacks.append(st)
    e2e.make_certs(st.certs)
    server = fs.StallServer()
    st.cleanups.append(server.stop)
    run_with_backup(st, server.port, "TLS stall", lambda: server.accepted)


def run_with_backup(st, bad_port, name, stalled):
    """Primary URI on the stalling server, backup URI on the stack's working LNS peer."""
    st.lns = e2e.LnsPeer(st.certs)
    st.bridge = fs.FaultBridge(st.tmp, st.certs, os.path.join(st.tmp, "cred"), bad_port, e2e.free_udp_port(),
                               skip_cups=True)
    st.bridge.set_lns_port(bad_port)
    with open(st.bridge.cred("lns.uri_backup"), "w") as f:
        f.write("wss://127.0.0.1:%d\n" % st.lns.port)
    st.fwd = e2e.fwd_sim.FwdSim(st.bridge.bind_port).start()
    t0 = time.monotonic()
    check(e2e.wait_until(stalled, 15), "%s: the stalling server was not contacted" % name)
    check(not e2e.wait_until(lambda: fs.traffic_connections(st.lns), 100, 1.0),
          "%s: backup used before the bound" % name)
    check(st.bridge.alive() and fs.RESTART not in st.bridge.log_text(), "%s: gave up early" % name)
    st.ready(60)
    t_conn = fs.traffic_connections(st.lns)[0]["t"] - t0
    fs.uplink_and_downlink(st, 1)
    log = st.bridge.log_text()
    line = [ln for ln in log.splitlines() if TIMEOUT_LINE in ln]
    print("  %-16s %s; session on the backup LNS %.1f s after start, traffic OK"
          % (name, line[0].split("] ", 1)[-1].split(" ", 1)[-1] if line else "(no time-out line)", t_conn))
    check(line, "%s: no %r line" % (name, TIMEOUT_LINE))
    check(115.0 <= t_conn <= 135.0, "%s: backup session after %.1f s, expected about 120 s" % (name, t_conn))
    check(fs.RESTART not in log, "%s: a restart although the backup worked" % name)


def handshake_stall():
    st = fs.FaultStack(lns_args=(), skip_cups=True, prefix="kes_slow_stall_")
    stacks.append(st)
    e2e.make_certs(st.certs)
    bad = e2e.LnsPeer(st.certs, "--stall-version")
    st.cleanups.append(bad.stop)
    st.lns = e2e.LnsPeer(st.certs)
    st.bridge = fs.FaultBridge(st.tmp, st.certs, os.path.join(st.tmp, "cred"), bad.port, e2e.free_udp_port(),
                               skip_cups=True)
    st.fwd = e2e.fwd_sim.FwdSim(st.bridge.bind_port).start()
    watch = fs.LogWatch(st.bridge, TIMEOUT_LINE, fs.RESTART)
    try:
        t0 = time.monotonic()
        check(bad.wait_recv("version", 15), "handshake stall: no version sent")
        check(watch.wait(TIMEOUT_LINE, 1, 130), "handshake stall: no time-out")
        check(watch.wait(fs.RESTART, 1, 15), "handshake stall: no restart line")
        t_to, t_re = watch.times(TIMEOUT_LINE)[0] - t0, watch.times(fs.RESTART)[0] - t0
        st.bridge.set_lns_port(st.lns.port)   # the fault ends: the URI files name a working LNS
        with open(st.bridge.cred("lns.uri_backup"), "w") as f:
            f.write("wss://127.0.0.1:%d\n" % st.lns.port)
        st.ready(45)
        t_conn = fs.traffic_connections(st.lns)[0]["t"] - t0
        fs.uplink_and_downlink(st, 1)
        print("  handshake stall  time-out at %.1f s, restart line at %.1f s, next session at %.1f s, traffic OK"
              % (t_to, t_re, t_conn))
        check(115.0 <= t_to <= 130.0, "handshake time-out after %.1f s" % t_to)
        check(9.0 <= t_re - t_to <= 12.0, "no 10 s pause after the failed session start")
        check(19.5 <= t_conn - t_re <= 26.0, "next pass not 20 s after the restart line")
        check(st.bridge.alive(), "bridge exited")
    finally:
        watch.stop()


def test_lns_stalls():
    fs.run_parallel(discovery_stall, tls_stall, handshake_stall)


if __name__ == "__main__":
    fs.run_tests([test_lns_stalls], stacks)
