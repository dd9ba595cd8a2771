# Cross-compilation for 32-bit ARM gateways (Debian armhf, hard float) with
# Debian's arm-linux-gnueabihf GCC against a sysroot made from Debian's armhf
# packages by scripts/armhf_sysroot.sh. Binaries run under qemu-arm, which is
# also how CTest runs the unit tests here (no binfmt registration needed).
#
#   cmake -S . -B build-armhf -DCMAKE_TOOLCHAIN_FILE=cmake/armhf-toolchain.cmake \
#         -DKES_ARMHF_SYSROOT=/path/to/sysroot
#
# KES_ARMHF_SYSROOT may also come from the environment; it defaults to
# <repo>/build-armhf-sysroot. scripts/cross_build_armhf.sh does all of it.

set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)

set(KES_ARMHF_TRIPLE arm-linux-gnueabihf)

if(NOT KES_ARMHF_SYSROOT)
  if(DEFINED ENV{KES_ARMHF_SYSROOT})
    set(KES_ARMHF_SYSROOT "$ENV{KES_ARMHF_SYSROOT}")
  else()
    set(KES_ARMHF_SYSROOT "${CMAKE_CURRENT_LIST_DIR}/../build-armhf-sysroot")
  endif()
endif()
get_filename_component(KES_ARMHF_SYSROOT "${KES_ARMHF_SYSROOT}" ABSOLUTE)
# try_compile projects re-read this file: hand them the same sysroot.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES KES_ARMHF_SYSROOT)

if(NOT EXISTS "${KES_ARMHF_SYSROOT}/usr/include/${KES_ARMHF_TRIPLE}")
  message(FATAL_ERROR "no armhf sysroot at ${KES_ARMHF_SYSROOT}: run scripts/armhf_sysroot.sh first")
endif()

set(CMAKE_SYSROOT "${KES_ARMHF_SYSROOT}")
set(CMAKE_C_COMPILER ${KES_ARMHF_TRIPLE}-gcc)
set(CMAKE_CXX_COMPILER ${KES_ARMHF_TRIPLE}-g++)
set(CMAKE_LIBRARY_ARCHITECTURE ${KES_ARMHF_TRIPLE})

# Libraries, headers and CMake package files only from the sysroot; tools
# (pkg-config, python, qemu) from the host.
set(CMAKE_FIND_ROOT_PATH "${KES_ARMHF_SYSROOT}")
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# CMake 3.25 does not point pkg-config into the sysroot by itself.
set(ENV{PKG_CONFIG_SYSROOT_DIR} "${KES_ARMHF_SYSROOT}")
set(ENV{PKG_CONFIG_LIBDIR}
  "${KES_ARMHF_SYSROOT}/usr/lib/${KES_ARMHF_TRIPLE}/pkgconfig:${KES_ARMHF_SYSROOT}/usr/share/pkgconfig")
set(ENV{PKG_CONFIG_PATH} "")

# Indirect dependencies of the shared libraries (libssl of libwebsockets,
# ...) are looked up in the sysroot's library folders too.
foreach(dir lib/${KES_ARMHF_TRIPLE} usr/lib/${KES_ARMHF_TRIPLE})
  string(APPEND CMAKE_EXE_LINKER_FLAGS_INIT " -Wl,-rpath-link,${KES_ARMHF_SYSROOT}/${dir}")
  string(APPEND CMAKE_SHARED_LINKER_FLAGS_INIT " -Wl,-rpath-link,${KES_ARMHF_SYSROOT}/${dir}")
endforeach()

# Run target binaries (tests, test discovery) under user-mode emulation with
# the sysroot as the root for the dynamic loader and its libraries.
find_program(KES_QEMU_ARM qemu-arm)
if(KES_QEMU_ARM)
  set(CMAKE_CROSSCOMPILING_EMULATOR "${KES_QEMU_ARM};-L;${KES_ARMHF_SYSROOT}")
endif()
