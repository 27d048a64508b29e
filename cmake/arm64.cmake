# Toolchain file of the preset arm64; cmake/cross.cmake has what it shares with armhf.
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(KELCONF_CROSS_ARCH arm64)
set(KELCONF_CROSS_TRIPLET aarch64-linux-gnu)
set(KELCONF_CROSS_QEMU qemu-aarch64)
include(${CMAKE_CURRENT_LIST_DIR}/cross.cmake)
