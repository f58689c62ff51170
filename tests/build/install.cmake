# Installs the build into a temporary prefix and builds and runs a small C program against it, once through the CMake
# package and once through pkg-config.
#   cmake -D BUILD=<build tree> -D SOURCE=<source tree> -D CC=<C compiler> -D CFLAGS=<flags> -P install.cmake
function(run)
  execute_process(COMMAND ${ARGV} RESULT_VARIABLE result OUTPUT_VARIABLE output ERROR_VARIABLE output)
  if(NOT result EQUAL 0)
    message(FATAL_ERROR "failed (${result}): ${ARGV}\n${output}")
  endif()
  message(STATUS "${output}")
endfunction()

set(work ${BUILD}/install-test)
file(REMOVE_RECURSE ${work})
run(${CMAKE_COMMAND} --install ${BUILD} --prefix ${work}/prefix)

run(${CMAKE_COMMAND} -G Ninja -S ${SOURCE}/tests/build/consumer -B ${work}/consumer -DCMAKE_PREFIX_PATH=${work}/prefix
    -DCMAKE_C_COMPILER=${CC} -DCMAKE_C_FLAGS=${CFLAGS})
run(${CMAKE_COMMAND} --build ${work}/consumer)
run(${work}/consumer/consumer)

find_program(PKG_CONFIG NAMES pkg-config pkgconf REQUIRED)
file(GLOB_RECURSE pc ${work}/prefix/*/ktlp6.pc)
get_filename_component(pc_dir ${pc} DIRECTORY)
get_filename_component(lib_dir ${pc_dir} DIRECTORY)
set(ENV{PKG_CONFIG_PATH} ${pc_dir})
set(ENV{LD_LIBRARY_PATH} ${lib_dir})
execute_process(COMMAND ${PKG_CONFIG} --cflags --libs ktlp6 OUTPUT_VARIABLE flags OUTPUT_STRIP_TRAILING_WHITESPACE
  COMMAND_ERROR_IS_FATAL ANY)
separate_arguments(flags)
separate_arguments(c_flags UNIX_COMMAND "${CFLAGS}")
run(${CC} ${c_flags} ${SOURCE}/tests/build/consumer/main.c -o ${work}/by-pkg-config ${flags})
run(${work}/by-pkg-config)
