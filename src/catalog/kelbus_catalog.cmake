# libkelbus-catalog, shared: beside libkelbus, of whose packages it is a part.
add_library(kelbus_catalog SHARED catalog/kelbus_catalog.cpp)
set(kelbus_catalog_map ${CMAKE_CURRENT_LIST_DIR}/kelbus_catalog.map)
set_target_properties(kelbus_catalog PROPERTIES OUTPUT_NAME kelbus-catalog EXPORT_NAME catalog
  VERSION ${PROJECT_VERSION} SOVERSION ${PROJECT_VERSION_MAJOR} LINK_DEPENDS ${kelbus_catalog_map})
target_include_directories(kelbus_catalog PUBLIC
  $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/include> $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)
target_link_libraries(kelbus_catalog PRIVATE
  $<BUILD_INTERFACE:kelconf_catalog> $<BUILD_INTERFACE:kelconf_warnings>)
target_link_options(kelbus_catalog PRIVATE
  -Wl,--version-script=${kelbus_catalog_map} -Wl,-z,defs)
add_library(kelbus::catalog ALIAS kelbus_catalog)
configure_file(catalog/kelbus-catalog.pc.in ${CMAKE_BINARY_DIR}/kelbus-catalog.pc @ONLY)
install(TARGETS kelbus_catalog EXPORT kelbus LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(FILES ${PROJECT_SOURCE_DIR}/include/kelbus_catalog.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(FILES ${CMAKE_BINARY_DIR}/kelbus-catalog.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
