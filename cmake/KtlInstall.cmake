# install: the libraries, the headers, a CMake package and a pkg-config file for each header. The
# build tree is a package, too: ktlp6_DIR may name it.
include(CMakePackageConfigHelpers)

set(package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/ktlp6)
configure_package_config_file(cmake/ktlp6Config.cmake.in ktlp6Config.cmake
  INSTALL_DESTINATION ${package_dir})
write_basic_package_version_file(ktlp6ConfigVersion.cmake COMPATIBILITY SameMajorVersion)

set(KTL_INSTALLED ktlp6_static vsq)
set(KTL_PC_LIBS -lktlp6)
set(KTL_PC_STATIC_CFLAGS "")
string(STRIP "-lm ${CMAKE_THREAD_LIBS_INIT}" KTL_PC_SYSTEM_LIBS)
if(WIN32)
  set(KTL_PC_SYSTEM_LIBS "${CMAKE_THREAD_LIBS_INIT}")
  set(KTL_PC_STATIC_CFLAGS -DKTLP6_STATIC)
endif()
if(KTL_MAIN_LIBRARY STREQUAL ktlp6)
  list(APPEND KTL_INSTALLED ktlp6)
else() # there is only the archive
  string(APPEND KTL_PC_LIBS " ${KTL_PC_SYSTEM_LIBS}")
endif()
export(TARGETS ${KTL_INSTALLED} NAMESPACE ktlp6:: FILE ${PROJECT_BINARY_DIR}/ktlp6Targets.cmake)

install(TARGETS ${KTL_INSTALLED} EXPORT ktlp6Targets
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR}
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(FILES include/ktlp6.h include/vsq.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(EXPORT ktlp6Targets NAMESPACE ktlp6:: DESTINATION ${package_dir})
install(FILES ${PROJECT_BINARY_DIR}/ktlp6Config.cmake ${PROJECT_BINARY_DIR}/ktlp6ConfigVersion.cmake
  DESTINATION ${package_dir})

# The .pc files find their prefix from their own place, so that an installed tree can be moved.
file(RELATIVE_PATH KTL_PC_PREFIX "/p/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/p")
foreach(name ktlp6 vsq)
  configure_file(cmake/${name}.pc.in ${name}.pc @ONLY)
  install(FILES ${PROJECT_BINARY_DIR}/${name}.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
endforeach()
