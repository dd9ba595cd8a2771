#!/usr/bin/python3
"""Summarises a CTest JUnit report of unit tests run under qemu user-mode
emulation (scripts/cross_build.sh).

usage: qemu_unit_report.py REPORT.xml ARCH EMULATOR
  e.g. qemu_unit_report.py build-arm64/unit-tests-arm64.xml arm64 qemu-aarch64

A failed test counts as an emulation artefact, not as a fault of the cross
build, only when every failure in it is a death test whose child printed
nothing but what user-mode emulation adds:
- "execv(...) failed: Exec format error": a "threadsafe" death test re-runs
  the test binary, which the host kernel cannot start without binfmt;
- "qemu: uncaught target signal 6 (Aborted) - core dumped": qemu's own line
  when the emulated child aborts, which breaks expectations of empty output.
Exit status 1 when any other failure is present.
"""
import re
import sys
import xml.etree.ElementTree as ET

DEATH_LINE = "[  DEATH   ] "
EMULATOR_NOISE = re.compile(
    r"execv\(.*?\) in \S+ failed: Exec format error|qemu: uncaught target signal \d+ \([^)]*\)( - core dumped)?")


def emulation_only(output):
    failures = output.count(": Failure\n")
    blocks = []
    lines = output.splitlines()
    for i, line in enumerate(lines):
        if line == "Actual msg:":
            msg = []
            for nxt in lines[i + 1:]:
                if not nxt.startswith(DEATH_LINE.rstrip()):
                    break
                msg.append(nxt[len(DEATH_LINE):])
            blocks.append("\n".join(msg))
    if not blocks or failures != output.count("Death test:"):
        return False
    return all(not EMULATOR_NOISE.sub("", b).strip() for b in blocks)


def main(path, arch, emulator):
    root = ET.parse(path).getroot()
    cases = root.iter("testcase")
    passed, artefacts, failed = [], [], []
    for case in cases:
        name = case.get("name")
        status = case.get("status")
        if status == "run" and case.find("failure") is None:
            passed.append(name)
            continue
        if case.find("skipped") is not None or status in ("notrun", "disabled"):
            continue
        out = case.findtext("system-out") or ""
        (artefacts if emulation_only(out) else failed).append(name)
    print("%s unit tests under %s: %d passed, %d failed, %d emulation artefacts"
          % (arch, emulator, len(passed), len(failed), len(artefacts)))
    for name in artefacts:
        print("  emulation artefact (death test, see %s): %s" % (sys.argv[0], name))
    for name in failed:
        print("  FAILED: %s" % name)
    return 1 if failed else 0


if __name__ == "__main__":
    if len(sys.argv) != 4:
        sys.exit(__doc__)
    sys.exit(main(*sys.argv[1:]))
