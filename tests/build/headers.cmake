# The public headers compile alone and first in a file, as C11 and as C++.
file(MAKE_DIRECTORY ${WORK})
foreach(header ktlp6.h vsq.h)
  foreach(extension c cpp)
    file(WRITE ${WORK}/${header}.${extension} "#include \"${header}\"\nint main(void) { return 0; }\n")
  endforeach()
  execute_process(COMMAND ${CC} -std=c11 -pedantic -Wall -Wextra -Wstrict-prototypes -Werror -I${SOURCE}/include
    -fsyntax-only ${WORK}/${header}.c COMMAND_ERROR_IS_FATAL ANY)
  execute_process(COMMAND ${CXX} -std=c++11 -pedantic -Wall -Wextra -Werror -I${SOURCE}/include
    -fsyntax-only ${WORK}/${header}.cpp COMMAND_ERROR_IS_FATAL ANY)
endforeach()
