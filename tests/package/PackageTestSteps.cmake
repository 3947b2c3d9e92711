# Steps shared by the package tests (cmake -P scripts). Expected from the caller:
# SOURCE_DIR, WORK_DIR, GENERATOR, CC, CXX (the compilers of the outer build).

# pm_run(<command>... [OUTPUT <var>]): runs a command; fails the test, showing its
# output, when it exits non-zero. OUTPUT <var> receives standard output and error.
function(pm_run)
  cmake_parse_arguments(ARG "" "OUTPUT" "" ${ARGN})
  execute_process(COMMAND ${ARG_UNPARSED_ARGUMENTS} RESULT_VARIABLE status OUTPUT_VARIABLE out ERROR_VARIABLE out)
  if(NOT status EQUAL 0)
    string(REPLACE ";" " " command "${ARG_UNPARSED_ARGUMENTS}")
    message(FATAL_ERROR "failed (${status}): ${command}\n${out}")
  endif()
  if(ARG_OUTPUT)
    set(${ARG_OUTPUT} "${out}" PARENT_SCOPE)
  endif()
endfunction()

# pm_configure(<source> <build> <cache arguments>...)
function(pm_configure source build)
  pm_run(${CMAKE_COMMAND} -S ${source} -B ${build} -G ${GENERATOR}
    -DCMAKE_C_COMPILER=${CC} -DCMAKE_CXX_COMPILER=${CXX} ${ARGN})
endfunction()

# pm_build_and_install(<source> <build> <prefix> <cache arguments>...)
function(pm_build_and_install source build prefix)
  pm_configure(${source} ${build} -DCMAKE_INSTALL_PREFIX=${prefix} ${ARGN})
  pm_run(${CMAKE_COMMAND} --build ${build})
  pm_run(${CMAKE_COMMAND} --install ${build})
endfunction()
