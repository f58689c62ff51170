// Autocorrelation, against plain sums in long double.
#include "support/every_level.h"
#include "support/guarded.h"
#include "support/kernel_reports.h"
#include "support/random.h"

#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <cstdint>
#include <limits>

namespace {

using support::expectRefused;
using support::Guarded;
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

struct Sum {
    long double value = 0, magnitude = 0;
};

Sum lagSum(const std::vector<float>& a, int lag) {
    Sum sum;
    for (std::size_t i = 0; i + std::size_t(lag) < a.size(); ++i) {
        const long double product = static_cast<long double>(a[i]) * a[i + std::size_t(lag)];
        sum.value += product;
        sum.magnitude += std::fabs(product);
    }
    return sum;
}

long double divisorOf(int type, int n, int lag) {
    return type == 0 ? 1 : type == 1 ? n : n - lag;
}

// One rounding to float, and the strays of a double sum, which matter only where the sum cancels.
void expectAutoCorr(const std::vector<float>& source, int nLags, int type) {
    const int n = int(source.size());
    Guarded<float> result(static_cast<std::size_t>(nLags));
    vsqsAutoCorr(source.data(), n, result.data(), nLags, type);
    EXPECT_TRUE(result.intact());
    for (int k = 0; k < nLags; ++k) {
        const Sum sum = lagSum(source, k);
        const long double divisor = divisorOf(type, n, k);
        const long double bound = std::fabs(sum.value / divisor) * 0x1.01p-24L +
                                  sum.magnitude / divisor * (n + 2) * 0x1p-53L;
        EXPECT_NEAR(result[std::size_t(k)], double(sum.value / divisor), double(bound))
            << "n " << n << " lag " << k << " type " << type;
    }
}

TEST(AutoCorr, EveryLengthAndLagCountOnEveryLevel) {
    support::onEveryLevel([] {
        for (int n = 1; n < 60; ++n)
            for (int nLags = 1; nLags <= n; ++nLags)
                expectAutoCorr(randomFloats(n, -30000, 30000, unsigned(n)), nLags, nLags % 3);
    });
}

TEST(AutoCorr, LongSignalsAndManyLags) {
    support::onEveryLevel([] {
        for (int n : {240, 400, 511, 512, 513, 525, 1024, 1029, 2000})
            for (int nLags : {1, 13, 16, 17, 64, 65, 130, n / 2})
                expectAutoCorr(randomFloats(n, -30000, 30000, unsigned(n)), nLags, (n + nLags) % 3);
    });
}

TEST(AutoCorr, LagsMayBeAsManyAsSamples) {
    for (int n : {1, 2, 16, 100, 700})
        expectAutoCorr(randomFloats(n, -30000, 30000, 3), n, 0);
}

TEST(AutoCorr, TypesDivideByNothingByNAndByTheNumberOfProducts) {
    const std::vector<float> source{1, 2, 3, 4};
    float result[3];
    vsqsAutoCorr(source.data(), 4, result, 3, 0);
    EXPECT_EQ(std::vector<float>(result, result + 3), (std::vector<float>{30, 20, 11}));
    vsqsAutoCorr(source.data(), 4, result, 3, 1);
    EXPECT_EQ(std::vector<float>(result, result + 3), (std::vector<float>{7.5f, 5, 2.75f}));
    vsqsAutoCorr(source.data(), 4, result, 3, 2);
    EXPECT_EQ(std::vector<float>(result, result + 3),
              (std::vector<float>{7.5f, float(20 / 3.0), 5.5f}));
}

TEST(AutoCorr, AllLevelsGiveTheSameBits) {
    for (int n : {13, 400, 1500}) {
        const std::vector<float> source = randomFloats(n, -30000, 30000, 9);
        std::vector<float> expected(13), actual(13);
        vsq::selectLevel(vsq::Level::baseline);
        vsqsAutoCorr(source.data(), n, expected.data(), 13, 1);
        support::onEveryLevel([&] {
            vsqsAutoCorr(source.data(), n, actual.data(), 13, 1);
            EXPECT_EQ(actual, expected);
        });
    }
}

// The sums before their rounding to float; products are fused with them where they are exact.
TEST(AutoCorr, AllLevelsGiveTheSameSumsForAllMagnitudes) {
    for (int n = 1; n < 140; ++n) {
        const std::vector<float> source = floatsOfAllMagnitudes(n, unsigned(n));
        const int first = n % 3 == 0 ? 0 : n / 4, nLags = n - first;
        std::vector<double> expected(static_cast<std::size_t>(nLags)), actual(expected);
        vsq::selectLevel(vsq::Level::baseline);
        vsq::kernels().corr->autoCorr(source.data(), n, first, expected.data(), nLags);
        support::onEveryLevel([&] {
            vsq::kernels().corr->autoCorr(source.data(), n, first, actual.data(), nLags);
            for (std::size_t k = 0; k < actual.size(); ++k)
                EXPECT_EQ(std::bit_cast<std::uint64_t>(actual[k]),
                          std::bit_cast<std::uint64_t>(expected[k]))
                    << n << " lag " << k;
        });
    }
}

// Lane l of four adds the products of the elements l, l + 4, ... with their partners, in ascending
// order; then the lanes are added as a tree.
TEST(AutoCorr, SumsRunInFourLanes) {
    const int n = 1117, nLags = 50;
    const std::vector<float> source = support::randomFloats(n, -1.0f, 1.0f, 5);
    std::vector<double> sums(nLags);
    support::onEveryLevel([&] {
        vsq::kernels().corr->autoCorr(source.data(), n, 0, sums.data(), nLags);
        for (int k = 0; k < nLags; ++k) {
            double lanes[4] = {};
            for (int i = 0; i + k < n; ++i)
                lanes[i % 4] += double(source[std::size_t(i)]) * double(source[std::size_t(i + k)]);
            EXPECT_EQ(sums[std::size_t(k)], (lanes[0] + lanes[2]) + (lanes[1] + lanes[3])) << k;
        }
    });
}

TEST(AutoCorr, AnInfiniteSampleReachesOnlyItsOwnProducts) {
    const float infinity = std::numeric_limits<float>::infinity();
    support::onEveryLevel([&] {
        std::vector<float> source(40, 1.0f), result(40);
        source[0] = infinity;
        vsqsAutoCorr(source.data(), 40, result.data(), 40, 0);
        for (float value : result)
            EXPECT_EQ(value, infinity);
        source.assign(40, 1.0f);
        source[20] = infinity;
        vsqsAutoCorr(source.data(), 40, result.data(), 40, 0);
        for (int k = 0; k < 40; ++k)
            EXPECT_EQ(result[std::size_t(k)], k <= 20 ? infinity : float(40 - k)) << k;
    });
}

TEST(AutoCorr, ProductsBeyondAFloatAreSummedBeforeTheyAreRounded) {
    const float source[3] = {1e20f, 1e20f, -1e20f};
    float result[2];
    vsqsAutoCorr(source, 3, result, 2, 0);
    EXPECT_EQ(result[0], std::numeric_limits<float>::infinity());
    EXPECT_EQ(result[1], 0.0f);
}

TEST(AutoCorr, RefusesBadArgumentsInOrder) {
    const float a[2] = {1, 2};
    float r[4] = {};
    const char *name = "vsqsAutoCorr", *module = "vsqcorr";
    expectRefused([&] { vsqsAutoCorr(nullptr, 0, nullptr, 0, 3); }, "Null SRC buffer pointer", name,
                  module);
    expectRefused([&] { vsqsAutoCorr(a, 0, nullptr, 0, 3); }, "Null DST buffer pointer", name,
                  module);
    expectRefused([&] { vsqsAutoCorr(a, 0, r, 0, 3); }, "Invalid SRC buffer length", name, module);
    expectRefused([&] { vsqsAutoCorr(a, -7, r, 0, 3); }, "Invalid SRC buffer length", name, module);
    expectRefused([&] { vsqsAutoCorr(a, 2, r, 0, 3); }, "Invalid LAG value", name, module);
    expectRefused([&] { vsqsAutoCorr(a, 2, r, 3, 3); }, "Invalid LAG value", name, module);
    expectRefused([&] { vsqsAutoCorr(a, 2, r, 2, 3); }, "Invalid auto-corr type", name, module);
    expectRefused([&] { vsqsAutoCorr(a, 2, r, 2, -1); }, "Invalid auto-corr type", name, module);
}

} // namespace
