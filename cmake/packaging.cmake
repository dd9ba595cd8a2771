# Installation layout and Debian packages of the gateway daemon.
#
#   DESTDIR=/tmp/stage cmake --install <build> --prefix /usr
#   cpack -G DEB --config <build>/CPackConfig.cmake      (or scripts/package.sh)
#
# Layout (the binary follows the prefix, the rest is fixed for the system):
#   <prefix>/bin/kes_bstn                  the daemon (rule in the top CMakeLists)
#   /etc/kes_bstn/kes_bstn.toml            configuration, a dpkg conffile
#   /var/lib/kes_bstn/                     URI and credential files, mode 0700
#   /lib/systemd/system/kes_bstn.service   the service unit
#   <prefix>/share/doc/kes-bstn/           operator guide, changelog
#   <prefix>/share/man/man8/kes_bstn.8.gz  manual page
# The service user `kes_bstn`, which owns /var/lib/kes_bstn, is created by
# the package's postinst (packaging/postinst).

set(KES_PKG_DIR ${CMAKE_CURRENT_LIST_DIR}/../packaging)

# Installing and packaging need the daemon only, not every test executable:
# build kes_bstn first, then `cmake --install` or `cpack`.
set(CMAKE_SKIP_INSTALL_ALL_DEPENDENCY TRUE)

install(FILES ${KES_PKG_DIR}/kes_bstn.toml
  DESTINATION /etc/kes_bstn
  PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ)
install(DIRECTORY DESTINATION /var/lib/kes_bstn
  DIRECTORY_PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE)
# bookworm keeps unit files in /lib (the same folder as /usr/lib on a
# merged-/usr system).
install(FILES ${KES_PKG_DIR}/kes_bstn.service
  DESTINATION /lib/systemd/system
  PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ)
install(FILES ${CMAKE_CURRENT_LIST_DIR}/../docs/operator-guide.md
  DESTINATION share/doc/kes-bstn
  PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ)

# Debian's documentation folder also holds the package changelog; the manual
# page and the changelog are installed compressed, the lintian override
# records that the private state folder is deliberate.
set(KES_PKG_GEN ${CMAKE_BINARY_DIR}/packaging)
string(TIMESTAMP KES_PKG_DATE "%a, %d %b %Y %H:%M:%S +0000" UTC)
file(WRITE ${KES_PKG_GEN}/changelog
"kes-bstn (${PROJECT_VERSION}) stable; urgency=medium

  * Kestrane Basic Station bridge ${PROJECT_VERSION}.

 -- Kestrane gateway support <support@kestrane.example>  ${KES_PKG_DATE}
")
configure_file(${KES_PKG_DIR}/kes_bstn.8 ${KES_PKG_GEN}/kes_bstn.8 COPYONLY)
foreach(f changelog kes_bstn.8)
  execute_process(COMMAND gzip -9nf ${KES_PKG_GEN}/${f})
endforeach()
set(KES_PKG_DATA_PERMS OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ)
install(FILES ${KES_PKG_GEN}/changelog.gz DESTINATION share/doc/kes-bstn PERMISSIONS ${KES_PKG_DATA_PERMS})
install(FILES ${KES_PKG_GEN}/kes_bstn.8.gz DESTINATION share/man/man8 PERMISSIONS ${KES_PKG_DATA_PERMS})
install(FILES ${KES_PKG_DIR}/lintian-overrides DESTINATION share/lintian/overrides RENAME kes-bstn
  PERMISSIONS ${KES_PKG_DATA_PERMS})

# Debian architecture of the binary: that of the ARM cross build
# (cmake/<arch>-toolchain.cmake), otherwise the host's.
if(NOT KES_DEB_ARCH)
  if(CMAKE_CROSSCOMPILING AND KES_CROSS_ARCH)
    set(KES_DEB_ARCH ${KES_CROSS_ARCH})
  else()
    find_program(KES_DPKG dpkg)
    if(KES_DPKG)
      execute_process(COMMAND ${KES_DPKG} --print-architecture
        OUTPUT_VARIABLE KES_DEB_ARCH OUTPUT_STRIP_TRAILING_WHITESPACE)
    else()
      set(KES_DEB_ARCH amd64)
    endif()
  endif()
endif()

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME kes-bstn)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_VENDOR Kestrane)
set(CPACK_PACKAGE_CONTACT "Kestrane gateway support <support@kestrane.example>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY
  "bridge from the Semtech UDP packet forwarder to LoRa Basics Station servers")
set(CPACK_PACKAGE_DESCRIPTION
  "kes_bstn runs on a LoRaWAN gateway next to the Semtech UDP packet forwarder\n\
and makes the gateway appear to a network server as a LoRa Basics Station:\n\
CUPS update-info provisioning, router-info discovery and the LNS WebSocket\n\
session, with uplinks and downlinks translated between the forwarder's\n\
rxpk/txpk JSON and Basics Station messages.")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE ${KES_DEB_ARCH})
set(CPACK_DEBIAN_PACKAGE_SECTION net)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
# Written out rather than computed with dpkg-shlibdeps, which cannot look
# into a cross sysroot; bookworm names, the same for amd64, armhf and arm64.
set(CPACK_DEBIAN_PACKAGE_DEPENDS "\
libc6 (>= 2.34), libgcc-s1 (>= 3.5), libstdc++6 (>= 12), \
libjson-c5 (>= 0.15), libwebsockets17 (>= 4.1.6), libcurl4 (>= 7.88.1), \
libssl3 (>= 3.0.0), liburiparser1 (>= 0.9.7), libtomlplusplus3 (>= 3.3.0), \
libsystemd0 (>= 252), adduser")
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA
  "${KES_PKG_DIR}/conffiles;${KES_PKG_DIR}/postinst;${KES_PKG_DIR}/prerm;${KES_PKG_DIR}/postrm")
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION TRUE)

include(CPack)
