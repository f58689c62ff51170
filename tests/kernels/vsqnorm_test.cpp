// Norms. The float reference sums plainly in long double; n terms summed in double may stray by n
// units of 2^-53.
#include "support/every_level.h"
#include "support/kernel_reports.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <random>

namespace {

using support::expectRefused;

constexpr int norms[] = {VSQ_NormMax, VSQ_NormSum, VSQ_NormRoot, VSQ_NormSquares};
constexpr double largestFloat = 3.4028234663852886e+38;

template <class T>
std::vector<T> randomValues(int n, unsigned seed, int limit) {
    std::mt19937 engine(seed);
    std::uniform_int_distribution<int> values(-limit, limit);
    std::vector<T> result(static_cast<std::size_t>(n));
    for (T& value : result)
        value = static_cast<T>(values(engine));
    return result;
}

long double sumUnder(const float* a, const float* b, int n, int norm) {
    long double result = 0;
    for (int i = 0; i < n; ++i) {
        const long double value = std::fabs(b ? static_cast<long double>(a[i]) - b[i] : a[i]);
        if (norm == VSQ_NormMax)
            result = std::max(result, value);
        else
            result += norm == VSQ_NormSum ? value : value * value;
    }
    return result;
}

void expectNear(double actual, long double expected, int n) {
    const double bound = double(expected) * (n + 4) * std::ldexp(1.0, -52);
    EXPECT_NEAR(actual, double(expected), bound) << n;
}

TEST(Norm, OfOneVectorAndOfADifferenceOnEveryLevel) {
    support::onEveryLevel([] {
        for (int n = 1; n < 200; ++n) {
            std::vector<float> a = randomValues<float>(n, unsigned(n), 1 << 20);
            std::vector<float> b = randomValues<float>(n, unsigned(n + 1000), 1 << 20);
            for (std::size_t i = 0; i < a.size(); ++i)
                a[i] *= 0.37f, b[i] *= 0.0041f;
            for (int norm : norms) {
                for (const float* second :
                     {static_cast<const float*>(nullptr), static_cast<const float*>(b.data())}) {
                    long double expected = sumUnder(a.data(), second, n, norm);
                    expected = norm == VSQ_NormRoot ? std::sqrt(expected) : expected;
                    expectNear(vsqsNorm(a.data(), second, n, norm), expected, n);
                }
            }
        }
    });
}

TEST(Norm, RelativeFormsDivideByTheNormOfTheFirst) {
    support::onEveryLevel([] {
        for (int n : {1, 2, 15, 16, 17, 100}) {
            const std::vector<float> a = randomValues<float>(n, 5, 1000),
                                     b = randomValues<float>(n, 6, 1000);
            for (int norm : norms) {
                long double expected =
                    sumUnder(a.data(), b.data(), n, norm) / sumUnder(a.data(), nullptr, n, norm);
                expected = norm == VSQ_NormRoot ? std::sqrt(expected) : expected;
                expectNear(vsqsNorm(a.data(), b.data(), n, norm | VSQ_NormRelative), expected,
                           2 * n);
            }
        }
    });
}

TEST(Norm, AllLevelsGiveTheSameBits) {
    for (int n : {1, 15, 39, 400, 4097}) {
        const std::vector<float> a = randomValues<float>(n, 7, 1 << 23),
                                 b = randomValues<float>(n, 8, 77777);
        for (int norm : norms) {
            vsq::selectLevel(vsq::Level::baseline);
            const double one = vsqsNorm(a.data(), nullptr, n, norm),
                         two = vsqsNorm(a.data(), b.data(), n, norm);
            support::onEveryLevel([&] {
                EXPECT_EQ(vsqsNorm(a.data(), nullptr, n, norm), one);
                EXPECT_EQ(vsqsNorm(a.data(), b.data(), n, norm), two);
            });
        }
    }
}

TEST(Norm, RelativeWithANullSecondVectorIsOne) {
    const float zero[2] = {0, 0};
    for (int norm : norms)
        EXPECT_EQ(vsqsNorm(zero, nullptr, 2, norm | VSQ_NormRelative), 1.0);
    EXPECT_EQ(vsqsNorm(zero, nullptr, 2, 9), 1.0);
}

TEST(Norm, RelativeOfEqualVectorsIsZeroEvenIfBothAreZero) {
    const float a[2] = {3, 4}, zero[2] = {0, 0};
    for (int norm : norms) {
        EXPECT_EQ(vsqsNorm(a, a, 2, norm | VSQ_NormRelative), 0.0);
        EXPECT_EQ(vsqsNorm(zero, zero, 2, norm | VSQ_NormRelative), 0.0);
    }
}

TEST(Norm, RelativeToAZeroVectorIsTheLargestFloat) {
    const float a[2] = {0, 0}, b[2] = {3, 4};
    for (int norm : {VSQ_NormMax, VSQ_NormSum, VSQ_NormSquares})
        EXPECT_EQ(vsqsNorm(a, b, 2, norm | VSQ_NormRelative), largestFloat);
}

TEST(Norm, BelowTheSmallestNormalFloatCountsAsNothing) {
    const float tiny[1] = {1e-38f}, zero[1] = {0}, one[1] = {1}, small[1] = {0x1p-126f};
    EXPECT_EQ(vsqsNorm(one, one, 1, 9), 0.0);
    EXPECT_EQ(vsqsNorm(tiny, zero, 1, 9), 0.0);         // the difference is denormal
    EXPECT_EQ(vsqsNorm(tiny, one, 1, 9), largestFloat); // so is the divisor
    EXPECT_EQ(vsqsNorm(small, zero, 1, 9), 1.0);        // the smallest normal is not below itself
    // its square lies below, and it is the squares that are tested
    const float squareTiny[1] = {1e-20f};
    EXPECT_EQ(vsqsNorm(squareTiny, zero, 1, VSQ_NormRoot | VSQ_NormRelative), 0.0);
}

TEST(Norm, TheRootOfTheRelativeFormIsTakenAfterTheDivision) {
    const float a[1] = {2}, b[1] = {8};
    EXPECT_EQ(vsqsNorm(a, b, 1, VSQ_NormRoot | VSQ_NormRelative), 3.0);
    EXPECT_EQ(vsqsNorm(a, b, 1, VSQ_NormSquares | VSQ_NormRelative), 9.0);
}

TEST(Norm, SquaresOfLargeFloatsDoNotOverflow) {
    const float a[2] = {3e38f, 3e38f};
    EXPECT_NEAR(vsqsNorm(a, nullptr, 2, 4) / (double(3e38f) * std::sqrt(2.0)), 1.0, 1e-15);
}

TEST(Norm, TheLargestMagnitudePassesOverNotANumbers) {
    support::onEveryLevel([] {
        const float nan = std::numeric_limits<float>::quiet_NaN();
        const float a[4] = {nan, -7, 3, nan};
        EXPECT_EQ(vsqsNorm(a, nullptr, 4, VSQ_NormMax), 7.0);
    });
}

TEST(Norm, RefusesBadArgumentsInOrder) {
    const float a[1] = {1};
    expectRefused([] { vsqsNorm(nullptr, nullptr, 0, 3); }, "n<=0", "vsqsNorm", "vsqnorm");
    expectRefused([] { vsqsNorm(nullptr, nullptr, 1, 3); }, "srcA==0", "vsqsNorm", "vsqnorm");
    for (int flags : {0, 3, 5, 6, 7, 8, 11, 0x14, 0x18 | 1, 0x20, 0x21, 0x40, -1})
        expectRefused([&] { vsqsNorm(a, nullptr, 1, flags); }, "flag is wrong", "vsqsNorm",
                      "vsqnorm");
}

// --- fixed norms ---

using Wide = unsigned long long;

Wide sumUnder(const short* a, const short* b, int n, int norm) {
    Wide result = 0;
    for (int i = 0; i < n; ++i) {
        const Wide value = Wide(std::abs(a[i] - (b ? b[i] : 0)));
        if (norm == VSQ_NormMax)
            result = std::max(result, value);
        else
            result += norm == VSQ_NormSum ? value : value * value;
    }
    return result;
}

Wide rootOf(Wide value) {
    Wide root = 0;
    for (Wide bit = Wide(1) << 31; bit != 0; bit >>= 1)
        if ((root + bit) * (root + bit) <= value) root += bit;
    return root;
}

int held(Wide value) {
    return value > 0x7FFFFFFF ? 0x7FFFFFFF : int(value);
}

TEST(FixedNorm, IsExactOnEveryLevel) {
    support::onEveryLevel([] {
        for (int n = 1; n < 200; ++n) {
            for (int limit : {9, 32767}) {
                const auto a = randomValues<short>(n, unsigned(n), limit),
                           b = randomValues<short>(n, unsigned(n + 500), limit);
                for (int norm : norms) {
                    for (const short* second : {static_cast<const short*>(nullptr),
                                                static_cast<const short*>(b.data())}) {
                        Wide expected = sumUnder(a.data(), second, n, norm);
                        expected = norm == VSQ_NormRoot ? rootOf(expected) : expected;
                        EXPECT_EQ(vsqwNorm(a.data(), second, n, norm), held(expected));
                        EXPECT_EQ(vsqwNormExt(a.data(), second, n, norm, 0, nullptr),
                                  held(expected));
                        EXPECT_EQ(vsqwNormExt(a.data(), second, n, norm, 1, nullptr),
                                  held(expected));
                    }
                }
            }
        }
    });
}

TEST(FixedNorm, HoldsTheWidestDifferencesAndLongSums) {
    support::onEveryLevel([] {
        const int n = 100003;
        const std::vector<short> low(std::size_t(n), -32768), high(std::size_t(n), 32767);
        EXPECT_EQ(vsqwNorm(low.data(), high.data(), n, VSQ_NormMax), 65535);
        EXPECT_EQ(vsqwNorm(low.data(), nullptr, n, VSQ_NormMax), 32768);
        EXPECT_EQ(vsqwNorm(low.data(), high.data(), n, VSQ_NormSum), 0x7FFFFFFF); // 6.5e9 saturates
        EXPECT_EQ(vsqwNorm(low.data(), high.data(), 32000, VSQ_NormSum), 32000 * 65535);
        EXPECT_EQ(vsqwNorm(low.data(), high.data(), n, VSQ_NormSquares), 0x7FFFFFFF);
        EXPECT_EQ(vsqwNorm(low.data(), high.data(), n, VSQ_NormRoot),
                  int(rootOf(Wide(n) * 65535 * 65535)));
        int factor = 99;
        EXPECT_EQ(vsqwNormExt(low.data(), high.data(), n, VSQ_NormSum, VSQ_AUTO_SCALE, &factor),
                  int(Wide(n) * 65535 >> 2));
        EXPECT_EQ(factor, 2);
        EXPECT_EQ(vsqwNormExt(low.data(), high.data(), n, VSQ_NormSquares, VSQ_AUTO_SCALE, &factor),
                  int(Wide(n) * 65535 * 65535 >> 18));
        EXPECT_EQ(factor, 18); // 4.29e14 needs 49 bits
    });
}

TEST(FixedNorm, AutoScaleIsZeroWhereTheNormFits) {
    const short a[2] = {3, 4};
    int factor = 7;
    EXPECT_EQ(vsqwNormExt(a, nullptr, 2, VSQ_NormRoot, VSQ_AUTO_SCALE, &factor), 5);
    EXPECT_EQ(factor, 0);
}

TEST(FixedNorm, AFixedScaleShiftsRightOrLeft) {
    const short a[2] = {300, -400};
    const auto norm = [&](int flags, int factor) {
        return vsqwNormExt(a, nullptr, 2, flags, VSQ_FIXED_SCALE, &factor);
    };
    EXPECT_EQ(norm(VSQ_NormRoot, 0), 500);
    EXPECT_EQ(norm(VSQ_NormRoot, 3), 62);
    EXPECT_EQ(norm(VSQ_NormRoot, -3), 4000);
    EXPECT_EQ(norm(VSQ_NormSum, 1), 350);
    EXPECT_EQ(norm(VSQ_NormSquares, -13), 250000 << 13);
    EXPECT_EQ(norm(VSQ_NormSquares, -14), 0x7FFFFFFF); // saturates, never wraps
    for (int factor : {31, 64, 2147483647})
        EXPECT_EQ(norm(VSQ_NormSquares, factor), 0) << factor;
    for (int factor : {-31, -64, -2147483647 - 1})
        EXPECT_EQ(norm(VSQ_NormMax, factor), 0x7FFFFFFF) << factor;
    const short zero[1] = {0};
    int factor = -2147483647 - 1;
    EXPECT_EQ(vsqwNormExt(zero, nullptr, 1, 1, VSQ_FIXED_SCALE, &factor), 0);
}

TEST(FixedNorm, RelativeFormsAreTruncatedQuotients) {
    const short a[2] = {10, 0}, b[2] = {-10, 7}; // differences 20 and -7
    EXPECT_EQ(vsqwNorm(a, b, 2, VSQ_NormMax | VSQ_NormRelative), 2);
    EXPECT_EQ(vsqwNorm(a, b, 2, VSQ_NormSum | VSQ_NormRelative), 2);     // 27 / 10
    EXPECT_EQ(vsqwNorm(a, b, 2, VSQ_NormSquares | VSQ_NormRelative), 4); // 449 / 100
    EXPECT_EQ(vsqwNorm(a, b, 2, VSQ_NormRoot | VSQ_NormRelative), 2);    // sqrt(4.49)
    EXPECT_EQ(vsqwNorm(a, nullptr, 2, 9), 1);
    EXPECT_EQ(vsqwNorm(a, a, 2, 9), 0);
    const short zero[2] = {0, 0};
    EXPECT_EQ(vsqwNorm(zero, zero, 2, 9), 0);
    EXPECT_EQ(vsqwNorm(zero, a, 2, 9), 0x7FFFFFFF);
}

TEST(FixedNorm, AQuotientIsScaledBeforeItIsTruncated) {
    const short a[2] = {10, 0}, b[2] = {-10, 7};
    const auto norm = [&](int flags, int factor) {
        return vsqwNormExt(a, b, 2, flags | 8, VSQ_FIXED_SCALE, &factor);
    };
    EXPECT_EQ(norm(VSQ_NormSum, -10), 2764);        // 2.7 * 1024
    EXPECT_EQ(norm(VSQ_NormSum, 1), 1);             // 1.35
    EXPECT_EQ(norm(VSQ_NormSquares, -10), 4597);    // 4.49 * 1024 = 4597.76
    EXPECT_EQ(norm(VSQ_NormRoot, -10), 2169);       // sqrt(4.49) * 1024 = 2169.81
    EXPECT_EQ(norm(VSQ_NormRoot, -29), 1137609066); // sqrt(4.49) * 2^29, truncated
    EXPECT_EQ(norm(VSQ_NormRoot, -30), 0x7FFFFFFF);
    int factor = -10;
    EXPECT_EQ(vsqwNormExt(a, nullptr, 2, 9, VSQ_FIXED_SCALE, &factor), 1024);
}

TEST(FixedNorm, RefusesBadArgumentsInOrder) {
    const short a[1] = {1};
    expectRefused([] { vsqwNorm(nullptr, nullptr, 0, 3); }, "n<=0", "vsqwNorm", "vsqnorm");
    expectRefused([] { vsqwNorm(nullptr, nullptr, 1, 3); }, "srcA==0", "vsqwNorm", "vsqnorm");
    expectRefused([&] { vsqwNorm(a, nullptr, 1, 3); }, "flag is wrong", "vsqwNorm", "vsqnorm");
    expectRefused([] { vsqwNormExt(nullptr, nullptr, 0, 3, 6, nullptr); }, "n<=0", "vsqwNormExt",
                  "vsqnorm");
    expectRefused([] { vsqwNormExt(nullptr, nullptr, 1, 3, 6, nullptr); }, "srcA==0", "vsqwNormExt",
                  "vsqnorm");
    expectRefused([&] { vsqwNormExt(a, nullptr, 1, 3, 6, nullptr); }, "flag is wrong",
                  "vsqwNormExt", "vsqnorm");
    expectRefused([&] { vsqwNormExt(a, nullptr, 1, 1, 6, nullptr); },
                  "scaleMode & VSQ_FIXED_SCALE && scaleMode & VSQ_AUTO_SCALE", "vsqwNormExt",
                  "vsqnorm");
    expectRefused([&] { vsqwNormExt(a, nullptr, 1, 1, 2, nullptr); },
                  "scaleMode & VSQ_FIXED_SCALE && (scaleFactor==NULL)", "vsqwNormExt", "vsqnorm");
    expectRefused([&] { vsqwNormExt(a, nullptr, 1, 1, 4, nullptr); },
                  "scaleMode & VSQ_AUTO_SCALE && scaleFactor==NULL", "vsqwNormExt", "vsqnorm");
}

} // namespace
