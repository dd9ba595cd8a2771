#!/usr/bin/python3
"""The real daemon against the Python LNS peer and forwarder simulator, on one session:

  * messages that must not end the session (a dnmsg without time, without any receive window,
    with an unknown DR index or dC, an unknown msgtype, a second router_config) are dropped and
    traffic goes on both ways; a dnmsg longer than one receive event (5,000 bytes) is joined
    and reaches the forwarder;
  * a burst of 64 uplinks sent back to back: all acknowledged and all at the LNS.
What ends a session is proven by the LNS client's own tests; the restart after it by
tests/slow/test_slow_lns_recovery.py."""

import os
import sys

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "sim"))
import harness as e2e  # noqa: E402
import fault_support as fs  # noqa: E402
from harness import check  # noqa: E402

stack = fs.FaultStack(skip_cups=True, prefix="kes_fault_lns_")

# (fault the row catches, message, log line of the drop)
DROPPED = [
    ("dnmsg without xtime and gpstime ended the session", fs.dnmsg(201, -1, gpstime=-1),
     "xtime and gpstime both missing from incoming packet"),
    ("dnmsg with an unknown DR index ended the session", fs.dnmsg(202, 1 << 48, RX1DR=40),
     "invalid DR index: [40]"),
    ("dnmsg without receive windows ended the session",
     {"msgtype": "dnmsg", "DevEui": "00-00-00-00-00-00-00-01", "dC": 0, "diid": 204, "xtime": 1 << 48},
     "no suitable DR index found in the class-A downlink"),
    ("dnmsg with dC 7 ended the session", fs.dnmsg(203, 1 << 48, dC=7), "no suitable dC (downlink type) found"),
    ("an unknown msgtype ended the session", {"msgtype": "no_such_message", "x": 1}, None),
    ("a second router_config ended the session", {"msgtype": "router_config", "DRs": [[7, 125, 0]]}, None),
]


def test_dropped_messages_keep_the_session():
    stack.up()
    for i, (fault, msg, line) in enumerate(DROPPED):
        before = stack.bridge.count(line) if line else 0
        stack.lns.send(msg)
        if line:
            check(e2e.wait_until(lambda: stack.bridge.count(line) > before, 5, 0.1), "%s: missing %r" % (fault, line))
        fs.uplink_and_downlink(stack, 300 + i)
    # Longer than one receive event of the library: its fragments must be joined.
    up, _ = fs.uplink_and_downlink(stack, 400)
    fmark = stack.fwd.mark()
    stack.lns.send(fs.dnmsg(401, up["upinfo"]["xtime"], pad="x" * 5000))
    check(stack.fwd.wait_for(lambda e: e.get("kind") == "pull_resp", 5, fmark), "5,000-byte dnmsg not delivered")
    check(fs.RESTART not in stack.bridge.log_text(), "a dropped message ended the session")
    check(len(fs.traffic_connections(stack.lns)) == 1, "the session was reopened")


def test_burst_of_64_uplinks():
    lmark = stack.lns.mark()
    sent = [stack.uplink() for _ in range(64)]
    missing_ack = [s["fcnt"] for s in sent if not stack.acked(s, 5)]
    missing_lns = [s["fcnt"] for s in sent if not stack.lns_uplink(s, 5, lmark)]
    print("  64 uplinks back to back: %d acknowledged, %d at the LNS"
          % (64 - len(missing_ack), 64 - len(missing_lns)))
    check(not missing_ack, "not acknowledged: FCnt %s" % missing_ack)
    check(not missing_lns, "not at the LNS: FCnt %s" % missing_lns)


if __name__ == "__main__":
    e2e.run_tests([test_dropped_messages_keep_the_session, test_burst_of_64_uplinks], stack)
