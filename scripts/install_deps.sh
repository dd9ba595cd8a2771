#!/usr/bin/env bash
# Installs the Debian packages the bridge needs to build, test and run its demo.
# Idempotent: when every package is present it only runs dpkg-query and returns.
set -euo pipefail

PKGS=(
  build-essential cmake pkg-config
  libjson-c-dev libwebsockets-dev libcurl4-openssl-dev libssl-dev
  liburiparser-dev libtomlplusplus-dev libsystemd-dev
  libgtest-dev libgmock-dev libbenchmark-dev
  python3 python3-websockets python3-cryptography openssl
  clang-14 libclang-rt-14-dev
  ${KES_EXTRA_PKGS:-}
)

missing=()
for p in "${PKGS[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$p")
  fi
done

if [ "${#missing[@]}" -eq 0 ]; then
  exit 0
fi

echo "installing: ${missing[*]}" >&2
SUDO=""
[ "$(id -u)" -eq 0 ] || SUDO="sudo"
export DEBIAN_FRONTEND=noninteractive
$SUDO apt-get update -qq || true
$SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
