# Cross-compilation for 32-bit ARM gateways (Debian armhf, hard float): see cross-toolchain.cmake.
set(KES_CROSS_ARCH armhf)
include(${CMAKE_CURRENT_LIST_DIR}/cross-toolchain.cmake)
