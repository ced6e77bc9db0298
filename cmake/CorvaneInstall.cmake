include(CMakePackageConfigHelpers)

install(TARGETS corvane EXPORT corvaneTargets
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
        ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
        RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR}
        INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(DIRECTORY include/corvane DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(EXPORT corvaneTargets NAMESPACE corvane:: DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/corvane)

configure_package_config_file(cmake/corvane-config.cmake.in
  ${CMAKE_CURRENT_BINARY_DIR}/corvane-config.cmake
  INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/corvane)
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/corvane-config-version.cmake
  COMPATIBILITY SameMinorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/corvane-config.cmake
              ${CMAKE_CURRENT_BINARY_DIR}/corvane-config-version.cmake
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/corvane)

configure_file(cmake/corvane.pc.in ${CMAKE_CURRENT_BINARY_DIR}/corvane.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/corvane.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
