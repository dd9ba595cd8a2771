#!/usr/bin/env bash
# Former entry point of the armhf cross build, kept for existing callers:
# the same as scripts/cross_build.sh armhf [--no-tests] [--package] [-- CMAKE_ARGS...]
# (KES_ARMHF_BUILD_DIR and KES_ARMHF_SYSROOT still choose the folders).
export KES_CROSS_BUILD_DIR=${KES_CROSS_BUILD_DIR:-${KES_ARMHF_BUILD_DIR:-}}
export KES_CROSS_SYSROOT=${KES_CROSS_SYSROOT:-${KES_ARMHF_SYSROOT:-}}
exec "$(dirname "$0")/cross_build.sh" armhf "$@"
