#!/usr/bin/python3
"""End to end, uplink side: forwarder simulator -> kes_bstn -> LNS peer."""

import os
import struct
import sys
import time

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "sim"))
import harness as e2e  # noqa: E402
from harness import check  # noqa: E402

fwd_sim = e2e.fwd_sim
stack = e2e.Stack()
LOW32 = 0xFFFFFFFF
# Data-rate indexes of the LNS peer's EU868 router_config.
DR_INDEX = {"SF12BW125": 0, "SF11BW125": 1, "SF10BW125": 2, "SF9BW125": 3, "SF8BW125": 4, "SF7BW125": 5,
            "SF7BW250": 6}


def s32(v):
    return struct.unpack("<i", struct.pack("<I", v & LOW32))[0]


def check_xtime(msg, tmst):
    xtime = msg["upinfo"]["xtime"]
    check(xtime != 0, "xtime is 0 in %r" % msg)
    check(xtime & LOW32 == tmst, "xtime %#x does not carry tmst %#x" % (xtime, tmst))
    check(1 <= (xtime >> 48) <= 255, "xtime %#x has no epoch number" % xtime)


def test_uplinks_wait_for_the_stat_count():
    stack.up(sync=False)
    fwd = stack.fwd
    # No count yet: the bridge refuses the packet and does not acknowledge the PUSH_DATA.
    mark = stack.lns.mark()
    early = stack.uplink()
    check(not stack.acked(early, 1.0), "PUSH_DATA acknowledged before the time base was synchronised")
    check(stack.lns_uplink(early, 0.2, mark) is None, "uplink forwarded before synchronisation")
    # A stat without count leaves it unsynchronised; one with count synchronises it.
    check(stack.acked(fwd.push_data({"stat": {"rxnb": 1}})), "stat without count not acknowledged")
    check(not stack.acked(stack.uplink(), 1.0), "uplink acknowledged after a stat without count")
    sent, msg = stack.sync()
    check_xtime(msg, sent["tmst"])
    stack.pull()


def test_join_requests_and_data_frames_reach_the_lns():
    cases = [  # (forwarder version, frame, datr)
        (2, "jreq", "SF12BW125"), (2, "updf", "SF7BW125"), (1, "updf", "SF9BW125"), (1, "jreq", "SF10BW125"),
        (2, "updf", "SF7BW250"),
    ]
    for version, kind, datr in cases:
        mark = stack.lns.mark()
        if kind == "jreq":
            nonce = int(time.monotonic() * 1000) & 0xFFFF
            phy = fwd_sim.join_request("70b3d57ed0000001", "0004a30b001c0530", nonce)
            sent = stack.fwd.send_uplink(phy, version=version, datr=datr, rssi=-61, lsnr=-7.26)
            msg = stack.lns.wait_recv("jreq", 5, mark, lambda m: m.get("DevNonce") == nonce)
            check(msg is not None, "jreq v%d %s did not arrive" % (version, datr))
            check(msg["JoinEui"] == "70-b3-d5-7e-d0-00-00-01", "JoinEui %r" % msg["JoinEui"])
            check(msg["DevEui"] == "00-04-a3-0b-00-1c-05-30", "DevEui %r" % msg["DevEui"])
            check(msg["MIC"] == s32(0x01020304), "MIC %r" % msg["MIC"])
        else:
            sent = stack.uplink(version=version, datr=datr, rssi=-61, lsnr=-7.26)
            msg = stack.lns_uplink(sent, 5, mark)
            check(msg is not None, "updf v%d %s did not arrive" % (version, datr))
            check(msg["DevAddr"] == 0x260B1234 and msg["FPort"] == 2, "frame fields %r" % msg)
            check(msg["FRMPayload"] == sent["fcnt"].to_bytes(4, "big").hex(), "FRMPayload %r" % msg)
            check(msg["MIC"] == s32(0x0a0b0c0d), "MIC %r" % msg["MIC"])
        check(msg["DR"] == DR_INDEX[datr], "v%d %s: DR %r, expected %d" % (version, datr, msg["DR"],
                                                                          DR_INDEX[datr]))
        check(msg["Freq"] == 868100000, "Freq %r" % msg["Freq"])
        check_xtime(msg, sent["tmst"])
        upinfo = msg["upinfo"]
        check(upinfo["rssi"] == -61 and abs(upinfo["snr"] - (-7.3)) < 1e-9, "radio metadata %r" % upinfo)
        check(stack.acked(sent), "v%d PUSH_DATA not acknowledged" % version)


def test_batched_rxpk_arrive_in_order():
    fcnts = []
    pks = []
    for _ in range(3):
        stack.fcnt += 1
        fcnts.append(stack.fcnt)
        phy = fwd_sim.data_frame(0x260B1234, stack.fcnt, fport=2, payload=b"\x00")
        pks.append(fwd_sim.rxpk(phy, stack.fwd.counter()))
    mark = stack.lns.mark()
    sent = stack.fwd.push_data({"rxpk": pks, "stat": {"count": stack.fwd.counter()}})
    check(stack.acked(sent), "batched PUSH_DATA not acknowledged")
    got = [stack.lns.wait_recv("updf", 5, mark, lambda m, f=f: m["FCnt"] == f) for f in fcnts]
    check(all(got), "batched uplinks missing: %r" % got)
    order = [e["msg"]["FCnt"] for e in stack.lns.find(lambda e: e.get("event") == "recv"
                                                        and e.get("msg", {}).get("msgtype") == "updf", mark)]
    check(order == fcnts, "order at the LNS %r, sent %r" % (order, fcnts))


