#!/usr/bin/python3
"""The real daemon against the LNS peer and forwarder simulator, on one session: messages that must be
dropped neither end the session nor reach the forwarder, a burst of 64 uplinks all arrives. Session ends
and fragment joining: tests/integration; the restart after a session end: tests/slow."""

import harness as e2e
from harness import check, dnmsg

stack = e2e.Stack()
DROPPED = [dnmsg(201, -1, gpstime=-1), dnmsg(202, 1 << 48, RX1DR=40), dnmsg(203, 1 << 48, dC=7),
           {"msgtype": "dnmsg", "DevEui": "00-00-00-00-00-00-00-01", "dC": 0, "diid": 204, "xtime": 1 << 48},
           {"msgtype": "no_such_message", "x": 1}, {"msgtype": "router_config", "DRs": [[7, 125, 0]]},
           {"msgtype": "dnsched", "schedule": []}]


def test_dropped_messages_keep_the_session():
    stack.up()
    fmark = stack.fwd.mark()
    for msg in DROPPED:
        stack.lns.send(msg)
    stack.uplink_and_downlink(402)  # handled after the dropped ones: the session goes on
    sent = stack.fwd.find(lambda e: e.get("kind") == "pull_resp", fmark)
    check(len(sent) == 1, "a dropped dnmsg reached the forwarder: %r" % sent)
    check(e2e.RESTART not in stack.bridge.log_text(), "a dropped message ended the session")
    check(len(e2e.traffic_connections(stack.lns)) == 1, "the session was reopened")


def test_burst_of_64_uplinks():
    lmark = stack.lns.mark()
    sent = [stack.uplink() for _ in range(64)]
    missing = [s["fcnt"] for s in sent if not (stack.acked(s, 5) and stack.lns_uplink(s, 5, lmark))]
    check(not missing, "not acknowledged or not at the LNS: FCnt %s" % missing)


if __name__ == "__main__":
    e2e.run_tests([test_dropped_messages_keep_the_session, test_burst_of_64_uplinks], stack)
