// What a module's record of kernels (vsqM_level.h) is declared with. Level sources include their
// own record alone, so that a new module does not recompile all others.
#pragma once

#include "levels_list.h"

// Declares, for every level, the record that vsqM_level.cpp defines.
#define VSQ_DECLARE_LEVELS(Record, name) VSQ_EVERY_LEVEL(VSQ_DECLARE_LEVEL, Record, name)
#define VSQ_DECLARE_LEVEL(level, chosenIf, Record, name)                                           \
    namespace level {                                                                              \
    extern const Record name;                                                                      \
    }
