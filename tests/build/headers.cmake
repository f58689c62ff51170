# The public headers compile alone and first in a file, as C11 and as C++, and the version in
# ktlp6.h is the project's.
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

string(REGEX MATCHALL "[0-9]+" version "${VERSION}") # major, minor, patch
list(JOIN version ", " version)
file(WRITE ${WORK}/version.c "#include \"ktlp6.h\"
#define SAME(major, minor, patch) (KTLP6_VERSION_MAJOR == major && KTLP6_VERSION_MINOR == minor \\
    && KTLP6_VERSION_PATCH == patch && KTLP6_VERSION == major * 1000000 + minor * 1000 + patch)
#if !SAME(${version})
#error ktlp6.h has another version than the project, ${VERSION}
#endif
_Static_assert(KTLP6_VERSION >= 4000018, \"a number that grows\");\n")
execute_process(COMMAND ${CC} -std=c11 -pedantic -Wall -Wextra -Wundef -Werror -I${SOURCE}/include
  -fsyntax-only ${WORK}/version.c COMMAND_ERROR_IS_FATAL ANY)
