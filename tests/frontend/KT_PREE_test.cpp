// Pre-emphasis against the filter's definition, element by element from a copy of the samples.
#include "frame/context.h"
#include "support/alloc_faults.h"
#include "support/every_level.h"
#include "support/guarded.h"
#include "support/random.h"
#include "support/reports.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <random>
#include <thread>
#include <vector>

namespace {

// --- the plain reference ---

std::vector<float> filtered(const std::vector<float>& x, float alpha) {
    std::vector<float> y = x;
    for (std::size_t i = 1; i < x.size(); ++i) {
        const float product = alpha * x[i - 1];
        y[i] = x[i] - product;
    }
    return y;
}

long long floorShift(long long value,
                     int shift) { // value / 2^shift toward minus infinity; to the left if negative
    if (shift < 0) return value * (1LL << -shift);
    const long long divisor = 1LL << shift;
    return value >= 0 ? value / divisor : -((-value + divisor - 1) / divisor);
}

short wrapped(long long value) {
    return static_cast<short>(static_cast<std::uint16_t>(value & 0xFFFF));
}

// The integer path as defined, scale in and out.
std::vector<short> filteredIntegers(const std::vector<short>& x, float alpha, int mode,
                                    int& scale) {
    const long long alphaQ = static_cast<long long>(std::trunc(double(alpha) * 16384.0));
    std::vector<short> y = x;
    for (std::size_t i = 1; i < x.size(); ++i) {
        const long long acc = x[i] * 16384LL - alphaQ * x[i - 1];
        if (mode == KT_Saturate)
            y[i] = acc > 536870901    ? 32767
                   : acc < -536870902 ? -32768
                                      : wrapped(floorShift(acc, 14));
        else
            y[i] = wrapped(floorShift(acc, mode == KT_FixedScale ? scale + 14 : 14));
    }
    if (mode != KT_Saturate && mode != KT_NoScale && !x.empty())
        y[0] = wrapped(floorShift(x[0], scale));
    if (mode == KT_Saturate || mode == KT_NoScale) scale = 0;
    return y;
}

// The float path: up, filter, down.
std::vector<short> filteredThroughFloats(const std::vector<short>& x, float alpha, int mode,
                                         int& scale) {
    const std::vector<float> y = filtered(std::vector<float>(x.begin(), x.end()), alpha);
    std::vector<short> result(x.size());
    KTswbConvertDown(y.data(), result.data(), int(x.size()), mode, &scale);
    return result;
}

std::vector<short> randomShorts(std::size_t n, int seed) {
    std::mt19937 random(static_cast<unsigned>(seed));
    std::vector<short> x(n);
    for (short& v : x) {
        v = static_cast<short>(random());
        if (random() % 4 == 0) v = random() % 2 ? 32767 : -32768; // differences that overflow
    }
    return x;
}

enum class Path { integers, floats };

void checkFixed(const std::vector<short>& x, float alpha, int mode, int scale, Path path) {
    int wantedScale = scale, gotScale = scale;
    const std::vector<short> wanted = path == Path::integers
                                          ? filteredIntegers(x, alpha, mode, wantedScale)
                                          : filteredThroughFloats(x, alpha, mode, wantedScale);
    support::Guarded<short> got(x);
    KTwPreemphasize(got.data(), alpha, int(x.size()), mode, &gotScale);
    ASSERT_EQ(got.values(), wanted)
        << "alpha " << alpha << " mode " << mode << " scale " << scale << " n " << x.size();
    ASSERT_EQ(gotScale, wantedScale);
    ASSERT_TRUE(got.intact());
}

class Preemphasis : public testing::Test {
protected:
    void TearDown() override { KTFreePreemphasizeTbls(); }
};

// --- float flavour ---

TEST_F(Preemphasis, FloatEqualsTheDefinitionAtEveryLength) {
    support::onEveryLevel([] {
        for (int n = 0; n < 200; ++n)
            for (float alpha : {0.0f, 0.5f, 0.97f, 1.0f, -0.5f, 3.0f}) {
                const std::vector<float> x =
                    support::randomFloats(std::size_t(n), -30000, 30000, unsigned(n));
                support::Guarded<float> got(x);
                KTsPreemphasize(got.data(), alpha, n);
                ASSERT_EQ(got.values(), filtered(x, alpha)) << n;
                ASSERT_TRUE(got.intact());
            }
    });
}

TEST_F(Preemphasis, OneFloatSampleIsUnchanged) {
    float x = 5.0f;
    KTsPreemphasize(&x, 0.97f, 1);
    EXPECT_EQ(x, 5.0f);
}

TEST_F(Preemphasis, ShortBlocksFilterEverySampleButTheFirst) {
    for (int n : {2, 3, 10, 11}) {
        std::vector<float> x(std::size_t(n), 8.0f);
        std::vector<short> w(std::size_t(n), 8);
        KTsPreemphasize(x.data(), 0.5f, n);
        KTwPreemphasize(w.data(), 0.5f, n, KT_Saturate, nullptr);
        for (int i = 0; i < n; ++i) {
            EXPECT_EQ(x[std::size_t(i)], i == 0 ? 8.0f : 4.0f);
            EXPECT_EQ(w[std::size_t(i)], i == 0 ? 8 : 4);
        }
    }
}

TEST_F(Preemphasis, NothingHappensWithoutSamples) {
    KTsPreemphasize(nullptr, 0.97f, 0);
    KTsPreemphasize(nullptr, 0.97f, -3);
    for (int mode = 0; mode < 5; ++mode)
        for (float alpha : {0.97f, -0.5f}) {
            int scale = 3;
            KTwPreemphasize(nullptr, alpha, 0, mode, &scale);
            KTwPreemphasize(nullptr, alpha, -3, mode, &scale);
            EXPECT_EQ(scale, 3);
        }
}

// --- fixed flavour ---

TEST_F(Preemphasis, IntegerPathEqualsTheDefinitionAtEveryLengthAndMode) {
    support::onEveryLevel([] {
        for (int n = 1; n < 150; ++n)
            for (float alpha : {0.0f, 0.3f, 0.97f, 1.0f})
                for (int mode : {KT_NoScale, KT_FixedScale, KT_Saturate, 4, 5, 1000, -1})
                    checkFixed(randomShorts(std::size_t(n), n), alpha, mode, n % 29 - 14,
                               Path::integers);
    });
}

TEST_F(Preemphasis, EveryScaleOfTheIntegerPath) {
    support::onEveryLevel([] {
        for (int scale = -14; scale <= 14; ++scale) {
            checkFixed(randomShorts(200, scale + 20), 0.97f, KT_FixedScale, scale, Path::integers);
            checkFixed({-32768}, 0.97f, KT_FixedScale, scale, Path::integers);
            checkFixed({12345}, 0.97f, KT_FixedScale, scale, Path::integers);
        }
    });
}

TEST_F(Preemphasis, EveryCoefficientOfTheIntegerPath) {
    support::onEveryLevel([] {
        for (int q = 0; q <= 16384; q += 61)
            checkFixed(randomShorts(70, q), float(q) / 16384.0f, KT_Saturate, 0, Path::integers);
        checkFixed(randomShorts(70, 1), std::nextafter(1.0f, 0.0f), KT_Saturate, 0, Path::integers);
    });
}

TEST_F(Preemphasis, AFirstSampleUnderAStrangeModeIsShiftedByAnyScale) {
    const auto first = [](short value, int scale) {
        KTwPreemphasize(&value, 0.97f, 1, 4, &scale);
        return value;
    };
    EXPECT_EQ(first(-5, 40), -1);
    EXPECT_EQ(first(5, 40), 0);
    EXPECT_EQ(first(5, -40), 0);
    EXPECT_EQ(first(5, -15), -32768);
    EXPECT_EQ(first(5, -2147483647 - 1), 0);
}

TEST_F(Preemphasis, OneFixedSampleIsShiftedByTheScale) {
    short x[1] = {1000};
    int scale = 3;
    KTwPreemphasize(x, 0.97f, 1, KT_FixedScale, &scale);
    EXPECT_EQ(x[0], 125);
    EXPECT_EQ(scale, 3);
    scale = -2;
    KTwPreemphasize(x, 0.97f, 1, KT_FixedScale, &scale);
    EXPECT_EQ(x[0], 500);
}

TEST_F(Preemphasis, AlphaOneIsThePlainDifference) {
    const std::vector<short> x = {10, 7, 7, -20, 100, -32768 + 100};
    std::vector<short> y = x;
    int scale = 5;
    KTwPreemphasize(y.data(), 1.0f, int(y.size()), KT_NoScale, &scale);
    for (std::size_t i = 1; i < x.size(); ++i)
        EXPECT_EQ(y[i], x[i] - x[i - 1]);
    EXPECT_EQ(y[0], 10);
    EXPECT_EQ(scale, 0);
    EXPECT_EQ(KTGetContext()->buff, nullptr); // the integer path needs no buffer
}

TEST_F(Preemphasis, AlphaIsTruncatedToFourteenBits) {
    // 0.97 * 16384 = 15892.48: with 15892 the accumulator of (16384, 0) is -15892 * 16384.
    short x[2] = {16384, 0};
    KTwPreemphasize(x, 0.97f, 2, KT_NoScale, nullptr);
    EXPECT_EQ(x[1], -15892);
}

TEST_F(Preemphasis, SaturationAtBothEnds) {
    short x[3] = {-32768, 32767, -32768};
    int scale = 7;
    KTwPreemphasize(x, 1.0f, 3, KT_Saturate, &scale);
    EXPECT_EQ(x[0], -32768);
    EXPECT_EQ(x[1], 32767);
    EXPECT_EQ(x[2], -32768);
    EXPECT_EQ(scale, 0);
}

// The bounds 536870901 and -536870902 lie inside the last shift step: sums around them give the
// same either way.
TEST_F(Preemphasis, SumsBesideTheSaturationBounds) {
    support::onEveryLevel([] {
        for (int target : {536870901, 536870902, 536870911, 536870912, -536870902, -536870903,
                           -536870912, -536870913})
            for (int previous = -32768; previous <= 32767; previous += 331)
                for (int q : {1, 7, 8000, 16383, 16384}) {
                    const int current = int(floorShift(target + (long long)q * previous, 14));
                    if (current < -32768 || current > 32767) continue;
                    checkFixed({short(previous), short(current)}, float(q) / 16384.0f, KT_Saturate,
                               0, Path::integers);
                }
    });
}

TEST_F(Preemphasis, ShiftsRoundDownWhereTheFloatPathTruncates) {
    short x[2] = {1, 0};
    KTwPreemphasize(x, 0.5f, 2, KT_NoScale, nullptr); // -0.5
    EXPECT_EQ(x[1], -1);
    short y[2] = {-1, 0};
    KTwPreemphasize(y, -0.5f, 2, KT_NoScale, nullptr); // -0.5 again, through floats
    EXPECT_EQ(y[1], 0);
}

TEST_F(Preemphasis, FloatPathOutsideTheIntegerRange) {
    support::onEveryLevel([] {
        for (int n : {1, 2, 11, 100}) {
            const std::vector<short> x = randomShorts(std::size_t(n), n);
            for (float alpha : {-0.5f, std::nextafter(1.0f, 2.0f), 5.0f, -0.001f})
                for (int mode : {KT_NoScale, KT_FixedScale, KT_AutoScale, KT_Saturate, 4})
                    checkFixed(x, alpha, mode, 2, Path::floats);
            checkFixed(x, 0.97f, KT_AutoScale, 2, Path::floats);
            for (int scale : {15, -15, 100, -100, 2147483647})
                checkFixed(x, 0.97f, KT_FixedScale, scale, Path::floats);
        }
        checkFixed({1000, 1000}, -0.0f, KT_FixedScale, 1, Path::integers); // -0.0 is at least 0
    });
}

TEST_F(Preemphasis, NotANumberAsAlphaTakesTheFloatPath) {
    short x[2] = {100, 200};
    KTwPreemphasize(x, std::nanf(""), 2, KT_NoScale, nullptr);
    EXPECT_EQ(x[0], 100);
    EXPECT_EQ(x[1], -32768);
    EXPECT_NE(KTGetContext()->buff, nullptr);
}

TEST_F(Preemphasis, AutoScaleScalesTheFirstSampleWithTheRest) {
    short x[3] = {64, 32, 16};
    int scale = 99;
    KTwPreemphasize(x, 0.5f, 3, KT_AutoScale, &scale); // 64, 0, 0: order 7
    EXPECT_EQ(scale, 7 - 15);
    EXPECT_EQ(x[0], 16384);
    EXPECT_EQ(x[1], 0);
    EXPECT_EQ(x[2], 0);
}

TEST_F(Preemphasis, ANullScaleStandsForZero) {
    for (int mode : {KT_NoScale, KT_FixedScale, KT_AutoScale, KT_Saturate, 4}) {
        short x[3] = {4, 4, 4}, y[3] = {4, 4, 4};
        int scale = 0;
        KTwPreemphasize(x, 0.5f, 3, mode, nullptr);
        KTwPreemphasize(y, 0.5f, 3, mode, &scale);
        for (int i = 0; i < 3; ++i)
            EXPECT_EQ(x[i], y[i]);
    }
}

// --- the buffer ---

TEST_F(Preemphasis, TheBufferGrowsOnlyAndStays) {
    std::vector<short> x(100, 5);
    KTwPreemphasize(x.data(), -0.5f, 100, KT_Saturate, nullptr);
    const float* buffer = KTGetContext()->buff;
    EXPECT_EQ(KTGetContext()->buffLen, 100);
    KTwPreemphasize(x.data(), -0.5f, 50, KT_Saturate, nullptr);
    EXPECT_EQ(KTGetContext()->buff, buffer);
    EXPECT_EQ(KTGetContext()->buffLen, 100);
}

TEST_F(Preemphasis, FreeingGivesEverythingBackAndMayBeRepeated) {
    const long before = support::alloc::liveBlocks();
    std::vector<short> x(100, 5);
    support::alloc::arm(0);
    KTwPreemphasize(x.data(), -0.5f, 100, KT_Saturate, nullptr);
    support::alloc::disarm();
    KTFreePreemphasizeTbls();
    EXPECT_EQ(KTGetContext()->buff, nullptr);
    EXPECT_EQ(KTGetContext()->buffLen, 0);
    KTFreePreemphasizeTbls();
    EXPECT_LE(support::alloc::liveBlocks(), before + 1); // the samples
}

TEST_F(Preemphasis, FreeingOnAThreadThatNeverUsedItDoesNothing) {
    std::thread([] { KTFreePreemphasizeTbls(); }).join();
}

TEST_F(Preemphasis, ExhaustionReportsAndLeavesTheSamples) {
    support::CapturedReports reports;
    const std::vector<short> x = randomShorts(60, 9);
    int wantedScale = 6;
    const std::vector<short> wanted = filteredThroughFloats(x, 2.0f, KT_AutoScale, wantedScale);
    std::vector<short> y;
    int scale = 0;
    // The first request is small, so that each failure happens while an old block is there.
    short one = 1;
    const int failures = support::alloc::failEach(
        [&] {
            support::alloc::disarm();
            KTwPreemphasize(&one, 2.0f, 1, KT_Saturate, nullptr);
            y = x;
            scale = 6;
            support::alloc::arm(1 + int(reports.count()));
            KTwPreemphasize(y.data(), 2.0f, 60, KT_AutoScale, &scale);
        },
        [&] {
            ASSERT_EQ(reports.count(), 1u);
            EXPECT_EQ(reports[0].status, KT_StsNoMem);
            EXPECT_EQ(reports[0].function, "KTwPreemphasize");
            EXPECT_EQ(reports[0].message, "insufficiency of memory for pointer  buff");
            EXPECT_EQ(reports[0].source, "..\\_LIBSRC\\KT_PREE");
            EXPECT_GT(reports[0].line, 0);
            EXPECT_EQ(KTGetStatus(), KT_StsNoMem);
            EXPECT_EQ(y, x);
            EXPECT_EQ(scale, 6);
            EXPECT_EQ(KTGetContext()->buff, nullptr);
            EXPECT_EQ(KTGetContext()->buffLen, 0);
        });
    EXPECT_EQ(failures, 1);
    EXPECT_EQ(y, wanted);
    EXPECT_EQ(scale, wantedScale);
}

} // namespace
