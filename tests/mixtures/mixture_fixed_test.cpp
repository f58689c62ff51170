#include "mixtures/KT_GAUSS.h"
#include "oracle/gauss_oracle.h"

#include <gtest/gtest.h>

#include <climits>
#include <random>

TEST(ExpFix, OfZeroIsOne) {
    EXPECT_EQ(KTexpFix(0, 10, 30), 1 << 30);
    EXPECT_EQ(KTexpFix(0, 0, 14), 1 << 14);
}

TEST(ExpFix, VanishesBelowMinusTwentyTwo) {
    for (int r = 0; r < 0x211; ++r)
        EXPECT_EQ(KTexpFix((-22 << 10) + r, 10, 30), 0) << r;
    EXPECT_EQ(KTexpFix(-23 << 10, 10, 30), 0);
    EXPECT_EQ(KTexpFix((-23 << 10) + 1023, 10, 30), 0);
    EXPECT_EQ(KTexpFix(INT_MIN, 10, 30), 0);
    EXPECT_EQ(KTexpFix(-23, 0, 30), 0);
}

TEST(ExpFix, SaturatesAboveTwentyOneAndAHalf) {
    for (const int o : {0, 1, 14, 30}) {
        EXPECT_EQ(KTexpFix((21 << 10) + 512, 10, o), INT_MAX);
        EXPECT_EQ(KTexpFix((21 << 10) + 499, 10, o), INT_MAX);
        EXPECT_EQ(KTexpFix(INT_MAX, 10, o), INT_MAX);
        EXPECT_EQ(KTexpFix(22 << 10, 10, o), INT_MAX);
    }
    EXPECT_NE(KTexpFix((21 << 10) + 498, 10, 0), INT_MAX);
}

TEST(ExpFix, FollowsItsRuleOverTheWholeRange) {
    for (const int o : {0, 1, 14, 29, 30})
        for (int x = -23 << 10; x <= 22 << 10; x += o == 30 || o == 14 ? 7 : 61)
            ASSERT_EQ(KTexpFix(x, 10, o), oracle::expFix(x, 10, o)) << x << " " << o;
}

// Every entry of the tables shows in a result: all fractions at one exponent, all exponents at two
// fractions.
TEST(ExpFix, UsesExactTables) {
    for (int r = 0; r < 1024; ++r)
        for (const int n : {-1, 0, 21})
            ASSERT_EQ(KTexpFix((n << 10) + r, 10, n < 1 ? 30 : 0),
                      oracle::expFix((n << 10) + r, 10, n < 1 ? 30 : 0))
                << n << " " << r;
    for (int n = -22; n < 22; ++n)
        for (const int r : {0, 1})
            for (int o = 0; o <= 30; ++o)
                ASSERT_EQ(KTexpFix((n << 10) + r, 10, o), oracle::expFix((n << 10) + r, 10, o))
                    << n << " " << r << " " << o;
}

TEST(ExpFix, TableEntriesStandClearOfTheirRoundingBoundaries) {
    for (int r = 0; r < 1024; ++r) {
        bool safe = false;
        oracle::floorOf(1024.0L * std::exp((long double)r / 1024), safe);
        EXPECT_TRUE(safe) << r;
    }
    for (int n = 0; n < 22; ++n) {
        bool safe = false;
        oracle::floorOf(std::exp((long double)(n - 22)) * 0x1p31L, safe);
        EXPECT_TRUE(safe) << n;
        if constexpr (sizeof(long double) > sizeof(double)) {
            oracle::floorOf(std::exp((long double)n) * 0x1p21L + 0.5L, safe);
            EXPECT_TRUE(safe) << n;
        }
    }
}

TEST(ExpFix, TakesAnyNumberOfFractionalBits) {
    std::mt19937 random(11);
    for (int f = 0; f <= 60; ++f)
        for (int i = 0; i < 20; ++i) {
            const auto x = std::int32_t(random()) >> (random() % 32);
            ASSERT_EQ(KTexpFix(x, f, 30), oracle::expFix(x, f, 30)) << x << " " << f;
        }
    // the smallest step that the table knows
    EXPECT_EQ(KTexpFix(-1, 1000, 30), KTexpFix(-1, 10, 30));
    EXPECT_EQ(KTexpFix(INT_MAX, INT_MAX, 30), 1 << 30);
}

TEST(ExpFix, IsWithinATenthOfAPerCent) {
    for (int x = -10 << 10; x < 0; x += 3) {
        const double value = KTexpFix(x, 10, 30) / 0x1p30;
        // The fraction's table entry is a floor at 2^-10, the integer part's one at 2^-31.
        EXPECT_NEAR(value / std::exp(x / 1024.0), 1.0, 0.001) << x;
    }
}

TEST(DotMix, FollowsItsRuleForEveryScaleModeAndShift) {
    std::mt19937 random(12);
    for (int round = 0; round < 120; ++round) {
        std::vector<std::int32_t> values(2 + random() % 30);
        std::vector<short> weights(values.size());
        const unsigned valueShift = random() % 32, weightShift = random() % 16;
        for (std::size_t k = 0; k < values.size(); ++k) {
            values[k] = std::int32_t(random()) >> valueShift;
            weights[k] = short(std::int16_t(random()) >> weightShift);
        }
        const int n = int(values.size());
        for (const int mode : {0, 2, 3, 4, 7, -1}) {
            int scale = 77, expectedScale = 77;
            const int expected = oracle::dotMix(values, weights, mode, expectedScale);
            ASSERT_EQ(KTwDotMix(values.data(), weights.data(), n, mode, &scale), expected) << mode;
            ASSERT_EQ(scale, expectedScale) << mode;
        }
        for (int s = -70; s <= 70; ++s) {
            int scale = s, expectedScale = s;
            const int expected = oracle::dotMix(values, weights, 1, expectedScale);
            ASSERT_EQ(KTwDotMix(values.data(), weights.data(), n, 1, &scale), expected) << s;
            ASSERT_EQ(scale, s);
        }
        for (int scale : {INT_MIN, INT_MAX}) {
            int expectedScale = scale;
            ASSERT_EQ(KTwDotMix(values.data(), weights.data(), n, 1, &scale),
                      oracle::dotMix(values, weights, 1, expectedScale));
        }
    }
}

