# install: the two libraries, the headers, a CMake package and a pkg-config file.
