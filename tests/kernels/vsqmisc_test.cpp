// Roots, thresholds, reciprocals, magnitudes.
#include "support/every_level.h"
#include "support/guarded.h"
#include "support/kernel_reports.h"
#include "support/random.h"

#include <gtest/gtest.h>

#include <cfenv>
#include <cmath>
#include <cstring>
#include <limits>

namespace {

using support::expectRefused;
using support::Guarded;
using support::randomFloats;

constexpr float infinity = std::numeric_limits<float>::infinity();
constexpr float nan = std::numeric_limits<float>::quiet_NaN();

std::int32_t pattern(float value) {
    std::int32_t result;
    std::memcpy(&result, &value, sizeof result);
    return result;
}

// Compares patterns, so that zeros keep their signs and not-a-numbers can be compared.
void expectSame(const std::vector<float>& actual, const std::vector<float>& expected) {
    ASSERT_EQ(actual.size(), expected.size());
    for (std::size_t i = 0; i < actual.size(); ++i)
        EXPECT_EQ(pattern(actual[i]), pattern(expected[i]))
            << i << ": " << actual[i] << ", not " << expected[i];
}

// --- roots ---

TEST(Root, IsTheCorrectlyRoundedRootOnEveryLevel) {
    support::onEveryLevel([] {
        for (int n = 1; n < 200; ++n) {
            const std::vector<float> source = randomFloats(n, 0, 1000, 1);
            std::vector<float> expected(source);
            for (float& value : expected)
                value = std::sqrt(value);
            Guarded<float> two(static_cast<std::size_t>(n)), one(source);
            vsqsbSqrt2(source.data(), two.data(), n);
            expectSame(two.values(), expected);
            EXPECT_TRUE(two.intact());
            vsqsbSqrt1(one.data(), one.data(), n);
            expectSame(one.values(), expected);
            EXPECT_TRUE(one.intact());
        }
    });
}

TEST(Root, TakesZerosInfinityDenormalsAndNoNumbers) {
    support::onEveryLevel([] {
        const std::vector<float> source{
            0.0f, -0.0f, infinity, std::numeric_limits<float>::denorm_min(), nan, 0x1p-140f};
        std::vector<float> root(source.size());
        vsqsbSqrt2(source.data(), root.data(), int(source.size()));
        EXPECT_EQ(pattern(root[0]), pattern(0.0f));
        EXPECT_EQ(pattern(root[1]), pattern(-0.0f));
        EXPECT_EQ(root[2], infinity);
        EXPECT_EQ(root[3], std::sqrt(std::numeric_limits<float>::denorm_min()));
        EXPECT_TRUE(std::isnan(root[4]));
        EXPECT_EQ(root[5], 0x1p-70f);
    });
}

TEST(Root, ANegativeElementIsRefusedAfterTheWholeArrayAndLeavesItsDestinationAlone) {
    support::onEveryLevel([] {
        for (int n : {1, 5, 16, 17, 40}) {
            for (int bad = 0; bad < n; ++bad) {
                std::vector<float> source(std::size_t(n), 9.0f), expected(std::size_t(n), 3.0f);
                source[std::size_t(bad)] = bad % 2 ? -4.0f : -infinity;
                expected[std::size_t(bad)] = 77.0f;
                Guarded<float> root(std::size_t(n), 77.0f);
                support::KernelReports reports;
                vsqsbSqrt2(source.data(), root.data(), n);
                EXPECT_EQ(root.values(), expected);
                EXPECT_EQ(reports.takeMessage(), "Element of input vector is negative");
            }
        }
    });
    const float source[3] = {1, -1, 1};
    float root[3] = {};
    expectRefused([&] { vsqsbSqrt2(source, root, 3); }, "Element of input vector is negative",
                  "vsqsbSqrt2", "vsqmisc");
    expectRefused([&] { vsqsbSqrt1(source, root, 3); }, "Element of input vector is negative",
                  "vsqsbSqrt1", "vsqmisc");
}

TEST(Root, RefusesBadArgumentsInOrder) {
    const float a[1] = {1};
    expectRefused([&] { vsqsbSqrt2(nullptr, nullptr, 0); }, "len<=0", "vsqsbSqrt2", "vsqmisc");
    expectRefused([&] { vsqsbSqrt2(nullptr, nullptr, 1); }, "src==0", "vsqsbSqrt2", "vsqmisc");
    expectRefused([&] { vsqsbSqrt2(a, nullptr, 1); }, "dst==0", "vsqsbSqrt2", "vsqmisc");
    expectRefused([&] { vsqsbSqrt1(nullptr, nullptr, -1); }, "len<=0", "vsqsbSqrt1", "vsqmisc");
}

// --- thresholds ---

// The rule in terms of values, for numbers: zeros of both signs and not-a-numbers have tests of
// their own.
float thresholded(float value, float thresh, int relOp) {
    const bool mayReplace = thresh >= 0 || value < 0;
    return mayReplace && (relOp == 0 ? value < thresh : value > thresh) ? thresh : value;
}

TEST(Thresh, ReplacesValuesBelowOrAboveOnEveryLevel) {
    support::onEveryLevel([] {
        for (float thresh : {0.0f, 2.5f, 1e-40f, -2.5f, -1e-40f, infinity, -infinity}) {
            for (int relOp : {0, 1, -1, 7}) {
                for (int n = 1; n < 200; n += n < 40 ? 1 : 13) {
                    std::vector<float> expected = randomFloats(n, -5, 5, unsigned(n));
                    Guarded<float> a(expected);
                    for (float& value : expected)
                        value = thresholded(value, thresh, relOp);
                    vsqsbThresh1(a.data(), n, thresh, relOp);
                    expectSame(a.values(), expected);
                    EXPECT_TRUE(a.intact());
                }
            }
        }
    });
}

TEST(Thresh, WithANegativeThresholdOnlyNegativeElementsAreReplaced) {
    std::vector<float> a{3, 0, -1, -3};
    vsqsbThresh1(a.data(), 4, -2, 1);
    EXPECT_EQ(a, (std::vector<float>{3, 0, -2, -3})); // 3 and 0 lie above -2 and stay
    a = {3, 0, -1, -3};
    vsqsbThresh1(a.data(), 4, -2, 0);
    EXPECT_EQ(a, (std::vector<float>{3, 0, -1, -2}));
}

TEST(Thresh, ComparesPatterns) {
    std::vector<float> a{-0.0f, 0.0f, nan, -nan};
    vsqsbThresh1(a.data(), 4, 0.0f, 0); // -0 lies below 0, a negative not-a-number below everything
    expectSame(a, {0.0f, 0.0f, nan, 0.0f});
    a = {nan, -nan, infinity, 1.0f};
    vsqsbThresh1(a.data(), 4, infinity, 1); // a positive not-a-number lies above infinity
    expectSame(a, {infinity, -nan, infinity, 1.0f});
    a = {nan, -nan, -infinity, -0.0f};
    vsqsbThresh1(a.data(), 4, -infinity, 0);
    expectSame(a, {nan, -infinity, -infinity, -0.0f});
    a = {-1.0f, -0.0f, 0.0f, 1.0f};
    vsqsbThresh1(a.data(), 4, -0.0f, 0); // -0 is a negative threshold
    expectSame(a, {-0.0f, -0.0f, 0.0f, 1.0f});
}

TEST(Thresh, RefusesBadArgumentsInOrder) {
    expectRefused([&] { vsqsbThresh1(nullptr, 0, 1, 0); }, "len<=0", "vsqsbThresh1", "vsqmisc");
    expectRefused([&] { vsqsbThresh1(nullptr, 1, 1, 0); }, "vec==0", "vsqsbThresh1", "vsqmisc");
}

// --- reciprocals ---

TEST(InvThresh, InvertsWithTheMagnitudeHeldAboveTheThreshold) {
    support::onEveryLevel([] {
        for (float thresh : {0.0f, 0.5f, 3.0f}) {
            for (int n = 1; n < 200; n += n < 40 ? 1 : 13) {
                std::vector<float> expected = randomFloats(n, -5, 5, unsigned(n));
                Guarded<float> a(expected);
                for (float& value : expected)
                    value =
                        1.0f / (std::fabs(value) < thresh ? std::copysign(thresh, value) : value);
                vsqsbInvThresh1(a.data(), n, thresh);
                expectSame(a.values(), expected);
                EXPECT_TRUE(a.intact());
            }
        }
    });
}

TEST(InvThresh, ZerosUnderAThresholdKeepTheirSign) {
    std::vector<float> a{0.0f, -0.0f, infinity, -infinity};
    vsqsbInvThresh1(a.data(), 4, 0.25f);
    expectSame(a, {4.0f, -4.0f, 0.0f, -0.0f});
}

TEST(InvThresh, AZeroElementUnderAZeroThresholdIsRefused) {
    support::onEveryLevel([] {
        for (int n : {1, 16, 21}) {
            for (int bad = 0; bad < n; ++bad) {
                std::vector<float> a(std::size_t(n), 2.0f), expected(std::size_t(n), 0.5f);
                a[std::size_t(bad)] = expected[std::size_t(bad)] = bad % 2 ? -0.0f : 0.0f;
                support::KernelReports reports;
                vsqsbInvThresh1(a.data(), n, 0);
                expectSame(a, expected);
                EXPECT_EQ(reports.takeMessage(), "zero element and zero thresh");
            }
        }
    });
    float zero = 0;
    expectRefused([&] { vsqsbInvThresh1(&zero, 1, 0); }, "zero element and zero thresh",
                  "vsqsbInvThresh1", "vsqmisc");
}

TEST(InvThresh, RefusesBadArgumentsInOrder) {
    float a = 1;
    expectRefused([&] { vsqsbInvThresh1(nullptr, 0, -1); }, "len<=0", "vsqsbInvThresh1", "vsqmisc");
    expectRefused([&] { vsqsbInvThresh1(nullptr, 1, -1); }, "vec==0", "vsqsbInvThresh1", "vsqmisc");
    expectRefused([&] { vsqsbInvThresh1(&a, 1, -1e-40f); }, "thresh<0.0f", "vsqsbInvThresh1",
                  "vsqmisc");
}

#if defined(__SSE2__)
// An application may run with exceptions unmasked; the kernels must not trap, and must leave the
// masks as they were.
TEST(FloatingPointMasks, AreChangedForTheCallAndRestored) {
    const unsigned before = __builtin_ia32_stmxcsr();
    const unsigned unmasked = before & ~0x1F80u & ~0x3Fu;
    const std::vector<float> values{1e-42f, 3e38f, 2.0f, nan, -1.0f};
    support::KernelReports reports;
    support::onEveryLevel([&] {
        std::vector<float> a = values, b = values;
        __builtin_ia32_ldmxcsr(unmasked);
        vsqsbSqrt2(a.data(), b.data(), 5);
        vsqsbInvThresh1(a.data(), 5, 0);
        const unsigned after = __builtin_ia32_stmxcsr();
        __builtin_ia32_ldmxcsr(before);
        EXPECT_EQ(after, unmasked);
        EXPECT_EQ(b[4], -1.0f);
        EXPECT_EQ(a[0], infinity);
    });
}
#endif

// --- complex pairs ---

TEST(Complex, MagnitudeAndPowerOnEveryLevel) {
    support::onEveryLevel([] {
        for (int n = 1; n < 300; n += n < 140 ? 1 : 17) {
            const std::vector<float> source = randomFloats(2 * n, -9, 9, unsigned(n));
            std::vector<float> power(static_cast<std::size_t>(n)), magnitude(power);
            for (std::size_t i = 0; i < power.size(); ++i) {
                const float real = source[2 * i] * source[2 * i],
                            imaginary = source[2 * i + 1] * source[2 * i + 1];
                power[i] = real + imaginary;
                magnitude[i] = std::sqrt(power[i]);
            }
            Guarded<float> result(static_cast<std::size_t>(n));
            vsqcbPowerSpectr(source.data(), result.data(), n);
            expectSame(result.values(), power);
            EXPECT_TRUE(result.intact());
            vsqcbMag(source.data(), result.data(), n);
            expectSame(result.values(), magnitude);
            EXPECT_TRUE(result.intact());
        }
    });
}

TEST(Complex, MagnitudeAndPowerWorkInPlace) {
    support::onEveryLevel([] {
        for (int n : {1, 7, 16, 33, 128, 129, 257, 400}) {
            const std::vector<float> source = randomFloats(2 * n, -9, 9, unsigned(n));
            std::vector<float> expected(static_cast<std::size_t>(n)), a = source;
            vsqcbMag(source.data(), expected.data(), n);
            vsqcbMag(a.data(), a.data(), n);
            expectSame(std::vector<float>(a.begin(), a.begin() + n), expected);
            EXPECT_TRUE(std::equal(a.begin() + n, a.end(), source.begin() + n));
            a = source;
            vsqcbPowerSpectr(source.data(), expected.data(), n);
            vsqcbPowerSpectr(a.data(), a.data(), n);
            expectSame(std::vector<float>(a.begin(), a.begin() + n), expected);
        }
    });
}

TEST(Complex, SquaresThatOverflowGiveInfinity) {
    const float source[2] = {3e30f, 1.0f};
    float result = 0;
    vsqcbMag(source, &result, 1);
    EXPECT_EQ(result, infinity);
}

TEST(Complex, RefusesBadArgumentsInOrder) {
    float a[2] = {1, 1};
    expectRefused([&] { vsqcbMag(nullptr, nullptr, 0); }, "length<=0", "vsqcbMag", "vsqmisc");
    expectRefused([&] { vsqcbMag(nullptr, nullptr, 1); }, "mag==0", "vsqcbMag", "vsqmisc");
    expectRefused([&] { vsqcbMag(nullptr, a, 1); }, "src==0", "vsqcbMag", "vsqmisc");
    expectRefused([&] { vsqcbPowerSpectr(nullptr, nullptr, 0); }, "length<=0", "vsqcbPowerSpectr",
                  "vsqmisc");
    expectRefused([&] { vsqcbPowerSpectr(nullptr, nullptr, 1); }, "spectr==0", "vsqcbPowerSpectr",
                  "vsqmisc");
    expectRefused([&] { vsqcbPowerSpectr(nullptr, a, 1); }, "src==0", "vsqcbPowerSpectr",
                  "vsqmisc");
}

} // namespace
