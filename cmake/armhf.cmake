# Toolchain file of the preset armhf; cmake/cross.cmake has what it shares with arm64.
set(CMAKE_SYSTEM_PROCESSOR armv7l)
set(KELCONF_CROSS_ARCH armhf)
set(KELCONF_CROSS_TRIPLET arm-linux-gnueabihf)
set(KELCONF_CROSS_QEMU qemu-arm)
include(${CMAKE_CURRENT_LIST_DIR}/cross.cmake)
