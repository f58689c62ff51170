# Archives that have no global names but their interface's.
#
# The objects are joined into one, and in that all other names become local: an application may have
# an `ownAlloc` of its own. On ELF the interface is hidden as well, so that a shared object that is
# linked with an archive does not export it again. Needs a linker with -r and objcopy; where they
# cannot do it, and under sanitizers, the archive is made of the plain objects.

# What the compiler's driver is told beside the objects, so that it joins objects of this target.
function(ktl_driver_flags result)
  separate_arguments(flags UNIX_COMMAND "${CMAKE_CXX_FLAGS} ${CMAKE_EXE_LINKER_FLAGS}")
  if(CMAKE_CXX_COMPILER_TARGET)
    list(APPEND flags --target=${CMAKE_CXX_COMPILER_TARGET})
  endif()
  list(APPEND flags -r -nostdlib)
  if(NOT WIN32) # groups of which a linker keeps one copy go by a global name
    list(APPEND flags -Wl,--force-group-allocation)
  endif()
  set(${result} ${flags} PARENT_SCOPE)
endfunction()

# Tries it on a small object.
function(ktl_try_localising)
  set(work ${CMAKE_BINARY_DIR}/CMakeFiles/ktl_localising)
  if(DEFINED KTLP6_LOCALISED)
    return()
  endif()
  set(possible OFF)
  if(CMAKE_OBJCOPY AND CMAKE_NM AND NOT KTLP6_SANITIZED AND NOT CMAKE_CONFIGURATION_TYPES
     AND NOT CMAKE_CXX_FLAGS MATCHES "--coverage|-fprofile|-flto"
     AND NOT CMAKE_INTERPROCEDURAL_OPTIMIZATION)
    file(WRITE ${work}/try.cpp
      "extern \"C\" int kept() { return 1; }\nextern \"C\" int inner() { return 2; }\n")
    file(WRITE ${work}/names "kept\n_kept\n")
    ktl_driver_flags(flags)
    set(compile ${flags})
    list(FILTER compile EXCLUDE REGEX "^(-r|-nostdlib|-Wl,.*|-fuse-ld=.*)$")
    execute_process(COMMAND ${CMAKE_CXX_COMPILER} ${compile} -c try.cpp -o try.o
      COMMAND_ERROR_IS_FATAL ANY WORKING_DIRECTORY ${work})
    execute_process(COMMAND ${CMAKE_CXX_COMPILER} ${flags} -o whole.o try.o
      RESULT_VARIABLE joined ERROR_VARIABLE errors WORKING_DIRECTORY ${work})
    execute_process(COMMAND ${CMAKE_OBJCOPY} --keep-global-symbols=names whole.o local.o
      RESULT_VARIABLE copied ERROR_VARIABLE errors WORKING_DIRECTORY ${work})
    execute_process(COMMAND ${CMAKE_NM} -g --defined-only local.o
      OUTPUT_VARIABLE names ERROR_VARIABLE errors WORKING_DIRECTORY ${work})
    if(joined EQUAL 0 AND copied EQUAL 0 AND names MATCHES "kept" AND NOT names MATCHES "inner")
      set(possible ON)
    endif()
  endif()
  if(NOT possible)
    message(STATUS "the archives keep inner global names: no tools that make them local")
  endif()
  set(KTLP6_LOCALISED ${possible} CACHE INTERNAL "whether inner names are local in archives")
endfunction()

# ktl_archive(TARGET PLAIN target NAMES name... OBJECTS object...): a static library that needs no
# C++ runtime. PLAIN gets the objects as they are, for tests and benchmarks that look inside.
function(ktl_archive target)
  cmake_parse_arguments(PARSE_ARGV 1 arg "" "PLAIN" "NAMES;OBJECTS")
  add_library(${arg_PLAIN} STATIC EXCLUDE_FROM_ALL ${arg_OBJECTS})
  set_target_properties(${arg_PLAIN} PROPERTIES LINKER_LANGUAGE CXX)
  ktl_try_localising()
  if(KTLP6_LOCALISED)
    ktl_local_object(${target} ${arg_PLAIN} ${arg_NAMES})
    set(arg_OBJECTS ${PROJECT_BINARY_DIR}/${target}.o)
    set_source_files_properties(${arg_OBJECTS} PROPERTIES EXTERNAL_OBJECT TRUE GENERATED TRUE)
  endif()
  add_library(${target} STATIC ${arg_OBJECTS})
  set_target_properties(${target} PROPERTIES LINKER_LANGUAGE C)
  foreach(library IN ITEMS ${target} ${arg_PLAIN})
    target_include_directories(${library} PUBLIC
      $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/include>
      $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)
    target_link_libraries(${library} PUBLIC Threads::Threads
      $<$<NOT:$<PLATFORM_ID:Windows>>:m>)
  endforeach()
endfunction()

# Makes TARGET.o of the archive PLAIN; NAMES stay global.
function(ktl_local_object target plain)
  set(names ${ARGN})
  if(WIN32 AND CMAKE_SIZEOF_VOID_P EQUAL 4) # where the names of C functions begin so
    list(TRANSFORM names PREPEND _)
  endif()
  list(JOIN names "\n" lines)
  file(CONFIGURE OUTPUT ${target}.names CONTENT "${lines}\n")
  if(NOT WIN32) # of the visibilities that the joined objects tell of a name it gets the strictest
    list(TRANSFORM names REPLACE "^(.+)$" "__asm__(\".globl \\1\\\\n.hidden \\1\\\\n\")")
    list(JOIN names "$<SEMICOLON>\n" lines)
    set(source ${PROJECT_BINARY_DIR}/${target}_hidden.c)
    file(GENERATE OUTPUT ${source} CONTENT "${lines}$<SEMICOLON>\n")
    target_sources(${plain} PRIVATE ${source})
  endif()
  ktl_driver_flags(flags)
  add_custom_command(OUTPUT ${PROJECT_BINARY_DIR}/${target}.o
    COMMAND ${CMAKE_CXX_COMPILER} ${flags} -o ${target}_whole.o
      -Wl,--whole-archive $<TARGET_FILE:${plain}> -Wl,--no-whole-archive
    COMMAND ${CMAKE_OBJCOPY} --keep-global-symbols=${target}.names ${target}_whole.o ${target}.o
    DEPENDS ${plain} ${PROJECT_BINARY_DIR}/${target}.names
    WORKING_DIRECTORY ${PROJECT_BINARY_DIR} COMMAND_EXPAND_LISTS VERBATIM
    COMMENT "Joining the objects of ${target}")
endfunction()
