# What the ARM toolchain files share: Debian's cross compilers for PM_TARGET_TRIPLE,
# the target's zlib unpacked into build/target-deps/<arch> (fetch-target-deps.sh),
# and qemu-user as the emulator that runs the target's programs (tests, tools).
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_C_COMPILER ${PM_TARGET_TRIPLE}-gcc)
set(CMAKE_CXX_COMPILER ${PM_TARGET_TRIPLE}-g++)

# The target's zlib comes from Debian's packages, unpacked rather than installed:
# a foreign-architecture install of zlib1g-dev pulls in the target's libc and must
# match the host's zlib1g version exactly, which a mirror lagging behind breaks.
set(PM_TARGET_DEPS ${CMAKE_CURRENT_LIST_DIR}/../build/target-deps/${PM_TARGET_DEB_ARCH})
get_filename_component(PM_TARGET_DEPS ${PM_TARGET_DEPS} ABSOLUTE)
if(NOT EXISTS ${PM_TARGET_DEPS}/usr/include/zlib.h)
  execute_process(COMMAND ${CMAKE_CURRENT_LIST_DIR}/fetch-target-deps.sh ${PM_TARGET_DEB_ARCH} ${PM_TARGET_DEPS}
                  RESULT_VARIABLE fetched)
  if(NOT fetched EQUAL 0)
    message(FATAL_ERROR "the ${PM_TARGET_DEB_ARCH} zlib could not be fetched into ${PM_TARGET_DEPS} "
                        "(needs `dpkg --add-architecture ${PM_TARGET_DEB_ARCH} && apt-get update`)")
  endif()
endif()

# Libraries only from the target's folders; headers and CMake package files may also
# come from the host, since what the project takes from the host is header-only
# (CLI11, nlohmann-json). Programs run during the build are the host's.
set(CMAKE_FIND_ROOT_PATH ${PM_TARGET_DEPS} /usr/${PM_TARGET_TRIPLE})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE BOTH)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE BOTH)

# ctest, gtest_discover_tests and the tests that start the built tools run the
# target's programs through this (cmake/CrossTesting.cmake): the C library from the
# cross compiler's folder, zlib from PM_TARGET_DEPS whatever run path a program has.
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-${CMAKE_SYSTEM_PROCESSOR} -L /usr/${PM_TARGET_TRIPLE}
    -E LD_LIBRARY_PATH=${PM_TARGET_DEPS}/usr/lib/${PM_TARGET_TRIPLE})
