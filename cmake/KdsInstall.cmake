# What `cmake --install` lays down: the headers, both libraries, the CMake package and kds.pc. All
# of it finds its parts from where it lies itself, so an installed tree may be moved.
include(CMakePackageConfigHelpers)

set(packageDir ${CMAKE_INSTALL_LIBDIR}/cmake/kds)

install(DIRECTORY ${PROJECT_SOURCE_DIR}/kds
    DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}
    FILES_MATCHING PATTERN "*.h")
install(TARGETS kds kds_static EXPORT kdsTargets)
install(EXPORT kdsTargets NAMESPACE kds:: DESTINATION ${packageDir})

configure_package_config_file(
    ${PROJECT_SOURCE_DIR}/cmake/kdsConfig.cmake.in
    ${PROJECT_BINARY_DIR}/kdsConfig.cmake
    INSTALL_DESTINATION ${packageDir})
# Before 1.0 a minor version may change the interface.
write_basic_package_version_file(
    ${PROJECT_BINARY_DIR}/kdsConfigVersion.cmake
    COMPATIBILITY SameMinorVersion)
install(FILES
    ${PROJECT_BINARY_DIR}/kdsConfig.cmake
    ${PROJECT_BINARY_DIR}/kdsConfigVersion.cmake
    DESTINATION ${packageDir})

file(RELATIVE_PATH KDS_PC_TO_PREFIX
    ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
configure_file(${PROJECT_SOURCE_DIR}/cmake/kds.pc.in ${PROJECT_BINARY_DIR}/kds.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/kds.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
