// Inner products of floats and of 16-bit values.
#include "support/every_level.h"
#include "support/kernel_reports.h"
#include "support/random.h"

#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <cstdint>
#include <limits>
#include <random>

namespace {

using support::expectRefused;
using support::randomFloats;

// Finite floats of every magnitude, denormals included.
std::vector<float> floatsOfAllMagnitudes(int n, unsigned seed) {
    std::mt19937 engine(seed);
    std::vector<float> result(static_cast<std::size_t>(n));
    for (float& value : result)
        do
            value = std::bit_cast<float>(std::uint32_t(engine()));
        while (!std::isfinite(value));
    return result;
}

TEST(DotProd, SumsProductsInDoubleOnEveryLevel) {
    support::onEveryLevel([] {
        for (int n = 1; n < 200; ++n) {
            const std::vector<float> a = randomFloats(n, -100, 100, unsigned(n)),
                                     b = randomFloats(n, -100, 100, unsigned(n + 700));
            long double expected = 0, magnitude = 0;
            for (std::size_t i = 0; i < a.size(); ++i) {
                expected += static_cast<long double>(a[i]) * b[i];
                magnitude += std::fabs(static_cast<long double>(a[i]) * b[i]);
            }
            EXPECT_NEAR(vsqsDotProd(a.data(), b.data(), n), double(expected),
                        double(magnitude) * n * 0x1p-53);
        }
    });
}

TEST(DotProd, AllLevelsGiveTheSameBits) {
    for (int n : {1, 15, 16, 17, 31, 400, 4096, 5003}) {
        const std::vector<float> a = randomFloats(n, -100, 100, 1),
                                 b = randomFloats(n, -100, 100, 2);
        vsq::selectLevel(vsq::Level::baseline);
        const double expected = vsqsDotProd(a.data(), b.data(), n);
        support::onEveryLevel(
            [&] { EXPECT_EQ(vsqsDotProd(a.data(), b.data(), n), expected) << n; });
    }
}

// Where products are fused with the sums they have to be exact, from 2^-298 to 2^256.
TEST(DotProd, AllLevelsGiveTheSameBitsForAllMagnitudes) {
    for (int n = 1; n < 300; ++n) {
        const std::vector<float> a = floatsOfAllMagnitudes(n, unsigned(n)),
                                 b = floatsOfAllMagnitudes(n, unsigned(n + 700));
        vsq::selectLevel(vsq::Level::baseline);
        const auto expected = std::bit_cast<std::uint64_t>(vsqsDotProd(a.data(), b.data(), n));
        support::onEveryLevel([&] {
            const double sum = vsqsDotProd(a.data(), b.data(), n);
            EXPECT_EQ(std::bit_cast<std::uint64_t>(sum), expected) << n;
        });
    }
}

TEST(DotProd, DoesNotLoseWhatAFloatSumWould) {
    support::onEveryLevel([] {
        std::vector<float> a(1001, 1.0f), b(1001, 1.0f);
        a[500] = 3e30f;
        b[500] = 3e30f; // 9e60, far beyond a float
        a[7] = -3e30f;
        b[7] = 3e30f;
        EXPECT_TRUE(std::isfinite(vsqsDotProd(a.data(), b.data(), 1001)));
        const float large[2] = {0x1p30f, 1.0f}, one[2] = {1.0f, 1.0f};
        EXPECT_EQ(vsqsDotProd(large, one, 2), 0x1p30 + 1);
    });
}

TEST(DotProd, OfNothingIsZero) {
    const float a[1] = {1};
    EXPECT_EQ(vsqsDotProd(a, a, 0), 0.0);
}

TEST(DotProd, RefusesBadArgumentsInOrder) {
    const float a[1] = {1};
    expectRefused([] { vsqsDotProd(nullptr, nullptr, -1); }, "a==0", "vsqsDotProd", "vsqdotp");
    expectRefused([&] { vsqsDotProd(a, nullptr, -1); }, "b==0", "vsqsDotProd", "vsqdotp");
    expectRefused([&] { vsqsDotProd(a, a, -1); }, "n<0", "vsqsDotProd", "vsqdotp");
}

// --- 16-bit values ---

std::vector<short> randomWords(int n, unsigned seed) {
    std::mt19937 engine(seed);
    std::uniform_int_distribution<int> values(-32768, 32767);
    std::vector<short> result(static_cast<std::size_t>(n));
    for (short& value : result)
        value = static_cast<short>(values(engine));
    return result;
}

TEST(FixedDotProd, IsTheSumModuloTwoToThe32OnEveryLevel) {
    support::onEveryLevel([] {
        for (int n = 1; n < 200; ++n) {
            const std::vector<short> a = randomWords(n, unsigned(n)),
                                     b = randomWords(n, unsigned(n + 700));
            long long exact = 0;
            for (std::size_t i = 0; i < a.size(); ++i)
                exact += a[i] * b[i];
            EXPECT_EQ(vsqwDotProdExt(a.data(), b.data(), n, 0, nullptr), int(unsigned(exact))) << n;
        }
    });
}

TEST(FixedDotProd, OfNothingIsZero) {
    const short a[1] = {1};
    EXPECT_EQ(vsqwDotProdExt(a, a, 0, 0, nullptr), 0);
}

TEST(FixedDotProd, WrapsSilently) {
    support::onEveryLevel([] {
        const std::vector<short> low(64, -32768);
        for (int n = 1; n <= 64; ++n)
            EXPECT_EQ(vsqwDotProdExt(low.data(), low.data(), n, 0, nullptr), int(unsigned(n) << 30))
                << n;
    });
}

TEST(FixedDotProd, AutoScaleSetsTheFactorToZero) {
    const short a[2] = {1000, 2000};
    int factor = 5;
    EXPECT_EQ(vsqwDotProdExt(a, a, 2, VSQ_AUTO_SCALE, &factor), 5000000);
    EXPECT_EQ(factor, 0);
}

TEST(FixedDotProd, AFixedScaleShiftsRightOrLeft) {
    const short a[2] = {1000, 2000}, b[2] = {-1000, -2000};
    const auto product = [&](const short* second, int factor) {
        return vsqwDotProdExt(a, second, 2, VSQ_FIXED_SCALE, &factor);
    };
    EXPECT_EQ(product(a, 0), 5000000);
    EXPECT_EQ(product(a, 3), 625000);
    EXPECT_EQ(product(b, 7), -39063); // -39062.5, rounded down
    EXPECT_EQ(product(a, -2), 20000000);
    EXPECT_EQ(product(a, -10), int(5000000u << 10)); // bits lost on the left
    for (int factor : {31, 32, 100, 2147483647}) {
        EXPECT_EQ(product(a, factor), 0) << factor;
        EXPECT_EQ(product(b, factor), -1) << factor;
    }
    for (int factor : {-32, -100, -2147483647 - 1})
        EXPECT_EQ(product(a, factor), 0) << factor;
    int factor = 3;
    product(a, factor);
    EXPECT_EQ(factor, 3);
    EXPECT_EQ(vsqwDotProdExt(a, a, 2, VSQ_FIXED_SCALE, nullptr), 5000000);
}

TEST(FixedDotProd, OtherModesIgnoreTheFactor) {
    const short a[2] = {3, 4};
    for (int mode : {0, 1, 3, 6, 100}) {
        int factor = 2;
        EXPECT_EQ(vsqwDotProdExt(a, a, 2, mode, &factor), 25) << mode;
        EXPECT_EQ(factor, 2);
    }
}

TEST(FixedDotProd, RefusesBadArgumentsInOrder) {
    const short a[1] = {1};
    const char* name = "vsqwDotProdExt";
    expectRefused([] { vsqwDotProdExt(nullptr, nullptr, -1, 4, nullptr); }, "a==0", name,
                  "vsqdotpw");
    expectRefused([&] { vsqwDotProdExt(a, nullptr, -1, 4, nullptr); }, "b==0", name, "vsqdotpw");
    expectRefused([&] { vsqwDotProdExt(a, a, -1, 4, nullptr); }, "n<0", name, "vsqdotpw");
    expectRefused([&] { vsqwDotProdExt(a, a, 1, 4, nullptr); },
                  "scaleMode & VSQ_AUTO_SCALE && scaleFactor==NULL", name, "vsqdotpw");
}

} // namespace
