#!/usr/bin/python3
"""Fault injection on the CUPS side, against the real daemon and the Python CUPS peer.

One bridge meets, in this order: nothing listening on the CUPS port (retries every 5 s for as
long as the refusal lasts), then a CUPS server that answers 500, a body cut short, a closed
connection without answer (each retried after 15 s), 401 on the main set (the backup set is
tried at once) and 401 on the backup set (15 s), and finally "no update": the bootstrap ends
and the LNS session carries traffic both ways. The bootstrap never leaves its retry loop on
these faults, so the supervision loop prints no restart line.

Separate bridges get a 200 answer whose body is invalid: the bootstrap fails, the pass ends
with the restart line and the LNS is not contacted (the recovery 20 s later is in tests/slow/).
"""

import os
import sys

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "sim"))
import fault_support as fs  # noqa: E402
from harness import check  # noqa: E402

stacks = []
RETRY5 = "retrying to connect within 5 seconds"
RETRY15 = "retrying to connect within 15 seconds"
REFUSED = "CURL request failed: [0x7]"


def test_cups_refusing_then_failing_then_answering():
    st = fs.FaultStack(cups_specs=None, prefix="kes_fault_cups_")
    stacks.append(st)
    st.launch()
    watch = fs.LogWatch(st.bridge, REFUSED, RETRY5, RETRY15, fs.RESTART)
    try:
        # 1. Nothing listens on the CUPS port: attempts 5 s apart.
        check(watch.wait(REFUSED, 3, 20), "fewer than 3 refused CUPS attempts in 20 s")
        t = watch.times(REFUSED)
        gaps = [b - a for a, b in zip(t, t[1:])]
        print("  refused: attempts %s s apart" % ", ".join("%.1f" % g for g in gaps))
        check(all(4.8 <= g <= 6.5 for g in gaps), "refused attempts not 5 s apart: %r" % gaps)
        check(len(watch.times(RETRY5)) >= 2, "no '%s'" % RETRY5)

        # 2. A CUPS server appears (the URI files now name it; the backup set uses its own path).
        cups = fs.CupsPeer(st.certs, "500", "truncated", "close", "401", "401", "empty")
        st.cups = cups
        with open(st.bridge.cred("cups.uri_backup"), "w") as f:
            f.write("https://127.0.0.1:%d/backup/\n" % cups.port)
        st.bridge.set_cups_port(cups.port)
        reqs = cups.wait_requests(6, 90)
        check(len(reqs) == 6, "CUPS requests: %d of 6" % len(reqs))
        gaps = [b["t"] - a["t"] for a, b in zip(reqs, reqs[1:])]
        for r, g in zip(reqs[1:], gaps):
            print("  %-22s %-7s %5.1f s after the previous answer" % (r["path"], r["status"], g))
        check([r["status"] for r in reqs] == [500, "truncated", "close", 401, 401, 200],
              "answers: %r" % [r["status"] for r in reqs])
        check([r["path"] for r in reqs] == ["/update-info"] * 4 + ["/backup/update-info", "/update-info"],
              "paths: %r" % [r["path"] for r in reqs])
        for i in (0, 1, 2, 4):   # 500, truncated, closed, 401 on the backup set: 15 s
            check(14.5 <= gaps[i] <= 17.0, "pause after answer %d: %.1f s, expected 15" % (i + 1, gaps[i]))
        check(gaps[3] < 2.0, "backup set not tried at once after the main set's 401 (%.1f s)" % gaps[3])
        log = st.bridge.log_text()
        for line in ("CUPS response code: 500", "CURL request failed: [0x12]", "CURL request failed: [0x34]",
                     "CUPS main credentials auth error: trying backup creds instead", "CUPS response code: 401"):
            check(line in log, "missing %r" % line)
        check(len(watch.times(RETRY15)) == 4, "expected 4 x '%s'" % RETRY15)
        check(not watch.times(fs.RESTART), "the CUPS faults ended a supervision pass")
        check(not fs.traffic_connections(st.lns), "LNS contacted before the CUPS exchange succeeded")

        # 3. "No update": the bootstrap ends, the session starts, traffic flows both ways.
        st.ready(30)
        fs.uplink_and_downlink(st, 1)
        with open(st.bridge.cred("cups.uri")) as a, open(st.bridge.cred("cups.uri_backup")) as b:
            check(a.read() == b.read(), "CUPS set not backed up before the (empty) update")
        check(st.bridge.alive(), "bridge exited")
    finally:
        watch.stop()


# (name, CUPS answer, log line of the failure)
INVALID_BODIES = [
    ("body shorter than the six length fields", '{"hex": "0000000000"}', "response is too small for processing"),
    ("section longer than the body", '{"hex": "ff41424300000000000000000000"}', "section surpasses a packet boundary"),
    ("LNS credentials that are not DER", '{"lns_creds": {"trust": "ca.pem", "cert": null, "key": null}}',
     "ASN.1 SEQ expected"),
]


def test_cups_answers_with_an_invalid_body():
    for name, spec, line in INVALID_BODIES:
        st = fs.FaultStack(cups_specs=[spec], prefix="kes_fault_cups_")
        stacks.append(st)
        st.launch()
        check(st.bridge.wait_log(fs.RESTART, 15), "%s: no restart line" % name)
        log = st.bridge.log_text()
        check(line in log, "%s: missing %r" % (name, line))
        check("non-critical error raised: [0]" not in log, "%s: the failed update counted as success" % name)
        check(len(st.cups.requests()) == 1, "%s: CUPS retried inside the pass" % name)
        check(not fs.traffic_connections(st.lns) and not st.lns.find(lambda e: e.get("event") == "connected"),
              "%s: LNS contacted after a failed update" % name)
        check(st.bridge.alive(), "%s: bridge exited" % name)
        result = [ln for ln in log.splitlines() if "non-critical error raised" in ln][0]
        print("  %-42s -> %s; %s" % (name, line, result.split("] ", 1)[-1].split(" ", 1)[-1]))
        st.down()
        stacks.remove(st)


if __name__ == "__main__":
    fs.run_tests([test_cups_refusing_then_failing_then_answering, test_cups_answers_with_an_invalid_body], stacks)
