#!/usr/bin/python3
"""Fault of the CUPS peer: a 200 answer that is no valid update ends the supervision pass before the
LNS is contacted. Retry rhythm: tests/integration; the 20 s restart: tests/slow/."""
import os
import sys

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path[:0] = [HERE, os.path.join(HERE, "..", "..", "sim")]
import fault_support as fs  # noqa: E402
from harness import check  # noqa: E402

st = fs.FaultStack(cups_specs=['{"hex": "ff41424300000000000000000000"}'], prefix="kes_fault_cups_")


def test_cups_answers_with_an_invalid_body():
    st.launch()
    check(st.bridge.wait_log(fs.RESTART, 15), "no restart line")
    check("non-critical error raised: [0]" not in st.bridge.log_text(), "the failed update counted as success")
    check(len(st.cups.requests()) == 1, "CUPS retried inside the pass")
    check(not st.lns.find(lambda e: e.get("event") == "connected"), "LNS contacted after a failed update")
    check(st.bridge.alive(), "bridge exited")


if __name__ == "__main__":
    fs.run_tests([test_cups_answers_with_an_invalid_body], [st])
