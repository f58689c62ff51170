#include "ktlp6.h"
#include "models/log10_fixed.h"
#include "oracle/log10_fixed.h"
#include "support/guarded.h"

#include <gtest/gtest.h>

#include <climits>
#include <cmath>
#include <fstream>
#include <string>

namespace {

int logarithm(int x, int sfIn, int sfOut) {
    support::Guarded<int> value(1, x);
    ownwLog10Scaled(value.data(), 1, sfIn, sfOut);
    EXPECT_TRUE(value.intact());
    return value[0];
}

} // namespace

TEST(FixedLogarithm, EveryTableEntryInEveryTier) {
    std::ifstream golden(std::string(KTL_SOURCE_DIR) + "/tests/golden/log10_scaled.txt");
    ASSERT_TRUE(golden.is_open());
    int x = 0, sfIn = 0, sfOut = 0, expected = 0;
    int lines = 0;
    while (golden >> x >> sfIn >> sfOut >> expected) {
        ASSERT_EQ(logarithm(x, sfIn, sfOut), expected) << x << ' ' << sfIn << ' ' << sfOut;
        ++lines;
    }
    EXPECT_GT(lines, 10000);
}

TEST(FixedLogarithm, WhatIsNotPositiveIsTheLogZero) {
    for (const int x : {0, -1, INT_MIN})
        for (const int sfOut : {-5, 8, 12, 20, 25, 30, INT_MAX, INT_MIN})
            EXPECT_EQ(logarithm(x, -24, sfOut), HMM_LOG_ZERO);
}

TEST(FixedLogarithm, One) {
    for (int sfOut = 0; sfOut <= 26; ++sfOut)
        EXPECT_EQ(logarithm(1 << 24, -24, sfOut), 0) << sfOut;
}

TEST(FixedLogarithm, FourPowersOfTwoBelowOne) {
    // 4 * log10(2) * 256 = 308.25
    EXPECT_EQ(logarithm(1 << 20, -24, 8), 308);
}

TEST(FixedLogarithm, TheFinestTierDoesNotTurnTheSign) {
    EXPECT_LT(logarithm(1 << 20, -24, 25), 0);
    EXPECT_GT(logarithm(1 << 20, -24, 24), 0);
    EXPECT_EQ(logarithm(1 << 20, -24, 25), logarithm(1 << 20, -24, 26) >> 1);
}

// The tiers leave out what their last bit does not show: each result lies near the real logarithm.
// In the first tier the mantissa's logarithm is that of its leading 8 bits, at most log10(1 +
// 1/256) off; with one term the rest is below log10(e)/2 * 2^-16, with two below log10(e)/3 *
// 2^-24. Rounding down adds one unit.
TEST(FixedLogarithm, LiesNearTheRealOne) {
    std::uint32_t state = 1;
    for (int i = 0; i < 20000; ++i) {
        state = state * 1664525u + 1013904223u;
        const int x = static_cast<int>(state >> 1 >> (i % 31)) | 1;
        for (int sfOut = -2; sfOut <= 24; ++sfOut) {
            const long double real =
                -(std::log10(static_cast<long double>(x)) - 28 * std::log10(2.0L)) *
                std::ldexp(1.0L, sfOut);
            const long double missing = sfOut < 9 ? 0.0017L : sfOut < 18 ? 0.22e-5L * 1.6L : 1e-8L;
            const long double bound =
                missing * std::ldexp(1.0L, sfOut) + 1 + std::ldexp(3.0L, sfOut - 26);
            ASSERT_LE(std::fabs(static_cast<long double>(logarithm(x, -28, sfOut)) - real), bound)
                << x << ' ' << sfOut;
        }
    }
}

TEST(FixedLogarithm, WorksInPlaceOverAVector) {
    support::Guarded<int> values(std::vector<int>{1 << 24, 0, 1 << 20, -7, 1 << 23});
    ownwLog10Scaled(values.data(), 5, -24, 8);
    EXPECT_EQ(values.values(), (std::vector<int>{0, HMM_LOG_ZERO, 308, HMM_LOG_ZERO, 77}));
    EXPECT_TRUE(values.intact());
}

TEST(FixedLogarithm, NothingToDo) {
    int untouched = 5;
    ownwLog10Scaled(&untouched, 0, -24, 8);
    ownwLog10Scaled(&untouched, -3, -24, 8);
    EXPECT_EQ(untouched, 5);
}

// The reference of other tests and the decimal one agree where both know the logarithm.
TEST(FixedLogarithm, TheReferenceOfTestsIsTheDecimalOne) {
    std::ifstream golden(std::string(KTL_SOURCE_DIR) + "/tests/golden/log10_scaled.txt");
    int x = 0, sfIn = 0, sfOut = 0, expected = 0;
    while (golden >> x >> sfIn >> sfOut >> expected)
        if (sfOut < 25) {
            ASSERT_EQ(oracle::log10Fixed(x, sfIn, sfOut), expected)
                << x << ' ' << sfIn << ' ' << sfOut;
        }
}

// Scales beyond every table and word are no licence for undefined shifts.
TEST(FixedLogarithm, AnyScaleIsDefined) {
    for (const int sfIn : {INT_MIN, -1000, -24, 1000, INT_MAX})
        for (const int sfOut : {INT_MIN, INT_MIN + 26, -1000, -38, 58, 90, 1000, INT_MAX})
            logarithm(12345, sfIn, sfOut);
    EXPECT_EQ(logarithm(1 << 20, -24, INT_MIN), 0);  // a cost above 0, shifted out
    EXPECT_EQ(logarithm(1 << 26, -24, INT_MIN), -1); // a cost below 0 rounds down
}
