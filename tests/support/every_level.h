// Runs a test's body once per instruction-set level that this machine has.
#pragma once

#include "levels/levels.h"

#include <gtest/gtest.h>

namespace support {

template <class Body>
void onEveryLevel(Body body) {
    for (vsq::Level level : vsq::everyLevel) {
        if (!vsq::selectLevel(level)) continue;
        SCOPED_TRACE(vsq::levelName(level));
        body();
    }
    vsq::selectLevel(vsq::bestLevel());
}

} // namespace support
