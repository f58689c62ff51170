// When a test program's tests are over, gives back what the main thread's context still holds, as
// an application would: what a leak checker then finds is a leak.
#include "ktlp6.h"

#include <gtest/gtest.h>

namespace {

struct ReleaseThread : testing::Environment {
    void TearDown() override {
        KTSetStdError();
        KTSetErrMode(KT_ErrorModeSilent);
        KTFreePreemphasizeTbls();
        KTFreeCepsTbls();
        KTFreeLPTbls();
        KTFreeGaussTbls();
        KTHMMFreeAll();
        KTsPatternFreeAll();
        KTwPatternFreeAll();
    }
};

const testing::Environment* const releaseThread =
    testing::AddGlobalTestEnvironment(new ReleaseThread);

} // namespace
