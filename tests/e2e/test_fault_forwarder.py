#!/usr/bin/python3
"""A fault on the packet-forwarder side, against the real daemon: the forwarder disappears and comes
back from other ports with a restarted concentrator counter, 0.3 s before that counter wraps. The LNS
session must survive, a new time base must start, the wrap must not break it, and the bridge forwards
both ways once the forwarder is back."""

import time

import harness as e2e
from harness import check

stack = e2e.Stack(fwd_counter=1 << 31)  # far from where the returning forwarder's counter starts


def xtime_of(sent, start):
    msg = stack.lns_uplink(sent, 5, start)
    check(msg and stack.acked(sent), "uplink FCnt %d of the returned forwarder lost" % sent["fcnt"])
    xtime = msg["upinfo"]["xtime"]
    check(xtime & 0xFFFFFFFF == sent["tmst"], "xtime %#x for tmst %#x" % (xtime, sent["tmst"]))
    return xtime


def test_forwarder_returns_from_other_ports_with_a_restarted_counter_that_wraps():
    stack.up()
    before, _ = stack.uplink_and_downlink(7101)
    stack.fwd.stop()
    time.sleep(0.5)
    stack.fwd = new = e2e.fwd_sim.FwdSim(stack.bridge.bind_port, stock=True, counter_start=(1 << 32) - 300000).start()
    first = stack.uplink()
    x1 = xtime_of(first, 0)
    check(x1 >> 48 != before["upinfo"]["xtime"] >> 48, "no new time base after the counter restart")
    e2e.wait_until(lambda: new.counter() < (1 << 31), 2)
    second = stack.uplink()
    x2 = xtime_of(second, 0)
    check(x2 - x1 == (second["tmst"] - first["tmst"]) % (1 << 32), "xtime %#x then %#x across the wrap" % (x1, x2))
    stack.pull()
    _, resp = stack.uplink_and_downlink(7103)
    check(resp["port"] == new.pull_port, "downlink not on the new PULL_DATA port")
    check(e2e.RESTART not in stack.bridge.log_text(), "the forwarder's absence ended the LNS session")


if __name__ == "__main__":
    e2e.run_tests([test_forwarder_returns_from_other_ports_with_a_restarted_counter_that_wraps], stack)
