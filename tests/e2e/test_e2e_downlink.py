#!/usr/bin/python3
"""End to end, downlink side: LNS peer dnmsg -> kes_bstn -> forwarder simulator PULL_RESP, and the
dntxed that tells the LNS what the forwarder was given."""

import base64
import threading
import time

import harness as e2e
from harness import check, dnmsg

stack = e2e.Stack(fwd_stock=True)


def uplink_at_lns():
    mark, sent = stack.lns.mark(), stack.uplink()
    up = stack.lns_uplink(sent, 5, mark)
    check(up is not None, "uplink did not reach the LNS")
    return sent, up["upinfo"]["xtime"]


def counts(fmark, lmark):
    """(PULL_RESP at the forwarder, dntxed at the LNS) since the marks."""
    return (len(stack.fwd.find(lambda e: e.get("kind") == "pull_resp", fmark)),
            len(stack.lns.find(lambda e: e.get("event") == "recv" and isinstance(e.get("msg"), dict)
                               and e["msg"].get("msgtype") == "dntxed", lmark)))


def test_class_a_windows_agree_with_dntxed_even_in_a_burst():
    stack.up(pull=False)
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
    e2e.run_tests([test_class_a_windows_agree_with_dntxed_even_in_a_burst], stack)
