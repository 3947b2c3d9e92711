# Tests of a cross build (included by tests/CMakeLists.txt when cross-compiling).
#
# GoogleTest is built for the target from Debian's sources (the host's libgtest is
# the host's architecture). ctest and gtest_discover_tests run the test programs
# through CMAKE_CROSSCOMPILING_EMULATOR by themselves; the tests that start the built
# tools by name find, first on their PATH, a wrapper per tool in
# <build>/emulated-tools that runs the target's tool through the same emulator.
set(PM_GOOGLETEST_SOURCE_DIR /usr/src/googletest CACHE PATH "GoogleTest sources built for the target")
if(NOT EXISTS ${PM_GOOGLETEST_SOURCE_DIR}/CMakeLists.txt)
  message(FATAL_ERROR "no GoogleTest sources in ${PM_GOOGLETEST_SOURCE_DIR} (Debian package googletest)")
endif()
set(INSTALL_GTEST OFF CACHE BOOL "" FORCE)
add_subdirectory(${PM_GOOGLETEST_SOURCE_DIR} ${CMAKE_BINARY_DIR}/googletest EXCLUDE_FROM_ALL SYSTEM)

# The emulator by its full path: GoogleTest's death tests execute it without a PATH
# search (tests/support/TestEnvironment.cpp).
set(emulator_arguments ${CMAKE_CROSSCOMPILING_EMULATOR})
list(POP_FRONT emulator_arguments emulator_name)
find_program(PM_EMULATOR ${emulator_name} REQUIRED)
list(JOIN emulator_arguments " " emulator_arguments)
set(PM_EMULATOR_COMMAND "${PM_EMULATOR} ${emulator_arguments}")
add_compile_definitions(PM_TEST_EMULATOR="${PM_EMULATOR_COMMAND}")
foreach(tool IN ITEMS pmode-sim pmode-pc pmode-kv adjtool)
  file(GENERATE OUTPUT ${CMAKE_BINARY_DIR}/emulated-tools/${tool}
       CONTENT "#!/bin/sh\nexec ${PM_EMULATOR_COMMAND} $<TARGET_FILE:${tool}> \"$@\"\n"
       FILE_PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
endforeach()

# The calibration data written by this build against a host build's (the presets
# name build/default; CI builds it first).
set(PM_HOST_BUILD_DIR "" CACHE PATH "A host build of this project whose calibration dumps this build's must equal")
if(PM_HOST_BUILD_DIR)
  get_filename_component(host_build ${PM_HOST_BUILD_DIR} ABSOLUTE BASE_DIR ${PROJECT_SOURCE_DIR})
  add_test(NAME cross.DumpsMatchHostBuild
           COMMAND ${PROJECT_SOURCE_DIR}/tests/cross-arch-dumps.sh ${host_build} ${CMAKE_BINARY_DIR} ${PROJECT_SOURCE_DIR})
endif()
