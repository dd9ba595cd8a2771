#!/usr/bin/env bash
# Local demo: builds the bridge and runs it on the example configuration.
set -euo pipefail
cd "$(dirname "$0")/.."
./scripts/install_deps.sh
cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKES_BUILD_TESTS=OFF -DKES_BUILD_BENCH=OFF >/dev/null
cmake --build build -j"$(nproc)" --target kes_bstn
timeout -s INT "${KES_DEMO_SECONDS:-25}" ./build/kes_bstn -d -v 4 -c config/kes_bstn.toml || true
