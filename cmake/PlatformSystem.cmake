# The device's own platform, linked by a camera build (PM_PLATFORM=system): the
# names of its libraries, in this one place, and how they are found. The installed
# package includes this file too, so a consumer finds the same libraries.
#
# One name per service, in this order: key-value store, system log, preference
# store, OS layer (threads, event flags, mutexes, sleep). Each name is a pkg-config
# module; a prefix that provides a CMake package <name> with the imported target
# <name>::<name> is used through that instead.
if(NOT DEFINED PM_SYSTEM_PLATFORM_PACKAGES)
  set(PM_SYSTEM_PLATFORM_PACKAGES vconf dlog pref fx-os CACHE STRING
      "The device's platform libraries: key-value store, system log, preference store, OS layer")
endif()

# pm_find_system_platform(<out-var>): finds every library of the device's platform
# and sets <out-var> to their imported targets; a missing one is a fatal error.
function(pm_find_system_platform out)
  set(targets)
  foreach(name IN LISTS PM_SYSTEM_PLATFORM_PACKAGES)
    find_package(${name} CONFIG QUIET)
    if(TARGET ${name}::${name})
      list(APPEND targets ${name}::${name})
    else()
      find_package(PkgConfig REQUIRED)
      string(MAKE_C_IDENTIFIER "pm_platform_${name}" module)
      pkg_check_modules(${module} REQUIRED IMPORTED_TARGET GLOBAL ${name})
      list(APPEND targets PkgConfig::${module})
    endif()
  endforeach()
  set(${out} ${targets} PARENT_SCOPE)
endfunction()
