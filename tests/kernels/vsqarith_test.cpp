#include "support/every_level.h"
#include "support/guarded.h"
#include "support/kernel_reports.h"
#include "support/random.h"

#include <gtest/gtest.h>

namespace {

using support::expectRefused;
using support::Guarded;
using support::randomFloats;

TEST(Arith, Mpy1MultipliesEveryElementOnEveryLevel) {
    support::onEveryLevel([] {
        for (int n = 1; n < 200; ++n) {
            std::vector<float> expected = randomFloats(n, -100, 100, 1);
            Guarded<float> a(expected);
            for (float& value : expected)
                value *= 0.3f;
            vsqsbMpy1(0.3f, a.data(), n);
            EXPECT_EQ(a.values(), expected);
            EXPECT_TRUE(a.intact());
        }
    });
}

TEST(Arith, Mpy2MultipliesElementByElementOnEveryLevel) {
    support::onEveryLevel([] {
        for (int n = 1; n < 200; ++n) {
            const std::vector<float> factors = randomFloats(n, -100, 100, 2);
            std::vector<float> expected = randomFloats(n, -100, 100, 3);
            Guarded<float> a(expected);
            for (std::size_t i = 0; i < expected.size(); ++i)
                expected[i] *= factors[i];
            vsqsbMpy2(factors.data(), a.data(), n);
            EXPECT_EQ(a.values(), expected);
            EXPECT_TRUE(a.intact());
        }
    });
}

TEST(Arith, Mpy2OfAnArrayWithItselfSquaresIt) {
    support::onEveryLevel([] {
        std::vector<float> a = randomFloats(99, -100, 100, 4), expected = a;
        for (float& value : expected)
            value *= value;
        vsqsbMpy2(a.data(), a.data(), 99);
        EXPECT_EQ(a, expected);
    });
}

TEST(Arith, RefusesTheLengthFirstThenSourceThenDestination) {
    const float a[2] = {1, 2};
    for (int n : {0, -5}) {
        expectRefused([&] { vsqsbMpy1(1, nullptr, n); }, "n<=0", "vsqsbMpy1", "vsqarith");
        expectRefused([&] { vsqsbMpy2(nullptr, nullptr, n); }, "n<=0", "vsqsbMpy2", "vsqarith");
    }
    expectRefused([&] { vsqsbMpy1(1, nullptr, 1); }, "dst==0", "vsqsbMpy1", "vsqarith");
    expectRefused([&] { vsqsbMpy2(nullptr, nullptr, 1); }, "src==0", "vsqsbMpy2", "vsqarith");
    expectRefused([&] { vsqsbMpy2(a, nullptr, 1); }, "dst==0", "vsqsbMpy2", "vsqarith");
}

} // namespace
