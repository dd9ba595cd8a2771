#!/usr/bin/python3
"""End to end: the LNS closes the session; the bridge tears everything down, pauses 20 seconds,
starts again from nothing (new dataplane, new xtime epoch, downlinks closed until PULL_DATA) and
traffic flows again. This is the one test that pays the real 20-second pause."""

import os
import sys
import time

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "sim"))
import harness as e2e  # noqa: E402
from harness import check  # noqa: E402

stack = e2e.Stack()
LOW32 = 0xFFFFFFFF


def traffic_connections():
    return stack.lns.find(lambda e: e.get("event") == "connected" and e.get("kind") == "traffic")


def test_session_closed_by_the_lns_restarts_the_bridge():
    stack.up()
    _, first_up = stack.sync()
    check(len(traffic_connections()) == 1, "expected one traffic connection")

    closed_at = time.monotonic()
    stack.lns.command(cmd="close")
    check(stack.bridge.wait_log("restarting Basic Station in 20 seconds...", 10), "no restart message")
    check("non-critical error raised: [" in stack.bridge.log_text(), "no 'non-critical error raised'")

    # During the pause nothing listens on the UDP port: no acknowledgement.
    check(not stack.acked(stack.fwd.send_stat(), 1.0), "PUSH_DATA acknowledged during the pause")

    second = e2e.wait_until(lambda: len(traffic_connections()) >= 2 and traffic_connections()[1], 45, 0.2)
    check(second, "the bridge did not reconnect within 45 s")
    pause = second["t"] - closed_at
    check(19.0 <= pause <= 35.0, "reconnected after %.1f s, expected about 20 s" % pause)
    check(stack.bridge.alive(), "bridge exited")

    # Fresh pass: new time base, synchronised again from stat; uplinks carry the new epoch's xtime.
    stack.lns.wait_for(lambda e: e.get("event") == "sent" and e.get("msg", {}).get("msgtype") == "router_config",
                       10, stack.lns.events.index(second))
    sent, up = stack.sync()
    check(up["upinfo"]["xtime"] & LOW32 == sent["tmst"], "xtime after restart does not carry tmst")
    print("  epoch before %d, after %d" % (first_up["upinfo"]["xtime"] >> 48, up["upinfo"]["xtime"] >> 48))

    # The downlink path is closed again until the forwarder's next PULL_DATA.
    fmark = stack.fwd.mark()
    stack.lns.send({"msgtype": "dnmsg", "DevEui": "00-00-00-00-00-00-00-01", "dC": 0, "diid": 900,
                    "pdu": "0a0b", "RxDelay": 1, "RX1DR": 5, "RX1Freq": 868100000,
                    "xtime": up["upinfo"]["xtime"], "rctx": 0})
    check(stack.bridge.wait_log("RX is not yet allowed", 5), "downlink not refused before PULL_DATA")
    time.sleep(0.3)
    check(not stack.lns.find(lambda e: e.get("msg", {}).get("diid") == 900 and e.get("event") == "recv"),
          "dntxed for a downlink dropped before PULL_DATA")
    check(not stack.fwd.find(lambda e: e.get("kind") == "pull_resp", fmark), "downlink sent before PULL_DATA")
    stack.pull()
    fmark = stack.fwd.mark()
    stack.lns.send({"msgtype": "dnmsg", "DevEui": "00-00-00-00-00-00-00-01", "dC": 0, "diid": 901,
                    "pdu": "0a0b", "RxDelay": 1, "RX1DR": 5, "RX1Freq": 868100000,
                    "xtime": up["upinfo"]["xtime"], "rctx": 0})
    resp = stack.fwd.wait_for(lambda e: e.get("kind") == "pull_resp", 5, fmark)
    check(resp and resp["json"]["txpk"]["tmst"] == (sent["tmst"] + 1_000_000) & LOW32,
          "downlink after restart: %r" % resp)


if __name__ == "__main__":
    e2e.run_tests([test_session_closed_by_the_lns_restarts_the_bridge], stack)
