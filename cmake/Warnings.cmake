# Every target of the project links kelconf_warnings. Warnings are errors in the presets only: a
# compiler that came later and warns of more must not break a plain build.
add_library(kelconf_warnings INTERFACE)
target_compile_options(kelconf_warnings INTERFACE
  $<$<BOOL:${KELCONF_WERROR}>:-Werror>
  -Wall -Wextra -Wpedantic -Wconversion -Wsign-conversion -Wshadow -Wformat=2 -Wundef
  -Wcast-align -Wcast-qual -Wnull-dereference -Wdouble-promotion -Wimplicit-fallthrough
  $<$<COMPILE_LANGUAGE:CXX>:-Wnon-virtual-dtor -Wold-style-cast -Woverloaded-virtual>
  $<$<COMPILE_LANG_AND_ID:CXX,GNU>:-Wduplicated-cond -Wduplicated-branches -Wlogical-op>)
# A cast that processors of 32 bits do not need is one that those of 64 do.
if(CMAKE_SIZEOF_VOID_P EQUAL 8)
  target_compile_options(kelconf_warnings INTERFACE $<$<COMPILE_LANG_AND_ID:CXX,GNU>:-Wuseless-cast>)
endif()
# GCC 12 warns of overlaps inside libstdc++'s own string concatenation (its bug 105651).
target_compile_options(kelconf_warnings INTERFACE
  $<$<AND:$<COMPILE_LANG_AND_ID:CXX,GNU>,$<VERSION_LESS:$<CXX_COMPILER_VERSION>,13>>:-Wno-restrict>)
