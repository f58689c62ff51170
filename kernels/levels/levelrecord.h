// What a module's record of kernels (vsqM_level.h) is declared with. Level sources include their own record alone, so that a
// new module does not recompile all others.
#pragma once

// Declares, for every level, the record that vsqM_level.cpp defines.
#define VSQ_DECLARE_LEVELS(Record, name)                                                                     \
    namespace baseline {                                                                                     \
    extern const Record name;                                                                                \
    }                                                                                                        \
    namespace avx2 {                                                                                         \
    extern const Record name;                                                                                \
    }                                                                                                        \
    namespace avx512 {                                                                                       \
    extern const Record name;                                                                                \
    }
