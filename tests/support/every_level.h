// Runs a test's body once per instruction-set level that this machine has.
#pragma once

#include "levels.h"

#include <gtest/gtest.h>

namespace support {

template <class Body>
void onEveryLevel(Body body) {
    for (vsq::Level level : {vsq::Level::baseline, vsq::Level::avx2, vsq::Level::avx512}) {
        if (!vsq::selectLevel(level)) continue;
        SCOPED_TRACE(vsq::levelName(level));
        body();
    }
    vsq::selectLevel(vsq::bestLevel());
}

} // namespace support
