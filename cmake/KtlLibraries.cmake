# The shared module and its static twin, both from the same objects.

set(ktl_objects $<TARGET_OBJECTS:ktl_recognition> ${VSQ_OBJECTS} $<TARGET_OBJECTS:ktl_platform>)
find_package(Threads REQUIRED)

# exports.txt names what leaves the shared module; from it come the ELF version script and the Windows .def file.
file(STRINGS ${PROJECT_SOURCE_DIR}/exports.txt export_lines REGEX "^[A-Za-z_]")
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/exports.txt)
list(JOIN export_lines ";\n    " export_list)
file(CONFIGURE OUTPUT ktlp6.map CONTENT "{\n  global:\n    @export_list@;\n  local:\n    *;\n};\n" @ONLY)
list(JOIN export_lines "\n    " export_list)
file(CONFIGURE OUTPUT ktlp6.def CONTENT "LIBRARY ktlp6\nEXPORTS\n    @export_list@\n" @ONLY)

add_library(ktlp6 SHARED ${ktl_objects})
if(WIN32)
  target_sources(ktlp6 PRIVATE ${PROJECT_BINARY_DIR}/ktlp6.def)
  set_target_properties(ktlp6 PROPERTIES PREFIX "")
  target_link_options(ktlp6 PRIVATE -static -static-libgcc -static-libstdc++)
else()
  target_link_options(ktlp6 PRIVATE -Wl,--version-script=${PROJECT_BINARY_DIR}/ktlp6.map -Wl,-z,relro,-z,now -Wl,--as-needed)
  set_property(TARGET ktlp6 APPEND PROPERTY LINK_DEPENDS ${PROJECT_BINARY_DIR}/ktlp6.map)
endif()
set_target_properties(ktlp6 PROPERTIES LINKER_LANGUAGE CXX VERSION ${PROJECT_VERSION} SOVERSION ${PROJECT_VERSION_MAJOR})
target_include_directories(ktlp6 PUBLIC
  $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/include> $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)
target_link_libraries(ktlp6 PRIVATE Threads::Threads)

add_library(ktlp6_static STATIC ${ktl_objects})
set_target_properties(ktlp6_static PROPERTIES LINKER_LANGUAGE CXX)
target_compile_definitions(ktlp6_static INTERFACE KTLP6_STATIC)
target_include_directories(ktlp6_static PUBLIC
  $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/include> $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)
target_link_libraries(ktlp6_static PUBLIC Threads::Threads)
add_library(ktlp6::ktlp6 ALIAS ktlp6)
add_library(ktlp6::ktlp6_static ALIAS ktlp6_static)
