#!/usr/bin/python3
"""A fault on the packet-forwarder side, against the real daemon: the forwarder disappears and
comes back from other ports with a restarted concentrator counter. The LNS session must survive,
and the bridge forwards both ways once the forwarder is back."""

import time

import harness as e2e
from harness import check

stack = e2e.Stack()


def test_forwarder_returns_from_other_ports_with_a_restarted_counter():
    stack.up()
    before, _ = stack.uplink_and_downlink(7101)
    stack.fwd.stop()
    time.sleep(0.5)
    stack.fwd = new = e2e.fwd_sim.FwdSim(stack.bridge.bind_port, stock=True, counter_start=1000).start()
    mark, sent = stack.lns.mark(), stack.uplink()
    msg = stack.lns_uplink(sent, 5, mark)
    check(msg and stack.acked(sent), "uplink of the returned forwarder not forwarded and acknowledged")
    xtime, old_xtime = msg["upinfo"]["xtime"], before["upinfo"]["xtime"]
    check(xtime & 0xFFFFFFFF == sent["tmst"] and xtime >> 48 != old_xtime >> 48,
          "xtime %#x after the counter restart, %#x before: no new time base" % (xtime, old_xtime))
    stack.pull()
    _, resp = stack.uplink_and_downlink(7103)
    check(resp["port"] == new.pull_port, "downlink not on the new PULL_DATA port")
    check(e2e.RESTART not in stack.bridge.log_text(), "the forwarder's absence ended the LNS session")


if __name__ == "__main__":
    e2e.run_tests([test_forwarder_returns_from_other_ports_with_a_restarted_counter], stack)
