#!/usr/bin/env bash
# Slow fault tests (tests/slow/test_*.py): recovery through the real 20-second restart and the
# 10-second retry pause. Not part of the default CTest run; about 80 seconds.
#
#   scripts/slow_tests.sh                         # build (build-slow) and run all
#   BUILD_DIR=build scripts/slow_tests.sh test_slow_lns_recovery.py
# Exit status 1 when any test fails.
set -uo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
build="${BUILD_DIR:-$root/build-slow}"
case "$build" in /*) ;; *) build="$root/$build" ;; esac
cmake -S "$root" -B "$build" -DKES_BUILD_BENCH=OFF >/dev/null || exit 1
cmake --build "$build" --target kes_bstn -j2 >/dev/null || exit 1

export KES_BSTN_BIN="$build/kes_bstn" KES_SOURCE_DIR="$root" PYTHONPATH="$root/sim" PYTHONDONTWRITEBYTECODE=1
tests=("$@")
[ ${#tests[@]} -eq 0 ] && tests=($(cd "$root/tests/slow" && ls test_*.py))
status=0
for t in "${tests[@]}"; do
  echo "== $t"
  start=$(date +%s)
  if /usr/bin/python3 "$root/tests/slow/$(basename "$t")"; then r=PASS; else r=FAIL; status=1; fi
  echo "== $r $t ($(( $(date +%s) - start )) s)"
done
exit $status
