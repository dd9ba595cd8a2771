#!/usr/bin/python3
"""Slow fault test (tests/slow, run by scripts/slow_tests.sh): CUPS faults that end a supervision
pass, and the recovery through the 20-second restart. One bridge with the CUPS exchange on:

  pass 1: the CUPS server answers 200 with a body that is not a valid update: the bootstrap
          fails, the pass ends with the restart line;
  pass 2: the credential directory is read-only (a read-only bind mount of it on itself: the
          tests run as root, which ignores permission bits but not a read-only mount; chattr +i
          where mounting is not allowed). "No update" is answered, but the backup copy of the CUPS
          set cannot be written, so the update is not applied and the pass ends again;
  pass 3: the directory is writable again: the update applies and the session carries traffic.

A second bridge meets a CUPS server that trickles its answer (one byte every 2 s): the real
low-speed limit (less than 1 byte/s for 60 s) abandons the transfer, the retry 15 s later gets
"no update" and the session starts; the bootstrap never ends the pass."""

import os
import sys
import time

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.join(HERE, "..", "e2e"))
sys.path.insert(0, os.path.join(HERE, "..", "..", "sim"))
import harness as e2e  # noqa: E402
import fault_support as fs  # noqa: E402
from harness import check  # noqa: E402

stack = fs.FaultStack(cups_specs=['{"hex": "0102"}', "empty", "empty"], prefix="kes_slow_cups_")
trickle = fs.FaultStack(cups_specs=["trickle", "empty"], prefix="kes_slow_cups_trickle_")


def test_invalid_update_then_read_only_credentials_then_recovery():
    stack.launch()
    ro = fs.ReadOnlyDir(stack.bridge.cred_dir)
    stack.cleanups.append(ro.off)
    watch = fs.LogWatch(stack.bridge, fs.RESTART)
    stack.cleanups.append(watch.stop)
    t0 = time.monotonic()

    check(watch.wait(fs.RESTART, 1, 15), "invalid update: no restart line")
    check("response is too small for processing" in stack.bridge.log_text(), "invalid body not reported")
    method = ro.on()
    probe = os.path.join(stack.bridge.cred_dir, "probe")
    try:
        open(probe, "w").close()
        os.unlink(probe)
        raise AssertionError("credential directory still writable after %s" % method)
    except OSError:
        pass

    check(watch.wait(fs.RESTART, 2, 30), "read-only credentials: no restart line")
    log = stack.bridge.log_text()
    err = [ln for ln in log.splitlines() if "failed to open destination file" in ln]
    check(err, "backup copy into the read-only directory did not fail")
    check(not fs.traffic_connections(stack.lns), "LNS contacted although the update was not applied")
    ro.off()

    stack.ready(45)
    fs.uplink_and_downlink(stack, 1)
    reqs = stack.cups.requests()
    t_re = [t - t0 for t in watch.times(fs.RESTART)]
    t_req = [r["t"] - t0 for r in reqs]
    print("  directory made read-only with: %s" % method)
    print("  %s" % err[0].split("] ", 1)[-1])
    print("  CUPS requests at %s s, restart lines at %s s, session at %.1f s, traffic OK"
          % (", ".join("%.1f" % t for t in t_req), ", ".join("%.1f" % t for t in t_re),
             fs.traffic_connections(stack.lns)[0]["t"] - t0))
    check([r["status"] for r in reqs] == [200, 200, 200], "CUPS answers: %r" % [r["status"] for r in reqs])
    for i in (0, 1):
        check(19.5 <= t_req[i + 1] - t_re[i] <= 23.0, "pass %d not 20 s after the restart line" % (i + 2))
    # The failed copy returns the negated errno: EROFS (30) on the read-only mount, EPERM (1) with chattr.
    for line in ("non-critical error raised: [-1]",
                 fs.NON_CRITICAL % (-30 if method == "read-only bind mount" else -1)):
        check(line in log, "missing %r" % line)
    check(stack.bridge.alive(), "bridge exited")


def test_trickling_answer_is_abandoned_after_60_s():
    try:
        trickling_answer_is_abandoned()
    except Exception:
        trickle.keep = True
        print("bridge log kept: %s" % trickle.bridge.log_path)
        raise
    finally:
        trickle.down()


def trickling_answer_is_abandoned():
    trickle.launch()
    t0 = time.monotonic()
    trickle.ready(120)
    reqs = trickle.cups.requests()
    check([r["status"] for r in reqs] == ["trickle", 200], "CUPS answers: %r" % [r["status"] for r in reqs])
    gap = reqs[1]["t"] - reqs[0]["t"]
    print("  trickled answer abandoned; next request %.1f s after the first, session at %.1f s"
          % (gap, time.monotonic() - t0))
    check(60 + 15 <= gap <= 60 + 15 + 15, "retry %.1f s after the trickling request, expected 75-90" % gap)
    log = trickle.bridge.log_text()
    check("less than 1 byte/s for 60 s" in log, "the low-speed limit was not named")
    check(fs.RESTART not in log, "the abandoned transfer ended the pass")
    fs.uplink_and_downlink(trickle, 1)


if __name__ == "__main__":
    e2e.run_tests([test_trickling_answer_is_abandoned_after_60_s,
                   test_invalid_update_then_read_only_credentials_then_recovery], stack)
