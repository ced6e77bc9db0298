# What `cmake --install` puts under the prefix: the library (with its soname links) and its
# headers, the CMake package and the pkg-config file describing them, and the guides. The catalogues (po/), the
# programs and their man pages (daemon/, tools/), the systemd units (packaging/) and the
# completion (tools/cvnctl/) are installed by their own folders. Everything is found relative to the
# prefix, so the tree can be installed under any prefix given to `cmake --install --prefix`.
include(CMakePackageConfigHelpers)

set(CORVANE_CMAKE_PACKAGE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/Corvane)

install(TARGETS corvane EXPORT CorvaneTargets
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
        ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
        RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR}
        INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(DIRECTORY include/corvane DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}
        FILES_MATCHING PATTERN "*.hpp")
install(EXPORT CorvaneTargets NAMESPACE Corvane:: FILE CorvaneTargets.cmake
        DESTINATION ${CORVANE_CMAKE_PACKAGE_DIR})

configure_package_config_file(cmake/CorvaneConfig.cmake.in
  ${CMAKE_CURRENT_BINARY_DIR}/CorvaneConfig.cmake
  INSTALL_DESTINATION ${CORVANE_CMAKE_PACKAGE_DIR})
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/CorvaneConfigVersion.cmake
  COMPATIBILITY SameMinorVersion)
# find_package(corvane), the lower-case name, finds the same package.
file(WRITE ${CMAKE_CURRENT_BINARY_DIR}/corvane-config.cmake
  "include(\"\${CMAKE_CURRENT_LIST_DIR}/CorvaneConfig.cmake\")\n")
file(WRITE ${CMAKE_CURRENT_BINARY_DIR}/corvane-config-version.cmake
  "include(\"\${CMAKE_CURRENT_LIST_DIR}/CorvaneConfigVersion.cmake\")\n")
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/CorvaneConfig.cmake
              ${CMAKE_CURRENT_BINARY_DIR}/CorvaneConfigVersion.cmake
              ${CMAKE_CURRENT_BINARY_DIR}/corvane-config.cmake
              ${CMAKE_CURRENT_BINARY_DIR}/corvane-config-version.cmake
        DESTINATION ${CORVANE_CMAKE_PACKAGE_DIR})

# The guides the man page and the service unit point to.
install(FILES docs/client-guide.md docs/cvnctl.md docs/daemon.md DESTINATION ${CMAKE_INSTALL_DOCDIR})

# corvane.pc names its prefix relative to its own folder (${pcfiledir}).
set(_corvane_pc_dir ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig)
file(RELATIVE_PATH CORVANE_PC_PREFIX_FROM_PCDIR ${_corvane_pc_dir} ${CMAKE_INSTALL_PREFIX})
string(REGEX REPLACE "/$" "" CORVANE_PC_PREFIX_FROM_PCDIR "${CORVANE_PC_PREFIX_FROM_PCDIR}")
foreach(kind LIBDIR INCLUDEDIR)
  if(IS_ABSOLUTE "${CMAKE_INSTALL_${kind}}")
    set(CORVANE_PC_${kind} "${CMAKE_INSTALL_${kind}}")
  else()
    set(CORVANE_PC_${kind} "\${prefix}/${CMAKE_INSTALL_${kind}}")
  endif()
endforeach()
configure_file(cmake/corvane.pc.in ${CMAKE_CURRENT_BINARY_DIR}/corvane.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/corvane.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
