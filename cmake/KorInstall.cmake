# What `cmake --install` lays down: headers, library, korutil.pc and the CMake package.

include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

install(TARGETS korutil EXPORT korutil
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR}
        ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(DIRECTORY include/korutil DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} FILES_MATCHING PATTERN "*.h")
install(EXPORT korutil NAMESPACE korutil:: FILE korutilTargets.cmake
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/korutil)

configure_package_config_file(cmake/korutilConfig.cmake.in ${PROJECT_BINARY_DIR}/korutilConfig.cmake
                              INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/korutil)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/korutilConfigVersion.cmake COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/korutilConfig.cmake ${PROJECT_BINARY_DIR}/korutilConfigVersion.cmake
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/korutil)

# The package file finds its prefix from where it lies, so an installed copy may be moved.
file(RELATIVE_PATH KOR_PC_PREFIX /${CMAKE_INSTALL_LIBDIR}/pkgconfig /)
configure_file(cmake/korutil.pc.in ${PROJECT_BINARY_DIR}/korutil.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/korutil.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
