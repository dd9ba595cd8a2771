#!/usr/bin/env bash
# Soak run of the bridge: Release build, then bench/soak.py against the Python LNS peer and the
# packet-forwarder simulator (default: 10 minutes at 200 uplinks/s, one downlink per second).
# Reports VmRSS at start and end and any lost uplink or downlink; exits non-zero on a failed check.
#
#   scripts/soak.sh                                 # full run, about 11 minutes
#   BUILD_DIR=build-release scripts/soak.sh --duration 60
# Extra arguments go to bench/soak.py (--rate, --duration, --downlink-interval, --json, ...).
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
build="${BUILD_DIR:-$root/build-soak}"
case "$build" in /*) ;; *) build="$root/$build" ;; esac

cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=Release -DKES_BUILD_BENCH=OFF >/dev/null
cmake --build "$build" --target kes_bstn -j2 >/dev/null
exec /usr/bin/python3 "$root/bench/soak.py" --bin "$build/kes_bstn" "$@"
