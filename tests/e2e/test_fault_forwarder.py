#!/usr/bin/python3
"""Faults on the packet-forwarder side, against the real daemon: a burst of 10,000 PUSH_DATA,
and a forwarder that disappears and comes back from other ports with a restarted concentrator
counter. Neither may end the LNS session: the bridge drops what it cannot take, keeps running,
and forwards both ways once the fault is over."""

import os
import sys
import time

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "sim"))
import harness as e2e  # noqa: E402
import fault_support as fs  # noqa: E402
from harness import check  # noqa: E402

stack = fs.FaultStack(skip_cups=True, prefix="kes_fault_fwd_")
FLOOD = 10_000


def test_flood_of_10000_push_data():
    stack.up()
    fwd = stack.fwd
    burst = []  # built first, so that sending is one tight loop
    for i in range(FLOOD):
        phy = e2e.fwd_sim.data_frame(0x26020000, i, fport=2, payload=i.to_bytes(4, "big"))
        body = ('{"rxpk":[%s]}' % e2e.json.dumps(e2e.fwd_sim.rxpk(phy, fwd.counter()))).encode()
        burst.append(e2e.fwd_sim.gwmp(2, fwd.next_token(), e2e.fwd_sim.PUSH_DATA, fwd.eui, body))
    fmark, lmark = fwd.mark(), stack.lns.mark()
    for data in burst:
        fwd.push_sock.sendto(data, fwd.addr)
    seen = [-1]  # the worker has drained its socket when a second passes without a new datagram

    def settled():
        n = stack.bridge.log_text().count("PUSH_DATA received with version")
        done, seen[0] = n == seen[0], n
        return done
    e2e.wait_until(settled, 60, 1.0)
    acked = len(fwd.find(lambda e: e.get("kind") == "push_ack", fmark))
    at_lns = len(stack.lns.find(lambda e: e.get("event") == "recv" and isinstance(e.get("msg"), dict)
                                and e["msg"].get("DevAddr") == 0x26020000, lmark))
    print("  burst of %d: %d acknowledged, %d at the LNS" % (FLOOD, acked, at_lns))
    check(stack.bridge.alive() and fs.RESTART not in stack.bridge.log_text(), "the flood ended the session")
    check(0 < at_lns <= acked, "%d at the LNS, %d acknowledged" % (at_lns, acked))
    fs.uplink_and_downlink(stack, 7001)


def test_forwarder_returns_from_other_ports_with_a_restarted_counter():
    old = stack.fwd
    old_ports = (old.push_port, old.pull_port)
    before, _ = fs.uplink_and_downlink(stack, 7101)
    old.stop()
    time.sleep(0.5)
    new = e2e.fwd_sim.FwdSim(stack.bridge.bind_port, stock=True, counter_start=1000).start()
    stack.fwd = new
    check(not {new.push_port, new.pull_port} & set(old_ports), "simulator reused a port")
    mark = stack.lns.mark()
    sent = stack.uplink()
    msg = stack.lns_uplink(sent, 5, mark)
    check(msg and stack.acked(sent), "uplink of the returned forwarder not forwarded and acknowledged")
    xtime = msg["upinfo"]["xtime"]
    check(xtime & 0xFFFFFFFF == sent["tmst"] and xtime >> 48 != before["upinfo"]["xtime"] >> 48,
          "xtime %#x after the counter restart, %#x before: no new time base" % (xtime, before["upinfo"]["xtime"]))
    # Downlinks wait for the new PULL_DATA, then follow its port.
    fmark = new.mark()
    stack.lns.send(fs.dnmsg(7102, xtime))
    check(not new.wait_for(lambda e: e.get("kind") == "pull_resp", 1.0, fmark), "downlink before PULL_DATA")
    stack.pull()
    _, resp = fs.uplink_and_downlink(stack, 7103)
    check(resp["port"] == new.pull_port, "downlink not on the new PULL_DATA port")
    check(fs.RESTART not in stack.bridge.log_text(), "the forwarder's absence ended the LNS session")


if __name__ == "__main__":
    e2e.run_tests([test_flood_of_10000_push_data, test_forwarder_returns_from_other_ports_with_a_restarted_counter],
                  stack)