TEST(DotMix, NormalisesSumsOfEverySize) {
    for (int top = 0; top < 46; ++top)
        for (const int sign : {1, -1}) {
            const std::vector<std::int32_t> values{top > 14 ? 1 << (top - 15) : 0,
                                                   top > 14 ? 1 << (top - 15) : 1};
            const std::vector<short> weights{short(sign * (top > 14 ? 16384 : 1)),
                                             short(sign * (top > 14 ? 16384 : 1 << top))};
            int scale = 0, expectedScale = 0;
            EXPECT_EQ(KTwDotMix(values.data(), weights.data(), 2, 2, &scale),
                      oracle::dotMix(values, weights, 2, expectedScale))
                << top;
            EXPECT_EQ(scale, expectedScale) << top;
        }
}

TEST(DotMix, NormalisesZeroToZero) {
    const int values[] = {0, 5};
    const short weights[] = {3, 0};
    int scale = 9;
    EXPECT_EQ(KTwDotMix(values, weights, 2, 2, &scale), 0);
    EXPECT_EQ(scale, -30);
}

TEST(DotMix, SaturatesALargeSum) {
    const std::vector<std::int32_t> values(8, INT_MAX), small(8, 1 << 30);
    const std::vector<short> weights(8, 32767), negative(8, -32768);
    int scale = 5;
    // 8 * 2^31 * 2^15 >> 30 is 2^19: far from the limit, which the high word alone decides.
    EXPECT_EQ(KTwDotMix(values.data(), weights.data(), 8, 3, &scale),
              oracle::dotMix(values, weights, 3, scale));
    const std::vector<std::int32_t> many(40000, INT_MAX);
    const std::vector<short> heavy(40000, 32767), light(40000, -32768);
    scale = 5;
    EXPECT_EQ(KTwDotMix(many.data(), heavy.data(), 40000, 3, &scale), INT_MAX);
    EXPECT_EQ(scale, 0);
    EXPECT_EQ(KTwDotMix(many.data(), light.data(), 40000, 3, &scale), INT_MIN);
}

TEST(DotMix, SumsAnyNumberOfMixturesExactly) {
    const std::vector<std::int32_t> values(50000, INT_MAX);
    const std::vector<short> weights(50000, 32767);
    for (const int mode : {0, 2, 3}) {
        int scale = 0;
        const std::int64_t sum = std::int64_t(INT_MAX) * 32767 * 50000; // below 2^62
        const int result = KTwDotMix(values.data(), weights.data(), 50000, mode, &scale);
        if (mode == 2) {
            EXPECT_EQ(result, int(sum >> (scale + 30)));
        } else if (mode == 0) {
            EXPECT_EQ(result, int(std::uint32_t(sum >> 30)));
        } else {
            EXPECT_EQ(result, INT_MAX);
        }
    }
}

TEST(DotMix, ComputesNothingForFewerThanTwo) {
    const int values[] = {1 << 30};
    const short weights[] = {16384};
    for (const int mode : {0, 1, 2, 3})
        for (const int n : {1, 0, -5}) {
            int scale = 42;
            EXPECT_EQ(KTwDotMix(values, weights, n, mode, &scale), 0);
            EXPECT_EQ(scale, 42);
        }
}

TEST(DotMix, TakesANullScaleAsZero) {
    const int values[] = {1 << 30, 1 << 29};
    const short weights[] = {16384, 16384};
    for (const int mode : {0, 1, 2, 3}) {
        int scale = 0;
        EXPECT_EQ(KTwDotMix(values, weights, 2, mode, nullptr),
                  KTwDotMix(values, weights, 2, mode, &scale));
    }
}

TEST(ExponentPlan, TurnsTheScaleIntoAShiftAndFractionalBits) {
    using ktl::gauss::planExponent;
    for (int scale = -40; scale < 40; ++scale) {
        const auto plan = planExponent(scale);
        EXPECT_EQ(plan.frac, scale < 1 ? 1 - scale : 0);
        EXPECT_EQ(plan.shift, scale < 1 ? 0 : scale - 1);
    }
    EXPECT_EQ(planExponent(INT_MAX).shift, INT_MAX - 1);
    EXPECT_EQ(planExponent(INT_MIN).frac, INT_MAX);
}

TEST(ExponentPlan, ShiftsWrap) {
    using ktl::gauss::exponentOf;
    EXPECT_EQ(exponentOf(5, 3), -40);
    EXPECT_EQ(exponentOf(-5, 3), -40);
    EXPECT_EQ(exponentOf(0x40000000, 1), INT_MIN);
    EXPECT_EQ(exponentOf(0x30000000, 2), int(0x40000000)); // 0xC0000000 negated
    EXPECT_EQ(exponentOf(1, 32), 0);
    EXPECT_EQ(exponentOf(1, INT_MAX), 0);
    EXPECT_EQ(exponentOf(INT_MIN, 0), INT_MIN);
}
