#!/usr/bin/env bash
# Prints the size of the project in lines: product code (app/ common/
# converter/ bstn/, .h and .cpp), tests (everything in tests/) with their
# ratio to the product code, and the simulators, fuzz targets (without their
# input files) and benchmarks apart. Only files git tracks are counted, so
# build folders never are.
#
# Usage: scripts/size.sh
set -euo pipefail
cd "$(dirname "$0")/.."

# Lines (as wc counts them) of the tracked files matching the pathspecs; a
# tracked file deleted in the work tree counts as empty.
lines() {
  { git ls-files -z -- "$@" | xargs -0 -r cat -- 2>/dev/null || true; } | wc -l
}

product=$(lines 'app/*.h' 'app/*.cpp' 'common/*.h' 'common/*.cpp' \
                'converter/*.h' 'converter/*.cpp' 'bstn/*.h' 'bstn/*.cpp')
tests=$(lines tests/)

printf '%-44s %6d\n' "product (app/ common/ converter/ bstn/)" "$product"
if [ "$product" -gt 0 ]; then
  printf '%-44s %6d  (%d%% of product; aim 25-33%%)\n' "tests (tests/)" "$tests" \
    $(( (tests * 100 + product / 2) / product ))
else
  printf '%-44s %6d\n' "tests (tests/)" "$tests"
fi
printf '%-44s %6d\n' "sim/" "$(lines sim/)"
# Fuzz inputs are data, not code.
printf '%-44s %6d\n' "fuzz/ (without corpus/ and regressions/)" \
  "$(lines fuzz/ ':(exclude)fuzz/corpus/' ':(exclude)fuzz/regressions/')"
printf '%-44s %6d\n' "bench/" "$(lines bench/)"
