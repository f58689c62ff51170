# install: the two libraries, the headers, a CMake package and a pkg-config file.
include(CMakePackageConfigHelpers)

install(TARGETS ktlp6 ktlp6_static EXPORT ktlp6Targets
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR}
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(FILES include/ktlp6.h include/vsq.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})

set(package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/ktlp6)
install(EXPORT ktlp6Targets NAMESPACE ktlp6:: DESTINATION ${package_dir})
configure_package_config_file(cmake/ktlp6Config.cmake.in ktlp6Config.cmake INSTALL_DESTINATION ${package_dir})
write_basic_package_version_file(ktlp6ConfigVersion.cmake COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/ktlp6Config.cmake ${PROJECT_BINARY_DIR}/ktlp6ConfigVersion.cmake
  DESTINATION ${package_dir})

# The .pc file finds its prefix from its own place, so that an installed tree can be moved.
file(RELATIVE_PATH KTL_PC_PREFIX "/p/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/p")
configure_file(cmake/ktlp6.pc.in ktlp6.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/ktlp6.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
