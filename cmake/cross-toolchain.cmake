# Cross-compilation for ARM gateways with Debian's cross GCC against a
# sysroot made from Debian's packages of the gateway's architecture by
# scripts/cross_sysroot.sh. Binaries run under qemu user-mode emulation,
# which is also how CTest runs the unit tests here (no binfmt registration
# needed). Use it through the file of one architecture:
#
#   cmake -S . -B build-arm64 -DCMAKE_TOOLCHAIN_FILE=cmake/arm64-toolchain.cmake \
#         -DKES_SYSROOT=/path/to/sysroot
#
# KES_SYSROOT may also come from the environment; it defaults to
# <repo>/build-<arch>-sysroot. scripts/cross_build.sh does all of it.
#
# KES_CROSS_ARCH (a Debian architecture name) is set by the including file.

# Debian architecture -> GNU triplet, CMake processor name, qemu emulator.
set(KES_CROSS_armhf arm-linux-gnueabihf arm qemu-arm)
set(KES_CROSS_arm64 aarch64-linux-gnu aarch64 qemu-aarch64)
if(NOT DEFINED KES_CROSS_${KES_CROSS_ARCH})
  message(FATAL_ERROR "unknown cross architecture '${KES_CROSS_ARCH}' (armhf or arm64)")
endif()
list(GET KES_CROSS_${KES_CROSS_ARCH} 0 KES_CROSS_TRIPLE)
list(GET KES_CROSS_${KES_CROSS_ARCH} 1 KES_CROSS_PROCESSOR)
list(GET KES_CROSS_${KES_CROSS_ARCH} 2 KES_CROSS_QEMU)

set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR ${KES_CROSS_PROCESSOR})

if(NOT KES_SYSROOT)
  if(DEFINED ENV{KES_SYSROOT})
    set(KES_SYSROOT "$ENV{KES_SYSROOT}")
  else()
    set(KES_SYSROOT "${CMAKE_CURRENT_LIST_DIR}/../build-${KES_CROSS_ARCH}-sysroot")
  endif()
endif()
get_filename_component(KES_SYSROOT "${KES_SYSROOT}" ABSOLUTE)
# try_compile projects re-read this file: hand them the same sysroot.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES KES_SYSROOT)

if(NOT EXISTS "${KES_SYSROOT}/usr/include/${KES_CROSS_TRIPLE}")
  message(FATAL_ERROR "no ${KES_CROSS_ARCH} sysroot at ${KES_SYSROOT}: "
    "run scripts/cross_sysroot.sh ${KES_CROSS_ARCH} first")
endif()

set(CMAKE_SYSROOT "${KES_SYSROOT}")
set(CMAKE_C_COMPILER ${KES_CROSS_TRIPLE}-gcc)
set(CMAKE_CXX_COMPILER ${KES_CROSS_TRIPLE}-g++)
set(CMAKE_LIBRARY_ARCHITECTURE ${KES_CROSS_TRIPLE})

# Libraries, headers and CMake package files only from the sysroot; tools
# (pkg-config, python, qemu) from the host.
set(CMAKE_FIND_ROOT_PATH "${KES_SYSROOT}")
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# CMake 3.25 does not point pkg-config into the sysroot by itself.
set(ENV{PKG_CONFIG_SYSROOT_DIR} "${KES_SYSROOT}")
set(ENV{PKG_CONFIG_LIBDIR}
  "${KES_SYSROOT}/usr/lib/${KES_CROSS_TRIPLE}/pkgconfig:${KES_SYSROOT}/usr/share/pkgconfig")
set(ENV{PKG_CONFIG_PATH} "")

# Indirect dependencies of the shared libraries (libssl of libwebsockets,
# ...) are looked up in the sysroot's library folders too.
foreach(dir lib/${KES_CROSS_TRIPLE} usr/lib/${KES_CROSS_TRIPLE})
  string(APPEND CMAKE_EXE_LINKER_FLAGS_INIT " -Wl,-rpath-link,${KES_SYSROOT}/${dir}")
  string(APPEND CMAKE_SHARED_LINKER_FLAGS_INIT " -Wl,-rpath-link,${KES_SYSROOT}/${dir}")
endforeach()

# Run target binaries (tests, test discovery) under user-mode emulation with
# the sysroot as the root for the dynamic loader and its libraries.
find_program(KES_QEMU_${KES_CROSS_ARCH} ${KES_CROSS_QEMU})
if(KES_QEMU_${KES_CROSS_ARCH})
  set(CMAKE_CROSSCOMPILING_EMULATOR "${KES_QEMU_${KES_CROSS_ARCH}};-L;${KES_SYSROOT}")
endif()
