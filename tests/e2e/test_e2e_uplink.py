#!/usr/bin/python3
"""End to end, uplink side: a stock packet forwarder (no stat count, batches of up to 8 rxpk)
-> kes_bstn -> LNS peer."""

import os
import sys
import time

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "sim"))
import harness as e2e  # noqa: E402
from harness import check  # noqa: E402

fwd_sim = e2e.fwd_sim
stack = e2e.Stack(fwd_stock=True)
LOW32 = 0xFFFFFFFF
DR_INDEX = {"SF12BW125": 0, "SF10BW125": 2, "SF9BW125": 3, "SF7BW125": 5}  # the LNS peer's EU868 table


def check_xtime(msg, tmst):
    xtime = msg["upinfo"]["xtime"]
    check(xtime & LOW32 == tmst and 1 <= (xtime >> 48) <= 255, "xtime %#x for tmst %#x" % (xtime, tmst))
    return xtime


def at_lns(sent_fcnt=None, nonce=None, mark=0):
    if nonce is not None:
        return stack.lns.wait_recv("jreq", 5, mark, lambda m: m.get("DevNonce") == nonce)
    return stack.lns.wait_recv("updf", 5, mark, lambda m: m.get("FCnt") == sent_fcnt)


def test_stock_forwarder_uplinks_flow_from_the_first_datagram():
    stack.up(sync=False, pull=False)
    check(stack.bridge.wait_log("allowed DR item received", 10), "no data-rate table from the LNS")
    for version, kind, datr in ((2, "updf", "SF7BW125"), (1, "jreq", "SF10BW125"), (1, "updf", "SF9BW125"),
                                (2, "jreq", "SF12BW125")):
        mark = stack.lns.mark()
        if kind == "jreq":
            nonce = int(time.monotonic() * 1000) & 0xFFFF
            sent = stack.fwd.send_uplink(fwd_sim.join_request("70b3d57ed0000001", "0004a30b001c0530", nonce),
                                         version=version, datr=datr, rssi=-61, lsnr=-7.26)
            msg = at_lns(nonce=nonce, mark=mark)
            check(msg and msg["JoinEui"] == "70-b3-d5-7e-d0-00-00-01" and msg["DevEui"] == "00-04-a3-0b-00-1c-05-30",
                  "v%d jreq %r" % (version, msg))
        else:
            sent = stack.uplink(version=version, datr=datr, rssi=-61, lsnr=-7.26)
            msg = at_lns(sent["fcnt"], mark=mark)
            check(msg and msg["DevAddr"] == 0x260B1234 and msg["FRMPayload"] == sent["fcnt"].to_bytes(4, "big").hex(),
                  "v%d updf %r" % (version, msg))
        check(msg["DR"] == DR_INDEX[datr] and msg["Freq"] == 868100000, "v%d radio %r" % (version, msg))
        check(msg["upinfo"]["rssi"] == -61 and abs(msg["upinfo"]["snr"] + 7.3) < 1e-9, "upinfo %r" % msg)
        check_xtime(msg, sent["tmst"])
        check(stack.acked(sent), "v%d PUSH_DATA not acknowledged" % version)


def test_batch_of_8_mixed_uplinks_arrives_whole():
    phys, keys = [], []
    for i in range(fwd_sim.BATCH_MAX):
        if i % 3 == 0:
            nonce = (int(time.monotonic() * 1000) + i) & 0xFFFF
            phys.append(fwd_sim.join_request("70b3d57ed0000002", "0004a30b001c0531", nonce))
            keys.append(("jreq", "DevNonce", nonce))
        else:
            stack.fcnt += 1
            phys.append(fwd_sim.data_frame(0x260B1234, stack.fcnt, fport=3, payload=bytes(range(200))))
            keys.append(("updf", "FCnt", stack.fcnt))
    mark = stack.lns.mark()
    sent = stack.fwd.send_uplinks(phys)
    check(sent["size"] > 2048, "the batch is only %d bytes" % sent["size"])
    check(stack.acked(sent), "batch of 8 not acknowledged")
    for (msgtype, key, value), tmst in zip(keys, sent["tmsts"]):
        msg = stack.lns.wait_recv(msgtype, 5, mark, lambda m, k=key, v=value: m.get(k) == v)
        check(msg is not None, "%s %s=%d of the batch missing" % (msgtype, key, value))
        foreign = {"DevAddr", "FCnt", "FRMPayload"} if msgtype == "jreq" else {"JoinEui", "DevEui", "DevNonce"}
        check(not foreign & set(msg), "%s carries members of another message: %r" % (msgtype, msg))
        check_xtime(msg, tmst)


def test_uplink_after_the_counter_wrapped_is_one_period_later():
    stack.fwd.stop()
    stack.fwd = fwd_sim.FwdSim(stack.bridge.bind_port, stock=True, counter_start=(1 << 32) - 300000).start()
    first = stack.uplink()
    msg1 = stack.lns_uplink(first)
    check(msg1 is not None, "uplink before the wrap missing")
    e2e.wait_until(lambda: stack.fwd.counter() < (1 << 31), 2)
    second = stack.uplink()
    msg2 = stack.lns_uplink(second)
    check(msg2 is not None, "uplink after the wrap missing")
    x1, x2 = check_xtime(msg1, first["tmst"]), check_xtime(msg2, second["tmst"])
    check(x2 - x1 == (second["tmst"] - first["tmst"]) % (1 << 32), "xtime %#x then %#x across the wrap" % (x1, x2))


if __name__ == "__main__":
    e2e.run_tests([
        test_stock_forwarder_uplinks_flow_from_the_first_datagram,
        test_batch_of_8_mixed_uplinks_arrives_whole,
        test_uplink_after_the_counter_wrapped_is_one_period_later,
    ], stack)
