#!/usr/bin/env bash
# Mutation score of the test suite: applies each source mutation of scripts/mutants.list to a
# scratch copy of the git-tracked tree, rebuilds, and runs the tests the mutant names. A mutant is
# KILLED when a selected test fails or hangs, SURVIVED when they all pass. The working tree is
# never touched.
#
#   scripts/mutants.sh [-c] [-j N] [PATTERN]
#     -c        only check the list: every original text occurs exactly once in its file (no build)
#     -j N      run N tests at once (ctest -j; default 1)
#     PATTERN   run only the mutants whose id matches this regular expression (Python's re.search)
#
# A mutant is one line of scripts/mutants.list:
#   id @@ file @@ original text @@ replacement @@ ctest regex
# The original text must occur exactly once in the file (else NOTFOUND). The selected tests must all
# pass on the unmutated tree and the mutant must compile (else INVALID). Per-mutant build and test
# output stays in the scratch folder's logs/.
set -uo pipefail

jobs=1 check=0
while getopts "cj:" opt; do
  case $opt in
    c) check=1 ;;
    j) jobs=$OPTARG ;;
    *) echo "usage: $0 [-c] [-j N] [PATTERN]" >&2; exit 64 ;;
  esac
done
shift $((OPTIND - 1))
pattern=${1:-.}

repo=$(git -C "$(dirname "$0")/.." rev-parse --show-toplevel) || exit 2
list=$repo/scripts/mutants.list
scratch=${TMPDIR:-/tmp}/kes_bstn_mutants-$(basename "$repo")
src=$scratch/src
bld=$scratch/build
logs=$scratch/logs
py=/usr/bin/python3
started=$(date +%s)
mkdir -p "$src" "$logs"

# Mutant fields, one record per line, separated by a unit separator (0x1f) for the shell.
mutants=$("$py" - "$list" "$pattern" <<'EOF'
import re, sys
path, pattern = sys.argv[1], sys.argv[2]
for n, line in enumerate(open(path, encoding="utf-8"), 1):
    if not line.strip() or line.lstrip().startswith("#"):
        continue
    f = [x.strip() for x in line.rstrip("\n").split("@@")]
    if len(f) != 5 or not f[0] or not f[1] or not f[2] or not f[4]:
        sys.exit("%s:%d: expected 'id @@ file @@ original @@ replacement @@ regex'" % (path, n))
    if re.search(pattern, f[0]):
        print("\x1f".join(f))
EOF
) || exit 2

if [ "$check" = 1 ]; then
  "$py" -c '
import os, sys
bad = total = 0
for rec in sys.stdin.read().splitlines():
    if not rec:
        continue
    mid, rel, orig = rec.split("\x1f")[:3]
    total += 1
    path = os.path.join(sys.argv[1], rel)
    n = open(path, encoding="utf-8").read().count(orig) if os.path.isfile(path) else -1
    if n != 1:
        bad += 1
        print("NOTFOUND %s: %s" % (mid, "no file " + rel if n < 0 else "the original text occurs %d times in %s" % (n, rel)))
print("mutants: %d listed, %d not found" % (total, bad))
sys.exit(1 if bad else 0)
' "$repo" <<<"$mutants"
  exit
fi

# The scratch copy is refreshed file by file: unchanged files keep their time stamps, so a
# second run rebuilds only what changed since the first.
git -C "$repo" ls-files -z | "$py" -c '
import os, sys
repo, src = sys.argv[1], sys.argv[2]
tracked = set(p for p in sys.stdin.buffer.read().decode().split("\0") if p)
for rel in tracked:
    a, b = os.path.join(repo, rel), os.path.join(src, rel)
    if not os.path.isfile(a):
        continue
    data = open(a, "rb").read()
    if not os.path.isfile(b) or open(b, "rb").read() != data:
        os.makedirs(os.path.dirname(b), exist_ok=True)
        open(b, "wb").write(data)
        os.chmod(b, os.stat(a).st_mode & 0o777)
for root, _, files in os.walk(src):
    for f in files:
        rel = os.path.relpath(os.path.join(root, f), src)
        if rel not in tracked:
            os.remove(os.path.join(root, f))
' "$repo" "$src" || exit 2

echo "== building the unmutated tree in $bld"
if ! { nice cmake -S "$src" -B "$bld" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKES_BUILD_BENCH=OFF &&
       nice cmake --build "$bld" -j2; } >"$logs/build.log" 2>&1; then
  echo "build of the unmutated tree failed: $logs/build.log" >&2
  exit 2
fi

# Each mutant runs in two stages: the C++ tests, then the end-to-end tests (label e2e), which
# need the daemon. A mutant killed in the first stage costs neither the daemon's build nor the
# slower stage; a stage stops at the first failing test.
stages=("-LE e2e" "-L e2e")