def test_acknowledgements_echo_tokens_and_versions():
    fwd = stack.fwd
    for version in (1, 2):
        ev = fwd.push_data({"stat": {"count": fwd.counter()}}, version=version, token=0xA500 + version)
        ack = stack.acked(ev)
        check(ack and ack["version"] == version, "PUSH_ACK %r for version %d" % (ack, version))
        check(ack["port"] == fwd.push_port, "PUSH_ACK reached port %r" % ack["port"])
    ev = fwd.pull_data(token=0x5A5A)
    ack = fwd.wait_for(lambda e: e.get("kind") == "pull_ack" and e.get("token") == 0x5A5A, 5)
    check(ack and ack["port"] == fwd.pull_port, "PULL_ACK %r" % ack)
    check(not fwd.token_errors, "acknowledgements with unknown tokens: %r" % fwd.token_errors)
    unanswered = [t for t, sent in fwd.pending_push.items() if time.monotonic() - sent > 2]
    # Only the uplinks deliberately sent before synchronisation may stay unacknowledged.
    check(len(unanswered) <= 2, "PUSH_DATA without PUSH_ACK: %r" % unanswered)


def test_bad_datagrams_are_dropped_without_reply():
    fwd = stack.fwd
    eui = fwd.eui
    mark = fwd.mark()
    bad = [
        b"\x02\x01\x00",                                                       # 3 bytes
        fwd_sim.gwmp(3, 0xBAD3, fwd_sim.PUSH_DATA, eui, b'{"stat":{}}'),        # version 3
        fwd_sim.gwmp(2, 0xBAD4, fwd_sim.PUSH_DATA, eui, b'{"rxpk":[{"tmst":'),  # garbage JSON
        fwd_sim.gwmp(2, 0xBAD5, fwd_sim.PUSH_DATA, eui,
                     b'{"stat":{"count":1},"pad":"' + b"x" * 1500 + b'"}'),      # 1500+ bytes, cut
        fwd_sim.gwmp(2, 0xBAD6, fwd_sim.PUSH_DATA, eui),                        # EUI alone
        fwd_sim.gwmp(2, 0xBAD7, 0x09, eui, b"{}"),                              # unknown identifier
    ]
    for d in bad:
        fwd.send_raw(d)
    good = stack.uplink()
    check(stack.lns_uplink(good, 5) is not None, "good uplink after bad datagrams did not arrive")
    replies = fwd.find(lambda e: e["dir"] == "recv" and e.get("token") != good["token"], mark)
    check(not replies, "bad datagrams were answered: %r" % replies)
    check(stack.bridge.alive(), "bridge died")


def test_burst_acknowledges_exactly_what_was_queued():
    # 200 back-to-back PUSH_DATA overrun the LNS client's 16-slot uplink ring; an uplink that
    # cannot be queued must not be acknowledged, so the forwarder's own statistics stay true.
    fwd = stack.fwd
    mark, lmark = fwd.mark(), stack.lns.mark()
    sent = [stack.uplink() for _ in range(200)]
    # Everything queued has reached the LNS once an uplink sent after the burst has.
    time.sleep(0.2)
    after = stack.uplink()
    check(stack.lns_uplink(after, 10, lmark) is not None, "the session did not survive the burst")
    arrived = {e["msg"]["FCnt"] for e in stack.lns.find(
        lambda e: e.get("event") == "recv" and e.get("msg", {}).get("msgtype") == "updf", lmark)}
    acked = {e["token"] for e in fwd.find(lambda e: e.get("kind") == "push_ack", mark)}
    wrong = [s["fcnt"] for s in sent if (s["token"] in acked) != ((s["fcnt"] & 0xFFFF) in arrived)]
    check(not wrong, "acknowledged but not at the LNS, or the other way round: FCnt %r" % wrong[:10])
    dropped = sum(1 for s in sent if s["token"] not in acked)
    # Each one was refused by the LNS client (logged) or never read (kernel receive buffer full).
    refused = stack.bridge.log_text().count("failed to send message to LNS")
    kernel = e2e.udp_drops(stack.bridge.bind_port)
    check(refused + kernel >= dropped, "%d dropped, %d logged, %d dropped by the kernel" % (dropped, refused, kernel))
    print("  burst: %d of 200 queued, %d refused by the full uplink ring, %d dropped by the kernel"
          % (200 - dropped, refused, kernel))


if __name__ == "__main__":
    e2e.run_tests([
        test_uplinks_wait_for_the_stat_count,
        test_join_requests_and_data_frames_reach_the_lns,
        test_batched_rxpk_arrive_in_order,
        test_acknowledgements_echo_tokens_and_versions,
        test_bad_datagrams_are_dropped_without_reply,
        test_burst_acknowledges_exactly_what_was_queued,
    ], stack)
