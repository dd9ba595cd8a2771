#!/usr/bin/python3
"""End to end, downlink side: LNS peer dnmsg -> kes_bstn -> forwarder simulator PULL_RESP, and dntxed."""

import base64
import os
import sys

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "sim"))
import harness as e2e  # noqa: E402
from harness import check  # noqa: E402

stack = e2e.Stack()
LOW32 = 0xFFFFFFFF
diid = [100]


def dnmsg_for(up, **members):
    """A class-A dnmsg answering the uplink `up` as the LNS received it (RX1 = its DR and Freq)."""
    diid[0] += 1
    msg = {"msgtype": "dnmsg", "DevEui": "00-00-00-00-00-00-00-01", "dC": 0, "diid": diid[0],
           "pdu": "0a0b0c0d", "RxDelay": 1,
           "RX1DR": up["DR"], "RX1Freq": up["Freq"], "priority": 0, "xtime": up["upinfo"]["xtime"],
           "rctx": up["upinfo"]["rctx"]}
    msg.update(members)
    return msg


def uplink_at_lns():
    mark = stack.lns.mark()
    sent = stack.uplink()
    up = stack.lns_uplink(sent, 5, mark)
    check(up is not None, "uplink did not reach the LNS")
    return sent, up


def pull_resp_after(mark, timeout=5.0):
    return stack.fwd.wait_for(lambda e: e.get("kind") == "pull_resp", timeout, mark)


def dntxed_for(msg, mark, timeout=5.0):
    return stack.lns.wait_recv("dntxed", timeout, mark, lambda m: m.get("diid") == msg["diid"])


def test_downlink_before_any_pull_data_is_dropped():
    stack.up(pull=False)
    _, up = uplink_at_lns()
    fmark, lmark = stack.fwd.mark(), stack.lns.mark()
    msg = dnmsg_for(up)
    stack.lns.send(msg)
    # The LNS client confirms what it handed over; the dataplane has nowhere to send it yet.
    check(dntxed_for(msg, lmark), "no dntxed for the early downlink")
    check(stack.bridge.wait_log("RX is not yet allowed", 5), "no 'RX is not yet allowed' in the log")
    check(pull_resp_after(fmark, 0.5) is None, "downlink sent before any PULL_DATA")
    stack.pull()


def test_class_a_windows_and_delays():
    cases = [  # (name, dnmsg members, delay added to the uplink time, datr, freq)
        ("RX1", {}, 1_000_000, "SF7BW125", 868.1),
        ("RX2", {"RX2DR": 0, "RX2Freq": 869525000}, 2_000_000, "SF12BW125", 869.525),
        ("RxDelay 0 counts as 1 s", {"RxDelay": 0}, 1_000_000, "SF7BW125", 868.1),
        ("RxDelay 3", {"RxDelay": 3}, 3_000_000, "SF7BW125", 868.1),
        ("RX2 with RxDelay 0", {"RxDelay": 0, "RX2DR": 3, "RX2Freq": 869525000}, 2_000_000, "SF9BW125", 869.525),
    ]
    for name, members, delay, datr, freq in cases:
        sent, up = uplink_at_lns()
        fmark, lmark = stack.fwd.mark(), stack.lns.mark()
        msg = dnmsg_for(up, **members)
        stack.lns.send(msg)
        resp = pull_resp_after(fmark)
        check(resp is not None, "%s: no PULL_RESP" % name)
        check(resp["version"] == 2 and resp["token"] == 0 and resp["zero_terminated"],
              "%s: PULL_RESP header %r" % (name, resp))
        txpk = resp["json"]["txpk"]
        check(txpk["tmst"] == (sent["tmst"] + delay) & LOW32,
              "%s: tmst %d, uplink tmst %d + %d" % (name, txpk["tmst"], sent["tmst"], delay))
        check(txpk["datr"] == datr and abs(txpk["freq"] - freq) < 1e-6, "%s: radio %r" % (name, txpk))
        check(txpk["imme"] is False and txpk["size"] == 4 and base64.b64decode(txpk["data"]) == b"\x0a\x0b\x0c\x0d",
              "%s: txpk %r" % (name, txpk))
        dntxed = dntxed_for(msg, lmark)
        check(dntxed is not None, "%s: no dntxed" % name)
        check(dntxed["xtime"] == up["upinfo"]["xtime"] + delay, "%s: dntxed xtime %d, uplink xtime %d"
              % (name, dntxed["xtime"], up["upinfo"]["xtime"]))
        # What the bridge reports is when the forwarder was told to send.
        check(dntxed["xtime"] & LOW32 == txpk["tmst"], "%s: dntxed and PULL_RESP disagree" % name)
        check(dntxed["DevEui"] == msg["DevEui"] and dntxed["rctx"] == msg["rctx"], "%s: dntxed %r" % (name, dntxed))
        ack = stack.fwd.wait_for(lambda e: e.get("kind") == "tx_ack" and e["t"] >= resp["t"], 2, fmark)
        check(ack is not None, "%s: simulator did not answer TX_ACK" % name)


def test_downlinks_follow_the_latest_pull_data_port():
    fwd = stack.fwd
    old_port = fwd.pull_port
    new_port = fwd.rebind_pull()
    stack.pull()
    _, up = uplink_at_lns()
    fmark = fwd.mark()
    stack.lns.send(dnmsg_for(up))
    resp = pull_resp_after(fmark)
    check(resp is not None and resp["port"] == new_port, "PULL_RESP %r, expected port %d" % (resp, new_port))
    check(not fwd.find(lambda e: e["dir"] == "recv" and e.get("port") == old_port, fmark),
          "something still went to the old downlink port")


def test_unschedulable_downlinks_keep_the_session():
    _, up = uplink_at_lns()
    fmark = stack.fwd.mark()
    stack.lns.send(dnmsg_for(up, RX1DR=16))  # not below the 16 table entries: dropped by the LNS client
    stack.lns.send({"msgtype": "dnsched", "schedule": []})
    check(stack.bridge.wait_log("invalid DR index", 5), "no 'invalid DR index' in the log")
    check(pull_resp_after(fmark, 0.5) is None, "an unschedulable downlink was sent")
    _, up = uplink_at_lns()
    check(up is not None and stack.bridge.alive(), "session did not survive")


if __name__ == "__main__":
    e2e.run_tests([
        test_downlink_before_any_pull_data_is_dropped,
        test_class_a_windows_and_delays,
        test_downlinks_follow_the_latest_pull_data_port,
        test_unschedulable_downlinks_keep_the_session,
    ], stack)
