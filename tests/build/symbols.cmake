# What the shared module and the archives define for others stands in exports.txt and in vsq.h.
# Level objects define no weak symbol: one that two levels share would be linked once, from
# whichever level comes first, and run on processors that lack it. Nothing is computed when the
# library is loaded but what is allowed here.
cmake_minimum_required(VERSION 3.22)
file(STRINGS ${SOURCE}/exports.txt exported REGEX "^[A-Za-z_]")
# The names that stand in front of a parenthesis and not in a comment.
file(READ ${SOURCE}/include/vsq.h header)
string(REGEX REPLACE "/\\*([^*]|\\*[^/])*\\*/" "" header "${header}")
string(REGEX MATCHALL "[ *]vsq[A-Za-z0-9]+\\(" kernels "${header}")
list(TRANSFORM kernels REPLACE "[ *(]" "")

# expect_defined(file names nm's options...): it defines these names for others and no more.
function(expect_defined file names)
  execute_process(COMMAND ${NM} ${ARGN} --defined-only ${file}
    OUTPUT_VARIABLE symbols COMMAND_ERROR_IS_FATAL ANY)
  string(REGEX MATCHALL "[0-9a-f]+ [A-Za-z] [^\n]+" lines "${symbols}")
  set(defined "")
  foreach(line IN LISTS lines)
    string(REGEX REPLACE "^.* " "" name "${line}")
    list(APPEND defined ${name})
  endforeach()
  foreach(name IN LISTS defined)
    if(NOT name IN_LIST names)
      message(SEND_ERROR "${name} leaves ${file} and is not of its interface")
    endif()
  endforeach()
  list(REMOVE_ITEM names ${defined})
  if(names)
    message(SEND_ERROR "of its interface and not defined in ${file}: ${names}")
  endif()
endfunction()

expect_defined(${MODULE} "${exported}" -D)
if(LOCALISED)
  expect_defined(${ARCHIVE} "${exported}" -g)
  expect_defined(${KERNELS} "${kernels}" -g)
endif()

file(GLOB objects ${BUILD}/kernels/CMakeFiles/vsq_*.dir/*/*_level.cpp.o)
if(NOT objects)
  message(FATAL_ERROR "no level objects under ${BUILD}")
endif()
foreach(object IN LISTS objects)
  execute_process(COMMAND ${NM} --defined-only ${object} OUTPUT_VARIABLE symbols COMMAND_ERROR_IS_FATAL ANY)
  string(REGEX MATCHALL "[^\n]* [WVuwv] [^\n]*" weak "${symbols}")
  if(weak)
    message(SEND_ERROR "${object} defines weak symbols: ${weak}")
  endif()
endforeach()

# The choice of the level, and the hooks of module and threads: both work whatever order
# constructors run in, since the baseline is in force and a record is made at first use until then.
set(initialisers_allowed dispatch.cpp context.cpp)
file(GLOB_RECURSE objects ${BUILD}/_LIBSRC/*.o ${BUILD}/kernels/*.o ${BUILD}/platform/*.o)
foreach(object IN LISTS objects)
  execute_process(COMMAND ${NM} ${object} OUTPUT_VARIABLE symbols COMMAND_ERROR_IS_FATAL ANY)
  string(REGEX MATCH "_GLOBAL__(sub_)?I_[^\n]*" initialiser "${symbols}")
  get_filename_component(source ${object} NAME_WLE)
  if(initialiser AND NOT source IN_LIST initialisers_allowed)
    message(SEND_ERROR "${object} computes something at load: ${initialiser}")
  endif()
endforeach()
