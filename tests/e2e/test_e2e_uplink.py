#!/usr/bin/python3
"""End to end, uplink side: a stock packet forwarder (no stat count, batches of up to 8 rxpk)
-> kes_bstn -> LNS peer, versions 1 and 2 (the counter wrap: test_fault_forwarder.py)."""

import time

import harness as e2e
from harness import check

fwd_sim = e2e.fwd_sim
stack = e2e.Stack(fwd_stock=True)
DR_INDEX = {"SF12BW125": 0, "SF10BW125": 2, "SF7BW125": 5, "SF7BW250": 6}  # the LNS peer's EU868 table
JOIN_EUI, DEV_EUI = "70-b3-d5-7e-d0-00-00-01", "00-04-a3-0b-00-1c-05-30"


def xtime_of(msg, tmst):
    xtime = msg["upinfo"]["xtime"] if msg else 0
    check(xtime & 0xFFFFFFFF == tmst and 1 <= (xtime >> 48) <= 255, "xtime %#x for tmst %#x" % (xtime, tmst))
    return xtime


def join_request(nonce):
    return fwd_sim.join_request(JOIN_EUI.replace("-", ""), DEV_EUI.replace("-", ""), nonce)


def test_stock_forwarder_uplinks_flow_from_the_first_datagram():
    stack.up(sync=False, pull=False)
    check(stack.bridge.wait_log("allowed DR item received", 10), "no data-rate table from the LNS")
    for version, jreq, datr in ((2, False, "SF7BW125"), (1, True, "SF10BW125"), (1, False, "SF7BW250"),
                                (2, True, "SF12BW125")):
        mark, nonce = stack.lns.mark(), int(time.monotonic() * 1000) & 0xFFFF
        radio = dict(version=version, datr=datr, rssi=-61, lsnr=-7.26)
        sent = stack.fwd.send_uplink(join_request(nonce), **radio) if jreq else stack.uplink(**radio)
        msg = (stack.lns.wait_recv("jreq", 5, mark, lambda m: m.get("DevNonce") == nonce) if jreq
               else stack.lns_uplink(sent, 5, mark))
        check(msg, "v%d %s missing at the LNS" % (version, "jreq" if jreq else "updf"))
        ident = (msg["JoinEui"], msg["DevEui"]) if jreq else (msg["DevAddr"], int(msg["FRMPayload"], 16))
        check(ident == ((JOIN_EUI, DEV_EUI) if jreq else (0x260B1234, sent["fcnt"]))
              and (msg["DR"], msg["Freq"], msg["upinfo"]["rssi"]) == (DR_INDEX[datr], 868100000, -61)
              and abs(msg["upinfo"]["snr"] + 7.3) < 1e-9, "v%d uplink %r" % (version, msg))
        xtime_of(msg, sent["tmst"])
        check(stack.acked(sent), "v%d PUSH_DATA not acknowledged" % version)
    # A stock forwarder's full batch: 8 rxpk in one PUSH_DATA, each message with its own members.
    phys, keys, nonce = [], [], int(time.monotonic() * 1000) & 0x7FFF
    for i in range(fwd_sim.BATCH_MAX):
        stack.fcnt += 1
        phys.append(join_request(nonce + i) if i % 3 == 0 else
                    fwd_sim.data_frame(0x260B1234, stack.fcnt, fport=3, payload=bytes(range(200))))
        keys.append(("jreq", "DevNonce", nonce + i, {"DevAddr", "FCnt", "FRMPayload"}) if i % 3 == 0 else
                    ("updf", "FCnt", stack.fcnt, {"JoinEui", "DevEui", "DevNonce"}))
    mark = stack.lns.mark()
    sent = stack.fwd.send_uplinks(phys)
    check(sent["size"] > 2048 and stack.acked(sent), "batch of %d bytes not acknowledged" % sent["size"])
    for (msgtype, key, value, foreign), tmst in zip(keys, sent["tmsts"]):
        msg = stack.lns.wait_recv(msgtype, 5, mark, lambda m, k=key, v=value: m.get(k) == v)
        check(msg and not foreign & set(msg), "%s %s=%d of the batch missing or mixed: %r" % (msgtype, key, value, msg))
        xtime_of(msg, tmst)

if __name__ == "__main__":
    e2e.run_tests([test_stock_forwarder_uplinks_flow_from_the_first_datagram], stack)
