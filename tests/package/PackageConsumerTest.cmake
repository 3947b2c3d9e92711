# ctest: installs the build into a prefix and moves the installed tree, builds the
# example worker plug-in (examples/plugin) against it with find_package and with
# pkg-config alone, and runs the installed pmode-sim: on the example card with
# its demo plug-ins (found beside its own executable), and on the plug-in's card
# with each build of the example plug-in, whose worker must serve the commands.
#   cmake -DSOURCE_DIR=... -DBUILD_DIR=... -DWORK_DIR=... -DCXX=... -P PackageConsumerTest.cmake
include(${CMAKE_CURRENT_LIST_DIR}/PackageTestSteps.cmake)

file(REMOVE_RECURSE ${WORK_DIR})
pm_run(${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${WORK_DIR}/staging)
file(RENAME ${WORK_DIR}/staging ${WORK_DIR}/prefix)
set(prefix ${WORK_DIR}/prefix)

pm_configure(${SOURCE_DIR}/examples/plugin ${WORK_DIR}/with-cmake -DCMAKE_PREFIX_PATH=${prefix})
pm_run(${CMAKE_COMMAND} --build ${WORK_DIR}/with-cmake)
file(MAKE_DIRECTORY ${WORK_DIR}/with-pkg-config)
pm_run(${CMAKE_COMMAND} -E env PKG_CONFIG_PATH=${prefix}/lib/pkgconfig
  make -s -C ${WORK_DIR}/with-pkg-config -f ${SOURCE_DIR}/examples/plugin/Makefile CXX=${CXX})

# pm_sim(<name> <card> <pmode-sim arguments>...): a run that must pass; sets <name>_output
# and <name>_json (the JSON report).
function(pm_sim name card)
  pm_run(${prefix}/bin/pmode-sim --root ${WORK_DIR}/root-${name} --card ${card} --json ${WORK_DIR}/${name}.json ${ARGN}
    OUTPUT output)
  file(READ ${WORK_DIR}/${name}.json json)
  string(JSON passed GET "${json}" passed)
  if(NOT passed)
    message(FATAL_ERROR "run ${name} did not pass:\n${output}")
  endif()
  set(${name}_output "${output}" PARENT_SCOPE)
  set(${name}_json "${json}" PARENT_SCOPE)
endfunction()

pm_sim(demo ${SOURCE_DIR}/examples/card)
if(NOT demo_output MATCHES "plug-ins: 7 loaded from ${prefix}/")
  message(FATAL_ERROR "the installed pmode-sim did not load its installed demo plug-ins:\n${demo_output}")
endif()

# The installed station finds its libraries and its page's files from the moved
# tree: it serves until SIGINT, which ends it with exit 0.
if(WITH_STATION)
  file(MAKE_DIRECTORY ${WORK_DIR}/root-station)
  pm_run(timeout --preserve-status -s INT 3 ${prefix}/bin/pmode-station --root ${WORK_DIR}/root-station --port 0
    --db ${WORK_DIR}/station.db OUTPUT station_output)
  if(NOT station_output MATCHES "station: http://127\\.0\\.0\\.1:[0-9]+/")
    message(FATAL_ERROR "the installed pmode-station did not serve its page:\n${station_output}")
  endif()
endif()

foreach(build IN ITEMS with-cmake with-pkg-config)
  string(REPLACE "-" "_" name ${build})
  pm_sim(${name} ${SOURCE_DIR}/examples/plugin/card --plugins ${WORK_DIR}/${build})
  set(output "${${name}_output}")
  if(NOT output MATCHES "plug-ins: 1 loaded[^\n]*workers: DD" OR NOT output MATCHES "example sound worker: 3 beeps"
     OR NOT output MATCHES "example sound worker: volume 7 set")
    message(FATAL_ERROR "the example worker (${build}) did not serve the card's commands:\n${output}")
  endif()
  string(JSON served GET "${${name}_json}" commands_passed)
  string(JSON worker GET "${${name}_json}" commands 1 worker)
  string(JSON command GET "${${name}_json}" commands 1 command)
  if(NOT served EQUAL 2 OR NOT worker STREQUAL "DD" OR NOT command STREQUAL "sound volume 7")
    message(FATAL_ERROR "the report of the run (${build}) is not the example worker's:\n${${name}_json}")
  endif()
endforeach()
