# The shared module, its static twin and the kernels alone, all from the same objects.
# BUILD_SHARED_LIBS, where it is set, says which of the first two ktlp6::ktlp6 is; otherwise it is
# the shared module.
set(vsq_objects ${VSQ_OBJECTS} $<TARGET_OBJECTS:ktl_platform>)
set(ktl_objects $<TARGET_OBJECTS:ktl_recognition> ${vsq_objects})
find_package(Threads REQUIRED)

if(DEFINED BUILD_SHARED_LIBS AND NOT BUILD_SHARED_LIBS)
  set(KTL_MAIN_LIBRARY ktlp6_static)
else()
  set(KTL_MAIN_LIBRARY ktlp6)
endif()

# exports.txt names what leaves the shared module; from it come the ELF version script and the
# Windows .def file.
file(STRINGS ${PROJECT_SOURCE_DIR}/exports.txt exports REGEX "^[A-Za-z_]")
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/exports.txt)
list(JOIN exports ";\n    " export_list)
file(CONFIGURE OUTPUT ktlp6.map CONTENT "{\n  global:\n    @export_list@;\n  local:\n    *;\n};\n" @ONLY)
list(JOIN exports "\n    " export_list)
file(CONFIGURE OUTPUT ktlp6.def CONTENT "LIBRARY ktlp6\nEXPORTS\n    @export_list@\n" @ONLY)

# The compiler's own helpers (64-bit division on 32-bit processors, counting bits) are taken in.
add_library(ktlp6 SHARED ${ktl_objects})
if(WIN32)
  target_sources(ktlp6 PRIVATE ${PROJECT_BINARY_DIR}/ktlp6.def)
  set_target_properties(ktlp6 PROPERTIES PREFIX "")
  target_link_options(ktlp6 PRIVATE -static -static-libgcc -static-libstdc++)
else()
  target_link_options(ktlp6 PRIVATE -static-libgcc
    -Wl,--version-script=${PROJECT_BINARY_DIR}/ktlp6.map -Wl,-z,relro,-z,now -Wl,--as-needed)
  set_property(TARGET ktlp6 APPEND PROPERTY LINK_DEPENDS ${PROJECT_BINARY_DIR}/ktlp6.map)
endif()
set_target_properties(ktlp6 PROPERTIES LINKER_LANGUAGE CXX VERSION ${PROJECT_VERSION} SOVERSION ${PROJECT_VERSION_MAJOR})
target_include_directories(ktlp6 PUBLIC
  $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/include> $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)
target_link_libraries(ktlp6 PRIVATE Threads::Threads)

# libktlp6.a, beside which the Windows import library is libktlp6.dll.a.
ktl_archive(ktlp6_static PLAIN ktlp6_internal NAMES ${exports} OBJECTS ${ktl_objects})
set_target_properties(ktlp6_static PROPERTIES OUTPUT_NAME ktlp6)
target_compile_definitions(ktlp6_static INTERFACE KTLP6_STATIC)
target_compile_definitions(ktlp6_internal INTERFACE KTLP6_STATIC)

# The functions that vsq.h declares.
file(STRINGS ${PROJECT_SOURCE_DIR}/include/vsq.h kernel_names
  REGEX "^[a-z][^(]*[ *]vsq[A-Za-z0-9]+\\(")
list(TRANSFORM kernel_names REPLACE "^[^(]*[ *](vsq[A-Za-z0-9]+)\\(.*$" "\\1")
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/include/vsq.h)
ktl_archive(vsq PLAIN vsq_internal NAMES ${kernel_names} OBJECTS ${vsq_objects})

add_library(ktlp6::ktlp6 ALIAS ${KTL_MAIN_LIBRARY})
add_library(ktlp6::ktlp6_static ALIAS ktlp6_static)
add_library(ktlp6::vsq ALIAS vsq)
if(KTL_MAIN_LIBRARY STREQUAL ktlp6_static)
  set_target_properties(ktlp6 PROPERTIES EXCLUDE_FROM_ALL TRUE)
endif()
if(NOT KTLP6_INSTALL AND NOT PROJECT_IS_TOP_LEVEL) # only what the parent project uses
  set_target_properties(ktlp6 ktlp6_static vsq PROPERTIES EXCLUDE_FROM_ALL TRUE)
endif()
