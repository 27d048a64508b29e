# Hardening of everything that ships, and the sanitizers when asked for.
# _FORTIFY_SOURCE needs optimisation and does not go with the sanitizers.
add_library(kelconf_hardening INTERFACE)
target_compile_options(kelconf_hardening INTERFACE -fstack-protector-strong -fstack-clash-protection)
# Flash is small: what no program calls is left out of it.
target_compile_options(kelconf_hardening INTERFACE -ffunction-sections -fdata-sections)
target_link_options(kelconf_hardening INTERFACE -Wl,--gc-sections)
target_link_options(kelconf_hardening INTERFACE -Wl,-z,relro -Wl,-z,now -Wl,-z,noexecstack -Wl,--as-needed)
if(KELCONF_SANITIZE)
  target_compile_options(kelconf_hardening INTERFACE
    -fsanitize=${KELCONF_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
  target_link_options(kelconf_hardening INTERFACE -fsanitize=${KELCONF_SANITIZE})
elseif(NOT CMAKE_BUILD_TYPE STREQUAL "Debug")
  target_compile_options(kelconf_hardening INTERFACE -U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=2)
endif()
