# The installed package: find_package(ProductionMode CONFIG) and pkg-config files.
# Component "production-mode" holds the library, its headers and these files;
# "simulation" the simulated platform and the demo plug-ins; "tools" the programs.
include(CMakePackageConfigHelpers)

install(EXPORT ProductionModeTargets NAMESPACE ProductionMode:: DESTINATION ${PM_INSTALL_CMAKEDIR}
  COMPONENT production-mode)
configure_package_config_file(cmake/ProductionModeConfig.cmake.in ${PROJECT_BINARY_DIR}/ProductionModeConfig.cmake
  INSTALL_DESTINATION ${PM_INSTALL_CMAKEDIR} PATH_VARS PM_INSTALL_INCLUDEDIR PM_INSTALL_PLUGINDIR)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/ProductionModeConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/ProductionModeConfig.cmake ${PROJECT_BINARY_DIR}/ProductionModeConfigVersion.cmake
  DESTINATION ${PM_INSTALL_CMAKEDIR} COMPONENT production-mode)

file(RELATIVE_PATH PM_PC_TO_PREFIX ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
string(REGEX REPLACE "/$" "" PM_PC_TO_PREFIX "${PM_PC_TO_PREFIX}")
if(PM_PLATFORM STREQUAL "sim")
  set(PM_PC_REQUIRES platform-sim)
  install(EXPORT ProductionModeSimTargets NAMESPACE ProductionMode:: DESTINATION ${PM_INSTALL_CMAKEDIR}
    COMPONENT simulation)
  configure_file(cmake/platform-sim.pc.in ${PROJECT_BINARY_DIR}/platform-sim.pc @ONLY)
  install(FILES ${PROJECT_BINARY_DIR}/platform-sim.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT simulation)
else()
  string(REPLACE ";" " " PM_PC_REQUIRES "${PM_SYSTEM_PLATFORM_PACKAGES}")
  install(FILES cmake/PlatformSystem.cmake DESTINATION ${PM_INSTALL_CMAKEDIR} COMPONENT production-mode)
endif()
configure_file(cmake/production-mode.pc.in ${PROJECT_BINARY_DIR}/production-mode.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/production-mode.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig
  COMPONENT production-mode)
