#!/usr/bin/python3
"""Fault injection on the LNS side, against the real daemon and the Python LNS peer, without
waiting for the 20-second restart (tests/slow/ covers the recovery after it):

  * an LNS that refuses every connection: discovery fails on the primary and the backup
    settings, 10 s pause, then the supervision loop's restart lines;
  * messages that end the session (text that is not JSON, JSON without msgtype, a dnmsg that
    lacks its mandatory DevEui and diid, a valid dnmsg longer than the 4096-byte receive buffer,
    whose fragments are not joined) and a close by the LNS while uplinks are flowing: the pass
    ends with "non-critical error raised: [%d]" and the restart line, the process stays up and
    the UDP port is closed during the pause;
  * messages that must not end it (a dnmsg without time, without any receive window, with an
    unknown DR index or dC, an unknown msgtype, a second router_config): each is dropped with
    its log line and traffic goes on both ways on the same connection."""

import os
import sys
import time

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "sim"))
import harness as e2e  # noqa: E402
import fault_support as fs  # noqa: E402
from harness import check  # noqa: E402

stacks = []


def new_stack(*lns_args):
    st = fs.FaultStack(lns_args=lns_args, skip_cups=True, prefix="kes_fault_lns_")
    stacks.append(st)
    return st


def test_lns_refusing_connections():
    st = new_stack("--refuse-discovery")
    st.launch()
    watch = fs.LogWatch(st.bridge, fs.RESTART)
    try:
        refused = lambda: st.lns.find(lambda e: e.get("event") == "refused")  # noqa: E731
        check(e2e.wait_until(lambda: len(refused()) >= 2, 15), "discovery was not tried twice")
        check(watch.wait(fs.RESTART, 1, 20), "no restart line after the refused discovery")
        pause = watch.times(fs.RESTART)[0] - refused()[1]["t"]
        log = st.bridge.log_text()
        print("  2 refused discovery attempts (primary, backup), restart line %.1f s after the second" % pause)
        check(9.0 <= pause <= 12.0, "pause between the failed discovery and the restart line: %.1f s" % pause)
        check(fs.NON_CRITICAL % 2 in log, "expected 'non-critical error raised: [2]'")
        check("WS client connection error" in log, "connection error not logged")
        check(len(refused()) == 2, "discovery retried during the pause")
        check(not st.acked(st.fwd.send_stat(), 1.0), "UDP port open although the LNS was not reached")
        check(st.bridge.alive(), "bridge exited")
    finally:
        watch.stop()


# (name, how the LNS misbehaves, log line the bridge must print, pass result)
SESSION_ENDING = [
    ("text that is not JSON", {"cmd": "send_raw", "text": "this is not JSON {"},
     "failed to parse downlink JSON", -1),
    ("JSON without msgtype", {"cmd": "send", "msg": {"DevEui": "00-00-00-00-00-00-00-01", "diid": 1}},
     "failed to de-serialize downlink", None),
    ("dnmsg without its mandatory DevEui and diid",
     {"cmd": "send", "msg": {"msgtype": "dnmsg", "dC": 0, "RX1DR": 5, "RX1Freq": 868100000,
                             "xtime": 1 << 48, "rctx": 0}},
     "failed to de-serialize downlink", None),
    ("close by the LNS while uplinks flow", {"cmd": "close"}, "WS connection closed", 0),
    # Receive fragments are not joined: a message beyond the library's 4096-byte receive buffer
    # arrives as several texts, none of them JSON.
    ("dnmsg of 5,000 bytes", {"cmd": "send", "msg": fs.dnmsg(6, 1 << 48, pad="x" * 5000)},
     "failed to parse downlink JSON", -1),
]


def test_lns_faults_that_end_the_session():
    for name, fault, line, result in SESSION_ENDING:
        st = new_stack()
        st.up()
        fs.uplink_and_downlink(st, 100)
        fmark = st.fwd.mark()
        st.lns.command(**fault)
        for _ in range(20):   # uplinks in flight while the session goes down
            st.uplink()
            time.sleep(0.02)
        check(st.bridge.wait_log(fs.RESTART, 10), "%s: no restart line" % name)
        log = st.bridge.log_text()
        check(line in log, "%s: missing %r" % (name, line))
        if result is not None:
            check(fs.NON_CRITICAL % result in log, "%s: expected %r" % (name, fs.NON_CRITICAL % result))
        else:
            check("non-critical error raised: [-" in log, "%s: pass result not negative" % name)
        check("Assertion failed" not in log, "%s: assertion" % name)
        check(not st.acked(st.fwd.send_stat(), 1.0), "%s: UDP port still open during the pause" % name)
        check(st.bridge.alive(), "%s: bridge exited" % name)
        check(len(fs.traffic_connections(st.lns)) == 1, "%s: reconnected without the pause" % name)
        acked = len(st.fwd.find(lambda e: e.get("kind") == "push_ack", fmark))
        raised = [ln.split("] ", 1)[-1].split(" ", 1)[-1] for ln in log.splitlines() if "non-critical error" in ln]
        print("  %-45s -> %s; %s; %d of 20 uplinks in flight acknowledged" % (name, line, raised[0], acked))
        st.down()
        stacks.remove(st)


# (name, message, log line of the drop)
DROPPED = [
    ("dnmsg without xtime and gpstime", fs.dnmsg(201, -1, gpstime=-1),
     "xtime and gpstime both missing from incoming packet"),
    ("dnmsg with a DR index outside router_config", fs.dnmsg(202, 1 << 48, RX1DR=40),
     "invalid DR index: [40]"),
    ("dnmsg without RX1/RX2 members (optional ones)",
     {"msgtype": "dnmsg", "DevEui": "00-00-00-00-00-00-00-01", "dC": 0, "diid": 204, "xtime": 1 << 48},
     "no suitable DR index found in the class-A downlink"),
    ("dnmsg with dC 7", fs.dnmsg(203, 1 << 48, dC=7), "no suitable dC (downlink type) found"),
    ("unknown msgtype", {"msgtype": "no_such_message", "x": 1},
     "skipping non-downlink message with a type: no_such_message"),
    ("router_config during the session", {"msgtype": "router_config", "DRs": [[7, 125, 0]]},
     "skipping non-downlink message with a type: router_config"),
]


def test_lns_faults_that_are_dropped():
    st = new_stack()
    st.up()
    for name, msg, line in DROPPED:
        before = st.bridge.count(line)
        st.lns.send(msg)
        check(e2e.wait_until(lambda: st.bridge.count(line) > before, 5, 0.1), "%s: missing %r" % (name, line))
        fs.uplink_and_downlink(st, 300 + DROPPED.index((name, msg, line)))
        print("  %-45s -> %s" % (name, line))
    check(fs.RESTART not in st.bridge.log_text(), "a dropped message ended the session")
    check(len(fs.traffic_connections(st.lns)) == 1, "the session was reopened")


if __name__ == "__main__":
    fs.run_tests([test_lns_refusing_connections, test_lns_faults_that_end_the_session,
                  test_lns_faults_that_are_dropped], stacks)
