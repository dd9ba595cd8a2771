#!/usr/bin/python3
"""End to end, downlink side: LNS peer dnmsg -> kes_bstn -> forwarder simulator PULL_RESP, and the
dntxed that tells the LNS what the forwarder was given."""

import base64
import os
import sys
import threading
import time

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "sim"))
import harness as e2e  # noqa: E402
from harness import check  # noqa: E402

stack = e2e.Stack(fwd_stock=True)
LOW32 = 0xFFFFFFFF
diid = [100]


def dnmsg_for(up, **members):
    """A class-A dnmsg answering the uplink `up` as the LNS received it (RX1 = its DR and Freq)."""
    diid[0] += 1
    msg = {"msgtype": "dnmsg", "DevEui": "00-00-00-00-00-00-00-01", "dC": 0, "diid": diid[0], "pdu": "0a0b0c0d",
           "RxDelay": 1, "RX1DR": up["DR"], "RX1Freq": up["Freq"], "priority": 0, "xtime": up["upinfo"]["xtime"],
           "rctx": up["upinfo"]["rctx"]}
    msg.update(members)
    return msg


def uplink_at_lns():
    mark = stack.lns.mark()
    sent = stack.uplink()
    up = stack.lns_uplink(sent, 5, mark)
    check(up is not None, "uplink did not reach the LNS")
    return sent, up


def pull_resps(mark):
    return stack.fwd.find(lambda e: e.get("kind") == "pull_resp", mark)


def dntxeds(mark):
    return stack.lns.find(lambda e: e.get("event") == "recv" and isinstance(e.get("msg"), dict)
                          and e["msg"].get("msgtype") == "dntxed", mark)


def test_dnmsg_before_the_first_pull_data_gets_no_dntxed():
    stack.up(pull=False)
    _, up = uplink_at_lns()
    fmark, lmark = stack.fwd.mark(), stack.lns.mark()
    stack.lns.send(dnmsg_for(up))
    check(stack.bridge.wait_log("RX is not yet allowed", 5), "the downlink did not reach the dataplane")
    time.sleep(0.3)
    check(not dntxeds(lmark), "dntxed for a downlink that had nowhere to go")
    check(not pull_resps(fmark), "downlink sent before any PULL_DATA")
    stack.pull()


def test_class_a_windows_agree_with_dntxed():
    cases = [  # (name, dnmsg members, delay after the uplink, datr, freq)
        ("RX1", {}, 1_000_000, "SF7BW125", 868.1),
        ("RX2 with RxDelay 0", {"RxDelay": 0, "RX2DR": 0, "RX2Freq": 869525000}, 2_000_000, "SF12BW125", 869.525),
        ("RxDelay 3", {"RxDelay": 3}, 3_000_000, "SF7BW125", 868.1),
    ]
    for name, members, delay, datr, freq in cases:
        sent, up = uplink_at_lns()
        fmark, lmark = stack.fwd.mark(), stack.lns.mark()
        msg = dnmsg_for(up, **members)
        stack.lns.send(msg)
        resp = stack.fwd.wait_for(lambda e: e.get("kind") == "pull_resp", 5, fmark)
        check(resp and resp["version"] == 2 and resp["token"] == 0 and resp["zero_terminated"],
              "%s: PULL_RESP %r" % (name, resp))
        txpk = resp["json"]["txpk"]
        check(txpk["tmst"] == (sent["tmst"] + delay) & LOW32, "%s: tmst %d after uplink tmst %d"
              % (name, txpk["tmst"], sent["tmst"]))
        check(txpk["datr"] == datr and abs(txpk["freq"] - freq) < 1e-6 and txpk["imme"] is False
              and base64.b64decode(txpk["data"]) == b"\x0a\x0b\x0c\x0d", "%s: txpk %r" % (name, txpk))
        dntxed = stack.lns.wait_recv("dntxed", 5, lmark, lambda m: m.get("diid") == msg["diid"])
        check(dntxed and dntxed["xtime"] == up["upinfo"]["xtime"] + delay, "%s: dntxed %r" % (name, dntxed))
        check(dntxed["xtime"] & LOW32 == txpk["tmst"], "%s: dntxed and PULL_RESP disagree" % name)


def test_burst_of_120_dnmsg_while_uplinks_flow():
    _, up = uplink_at_lns()
    fmark, lmark = stack.fwd.mark(), stack.lns.mark()
    sent = []
    uplinks = threading.Thread(target=lambda: [sent.append(stack.uplink()) or time.sleep(0.01) for _ in range(50)])
    uplinks.start()
    for _ in range(120):
        stack.lns.send(dnmsg_for(up))
    uplinks.join()
    later = uplink_at_lns()
    check(later and stack.bridge.alive(), "the bridge hung in the burst")
    seen = [None]  # both counts unchanged for 0.3 s: the burst is over

    def settled():
        before, seen[0] = seen[0], (len(pull_resps(fmark)), len(dntxeds(lmark)))
        return seen[0] == before
    e2e.wait_until(settled, 10, 0.3)
    check(seen[0][0] == seen[0][1] > 0, "%d PULL_RESP at the forwarder, %d dntxed at the LNS" % seen[0])
    arrived = [stack.lns_uplink(s, 5, lmark) for s in sent]
    check(all(arrived), "%d of %d uplinks sent during the burst missing" % (arrived.count(None), len(sent)))
    print("  burst: %d of 120 downlinks sent and confirmed" % len(dntxeds(lmark)))


if __name__ == "__main__":
    e2e.run_tests([
        test_dnmsg_before_the_first_pull_data_gets_no_dntxed,
        test_class_a_windows_agree_with_dntxed,
        test_burst_of_120_dnmsg_while_uplinks_flow,
    ], stack)
