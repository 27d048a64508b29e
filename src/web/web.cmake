#kelconf - web and the files of its page.
if (NOT KELCONF_WEB)
  return()
endif()
if(NOT MICROHTTPD_FOUND OR NOT GNUTLS_FOUND OR NOT CRYPT_FOUND OR NOT NLOHMANN_JSON_INCLUDE_DIR)
  message(WARNING "kelconf-web is not built: a library is missing (Debian: apt-get install "
                  "libmicrohttpd-dev libgnutls28-dev libcrypt-dev nlohmann-json3-dev)")
  return()
endif()

set(KELCONF_WEB_FILES ${CMAKE_INSTALL_DATADIR}/kelconf/web)
add_executable(kelconf-web
  web/access.cpp
  web/accounts.cpp
  web/api_change.cpp
  web/api_read.cpp
  web/api_session.cpp
  web/bus.cpp
  web/call.cpp
  web/definitions.cpp
  web/events.cpp
  web/exchange.cpp
  web/http.cpp
  web/json.cpp
  web/listen.cpp
  web/main.cpp
  web/mirror.cpp
  web/options.cpp
  web/password_hash.cpp
  web/sessions.cpp
  web/static_files.cpp
  web/throttle.cpp
  web/workers.cpp)
target_link_libraries(kelconf-web PRIVATE kelctl_commands PkgConfig::MICROHTTPD PkgConfig::GNUTLS
  PkgConfig::CRYPT kelconf_warnings)
target_include_directories(kelconf-web SYSTEM PRIVATE ${NLOHMANN_JSON_INCLUDE_DIR})
target_compile_definitions(kelconf-web PRIVATE
  KELCONF_WEB_ROOT="${CMAKE_INSTALL_PREFIX}/${KELCONF_WEB_FILES}")
# Small, but for what writes long answers.
target_compile_options(kelconf-web PRIVATE $<$<CONFIG:Release>:-Os>)
set_source_files_properties(web/api_read.cpp web/exchange.cpp web/json.cpp PROPERTIES COMPILE_OPTIONS $<$<CONFIG:Release>:-O3>)
set_target_properties(kelconf-web PROPERTIES POSITION_INDEPENDENT_CODE ON)
install(TARGETS kelconf-web RUNTIME DESTINATION ${CMAKE_INSTALL_SBINDIR})

#The page as it is served : each file, and beside it the same compressed.
file(GLOB pages CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/web/*)
set(served)
foreach(page ${pages})
  get_filename_component(name ${page} NAME)
  set(made ${CMAKE_BINARY_DIR}/web/${name})
  add_custom_command(OUTPUT ${made} ${made}.gz
    COMMAND ${CMAKE_COMMAND} -E copy ${page} ${made}
    COMMAND gzip -9 -n -k -f ${made}
    DEPENDS ${page} VERBATIM)
  list(APPEND served ${made} ${made}.gz)
endforeach()
file(MAKE_DIRECTORY ${CMAKE_BINARY_DIR}/web)
add_custom_target(web_page ALL DEPENDS ${served})
install(FILES ${served} DESTINATION ${KELCONF_WEB_FILES})