# Build targets of the tests a stage selects (none when it selects no test): the test
# executables, and the daemon for the tests that run it.
stage_targets() { # regex stage
  # shellcheck disable=SC2086
  ctest --test-dir "$bld" -R "$1" ${stages[$2]} --show-only=json-v1 2>/dev/null | "$py" -c '
import json, os, sys
bld = sys.argv[1]
names = set()
for t in json.load(sys.stdin).get("tests", []):
    cmd = t.get("command") or [""]
    names.add(os.path.basename(cmd[0]) if cmd[0].startswith(bld + "/") else "kes_bstn")
print(" ".join(sorted(names)))
' "$bld"
}

# Runs the tests of one stage; a hang past `limit` seconds counts as a failure.
run_stage() { # regex stage limit log
  # shellcheck disable=SC2086
  timeout -k 10 "$3" nice ctest --test-dir "$bld" -R "$1" ${stages[$2]} --no-tests=ignore \
    --stop-on-failure -j"$jobs" --timeout "$3" --output-on-failure >>"$4" 2>&1
}

failed_names() {
  sed -n '/The following tests FAILED/,$p' "$1" | sed -n 's/^[[:space:]]*[0-9]* - \([^ ]*\).*/\1/p' | tr '\n' ' '
}

declare -A base_ok base_secs
echo "== unmutated tree: the selected tests of every mutant"
while IFS=$'\x1f' read -r -u 3 id file orig repl regex; do
  [ -n "$id" ] || continue
  [ -n "${base_ok[$regex]+x}" ] && continue
  base_ok[$regex]=1
  selected=""
  for st in 0 1; do
    [ -n "$(stage_targets "$regex" "$st")" ] || continue
    selected=1
    t0=$(date +%s)
    : >"$logs/baseline.log"
    run_stage "$regex" "$st" 1800 "$logs/baseline.log" || base_ok[$regex]=0
    secs=$(( $(date +%s) - t0 ))
    base_secs[$regex,$st]=$secs
    echo "   $secs s, $([ "${base_ok[$regex]}" = 1 ] && echo pass ||
      echo "FAIL: $(failed_names "$logs/baseline.log")"): ${stages[$st]} -R '$regex'"
    [ "${base_ok[$regex]}" = 1 ] || break
  done
  [ -n "$selected" ] || { base_ok[$regex]=0; echo "   selects no test: $regex"; }
done 3<<<"$mutants"

# The file under mutation is restored on every way out.
saved=$scratch/saved.orig
target_file=""
restore() {
  if [ -n "$target_file" ]; then cp "$saved" "$target_file"; target_file=""; fi
}
trap 'restore; exit 130' INT TERM
trap restore EXIT

killed=0 survived=0 invalid=0
echo "== mutants"
while IFS=$'\x1f' read -r -u 3 id file orig repl regex; do
  [ -n "$id" ] || continue
  log=$logs/$id.log
  : >"$log"
  if [ "${base_ok[$regex]}" != 1 ]; then
    echo "INVALID $id: its tests fail on the unmutated tree"; invalid=$((invalid + 1)); continue
  fi
  path=$src/$file
  if [ ! -f "$path" ]; then
    echo "NOTFOUND $id: no file $file"; invalid=$((invalid + 1)); continue
  fi
  cp "$path" "$saved"
  count=$("$py" - "$path" "$orig" "$repl" <<'EOF'
import sys
path, orig, repl = sys.argv[1:4]
text = open(path, encoding="utf-8").read()
n = text.count(orig)
if n == 1:
    open(path, "w", encoding="utf-8").write(text.replace(orig, repl))
print(n)
EOF
)
  if [ "$count" != 1 ]; then
    echo "NOTFOUND $id: the original text occurs $count times in $file"; invalid=$((invalid + 1)); continue
  fi
  target_file=$path
  t0=$(date +%s)
  verdict=SURVIVED why=""
  for st in 0 1; do
    targets=$(stage_targets "$regex" "$st")
    [ -n "$targets" ] || continue
    # shellcheck disable=SC2086
    if ! nice cmake --build "$bld" -j2 --target $targets >>"$log" 2>&1; then
      verdict=INVALID why="does not compile"; break
    fi
    secs=${base_secs[$regex,$st]}
    limit=$(( secs * 3 + 60 ))
    run_stage "$regex" "$st" "$limit" "$log"
    rc=$?
    if [ "$rc" != 0 ]; then
      verdict=KILLED why=$(failed_names "$log")
      { [ "$rc" = 124 ] || [ "$rc" = 137 ]; } && why="time-out after $limit s"
      break
    fi
  done
  restore
  case $verdict in
    KILLED) killed=$((killed + 1)) ;;
    SURVIVED) survived=$((survived + 1)) ;;
    *) invalid=$((invalid + 1)) ;;
  esac
  echo "$verdict $id ($(( $(date +%s) - t0 )) s${why:+; $why})"
done 3<<<"$mutants"

echo "mutants: $killed killed, $survived survived, $invalid invalid/notfound"
echo "time: $(( $(date +%s) - started )) s"
