#!/usr/bin/python3
"""Leak check across supervision passes (driven by scripts/leak_check.sh).

Runs the daemon under a leak checker with the CUPS exchange on, for --passes passes. Every pass
does the whole round: CUPS update-info ("no update"), discovery, dataplane, LNS session with
uplinks and a downlink, then a session end provoked by the LNS (cycling through: close, a text
that is not JSON, a dnmsg without DevEui/diid), teardown and the 20-second pause. In the pause
after the last pass, when every pass's resources must have been given back, the daemon is
stopped so that the checker reports:

  --tool valgrind  the normal build under valgrind memcheck --leak-check=full; SIGTERM ends it
                   and valgrind still runs its leak check on the fatal signal.
  --tool lsan      the -DKES_SANITIZE=ON build; SIGTERM would skip LeakSanitizer's exit hook,
                   so gdb attaches, sets the main thread to continue in exit(0) and detaches;
                   exit() runs the hook. The daemon has no exit path of its own, and gets no
                   test-only one. (x86-64 only: the registers are set by name.)

Prints one line "PASSES <n> DEFINITELY_LOST <bytes> BLOCKS <blocks> ..." and keeps the report
in --out. Exit status 0 when the run completed (the leak figures are the caller's to judge).
"""

import argparse
import os
import re
import signal
import subprocess
import sys
import time

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.join(HERE, "..", "e2e"))
sys.path.insert(0, os.path.join(HERE, "..", "..", "sim"))
import fault_support as fs  # noqa: E402
from harness import check  # noqa: E402

CANARY = 4242

ENDINGS = [
    {"cmd": "close"},
    {"cmd": "send_raw", "text": "not JSON at all"},
    {"cmd": "send", "msg": {"msgtype": "dnmsg", "dC": 0, "RX1DR": 5, "RX1Freq": 868100000, "xtime": 1 << 48}},
]


def parse_valgrind(text):
    out = {}
    for kind in ("definitely lost", "indirectly lost", "possibly lost", "still reachable"):
        m = re.search(r"%s: ([\d,]+) bytes in ([\d,]+) blocks" % kind, text)
        out[kind] = (int(m.group(1).replace(",", "")), int(m.group(2).replace(",", ""))) if m else (0, 0)
    m = re.search(r"ERROR SUMMARY: ([\d,]+) errors", text)
    out["errors"] = int(m.group(1).replace(",", "")) if m else -1
    out["complete"] = "LEAK SUMMARY" in text or "All heap blocks were freed" in text
    return out


def parse_lsan(text):
    direct = [(int(a), int(b)) for a, b in re.findall(r"Direct leak of (\d+) byte\(s\) in (\d+) object", text)]
    canary = (CANARY, 1) in direct
    if canary:
        direct.remove((CANARY, 1))
    indirect = [(int(a), int(b)) for a, b in re.findall(r"Indirect leak of (\d+) byte\(s\) in (\d+) object", text)]
    return {"definitely lost": (sum(a for a, _ in direct), sum(b for _, b in direct)),
            "indirectly lost": (sum(a for a, _ in indirect), sum(b for _, b in indirect)),
            "possibly lost": (0, 0), "still reachable": (0, 0),
            "errors": text.count("ERROR: AddressSanitizer") + text.count("runtime error:"),
            "complete": canary}


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
        wrapper = ("valgrind", "--leak-check=full", "--show-leak-kinds=all",
                   "--num-callers=30", "--log-file=" + args.out)
    else:
        os.environ["ASAN_OPTIONS"] = "detect_leaks=1:log_path=" + args.out
    st = fs.FaultStack(cups_specs=["empty"], level=3, prefix="kes_leak_", wrapper=wrapper)
    ok = False
    try:
        st.launch()
        for n in range(1, args.passes + 1):
            start = st.lns.mark()
            st.ready(120, start)   # slow under the checker
            up, _ = fs.uplink_and_downlink(st, n, timeout=20)
            st.lns.command(**ENDINGS[(n - 1) % len(ENDINGS)])
            check(st.bridge.wait_log(fs.RESTART, 60, count=n), "pass %d did not end" % n)
            print("pass %d done (ended by %s)" % (n, ENDINGS[(n - 1) % len(ENDINGS)]["cmd"]), flush=True)
        time.sleep(2.0)   # the pass is torn down before the restart line; settle inside the pause
        check(st.bridge.log_text().count(fs.RESTART) == args.passes, "an unexpected pass ended")
        pid = st.bridge.proc.pid
        if args.tool == "valgrind":
            os.kill(pid, signal.SIGTERM)
        else:
            # LeakSanitizer refuses to run under ptrace, so gdb does not call exit() itself: it
            # points the main thread (the only one in the pause) at exit(0) with an aligned
            # stack and detaches; the thread then runs exit() on its own (orig_rax -1: the interrupted
            # sleep must not be restarted, which would move the pc back by two bytes).
            # A canary: one block of CANARY bytes allocated through gdb and forgotten must show up
            # as a direct leak, which proves that the check ran and can see leaks.
            subprocess.run(["gdb", "-p", str(pid), "-batch", "-ex", "call (void) malloc(%d)" % CANARY,
                            "-ex", "set $rsp = (void *) (((unsigned long) $rsp & ~15UL) - 264)",
                            "-ex", "set $rdi = 0", "-ex", "set $orig_rax = -1", "-ex", "set $pc = (void *) exit", "-ex", "detach"],
                           stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, timeout=120)
        st.bridge.proc.wait(300)
        ok = True
    finally:
        st.keep = not ok
        st.down()
    if args.tool == "lsan":   # the sanitizer writes <log_path>.<pid>
        report = "".join(open(os.path.join(os.path.dirname(args.out), f)).read()
                         for f in os.listdir(os.path.dirname(args.out))
                         if f.startswith(os.path.basename(args.out) + "."))
        with open(args.out, "w") as f:
            f.write(report or "no LeakSanitizer report (not even the canary)\n")
    text = open(args.out).read()
    r = parse_valgrind(text) if args.tool == "valgrind" else parse_lsan(text)
    print("PASSES %d DEFINITELY_LOST %d BLOCKS %d INDIRECTLY_LOST %d POSSIBLY_LOST %d STILL_REACHABLE %d "
          "ERRORS %d REPORT %s" % (args.passes, *r["definitely lost"], r["indirectly lost"][0],
                                   r["possibly lost"][0], r["still reachable"][0], r["errors"], args.out))
    return 0 if r["complete"] else 1


if __name__ == "__main__":
    sys.exit(main())
