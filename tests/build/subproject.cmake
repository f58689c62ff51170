# The library as a part of another project: it leaves that project's build type alone, installs
# nothing unasked, and is what BUILD_SHARED_LIBS says.
#   cmake -D SOURCE=<source tree> -D WORK=<folder> -D CC=<C compiler> -D CXX=<C++ compiler>
#         -P subproject.cmake
cmake_minimum_required(VERSION 3.22)
include(${CMAKE_CURRENT_LIST_DIR}/run.cmake)
unset(ENV{CMAKE_BUILD_TYPE})

function(configure folder kind)
  run(${CMAKE_COMMAND} -G Ninja -S ${SOURCE}/tests/build/parent -B ${WORK}/${folder}
      -DKTLP6_SOURCE=${SOURCE}
      -DCMAKE_C_COMPILER=${CC} -DCMAKE_CXX_COMPILER=${CXX} ${ARGN})
  file(READ ${WORK}/${folder}/kind found)
  if(NOT found STREQUAL kind)
    message(SEND_ERROR "with '${ARGN}' ktlp6::ktlp6 is a ${found} and not a ${kind}")
  endif()
endfunction()

file(REMOVE_RECURSE ${WORK})
configure(unsaid SHARED_LIBRARY)
configure(shared SHARED_LIBRARY -DBUILD_SHARED_LIBS=ON)
configure(static STATIC_LIBRARY -DBUILD_SHARED_LIBS=OFF)

run(${CMAKE_COMMAND} --install ${WORK}/unsaid --prefix ${WORK}/prefix)
file(GLOB_RECURSE installed RELATIVE ${WORK}/prefix ${WORK}/prefix/*)
if(NOT installed STREQUAL "parents/CMakeLists.txt")
  message(SEND_ERROR "installed with the parent: ${installed}")
endif()
configure(asked SHARED_LIBRARY -DKTLP6_INSTALL=ON)
file(STRINGS ${WORK}/asked/ktlp6/cmake_install.cmake rules REGEX "ktlp6\\.h")
if(NOT rules)
  message(SEND_ERROR "KTLP6_INSTALL installs nothing")
endif()
