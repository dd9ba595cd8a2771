#!/usr/bin/env bash
# Leak check of the whole daemon across supervision passes (CUPS exchange, discovery, dataplane,
# LNS session with traffic, session end, teardown), for each pass count given (default: 1 3).
# Reports valgrind's "definitely lost" per pass count: a leak per pass shows as growth with the
# count. With --lsan it uses the -DKES_SANITIZE=ON build and LeakSanitizer instead (the daemon is
# made to call exit(0) through gdb in the pause after the last pass, which runs LSan's exit hook).
#
#   scripts/leak_check.sh              # valgrind, 1 and 3 passes (about 4 minutes)
#   scripts/leak_check.sh 1 2 4        # other pass counts
#   scripts/leak_check.sh --lsan 3     # LeakSanitizer
# Build directories: $BUILD_DIR (default build-leak) and $ASAN_BUILD_DIR (default build-leak-asan).
# Exit status 1 when a pass count reports definitely lost bytes or a run did not complete.
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
tool=valgrind
if [ "${1:-}" = "--lsan" ]; then tool=lsan; shift; fi
counts=("$@")
[ ${#counts[@]} -eq 0 ] && counts=(1 3)

if [ "$tool" = valgrind ]; then
  build="${BUILD_DIR:-$root/build-leak}"
  cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKES_BUILD_BENCH=OFF >/dev/null
else
  build="${ASAN_BUILD_DIR:-$root/build-leak-asan}"
  cmake -S "$root" -B "$build" -DKES_SANITIZE=ON -DKES_BUILD_BENCH=OFF >/dev/null
fi
case "$build" in /*) ;; *) build="$root/$build" ;; esac
cmake --build "$build" --target kes_bstn -j2 >/dev/null

out="$(mktemp -d /tmp/kes_leak_check.XXXXXX)"
status=0
summary=()
for n in "${counts[@]}"; do
  echo "== $tool: $n supervision pass(es)"
  /usr/bin/python3 "$root/bench/leak_passes.py" --bin "$build/kes_bstn" --tool "$tool" \
    --passes "$n" --out "$out/$tool-$n.txt" >"$out/$tool-$n.log" 2>&1 || status=1
  cat "$out/$tool-$n.log"
  line=$(grep '^PASSES' "$out/$tool-$n.log") || { status=1; continue; }
  summary+=("$line")
  lost=$(echo "$line" | awk '{print $4}')
  [ "$lost" = 0 ] || status=1
done
echo "== summary ($tool; reports in $out)"
for line in "${summary[@]}"; do
  echo "$line" | awk '{printf "passes %-3s definitely lost %8s bytes in %5s blocks (errors %s; report %s)\n", $2, $4, $6, $8, $10}'
done
exit $status
