# ctest: builds the library with PM_PLATFORM=system against a stand-in for the
# device's platform (platform-standin/, installed into a prefix) and requires
# libproduction-mode.so to need the device's four libraries and not platform-sim,
# and to keep its internals hidden;
# then installs that build and configures the example plug-in against it.
#   cmake -DSOURCE_DIR=... -DWORK_DIR=... -DCXX=... -P PlatformSystemTest.cmake
include(${CMAKE_CURRENT_LIST_DIR}/PackageTestSteps.cmake)
include(${SOURCE_DIR}/cmake/PlatformSystem.cmake)

file(REMOVE_RECURSE ${WORK_DIR})
pm_build_and_install(${SOURCE_DIR}/tests/package/platform-standin ${WORK_DIR}/standin ${WORK_DIR}/prefix)
pm_configure(${SOURCE_DIR} ${WORK_DIR}/build
  -DPM_PLATFORM=system -DCMAKE_PREFIX_PATH=${WORK_DIR}/prefix -DCMAKE_BUILD_TYPE=Release)
pm_run(${CMAKE_COMMAND} --build ${WORK_DIR}/build --target production-mode)

file(GLOB library ${WORK_DIR}/build/lib/libproduction-mode.so.*.*)
pm_run(readelf -d ${library} OUTPUT needed)
foreach(name IN LISTS PM_SYSTEM_PLATFORM_PACKAGES)
  if(NOT needed MATCHES "NEEDED[^\n]*\\[lib${name}\\.so\\]")
    message(FATAL_ERROR "libproduction-mode.so does not need lib${name}.so:\n${needed}")
  endif()
endforeach()
if(needed MATCHES "platform-sim")
  message(FATAL_ERROR "libproduction-mode.so still needs the simulated platform:\n${needed}")
endif()
# Internals stay hidden: the camera's kernel services, the line-data and country helpers.
pm_run(nm -D --defined-only ${library} OUTPUT exported)
if(exported MATCHES "kernel_|countryDataWordOf|_ZN2pm4line")
  message(FATAL_ERROR "libproduction-mode.so exports internal functions:\n${exported}")
endif()
if(EXISTS ${WORK_DIR}/build/platform OR EXISTS ${WORK_DIR}/build/tools)
  message(FATAL_ERROR "the simulation or the tools were configured in a build for the device's platform")
endif()

# The installed package finds the device's libraries again.
pm_run(${CMAKE_COMMAND} --install ${WORK_DIR}/build --prefix ${WORK_DIR}/prefix)
pm_configure(${SOURCE_DIR}/examples/plugin ${WORK_DIR}/example -DCMAKE_PREFIX_PATH=${WORK_DIR}/prefix)
pm_run(${CMAKE_COMMAND} --build ${WORK_DIR}/example)
message(STATUS "libproduction-mode.so links the device's platform:\n${needed}")
