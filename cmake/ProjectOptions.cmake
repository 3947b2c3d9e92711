# Settings shared by every target of this project.

# Source paths in diagnostics ("Assertion Failed! --- File lib/... Line n") are
# relative to the repository root, whatever directory the build runs in.
add_compile_options("-fmacro-prefix-map=${PROJECT_SOURCE_DIR}/=")

if(PM_SANITIZE)
  add_compile_options(-fsanitize=address,undefined -fno-sanitize-recover=all -fno-omit-frame-pointer)
  add_link_options(-fsanitize=address,undefined)
endif()

if(PM_TSAN)
  add_compile_options(-fsanitize=thread -fno-omit-frame-pointer)
  add_link_options(-fsanitize=thread)
endif()

# libFuzzer: every target gets the fuzzer's coverage instrumentation; the fuzz
# programs link the fuzzer itself (fuzz/CMakeLists.txt). UndefinedBehaviorSanitizer
# stays recoverable here so that a known, not yet fixed report can be suppressed
# while fuzzing (UBSAN_OPTIONS=suppressions=fuzz/known-issues.supp).
if(PM_FUZZ)
  if(NOT CMAKE_CXX_COMPILER_ID MATCHES "Clang")
    message(FATAL_ERROR "PM_FUZZ needs clang (libFuzzer); use the \"fuzz\" preset")
  endif()
  add_compile_options(-fsanitize=fuzzer-no-link,address,undefined -fno-omit-frame-pointer)
  add_link_options(-fsanitize=address,undefined)
endif()

# Warnings are errors in our own code (not in third-party headers).
function(pm_warnings target)
  target_compile_options(${target} PRIVATE -Wall -Wextra -Werror)
endfunction()
