# A build with one of Debian's cross compilers, against the libraries that scripts/cross unpacks below
# build/; the host's own are not seen. Tests run under qemu's emulation of one process.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_C_COMPILER ${KELCONF_CROSS_TRIPLET}-gcc)
set(CMAKE_CXX_COMPILER ${KELCONF_CROSS_TRIPLET}-g++)
cmake_path(SET CMAKE_SYSROOT NORMALIZE ${CMAKE_CURRENT_LIST_DIR}/../build/sysroot-${KELCONF_CROSS_ARCH})
if(NOT IS_DIRECTORY ${CMAKE_SYSROOT})
  message(FATAL_ERROR "${CMAKE_SYSROOT} is missing: scripts/cross ${KELCONF_CROSS_ARCH} makes it")
endif()
set(CMAKE_CROSSCOMPILING_EMULATOR ${KELCONF_CROSS_QEMU} -L ${CMAKE_SYSROOT})

set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(ENV{PKG_CONFIG_SYSROOT_DIR} ${CMAKE_SYSROOT})
set(ENV{PKG_CONFIG_LIBDIR} ${CMAKE_SYSROOT}/usr/lib/${KELCONF_CROSS_TRIPLET}/pkgconfig:${CMAKE_SYSROOT}/usr/share/pkgconfig)
