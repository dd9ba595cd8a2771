#!/usr/bin/python3
"""Faults of the peers during one session, against the real daemon. Messages the LNS sends that must be
dropped neither end the session nor reach the forwarder. Then the forwarder disappears and comes back
from other ports with a restarted concentrator counter, 0.3 s before that counter wraps: the LNS session
survives, a new time base starts, the wrap does not break it, and the bridge forwards both ways once the
forwarder is back. Session ends and fragment joining: tests/integration; the restart: tests/slow."""

import time

import harness as e2e
from harness import check, dnmsg

stack = e2e.Stack(fwd_counter=1 << 31)  # far from where the returning forwarder's counter starts
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


def xtime_at_lns(sent):
    check(stack.acked(sent), "uplink FCnt %d of the returned forwarder not acknowledged" % sent["fcnt"])
    return e2e.xtime_of(stack.lns_uplink(sent, 5), sent["tmst"])


def test_forwarder_returns_from_other_ports_with_a_restarted_counter_that_wraps():
    before, _ = stack.uplink_and_downlink(7101)
    stack.fwd.stop()
    time.sleep(0.5)
    stack.fwd = new = e2e.fwd_sim.FwdSim(stack.bridge.bind_port, stock=True, counter_start=(1 << 32) - 300000).start()
    first = stack.uplink()
    x1 = xtime_at_lns(first)
    check(x1 >> 48 != before["upinfo"]["xtime"] >> 48, "no new time base after the counter restart")
    e2e.wait_until(lambda: new.counter() < (1 << 31), 2)
    second = stack.uplink()
    x2 = xtime_at_lns(second)
    check(x2 - x1 == (second["tmst"] - first["tmst"]) % (1 << 32), "xtime %#x then %#x across the wrap" % (x1, x2))
    stack.pull()
    _, resp = stack.uplink_and_downlink(7103)
    check(resp["port"] == new.pull_port, "downlink not on the new PULL_DATA port")
    check(e2e.RESTART not in stack.bridge.log_text(), "the forwarder's absence ended the LNS session")


if __name__ == "__main__":
    e2e.run_tests([test_dropped_messages_keep_the_session,
                   test_forwarder_returns_from_other_ports_with_a_restarted_counter_that_wraps], stack)
