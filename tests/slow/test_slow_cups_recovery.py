#!/usr/bin/python3
"""Slow test (scripts/slow_tests.sh): the real low-speed limit. A CUPS server trickles its answer (a byte
every 2 s): under 1 byte/s for 60 s abandons the transfer, the retry 15 s later gets "no update" and the
session starts without ending the pass. tests/integration checks the same limits shortened."""
import time

import harness as e2e
from harness import check

st = e2e.Stack(cups_args=["--respond", "trickle", "--respond", "empty"])


def test_trickling_answer_is_abandoned_after_60_s():
    st.launch()
    t0 = time.monotonic()
    st.ready(120)
    reqs = st.cups.requests()
    check([r["status"] for r in reqs] == ["trickle", 200], "CUPS answers: %r" % [r["status"] for r in reqs])
    gap = reqs[1]["t"] - reqs[0]["t"]
    print("  next request %.1f s after the trickling one, session at %.1f s" % (gap, time.monotonic() - t0))
    check(60 + 15 <= gap <= 60 + 15 + 15, "retry %.1f s after the trickling request, expected 75-90" % gap)
    check("less than 1 byte/s for 60 s" in st.bridge.log_text(), "the low-speed limit was not named")
    check(e2e.RESTART not in st.bridge.log_text(), "the abandoned transfer ended the pass")
    st.uplink_and_downlink(1)


if __name__ == "__main__":
    e2e.run_tests([test_trickling_answer_is_abandoned_after_60_s], st)
