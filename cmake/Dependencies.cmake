# The libraries that the system stands on. qLibc is taken where it is installed; otherwise
# src/qlibc provides the few calls of it that are used, under the same names and signatures.
find_package(PkgConfig REQUIRED)
find_package(LibXml2 REQUIRED)
find_package(SQLite3 REQUIRED)
find_package(Threads REQUIRED)
pkg_check_modules(LIBZMQ REQUIRED IMPORTED_TARGET libzmq)
pkg_check_modules(LIBMD REQUIRED IMPORTED_TARGET libmd)

find_path(QLIBC_INCLUDE_DIR qlibc/qlibc.h)
find_library(QLIBC_LIBRARY qlibc)
# Its calls take an off_t, which is of 64 bits here; on a processor of 32 its builds differ in that.
if(QLIBC_INCLUDE_DIR AND QLIBC_LIBRARY AND NOT CMAKE_SIZEOF_VOID_P EQUAL 4)
  set(KELCONF_SYSTEM_QLIBC ON)
else()
  set(KELCONF_SYSTEM_QLIBC OFF)
endif()
message(STATUS "qLibc: ${KELCONF_SYSTEM_QLIBC} (ON: the installed library, OFF: src/qlibc)")

# Of kelconf-web, which is left out where one is missing.
if(KELCONF_WEB)
  pkg_check_modules(MICROHTTPD IMPORTED_TARGET libmicrohttpd)
  pkg_check_modules(GNUTLS IMPORTED_TARGET gnutls)
  pkg_check_modules(CRYPT IMPORTED_TARGET libcrypt)
  find_path(NLOHMANN_JSON_INCLUDE_DIR nlohmann/json.hpp)
endif()
