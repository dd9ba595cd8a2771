#!/usr/bin/python3
"""Leak check across supervision passes, driven by scripts/leak_check.sh: the daemon (CUPS exchange on)
under a leak checker for --passes passes of CUPS, discovery, dataplane, LNS session with traffic, a
session end by the LNS (close, a text that is not JSON, a dnmsg without DevEui/diid, in turn), teardown.
In the pause after the last pass the daemon is stopped: valgrind checks on SIGTERM; LeakSanitizer needs
exit(), so gdb points the main thread (alone in the pause) at exit(0) (x86-64 only), after a CANARY
malloc that must show as a direct leak. Prints "PASSES <n> DEFINITELY_LOST <bytes> BLOCKS <blocks>
ERRORS <n> REPORT <file>"; exit status 0 when the run completed (the caller judges the figures)."""

import argparse
import os
import re
import signal
import subprocess
import sys
import time

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "sim"))
import harness as e2e  # noqa: E402
from harness import RESTART, check  # noqa: E402

CANARY = 4242
ENDINGS = [{"cmd": "close"}, {"cmd": "send_raw", "text": "not JSON at all"},
           {"cmd": "send", "msg": {"msgtype": "dnmsg", "dC": 0, "RX1DR": 5, "RX1Freq": 868100000, "xtime": 1 << 48}}]
# gdb: exit(0) on an aligned stack; orig_rax -1 keeps the interrupted sleep from being restarted.
GDB_EXIT = ["call (void) malloc(%d)" % CANARY, "set $rsp = (void *) (((unsigned long) $rsp & ~15UL) - 264)",
            "set $rdi = 0", "set $orig_rax = -1", "set $pc = (void *) exit", "detach"]


def parse(tool, text):
    """Definitely lost (bytes, blocks), errors, and whether the report is complete."""
    if tool == "valgrind":
        lost = re.search(r"definitely lost: ([\d,]+) bytes in ([\d,]+) blocks", text)
        errors = re.search(r"ERROR SUMMARY: ([\d,]+) errors", text)
        return (tuple(int(n.replace(",", "")) for n in lost.groups()) if lost else (0, 0),
                int(errors[1].replace(",", "")) if errors else -1,
                "LEAK SUMMARY" in text or "All heap blocks were freed" in text)
    direct = [(int(a), int(b)) for a, b in re.findall(r"Direct leak of (\d+) byte\(s\) in (\d+) object", text)]
    canary = (CANARY, 1) in direct
    if canary:
        direct.remove((CANARY, 1))
    return ((sum(a for a, _ in direct), sum(b for _, b in direct)),
            text.count("ERROR: AddressSanitizer") + text.count("runtime error:"), canary)


def main():
    p = argparse.ArgumentParser()
    p.add_argument("--bin", required=True)
    p.add_argument("--tool", choices=["valgrind", "lsan"], default="valgrind")
    p.add_argument("--passes", type=int, default=3)
    p.add_argument("--out", required=True, help="file for the checker's report")
    args = p.parse_args()
    os.environ["KES_BSTN_BIN"] = os.path.abspath(args.bin)
    wrapper = ()
    if args.tool == "valgrind":
        wrapper = ("valgrind", "--leak-check=full", "--show-leak-kinds=all", "--num-callers=30",
                   "--log-file=" + args.out)
    else:
        os.environ["ASAN_OPTIONS"] = "detect_leaks=1:log_path=" + args.out
    st = e2e.Stack(cups_args=["--respond", "empty"], level=3, wrapper=wrapper)
    ok = False
    try:
        st.launch()
        for n in range(1, args.passes + 1):
            st.ready(120, st.lns.mark())   # slow under the checker
            st.uplink_and_downlink(n, timeout=20)
            st.lns.command(**ENDINGS[(n - 1) % len(ENDINGS)])
            check(st.bridge.wait_log(RESTART, 60, count=n), "pass %d did not end" % n)
            print("pass %d done (ended by %s)" % (n, ENDINGS[(n - 1) % len(ENDINGS)]["cmd"]), flush=True)
        time.sleep(2.0)   # the pass is torn down before the restart line; settle inside the pause
        check(st.bridge.log_text().count(RESTART) == args.passes, "an unexpected pass ended")
        if args.tool == "valgrind":
            os.kill(st.bridge.proc.pid, signal.SIGTERM)
        else:
            subprocess.run(["gdb", "-p", str(st.bridge.proc.pid), "-batch", *sum((["-ex", c] for c in GDB_EXIT), [])],
                           stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, timeout=120)
        st.bridge.proc.wait(300)
        ok = True
    finally:
        st.keep = not ok
        st.down()
    if args.tool == "lsan":   # the sanitizer writes <log_path>.<pid>
        folder, base = os.path.split(args.out)
        report = "".join(open(os.path.join(folder, f)).read() for f in os.listdir(folder) if f.startswith(base + "."))
        with open(args.out, "w") as f:
            f.write(report or "no LeakSanitizer report (not even the canary)\n")
    lost, errors, complete = parse(args.tool, open(args.out).read())
    print("PASSES %d DEFINITELY_LOST %d BLOCKS %d ERRORS %d REPORT %s" % (args.passes, *lost, errors, args.out))
    return 0 if complete else 1


if __name__ == "__main__":
    sys.exit(main())
