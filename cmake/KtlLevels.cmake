# Level sources (kernels/*/*_level.cpp) are compiled once per instruction-set level, each time into
# a namespace of its own. kernels/levels/levels.list names the levels; KTLP6_LEVELS takes a choice
# of them, so that a distributor can leave some out. The compiler fuses nothing by itself
# (-ffp-contract=off): that would give other bits than the baseline.
#
# The sanitizers watch the lowest and the highest level, between which the others lie.
set(KTLP6_LEVELS "all" CACHE STRING "instruction-set levels to build (baseline always): all, or a list of names")

set(level_families any)
if(CMAKE_SYSTEM_PROCESSOR MATCHES "^(x86|i.86|AMD64|amd64|x86_64)")
  list(APPEND level_families x86)
  if(CMAKE_SIZEOF_VOID_P EQUAL 8)
    list(APPEND level_families x86-64)
  endif()
endif()

set(level_list ${PROJECT_SOURCE_DIR}/kernels/levels/levels.list)
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${level_list})
file(STRINGS ${level_list} level_rows REGEX "^[a-z]")
set(KTL_LEVELS "")
set(level_entries "")
foreach(row IN LISTS level_rows)
  string(REGEX REPLACE " +" ";" row "${row}")
  list(POP_FRONT row level family bytes overloads test)
  if(NOT family IN_LIST level_families OR level IN_LIST KTL_LEVELS
     OR NOT (level STREQUAL baseline OR KTLP6_LEVELS STREQUAL all OR level IN_LIST KTLP6_LEVELS))
    continue()
  endif()
  list(APPEND KTL_LEVELS ${level})
  set(KTL_LEVEL_${level}_OPTIONS ${row})
  set(KTL_LEVEL_${level}_DEFINITIONS
    VSQ_LEVEL=${level} VSQ_REGISTER_BYTES=${bytes} "VSQ_OVERLOADS=\"${overloads}\"")
  string(APPEND level_entries " \\\n    X(${level}, ${test} __VA_OPT__(, ) __VA_ARGS__)")
endforeach()
file(CONFIGURE OUTPUT ${PROJECT_BINARY_DIR}/levels/levels_list.h CONTENT
"// Made from kernels/levels/levels.list: X(level, the function of platform.h that chooses it, ...).
#pragma once
#define VSQ_EVERY_LEVEL(X, ...)@level_entries@
" @ONLY)
set(KTL_LEVELS_INCLUDE ${PROJECT_BINARY_DIR}/levels)

# ktl_level_sources(TARGET_PREFIX sources...): defines TARGET_PREFIX_<level> for each level.
function(ktl_level_sources prefix)
  list(GET KTL_LEVELS 0 lowest)
  list(GET KTL_LEVELS -1 highest)
  foreach(level IN LISTS KTL_LEVELS)
    ktl_layer(${prefix}_${level} ${ARGN})
    target_compile_options(${prefix}_${level} PRIVATE ${KTL_LEVEL_${level}_OPTIONS}
      "$<$<CXX_COMPILER_ID:GNU>:-Wno-psabi;-Wno-maybe-uninitialized;-Wno-stringop-overflow>" $<$<CONFIG:Release,RelWithDebInfo>:-O3>)
    if(KTLP6_SANITIZED AND NOT level STREQUAL lowest AND NOT level STREQUAL highest)
      target_compile_options(${prefix}_${level} PRIVATE -fno-sanitize=all)
    endif()
    target_compile_definitions(${prefix}_${level} PRIVATE ${KTL_LEVEL_${level}_DEFINITIONS})
    target_include_directories(${prefix}_${level} PRIVATE ${KTL_LEVELS_INCLUDE})
  endforeach()
endfunction()
