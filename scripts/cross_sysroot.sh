#!/usr/bin/env bash
# Makes a private sysroot for one ARM gateway architecture from Debian's
# packages of that architecture, for cross-building the bridge and running it
# under qemu user-mode emulation.
#
# Usage: scripts/cross_sysroot.sh armhf|arm64 [SYSROOT]
#   armhf   32-bit ARM, hard float (older gateways)
#   arm64   64-bit ARM (most new gateways)
#   SYSROOT defaults to $KES_CROSS_SYSROOT, else <repo>/build-<arch>-sysroot.
#
# The packages are fetched with apt-get, but with an apt state, cache and
# status file of their own (SYSROOT.apt/) restricted to the one architecture,
# and unpacked with `dpkg -x`: the host's dpkg database and its sources are
# never changed. Multiarch (:armhf or :arm64 -dev packages beside the amd64
# ones) is not used because several of them are not co-installable on
# bookworm.
# A stamp records the package list; a second run with the same list does
# nothing. Delete SYSROOT (and SYSROOT.apt) to rebuild it.
set -euo pipefail

usage() { echo "usage: $0 armhf|arm64 [SYSROOT]" >&2; exit 64; }
[ $# -ge 1 ] || usage
arch=$1
case "$arch" in armhf|arm64) ;; *) usage ;; esac

repo=$(cd "$(dirname "$0")/.." && pwd)
sysroot=${2:-${KES_CROSS_SYSROOT:-$repo/build-$arch-sysroot}}
mkdir -p "$sysroot"
sysroot=$(cd "$sysroot" && pwd)
state=$sysroot.apt

# What the daemon and its unit tests link against; apt adds the runtime
# libraries (libjson-c5, libwebsockets17, libsystemd0, ...) that qemu needs.
pkgs=(libc6-dev libstdc++-12-dev
      libjson-c-dev libwebsockets-dev libcurl4-openssl-dev libssl-dev
      liburiparser-dev libtomlplusplus-dev libsystemd-dev
      libgtest-dev libgmock-dev)

stamp=$sysroot/.kes-sysroot
if [ -f "$stamp" ] && [ "$(cat "$stamp")" = "$arch: ${pkgs[*]}" ]; then
  echo "$arch sysroot is up to date: $sysroot"
  exit 0
fi

mkdir -p "$state/state/lists/partial" "$state/cache/archives/partial"
: > "$state/status"
apt_opts=(
  -o "Dir::State=$state/state"
  -o "Dir::State::status=$state/status"
  -o "Dir::Cache=$state/cache"
  -o "APT::Architecture=$arch"
  -o "APT::Architectures::=$arch"
  -o "APT::Get::List-Cleanup=0"
)

echo "fetching $arch package indexes (private apt state in $state)" >&2
# One unreachable index makes update exit 100 although the rest is usable;
# the download below fails clearly if something is really missing.
apt-get "${apt_opts[@]}" -qq update || echo "apt-get update reported errors; going on with the indexes it fetched" >&2

echo "downloading: ${pkgs[*]}" >&2
apt-get "${apt_opts[@]}" -qq -y --download-only --no-install-recommends install "${pkgs[@]}"

debs=("$state"/cache/archives/*.deb)
echo "unpacking ${#debs[@]} packages into $sysroot" >&2
for deb in "${debs[@]}"; do
  dpkg -x "$deb" "$sysroot"
done

# Absolute symbolic links would point into the host's own (amd64) tree when
# the linker or qemu follows them: make them relative to the sysroot.
while IFS= read -r -d '' link; do
  target=$(readlink "$link")
  rel=$(realpath -m --relative-to="$(dirname "$link")" "$sysroot$target")
  ln -sfn "$rel" "$link"
done < <(find "$sysroot" -type l -lname '/*' -print0)

printf '%s' "$arch: ${pkgs[*]}" > "$stamp"
echo "$arch sysroot ready: $sysroot" >&2
