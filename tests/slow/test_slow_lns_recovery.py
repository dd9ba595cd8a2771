#!/usr/bin/python3
"""Slow fault test (tests/slow, run by scripts/slow_tests.sh): recovery from LNS faults through
the real 20-second restart. One bridge, one LNS peer; each fault ends the session, and the test
measures the pause until the next traffic connection and checks that uplinks and downlinks flow
again on the new pass:

  close by the LNS, a text that is not JSON, JSON without msgtype, a dnmsg without DevEui/diid,
  and an LNS that refuses every connection for one whole pass (discovery fails on the primary
  and the backup settings, 10 s pause, restart line, 20 s) and then accepts again."""

import os
import sys
import time

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.join(HERE, "..", "e2e"))
sys.path.insert(0, os.path.join(HERE, "..", "..", "sim"))
import harness as e2e  # noqa: E402
import fault_support as fs  # noqa: E402
from harness import check  # noqa: E402

stack = fs.FaultStack(skip_cups=True, prefix="kes_slow_lns_")

FAULTS = [
    ("close by the LNS", {"cmd": "close"}),
    ("text that is not JSON", {"cmd": "send_raw", "text": "garbage\x01\x02"}),
    ("JSON without msgtype", {"cmd": "send", "msg": {"hello": "world"}}),
    ("dnmsg without DevEui and diid", {"cmd": "send", "msg": {"msgtype": "dnmsg", "dC": 0, "RX1DR": 5,
                                                              "RX1Freq": 868100000, "xtime": 1 << 48}}),
]


def restart_and_recover(name, fault, diid):
    n_restarts = stack.bridge.count(fs.RESTART)
    mark = stack.lns.mark()
    t0 = time.monotonic()
    stack.lns.command(**fault)
    check(stack.bridge.wait_log(fs.RESTART, 10, count=n_restarts + 1), "%s: no restart line" % name)
    t_restart = time.monotonic()
    stack.ready(45, mark)
    conn = fs.traffic_connections(stack.lns, mark)[0]
    fs.uplink_and_downlink(stack, diid)
    pause = conn["t"] - t0
    print("  %-32s restart line after %.1f s, new session %.1f s after the fault, traffic OK"
          % (name, t_restart - t0, pause))
    check(19.5 <= pause <= 26.0, "%s: new session after %.1f s, expected about 20 s" % (name, pause))
    check(stack.bridge.alive(), "%s: bridge exited" % name)


def test_recovery_after_session_faults():
    stack.up()
    for i, (name, fault) in enumerate(FAULTS):
        restart_and_recover(name, fault, 10 + i)


def test_recovery_after_a_refused_pass():
    watch = fs.LogWatch(stack.bridge, fs.RESTART)
    try:
        mark = stack.lns.mark()
        restarts = stack.bridge.count(fs.RESTART)
        watch.wait(fs.RESTART, restarts, 2)
        stack.lns.command(cmd="refuse", on=True)
        t0 = time.monotonic()
        stack.lns.command(cmd="close")
        refused = lambda: stack.lns.find(lambda e: e.get("event") == "refused", mark)  # noqa: E731
        check(e2e.wait_until(lambda: len(refused()) >= 2, 40), "discovery not refused twice on the next pass")
        check(watch.wait(fs.RESTART, restarts + 2, 20), "no restart line after the refused pass")
        stack.lns.command(cmd="refuse", on=False)
        t_ref = [e["t"] - t0 for e in refused()]
        t_restart = [t - t0 for t in watch.times(fs.RESTART)[restarts:]]
        stack.ready(45, mark)
        conn = fs.traffic_connections(stack.lns, mark)[0]["t"] - t0
        fs.uplink_and_downlink(stack, 50)
        print("  refused pass: restart lines at %s s, discovery refused at %s s, new session at %.1f s"
              % (", ".join("%.1f" % t for t in t_restart), ", ".join("%.1f" % t for t in t_ref), conn))
        check(len(refused()) == 2, "more than two refused attempts in one pass")
        check(9.0 <= t_restart[1] - t_ref[1] <= 12.0, "no 10 s pause after the failed discovery")
        check(19.5 <= conn - t_restart[1] <= 26.0, "next pass not 20 s after the refused one")
        check(fs.NON_CRITICAL % 2 in stack.bridge.log_text(), "refused pass did not end with status 2")
    finally:
        watch.stop()


if __name__ == "__main__":
    e2e.run_tests([test_recovery_after_session_faults, test_recovery_after_a_refused_pass], stack)
