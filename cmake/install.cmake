# Headers, both libraries with their sonames, a CMake package and a pkg-config file.
include(CMakePackageConfigHelpers)
install(TARGETS trel platsvc EXPORT trelTargets LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(DIRECTORY include/trel platform/include/platsvc DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(EXPORT trelTargets NAMESPACE trel:: DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/trel)
configure_package_config_file(cmake/trelConfig.cmake.in ${PROJECT_BINARY_DIR}/trelConfig.cmake
                              INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/trel)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/trelConfigVersion.cmake
                                 COMPATIBILITY SameMajorVersion)
configure_file(cmake/trel.pc.in ${PROJECT_BINARY_DIR}/trel.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/trelConfig.cmake ${PROJECT_BINARY_DIR}/trelConfigVersion.cmake
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/trel)
install(FILES ${PROJECT_BINARY_DIR}/trel.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
