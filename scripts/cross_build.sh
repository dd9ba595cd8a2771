#!/usr/bin/env bash
# Cross-builds the daemon and its unit tests for ARM gateways and runs the
# unit tests under qemu user-mode emulation through CTest.
#
# Usage: scripts/cross_build.sh armhf|arm64 [--no-tests] [--package] [-- CMAKE_ARGS...]
#   armhf       32-bit ARM, hard float (tests under qemu-arm)
#   arm64       64-bit ARM (tests under qemu-aarch64)
#   --no-tests  build the daemon only (no unit tests, nothing run)
#   --package   also build the Debian package of that architecture into <repo>/out/
#   CMAKE_ARGS  extra arguments for the cmake configure step
# Environment:
#   KES_CROSS_BUILD_DIR  build folder  (default <repo>/build-<arch>)
#   KES_CROSS_SYSROOT    sysroot       (default <repo>/build-<arch>-sysroot)
#   KES_JOBS             parallel jobs (default 2)
#
# Steps: installs the cross compiler and qemu-user with apt-get when they are
# missing, makes the sysroot (scripts/cross_sysroot.sh: Debian's packages of
# the architecture unpacked with a private apt state, the host's dpkg
# database is not touched), configures with cmake/<arch>-toolchain.cmake,
# builds kes_bstn and the tests/unit executables, runs `ctest -L unit`
# (integration and end-to-end tests need the Python peers and are not run
# under emulation), summarises it with scripts/qemu_unit_report.py and prints
# the size of the stripped daemon.
set -euo pipefail

usage() { echo "usage: $0 armhf|arm64 [--no-tests] [--package] [-- CMAKE_ARGS...]" >&2; exit 64; }
[ $# -ge 1 ] || usage
arch=$1
shift
# Debian architecture -> GNU triplet and emulator (as in cmake/cross-toolchain.cmake).
case "$arch" in
  armhf) triple=arm-linux-gnueabihf qemu=qemu-arm ;;
  arm64) triple=aarch64-linux-gnu qemu=qemu-aarch64 ;;
  *) usage ;;
esac

repo=$(cd "$(dirname "$0")/.." && pwd)
build=$(realpath -m "${KES_CROSS_BUILD_DIR:-$repo/build-$arch}")
sysroot=$(realpath -m "${KES_CROSS_SYSROOT:-$repo/build-$arch-sysroot}")
jobs=${KES_JOBS:-2}
with_tests=1
package=0
cmake_args=()
while [ $# -gt 0 ]; do
  case "$1" in
    --no-tests) with_tests=0 ;;
    --package) package=1 ;;
    --) shift; cmake_args=("$@"); break ;;
    *) usage ;;
  esac
  shift
done

need=()
command -v "$triple-g++" >/dev/null || need+=("g++-$triple")
command -v "$qemu" >/dev/null || need+=(qemu-user)
# The native packages come along: the cross build runs the same CMake and test tools.
[ "${#need[@]}" -eq 0 ] || KES_EXTRA_PKGS="${need[*]}" "$repo/scripts/install_deps.sh"

"$repo/scripts/cross_sysroot.sh" "$arch" "$sysroot"

tests=ON
[ "$with_tests" -eq 1 ] || tests=OFF
# Test discovery at ctest time (PRE_TEST), not after each link: building then
# never runs an ARM binary, and the listing runs under the same emulator as
# the tests.
cmake -S "$repo" -B "$build" \
  -DCMAKE_TOOLCHAIN_FILE="$repo/cmake/$arch-toolchain.cmake" \
  -DKES_SYSROOT="$sysroot" \
  -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DKES_BUILD_BENCH=OFF \
  -DKES_BUILD_TESTS="$tests" \
  -DCMAKE_GTEST_DISCOVER_TESTS_DISCOVERY_MODE=PRE_TEST \
  "${cmake_args[@]}"

# Only the daemon and the unit test executables: the integration tests are
# not run under emulation, so building them would only cost time.
targets=(kes_bstn)
if [ "$with_tests" -eq 1 ]; then
  for t in "$repo"/tests/unit/test_*.cpp; do
    [ -e "$t" ] && targets+=("$(basename "$t" .cpp)")
  done
fi
cmake --build "$build" --target "${targets[@]}" -j "$jobs"

status=0
if [ "$with_tests" -eq 1 ]; then
  report=$build/unit-tests-$arch.xml
  rm -f "$report"
  (cd "$build" && ctest -L unit --output-on-failure -j "$jobs" --output-junit "$report") || true
  # Death tests that re-run the test binary cannot work without binfmt, and
  # qemu adds its own line when an emulated child aborts: those are told
  # apart from real failures, which alone make this script fail.
  /usr/bin/python3 "$repo/scripts/qemu_unit_report.py" "$report" "$arch" "$qemu" || status=$?
fi

bin=$build/kes_bstn
"$triple-strip" -o "$build/kes_bstn.stripped" "$bin"
file "$build/kes_bstn.stripped" 2>/dev/null || true
echo "kes_bstn ($arch): $(stat -c %s "$bin") bytes unstripped, $(stat -c %s "$build/kes_bstn.stripped") bytes stripped"

if [ "$package" -eq 1 ]; then
  mkdir -p "$repo/out"
  rm -rf "$repo/out/cpack-$arch"
  (cd "$build" && cpack -G DEB -B "$repo/out/cpack-$arch")
  cp "$repo/out/cpack-$arch"/*.deb "$repo/out/"
  ls -l "$repo"/out/*_"$arch".deb
fi
exit "$status"
