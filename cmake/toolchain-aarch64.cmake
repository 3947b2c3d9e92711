# 64-bit ARM (aarch64-linux-gnu); tests run under qemu-aarch64.
set(PM_TARGET_TRIPLE aarch64-linux-gnu)
set(PM_TARGET_DEB_ARCH arm64)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
include(${CMAKE_CURRENT_LIST_DIR}/CrossToolchain.cmake)
