#!/usr/bin/python3
"""Fault injection on the packet-forwarder side, against the real daemon: a burst of 10,000
PUSH_DATA datagrams, and a forwarder that disappears and comes back from other ports with a new
concentrator counter. Neither fault may end the LNS session: the bridge drops what it cannot
take, keeps running, and forwards both ways once the fault is over."""

import os
import sys
import time

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "sim"))
import harness as e2e  # noqa: E402
import fault_support as fs  # noqa: E402
from harness import check  # noqa: E402

stack = fs.FaultStack(skip_cups=True, prefix="kes_fault_fwd_")
LOW32 = 0xFFFFFFFF
FLOOD = 10_000


def udp_rcvbuf_errors():
    with open("/proc/net/snmp") as f:
        rows = [line.split() for line in f if line.startswith("Udp:")]
    return int(rows[1][rows[0].index("RcvbufErrors")])


def test_flood_of_10000_push_data():
    stack.up()
    fwd = stack.fwd
    # Build the burst first so that sending it is one tight loop.
    burst = []
    for i in range(FLOOD):
        phy = e2e.fwd_sim.data_frame(0x26020000, i, fport=2, payload=i.to_bytes(4, "big"))
        token = fwd.next_token()
        body = ('{"rxpk":[%s]}' % e2e.json.dumps(e2e.fwd_sim.rxpk(phy, fwd.counter()))).encode()
        burst.append((token, e2e.fwd_sim.gwmp(2, token, e2e.fwd_sim.PUSH_DATA, fwd.eui, body)))
    kernel_drops = udp_rcvbuf_errors()
    fmark, lmark = fwd.mark(), stack.lns.mark()
    start = time.monotonic()
    for token, data in burst:
        with fwd.lock:
            fwd.pending_push[token] = time.monotonic()
        fwd.push_sock.sendto(data, fwd.addr)
    took = time.monotonic() - start

    # Let the worker drain its socket: no new datagram in its log for a second.
    last = [-1]

    def settled():
        n = stack.bridge.log_text().count("PUSH_DATA received with version")
        done = n == last[0]
        last[0] = n
        return done
    e2e.wait_until(settled, 60, 1.0)
    acked = len(fwd.find(lambda e: e.get("kind") == "push_ack" and e.get("token_ok"), fmark))
    at_lns = len(stack.lns.find(lambda e: e.get("event") == "recv" and isinstance(e.get("msg"), dict)
                                and e["msg"].get("DevAddr") == 0x26020000, lmark))
    log = stack.bridge.log_text()
    print("  burst of %d sent in %.2f s: %d acknowledged, %d at the LNS, %d dropped by the kernel "
          "(UDP RcvbufErrors), %d 'failed to insert a message into the ringbuffer', %d 'failed to send "
          "message to LNS'" % (FLOOD, took, acked, at_lns, udp_rcvbuf_errors() - kernel_drops,
                               log.count("failed to insert a message into the ringbuffer"),
                               log.count("failed to send message to LNS")))
    check(stack.bridge.alive(), "bridge died in the flood")
    check(fs.RESTART not in log, "the flood ended the LNS session")
    check(acked > 0 and at_lns > 0, "nothing of the burst got through")
    check(at_lns <= acked, "more uplinks at the LNS (%d) than acknowledged (%d)" % (at_lns, acked))
    check(not fwd.token_errors, "acknowledgements with unknown tokens: %r" % fwd.token_errors[:3])
    # After the burst everything flows again.
    fs.uplink_and_downlink(stack, 7001)


def test_forwarder_disappears_and_returns_from_other_ports():
    old = stack.fwd
    old_push, old_pull = old.push_port, old.pull_port
    up, _ = fs.uplink_and_downlink(stack, 7101)
    old.stop()

    # Downlinks while the forwarder is gone go to its last PULL_DATA port and are lost there.
    stack.lns.send(fs.dnmsg(7102, up["upinfo"]["xtime"]))
    check(stack.lns.wait_recv("dntxed", 5, where=lambda m: m.get("diid") == 7102), "no dntxed while away")
    check(stack.bridge.wait_log("sending to: 127.0.0.1:%d" % old_pull, 5), "downlink not sent to the old port")
    time.sleep(1.0)
    check(stack.bridge.alive() and fs.RESTART not in stack.bridge.log_text(), "bridge restarted")

    # The forwarder comes back: new sockets (other ports), new concentrator counter.
    new = e2e.fwd_sim.FwdSim(stack.bridge.bind_port).start()
    stack.fwd = new
    check(new.push_port != old_push and new.pull_port != old_pull, "simulator reused a port")
    sent, msg = stack.sync()   # PUSH_ACK reaches the new push port; uplinks reach the LNS
    check(msg["upinfo"]["xtime"] & LOW32 == sent["tmst"], "xtime does not carry the new tmst")
    check(msg["upinfo"]["xtime"] > 0, "uplink with xtime 0 after the counter jump")

    # Until the new PULL_DATA, downlinks still go to the old port.
    fmark = new.mark()
    stack.lns.send(fs.dnmsg(7103, msg["upinfo"]["xtime"]))
    check(stack.lns.wait_recv("dntxed", 5, where=lambda m: m.get("diid") == 7103), "no dntxed")
    check(not new.wait_for(lambda e: e.get("kind") == "pull_resp", 1.0, fmark),
          "downlink reached the new forwarder before its PULL_DATA")
    stack.pull()
    _, resp = fs.uplink_and_downlink(stack, 7104)
    check(resp["port"] == new.pull_port, "downlink not on the new PULL_DATA port")
    check(fs.RESTART not in stack.bridge.log_text(), "the forwarder's absence ended the LNS session")


if __name__ == "__main__":
    e2e.run_tests([test_flood_of_10000_push_data, test_forwarder_disappears_and_returns_from_other_ports], stack)
