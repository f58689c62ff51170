# The scripts of the root from another folder: each tells its own usage, and run-demo takes a folder
# as its caller sees it. Compilers and packages are stood in for: nothing is built.
#   cmake -D SOURCE=<source tree> -D WORK=<folder> -P scripts.cmake
cmake_minimum_required(VERSION 3.22)
include(${CMAKE_CURRENT_LIST_DIR}/run.cmake)

function(stand_in file text)
  file(WRITE ${WORK}/${file} "#!/bin/sh\n${text}\n")
  file(CHMOD ${WORK}/${file} PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE)
endfunction()

# expect(text command...): it succeeds and says this, seen from WORK/elsewhere.
function(expect text)
  execute_process(COMMAND ${ARGN} WORKING_DIRECTORY ${WORK}/elsewhere
    RESULT_VARIABLE result OUTPUT_VARIABLE output ERROR_VARIABLE output)
  if(NOT result EQUAL 0 OR NOT output MATCHES "${text}")
    message(SEND_ERROR "'${ARGN}' gave ${result} and not '${text}':\n${output}")
  endif()
endfunction()

file(REMOVE_RECURSE ${WORK})
file(MAKE_DIRECTORY ${WORK}/elsewhere/recordings ${WORK}/tree/examples/data/digits)
file(COPY ${SOURCE}/run-demo ${SOURCE}/run-tests DESTINATION ${WORK}/tree)
stand_in(tools/cmake "")
stand_in(tree/scripts/install-packages "")
stand_in(tree/build/release/examples/words/words "cd \"$3\" && pwd && echo \"$@\"")
set(ENV{PATH} "${WORK}/tools:$ENV{PATH}")
set(log build/release/Testing/Temporary)
stand_in(tools/ctest "mkdir -p ${log} && echo 'skipped: A.b: no c' >${log}/LastTest.log; exit \${3:-0}")

foreach(script run-demo run-tests)
  foreach(option --help -h)
    expect("\nusage: ./${script} " ../tree/${script} ${option})
  endforeach()
endforeach()
expect("^${WORK}/elsewhere/recordings\n" ../tree/run-demo recordings)
expect("^${WORK}/elsewhere/recordings\n" ../tree/run-demo ${WORK}/elsewhere/recordings)
expect("^${WORK}/tree/examples/data/digits\n" ../tree/run-demo)
expect("--report ${WORK}/tree/build/report.html --recogniser mlp\n$"
  ../tree/run-demo recordings --recogniser mlp)

# run-tests ends as ctest does, which stands for its argument here, and tells what was skipped.
expect("skipped: A.b: no c\n$" ../tree/run-tests release)
expect("skipped: A.b: no c\n$" sh -c "! ../tree/run-tests release 3")

execute_process(COMMAND ${WORK}/tree/run-demo absent RESULT_VARIABLE result ERROR_VARIABLE told)
if(result EQUAL 0 OR NOT told MATCHES "no folder absent")
  message(SEND_ERROR "run-demo with no such folder: ${result}, ${told}")
endif()
