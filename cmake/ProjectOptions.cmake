# Settings shared by every target of this project.

# Source paths in diagnostics ("Assertion Failed! --- File lib/... Line n") are
# relative to the repository root, whatever directory the build runs in.
add_compile_options("-fmacro-prefix-map=${PROJECT_SOURCE_DIR}/=")

if(PM_SANITIZE)
  add_compile_options(-fsanitize=address,undefined -fno-sanitize-recover=all -fno-omit-frame-pointer)
  add_link_options(-fsanitize=address,undefined)
endif()

# Warnings are errors in our own code (not in third-party headers).
function(pm_warnings target)
  target_compile_options(${target} PRIVATE -Wall -Wextra -Werror)
endfunction()
