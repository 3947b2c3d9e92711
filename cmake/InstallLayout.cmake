# Where an install puts things, and the run paths that let an installed tree be
# moved: libraries find each other beside themselves ($ORIGIN), programs in the
# library directory relative to their own, plug-ins two levels up.
include(GNUInstallDirs)

set(PM_INSTALL_INCLUDEDIR ${CMAKE_INSTALL_INCLUDEDIR}/production-mode)
set(PM_INSTALL_SIM_INCLUDEDIR ${CMAKE_INSTALL_INCLUDEDIR}/platform-sim)
set(PM_INSTALL_PLUGINDIR ${CMAKE_INSTALL_LIBDIR}/production-mode/plugins)
set(PM_INSTALL_CMAKEDIR ${CMAKE_INSTALL_LIBDIR}/cmake/ProductionMode)

file(RELATIVE_PATH PM_BIN_TO_LIB ${CMAKE_INSTALL_FULL_BINDIR} ${CMAKE_INSTALL_FULL_LIBDIR})
file(RELATIVE_PATH PM_BIN_TO_PLUGINS ${CMAKE_INSTALL_FULL_BINDIR} ${CMAKE_INSTALL_PREFIX}/${PM_INSTALL_PLUGINDIR})
file(RELATIVE_PATH PM_PLUGINS_TO_LIB ${CMAKE_INSTALL_PREFIX}/${PM_INSTALL_PLUGINDIR} ${CMAKE_INSTALL_FULL_LIBDIR})
string(REGEX REPLACE "/$" "" PM_PLUGINS_TO_LIB "${PM_PLUGINS_TO_LIB}")

# Programs (the default); libraries and plug-ins set their own.
set(CMAKE_INSTALL_RPATH "$ORIGIN/${PM_BIN_TO_LIB}")
set(PM_LIBRARY_INSTALL_RPATH "$ORIGIN")
set(PM_PLUGIN_INSTALL_RPATH "$ORIGIN/${PM_PLUGINS_TO_LIB}")
