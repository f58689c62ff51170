# Installs the build, moves the installed tree, and builds and runs small programs against it in
# every way that README names: the CMake package and pkg-config; shared, static, and the kernels
# alone; and against the build tree.
#   cmake -D BUILD=<build tree> -D SOURCE=<source tree> -D WORK=<folder>
#         -D CC=<C compiler> -D CXX=<C++ compiler>
#         -D CFLAGS=<flags> -D LOCALISED=<whether the archives have local names> -P install.cmake
cmake_minimum_required(VERSION 3.22)
include(${CMAKE_CURRENT_LIST_DIR}/run.cmake)
foreach(compiler CC CXX)
  find_program(${compiler}_PATH ${${compiler}})
  if(NOT ${compiler}_PATH)
    message("skipped: there is no ${${compiler}}")
    return()
  endif()
endforeach()
find_program(READELF readelf REQUIRED)
find_program(NM nm REQUIRED)
set(programs shared static kernels both host)

# A C program that has taken the library in needs nothing but the C library.
function(expect_no_library file)
  output_of(needed ${READELF} -d ${file})
  if(needed MATCHES "NEEDED[^\n]*\\[([^]]*(ktlp6|vsq|stdc|libgcc_s)[^]]*)")
    message(SEND_ERROR "${file} needs ${CMAKE_MATCH_1}")
  endif()
endfunction()

function(consume folder)
  run(${CMAKE_COMMAND} -G Ninja -S ${SOURCE}/tests/build/consumer -B ${WORK}/${folder}
      -DCMAKE_BUILD_TYPE=Release -DCMAKE_C_COMPILER=${CC} -DCMAKE_CXX_COMPILER=${CXX}
      -DCMAKE_C_FLAGS=${CFLAGS} -DCMAKE_CXX_FLAGS=${CFLAGS} ${ARGN})
  run(${CMAKE_COMMAND} --build ${WORK}/${folder})
  foreach(program IN LISTS programs)
    run(${WORK}/${folder}/${program})
  endforeach()
  if(NOT folder STREQUAL cxx)
    expect_no_library(${WORK}/${folder}/static)
    expect_no_library(${WORK}/${folder}/kernels)
  endif()
  output_of(offered ${NM} -D --defined-only ${WORK}/${folder}/libplugin.so)
  if(LOCALISED AND offered MATCHES " (KT|vsq|own)[A-Za-z0-9]*")
    message(SEND_ERROR "a shared object passes on ${CMAKE_MATCH_0}")
  endif()
endfunction()

file(REMOVE_RECURSE ${WORK})
run(${CMAKE_COMMAND} --install ${BUILD} --prefix ${WORK}/first)
file(RENAME ${WORK}/first ${WORK}/prefix)
if(NOT LOCALISED) # the names that a program may then not use
  list(REMOVE_ITEM programs static)
endif()
consume(c -DCMAKE_PREFIX_PATH=${WORK}/prefix)
consume(cxx -DCMAKE_PREFIX_PATH=${WORK}/prefix -DLANGUAGE=CXX)
consume(build-tree -Dktlp6_DIR=${BUILD})

file(GLOB_RECURSE modules ${WORK}/prefix/*/libktlp6.so)
expect_no_library(${modules})

find_program(PKG_CONFIG NAMES pkg-config pkgconf)
if(NOT PKG_CONFIG)
  message("skipped: there is no pkg-config")
  return()
endif()
file(GLOB_RECURSE pc ${WORK}/prefix/*/ktlp6.pc)
get_filename_component(pc_dir ${pc} DIRECTORY)
get_filename_component(lib_dir ${pc_dir} DIRECTORY)
set(ENV{PKG_CONFIG_PATH} ${pc_dir})
set(ENV{LD_LIBRARY_PATH} ${lib_dir})
separate_arguments(c_flags UNIX_COMMAND "${CFLAGS}")

# by_pkg_config(program source "pkg-config's arguments" flags...): builds and runs it.
function(by_pkg_config program source arguments)
  separate_arguments(arguments UNIX_COMMAND "${arguments}")
  output_of(flags ${PKG_CONFIG} --cflags --libs ${arguments})
  if(flags MATCHES "stdc\\+\\+")
    message(SEND_ERROR "pkg-config ${arguments} asks for the C++ runtime: ${flags}")
  endif()
  separate_arguments(flags UNIX_COMMAND "${flags}")
  run(${CC} ${c_flags} ${SOURCE}/tests/build/consumer/${source}.c
      -o ${WORK}/${program} ${flags} ${ARGN})
  run(${WORK}/${program})
endfunction()
by_pkg_config(pc-shared main ktlp6)
by_pkg_config(pc-static main "--static ktlp6" -static)
by_pkg_config(pc-kernels kernels vsq)
unset(ENV{LD_LIBRARY_PATH})
run(${WORK}/pc-static)
expect_no_library(${WORK}/pc-static)
expect_no_library(${WORK}/pc-kernels)
