#!/usr/bin/env bash
# Builds the Debian package(s) of the daemon into <repo>/out/.
#
# Usage: scripts/package.sh [amd64|armhf|arm64|all] [--check]
#   amd64 (default)  native build in <repo>/build-package (Release, no tests),
#                    then cpack -G DEB
#   armhf            32-bit ARM cross build through scripts/cross_build.sh
#                    (sysroot, unit tests under qemu-arm, package)
#   arm64            64-bit ARM cross build, the same way (qemu-aarch64)
#   all              all three
#   --check          after building the amd64 package, run the package checks
#                    (dependencies, files and modes, unit, shipped config) on it
#
# Install on a gateway:  apt-get install ./kes-bstn_<version>_arm64.deb (pulls
# in the runtime libraries; dpkg -i works when they are present).
set -euo pipefail

repo=$(cd "$(dirname "$0")/.." && pwd)
jobs=${KES_JOBS:-2}
arch=amd64
check=0
for arg in "$@"; do
  case "$arg" in
    amd64|armhf|arm64|all) arch=$arg ;;
    --check) check=1 ;;
    *) echo "usage: $0 [amd64|armhf|arm64|all] [--check]" >&2; exit 64 ;;
  esac
done
mkdir -p "$repo/out"

build_native() {
  local build=${KES_PACKAGE_BUILD_DIR:-$repo/build-package}
  cmake -S "$repo" -B "$build" -DCMAKE_BUILD_TYPE=Release -DKES_BUILD_TESTS=OFF -DKES_BUILD_BENCH=OFF >/dev/null
  cmake --build "$build" --target kes_bstn -j "$jobs"
  (cd "$build" && cpack -G DEB -B "$repo/out/cpack-native")
  cp "$repo"/out/cpack-native/*.deb "$repo/out/"
  if [ "$check" -eq 1 ]; then
    KES_BSTN_BIN="$build/kes_bstn" /usr/bin/python3 "$repo/tests/e2e/test_package.py" -v
  fi
}

case "$arch" in
  amd64) build_native ;;
  armhf|arm64) "$repo/scripts/cross_build.sh" "$arch" --package ;;
  all)
    build_native
    for cross in armhf arm64; do "$repo/scripts/cross_build.sh" "$cross" --package; done ;;
esac
ls -l "$repo"/out/*.deb
