#!/usr/bin/python3
"""Slow test (run by scripts/slow_tests.sh): recovery from LNS faults through the real pauses, on one
bridge. The LNS closes the session: the bridge tears everything down, pauses 20 s and starts again
from nothing (new xtime epoch, downlinks held until PULL_DATA). The LNS refuses a whole pass: main and
backup discovery fail, 10 s pause, restart line, 20 s, then traffic flows again."""

import time

import harness as e2e
from harness import RESTART, check, dnmsg

stack = e2e.Stack()


def test_session_closed_by_the_lns_restarts_the_bridge():
    first, _ = stack.up().uplink_and_downlink(1)
    mark, t0 = stack.lns.mark(), time.monotonic()
    stack.lns.command(cmd="close")
    check(stack.bridge.wait_log(RESTART, 10), "no restart line")
    check(not stack.acked(stack.fwd.send_stat(), 1.0), "PUSH_DATA acknowledged during the pause")
    check(stack.handshake(45, mark), "no new session within 45 s")
    pause = e2e.traffic_connections(stack.lns, mark)[0]["t"] - t0
    check(19.0 <= pause <= 30.0, "new session after %.1f s, expected about 20 s" % pause)
    sent, up = stack.sync()
    xtime = e2e.xtime_of(up, sent["tmst"])
    check(xtime >> 48 != first["upinfo"]["xtime"] >> 48, "no new time base")
    fmark = stack.fwd.mark()
    stack.lns.send(dnmsg(900, xtime))
    check(not stack.fwd.wait_for(lambda e: e.get("kind") == "pull_resp", 2, fmark), "downlink sent before PULL_DATA")
    stack.pull()
    stack.uplink_and_downlink(901)


def test_recovery_after_a_refused_pass():
    mark, restarts = stack.lns.mark(), stack.bridge.log_text().count(RESTART)
    stack.lns.command(cmd="refuse", on=True)
    t0 = time.monotonic()
    stack.lns.command(cmd="close")
    refused = lambda: stack.lns.find(lambda e: e.get("event") == "refused", mark)  # noqa: E731
    check(e2e.wait_until(lambda: len(refused()) >= 2, 40), "discovery not refused twice on the next pass")
    check(stack.bridge.wait_log(RESTART, 20, restarts + 2), "no restart line after the refused pass")
    t_ref, t_restart = refused()[1]["t"] - t0, time.monotonic() - t0  # the log is read every 0.1 s
    stack.lns.command(cmd="refuse", on=False)
    stack.ready(45, mark)
    conn = e2e.traffic_connections(stack.lns, mark)[0]["t"] - t0
    stack.uplink_and_downlink(50)
    print("  second refusal at %.1f s, restart line at %.1f s, new session at %.1f s" % (t_ref, t_restart, conn))
    check(len(refused()) == 2, "more than two refused attempts in one pass")
    check(9.0 <= t_restart - t_ref <= 12.0, "no 10 s pause after the failed discovery")
    check(19.5 <= conn - t_restart <= 26.0, "next pass not 20 s after the refused one")
    check("non-critical error raised: [2]" in stack.bridge.log_text(), "refused pass did not end with status 2")


if __name__ == "__main__":
    e2e.run_tests([test_session_closed_by_the_lns_restarts_the_bridge, test_recovery_after_a_refused_pass], stack)
