# Cross-compilation for 64-bit ARM gateways (Debian arm64): see cross-toolchain.cmake.
set(KES_CROSS_ARCH arm64)
include(${CMAKE_CURRENT_LIST_DIR}/cross-toolchain.cmake)
