# 32-bit ARM (arm-linux-gnueabihf, the camera's own architecture); tests run under qemu-arm.
set(PM_TARGET_TRIPLE arm-linux-gnueabihf)
set(PM_TARGET_DEB_ARCH armhf)
set(CMAKE_SYSTEM_PROCESSOR arm)
include(${CMAKE_CURRENT_LIST_DIR}/CrossToolchain.cmake)
