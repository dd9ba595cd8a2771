#!/usr/bin/python3
"""End to end on one session with a stock packet forwarder (no stat count, batches of up to 8 rxpk):
uplinks of versions 1 and 2 flow from the first datagram to the LNS peer; then LNS dnmsg -> PULL_RESP
at the forwarder, with the dntxed that tells the LNS what the forwarder was given (the counter wrap:
test_fault_session.py)."""

import base64
import threading
import time

import harness as e2e
from harness import check, dnmsg, xtime_of

fwd_sim = e2e.fwd_sim
stack = e2e.Stack(fwd_stock=True)
DR_INDEX = {"SF12BW125": 0, "SF10BW125": 2, "SF7BW125": 5, "SF7BW250": 6}  # the LNS peer's EU868 table
JOIN_EUI, DEV_EUI = "70-b3-d5-7e-d0-00-00-01", "00-04-a3-0b-00-1c-05-30"


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


def uplink_at_lns():
    mark, sent = stack.lns.mark(), stack.uplink()
    return sent, xtime_of(stack.lns_uplink(sent, 5, mark), sent["tmst"])


def counts(fmark, lmark):
    """(PULL_RESP at the forwarder, dntxed at the LNS) since the marks."""
    return (len(stack.fwd.find(lambda e: e.get("kind") == "pull_resp", fmark)),
            len(stack.lns.find(lambda e: e.get("event") == "recv" and isinstance(e.get("msg"), dict)
                               and e["msg"].get("msgtype") == "dntxed", lmark)))


def test_class_a_windows_agree_with_dntxed_even_in_a_burst():
    # The session of the uplink story, still without PULL_DATA.
    _, xtime = uplink_at_lns()
    fmark, lmark = stack.fwd.mark(), stack.lns.mark()
    stack.lns.send(dnmsg(100, xtime))  # RX1 at the uplink's DR 5 and 868.1 MHz
    check(not stack.fwd.wait_for(lambda e: e.get("kind") == "pull_resp", 1.0, fmark) and counts(fmark, lmark)[1] == 0,
          "downlink sent or confirmed before any PULL_DATA")
    stack.pull()
    for diid, members, delay, datr, freq in (  # dnmsg members, delay after the uplink, txpk datr and freq
            (101, {}, 1_000_000, "SF7BW125", 868.1),
            (102, {"RxDelay": 0, "RX2DR": 0, "RX2Freq": 869525000}, 2_000_000, "SF12BW125", 869.525),
            (103, {"RxDelay": 3}, 3_000_000, "SF7BW125", 868.1)):
        sent, xtime = uplink_at_lns()
        fmark, lmark = stack.fwd.mark(), stack.lns.mark()
        stack.lns.send(dnmsg(diid, xtime, **members))
        resp = stack.fwd.wait_for(lambda e: e.get("kind") == "pull_resp", 5, fmark)
        check(resp and (resp["version"], resp["token"], resp["zero_terminated"]) == (2, 0, True),
              "%d: PULL_RESP %r" % (diid, resp))
        txpk = resp["json"]["txpk"]
        check(txpk["tmst"] == (sent["tmst"] + delay) & 0xFFFFFFFF and txpk["datr"] == datr and txpk["imme"] is False
              and abs(txpk["freq"] - freq) < 1e-6 and base64.b64decode(txpk["data"]) == b"\x0a\x0b\x0c\x0d",
              "%d: txpk %r for uplink tmst %d" % (diid, txpk, sent["tmst"]))
        dntxed = stack.lns.wait_recv("dntxed", 5, lmark, lambda m: m.get("diid") == diid)
        check(dntxed and dntxed["xtime"] == xtime + delay, "%d: dntxed %r" % (diid, dntxed))
    # A burst of 120 while uplinks flow: each downlink handed over is confirmed, no uplink is lost.
    fmark, lmark, first = stack.fwd.mark(), stack.lns.mark(), stack.fcnt + 1
    uplinks = threading.Thread(target=lambda: [stack.uplink() or time.sleep(0.01) for _ in range(50)])
    uplinks.start()
    for diid in range(200, 320):
        stack.lns.send(dnmsg(diid, xtime))
    uplinks.join()
    uplink_at_lns()  # checks that the bridge did not hang in the burst
    seen = []  # both counts unchanged for 0.3 s: the burst is over
    e2e.wait_until(lambda: seen.append(counts(fmark, lmark)) or seen[-2:] == seen[-1:] * 2, 10, 0.3)
    check(seen[-1][0] == seen[-1][1] > 0, "%d PULL_RESP at the forwarder, %d dntxed at the LNS" % seen[-1])
    got = {e["msg"].get("FCnt") for e in stack.lns.find(lambda e: e.get("event") == "recv", lmark)
           if isinstance(e.get("msg"), dict) and e["msg"].get("msgtype") == "updf"}
    check(set(range(first, first + 50)) <= got, "uplinks lost in the burst: %r" % (set(range(first, first + 50)) - got))
    print("  burst: %d of 120 downlinks sent and confirmed" % seen[-1][1])


if __name__ == "__main__":
    e2e.run_tests([test_stock_forwarder_uplinks_flow_from_the_first_datagram,
                   test_class_a_windows_agree_with_dntxed_even_in_a_burst], stack)
