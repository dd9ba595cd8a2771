#!/usr/bin/env bash
# libFuzzer targets of the bridge's untrusted-input parsers (fuzz/).
#
#   scripts/fuzz.sh build                    configure and build build-fuzz/ (clang-14, ASan+UBSan)
#   scripts/fuzz.sh run SECONDS [target...]  fuzz each target (all by default) for SECONDS
#   scripts/fuzz.sh smoke                    build, replay the regressions, fuzz every target ~10 s
#   scripts/fuzz.sh replay [target...]       run the saved corpora and regressions once
#
# Each target starts from its seeds (fuzz/corpus/<target>) plus its regressions
# (fuzz/regressions/<target>) and grows a working corpus in build-fuzz/corpus/<target>.
# Crashing inputs land in build-fuzz/artifacts/<target>/, the run's log in
# build-fuzz/logs/<target>.log. Exits non-zero on any crash, leak, timeout or
# undefined behaviour. KES_FUZZ_JOBS (default 2) targets run at the same time;
# KES_FUZZ_BUILD overrides the build folder.
set -euo pipefail
cd "$(dirname "$0")/.."
ROOT=$(pwd)
BUILD=${KES_FUZZ_BUILD:-$ROOT/build-fuzz}
# The file-writing targets (CUPS files, configuration, URI file) are much faster on tmpfs.
if [ -z "${TMPDIR:-}" ] && [ -w /dev/shm ]; then export TMPDIR=/dev/shm; fi
JOBS=${KES_FUZZ_JOBS:-2}
ALL_TARGETS=(datagram rxpk phy lns_message cups_response der_len lns_uri config base64 hex)

usage() { sed -n '2,14p' "$0" | sed 's/^# \{0,1\}//'; exit 2; }

build() {
  if [ ! -f "$BUILD/CMakeCache.txt" ]; then
    CC=clang-14 CXX=clang++-14 cmake -S "$ROOT/fuzz" -B "$BUILD" -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
  fi
  nice -n 10 cmake --build "$BUILD" -j"$(nproc --ignore=0 | awk '{print ($1 > 2 ? 2 : $1)}')"
}

# Options every run shares: discard the code's own stderr logging (libFuzzer keeps
# its own and the sanitizers' reports), stop any input that runs for 10 s.
common_opts() {
  echo "-close_fd_mask=2 -timeout=10 -rss_limit_mb=2048 -print_final_stats=1"
}

# fuzz_one TARGET SECONDS: prints one summary line; returns non-zero on a finding.
fuzz_one() {
  local t=$1 secs=$2
  local bin=$BUILD/fuzz_$t corpus=$BUILD/corpus/$t art=$BUILD/artifacts/$t log=$BUILD/logs/$t.log
  [ -x "$bin" ] || { echo "$t: no binary $bin (run: scripts/fuzz.sh build)"; return 1; }
  mkdir -p "$corpus" "$art" "$BUILD/logs"
  local seeds=()
  for d in "$ROOT/fuzz/corpus/$t" "$ROOT/fuzz/regressions/$t"; do [ -d "$d" ] && seeds+=("$d"); done
  local rc=0
  # shellcheck disable=SC2046
  nice -n 10 "$bin" $(common_opts) -max_total_time="$secs" -artifact_prefix="$art/" \
    "$corpus" "${seeds[@]}" >"$log" 2>&1 || rc=$?
  local runs cov size
  runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log" | tail -1)
  cov=$(grep -oE 'cov: [0-9]+ ft: [0-9]+' "$log" | tail -1)
  size=$(find "$corpus" -type f | wc -l)
  if [ "$rc" -ne 0 ]; then
    echo "$t: FAILED (exit $rc) after ${runs:-?} executions; $(grep -m1 -E 'ERROR: (libFuzzer|AddressSanitizer|LeakSanitizer)|runtime error' "$log" || true)"
    ls "$art" 2>/dev/null | sed "s|^|    artifact: $art/|"
    echo "    log: $log"
    return 1
  fi
  echo "$t: ok, ${secs}s, ${runs:-?} executions, $cov, corpus $size files"
}

# Runs fuzz_one over the targets, $JOBS at a time; non-zero if any failed.
run_all() {
  local secs=$1; shift
  local targets=("$@") failed=0 names=()
  [ ${#targets[@]} -gt 0 ] || targets=("${ALL_TARGETS[@]}")
  local out; out=$(mktemp -d)
  for t in "${targets[@]}"; do
    while [ "$(jobs -rp | wc -l)" -ge "$JOBS" ]; do wait -n || true; done
    # The status goes through a file: a job reaped by `wait -n` has no status left for `wait PID`.
    ( rc=0; fuzz_one "$t" "$secs" >"$out/$t" || rc=$?; echo "$rc" >"$out/$t.rc" ) &
    names+=("$t")
  done
  wait || true
  local t
  for t in "${names[@]}"; do
    cat "$out/$t"
    [ "$(cat "$out/$t.rc" 2>/dev/null)" = 0 ] || failed=1
  done
  rm -rf "$out"
  return $failed
}

# Runs every saved input once (no mutation): regressions must stay fixed.
replay() {
  local targets=("$@") failed=0
  [ ${#targets[@]} -gt 0 ] || targets=("${ALL_TARGETS[@]}")
  for t in "${targets[@]}"; do
    local files=()
    for d in "$ROOT/fuzz/corpus/$t" "$ROOT/fuzz/regressions/$t"; do
      [ -d "$d" ] && while IFS= read -r f; do files+=("$f"); done < <(find "$d" -type f)
    done
    [ ${#files[@]} -gt 0 ] || continue
    # shellcheck disable=SC2046
    if "$BUILD/fuzz_$t" $(common_opts) -runs=1 "${files[@]}" >"$BUILD/logs/replay_$t.log" 2>&1; then
      echo "$t: replayed ${#files[@]} inputs"
    else
      echo "$t: REPLAY FAILED, see $BUILD/logs/replay_$t.log"; failed=1
    fi
  done
  return $failed
}

cmd=${1:-}
[ -n "$cmd" ] || usage
shift
case "$cmd" in
  build) build ;;
  run)
    [ $# -ge 1 ] || usage
    secs=$1; shift
    run_all "$secs" "$@" ;;
  replay) mkdir -p "$BUILD/logs"; replay "$@" ;;
  smoke)
    build
    mkdir -p "$BUILD/logs"
    status=0
    replay || status=1
    run_all "${KES_FUZZ_SMOKE_SECS:-10}" || status=1
    exit $status ;;
  *) usage ;;
esac
