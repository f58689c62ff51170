// Tests of a kernel run on every instruction-set level that the machine has; what that leaves out
// is told here.
#include "levels/levels.h"

#include <gtest/gtest.h>

#include <string>

TEST(Levels, AllThatAreCompiledAreTestedHere) {
#if defined(__x86_64__)
    std::string missing;
    for (vsq::Level level : {vsq::Level::avx2, vsq::Level::avx512})
        if (!vsq::selectLevel(level)) missing += std::string(" ") + vsq::levelName(level);
    vsq::selectLevel(vsq::bestLevel());
    if (!missing.empty())
        GTEST_SKIP() << "the processor lacks" << missing << ", which no test runs on";
#else
    EXPECT_EQ(vsq::bestLevel(), vsq::Level::baseline);
#endif
}
