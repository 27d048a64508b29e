# kelconf_qlibc: the installed qLibc, or the stand-in for the calls of it that are used.
if(KELCONF_SYSTEM_QLIBC)
  add_library(kelconf_qlibc INTERFACE)
  target_include_directories(kelconf_qlibc SYSTEM INTERFACE ${QLIBC_INCLUDE_DIR})
  target_include_directories(kelconf_qlibc INTERFACE ${CMAKE_CURRENT_SOURCE_DIR})
  target_link_libraries(kelconf_qlibc INTERFACE ${QLIBC_LIBRARY} Threads::Threads)
else()
  add_library(kelconf_qlibc STATIC
    qlibc/qbase64.cpp
    qlibc/qhashmd5.cpp
    qlibc/qqueue.cpp)
  target_include_directories(kelconf_qlibc PUBLIC ${CMAKE_CURRENT_LIST_DIR} ${CMAKE_CURRENT_SOURCE_DIR})
  target_link_libraries(kelconf_qlibc
    PUBLIC Threads::Threads kelconf_hardening
    PRIVATE PkgConfig::LIBMD kelconf_warnings)
endif()
