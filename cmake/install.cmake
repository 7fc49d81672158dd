# Headers, the libraries, a CMake package and a pkg-config file for each library. Nothing in them
# names the place of installation, so that it can be moved.
include(CMakePackageConfigHelpers)
set(trel_installed trel platsvc)
if(TREL_STATIC)
  list(APPEND trel_installed trel_static platsvc_static)
endif()
install(TARGETS ${trel_installed} EXPORT trelTargets
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(DIRECTORY include/trel platform/include/platsvc DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(EXPORT trelTargets NAMESPACE trel:: DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/trel)
configure_package_config_file(cmake/trelConfig.cmake.in ${PROJECT_BINARY_DIR}/trelConfig.cmake
                              INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/trel)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/trelConfigVersion.cmake
                                 COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/trelConfig.cmake ${PROJECT_BINARY_DIR}/trelConfigVersion.cmake
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/trel)
foreach(name trel platsvc)
  string(REGEX REPLACE "[^/]+" ".." trel_prefix "${CMAKE_INSTALL_LIBDIR}/pkgconfig")
  configure_file(cmake/${name}.pc.in ${PROJECT_BINARY_DIR}/${name}.pc @ONLY)
  install(FILES ${PROJECT_BINARY_DIR}/${name}.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
endforeach()
