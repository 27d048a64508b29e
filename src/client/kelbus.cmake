# libkelbus as shared and as static library, with what pkg-config and CMake need to find it.
include(CMakePackageConfigHelpers)

function(kelbus_library target type name)
  add_library(${target} ${type} $<TARGET_OBJECTS:kelbus_objects>)
  set_target_properties(${target} PROPERTIES OUTPUT_NAME kelbus EXPORT_NAME ${name} LINKER_LANGUAGE CXX)
  target_include_directories(${target} INTERFACE
    $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/include> $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)
  target_link_libraries(${target}
    PRIVATE PkgConfig::LIBZMQ LibXml2::LibXml2 Threads::Threads $<BUILD_INTERFACE:kelconf_hardening>)
  add_library(kelbus::${name} ALIAS ${target})
endfunction()

kelbus_library(kelbus SHARED kelbus)
kelbus_library(kelbus_static STATIC static)
set(kelbus_map ${CMAKE_CURRENT_LIST_DIR}/kelbus.map)
target_link_options(kelbus PRIVATE -Wl,--version-script=${kelbus_map} -Wl,-z,defs)
set_target_properties(kelbus PROPERTIES
  VERSION ${PROJECT_VERSION} SOVERSION ${PROJECT_VERSION_MAJOR} LINK_DEPENDS ${kelbus_map})

set(kelbus_package ${CMAKE_INSTALL_LIBDIR}/cmake/kelbus)
# The prefix is known when it is installed, so the file finds it from its own place. Directories that
# are absolute stay where they are.
file(RELATIVE_PATH kelbus_up /p/${CMAKE_INSTALL_LIBDIR}/pkgconfig /p)
string(REGEX REPLACE "/$" "" kelbus_up "${kelbus_up}")
set(kelbus_prefix "\${pcfiledir}/${kelbus_up}")
cmake_path(APPEND kelbus_libdir "\${prefix}" ${CMAKE_INSTALL_LIBDIR})
cmake_path(APPEND kelbus_includedir "\${prefix}" ${CMAKE_INSTALL_INCLUDEDIR})
if(IS_ABSOLUTE "${CMAKE_INSTALL_LIBDIR}")
  set(kelbus_prefix "${CMAKE_INSTALL_PREFIX}")
endif()
configure_file(client/kelbus.pc.in ${CMAKE_BINARY_DIR}/kelbus.pc @ONLY)
configure_package_config_file(client/kelbus-config.cmake.in ${CMAKE_BINARY_DIR}/kelbus-config.cmake
  INSTALL_DESTINATION ${kelbus_package})
write_basic_package_version_file(${CMAKE_BINARY_DIR}/kelbus-config-version.cmake
  COMPATIBILITY SameMinorVersion)
install(TARGETS kelbus kelbus_static EXPORT kelbus
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(EXPORT kelbus NAMESPACE kelbus:: FILE kelbus-targets.cmake DESTINATION ${kelbus_package})
install(FILES ${PROJECT_SOURCE_DIR}/include/kelbus.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(FILES ${CMAKE_BINARY_DIR}/kelbus.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
install(FILES ${CMAKE_BINARY_DIR}/kelbus-config.cmake ${CMAKE_BINARY_DIR}/kelbus-config-version.cmake
  DESTINATION ${kelbus_package})
