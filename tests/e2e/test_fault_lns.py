#!/usr/bin/python3
"""The real daemon against the LNS peer and forwarder simulator, on one session: messages that must be
dropped neither end the session nor reach the forwarder, a dnmsg longer than one receive event is joined,
a burst of 64 uplinks all arrives. Session ends: tests/integration; the restart after one: tests/slow."""

import os
import sys

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "sim"))
import harness as e2e  # noqa: E402
import fault_support as fs  # noqa: E402
from harness import check  # noqa: E402

stack = fs.FaultStack(skip_cups=True, prefix="kes_fault_lns_")
DROPPED = [fs.dnmsg(201, -1, gpstime=-1), fs.dnmsg(202, 1 << 48, RX1DR=40), fs.dnmsg(203, 1 << 48, dC=7),
           {"msgtype": "dnmsg", "DevEui": "00-00-00-00-00-00-00-01", "dC": 0, "diid": 204, "xtime": 1 << 48},
           {"msgtype": "no_such_message", "x": 1}, {"msgtype": "router_config", "DRs": [[7, 125, 0]]},
           {"msgtype": "dnsched", "schedule": []}]


def test_dropped_messages_keep_the_session():
    stack.up()
    up, _ = fs.uplink_and_downlink(stack, 300)
    fmark = stack.fwd.mark()
    for msg in DROPPED:
        stack.lns.send(msg)
    stack.lns.send(fs.dnmsg(401, up["upinfo"]["xtime"], pad="x" * 5000))  # several receive events
    tmst = (up["upinfo"]["xtime"] + 1_000_000) & 0xFFFFFFFF
    resp = lambda e: e.get("kind") == "pull_resp"  # noqa: E731
    check(stack.fwd.wait_for(lambda e: resp(e) and e["json"]["txpk"].get("tmst") == tmst, 5, fmark),
          "5,000-byte dnmsg not delivered")
    sent = stack.fwd.find(resp, fmark)
    check(len(sent) == 1, "a dropped dnmsg reached the forwarder: %r" % sent)
    fs.uplink_and_downlink(stack, 402)
    check(fs.RESTART not in stack.bridge.log_text(), "a dropped message ended the session")
    check(len(fs.traffic_connections(stack.lns)) == 1, "the session was reopened")


def test_burst_of_64_uplinks():
    lmark = stack.lns.mark()
    sent = [stack.uplink() for _ in range(64)]
    missing = [s["fcnt"] for s in sent if not (stack.acked(s, 5) and stack.lns_uplink(s, 5, lmark))]
    check(not missing, "not acknowledged or not at the LNS: FCnt %s" % missing)


if __name__ == "__main__":
    e2e.run_tests([test_dropped_messages_keep_the_session, test_burst_of_64_uplinks], stack)
