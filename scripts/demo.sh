#!/usr/bin/env bash
# Local demo: a simulated packet forwarder, the bridge and a Basics Station LNS on 127.0.0.1.
# The forwarder behaves like the stock Semtech one (no stat count, batched rxpk). Shows uplinks, their
# data-rate indexes, downlinks, dntxed and the bridge's milestone and summary lines for about 30 seconds
# (KES_DEMO_SECONDS), then stops everything it started and prints a summary. Ctrl-C stops early.
# Non-interactive; runs as root on a fresh Debian machine from a clean clone.
set -euo pipefail
cd "$(dirname "$0")/.."
./scripts/install_deps.sh
if [ ! -f build/CMakeCache.txt ]; then
  cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKES_BUILD_TESTS=OFF -DKES_BUILD_BENCH=OFF >/dev/null
fi
cmake --build build -j"$(nproc)" --target kes_bstn >/dev/null
exec /usr/bin/python3 scripts/demo.py --bin build/kes_bstn --seconds "${KES_DEMO_SECONDS:-30}"
