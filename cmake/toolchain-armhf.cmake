# 32-bit ARM (arm-linux-gnueabihf, the camera's own architecture); tests run under qemu-arm.
set(PM_TARGET_TRIPLE arm-linux-gnueabihf)
set(PM_TARGET_DEB_ARCH armhf)
set(CMAKE_SYSTEM_PROCESSOR arm)
include(${CMAKE_CURRENT_LIST_DIR}/CrossToolchain.cmake)
# GCC notes every std::vector<double> and the like whose passing changed in GCC 7.1;
# nothing here is linked against code built by a GCC that old.
set(CMAKE_CXX_FLAGS_INIT -Wno-psabi)
