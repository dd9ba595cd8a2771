#!/usr/bin/env bash
# Runs a short fuzzing smoke, then builds the bridge twice (normal, and AddressSanitizer +
# UndefinedBehaviorSanitizer) and runs the whole CTest suite on both. Exits non-zero on any failure.
set -euo pipefail
cd "$(dirname "$0")/.."
./scripts/install_deps.sh

jobs=$(nproc)
status=0

# Short fuzzing smoke of every untrusted-input parser (its own clang build).
echo "== fuzz smoke"
if ! ./scripts/fuzz.sh smoke; then
  status=1
fi
for cfg in normal asan; do
  dir=build-test-$cfg
  extra=()
  [ "$cfg" = asan ] && extra=(-DKES_SANITIZE=ON)
  echo "== $cfg: configure and build ($dir)"
  cmake -S . -B "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKES_BUILD_BENCH=ON "${extra[@]}" >/dev/null
  cmake --build "$dir" -j"$jobs"
  echo "== $cfg: tests"
  # Sanitizer runtime settings: abort on the first report so CTest sees it.
  if ! ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
       ctest --test-dir "$dir" --output-on-failure -j"$jobs" --timeout 900; then
    status=1
  fi
done
exit $status
