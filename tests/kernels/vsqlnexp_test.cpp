// Logarithm and exponential function, against the C library's in double.
#include "support/every_level.h"
#include "support/guarded.h"
#include "support/kernel_reports.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>

namespace {

using support::expectRefused;
using support::Guarded;

constexpr float infinity = std::numeric_limits<float>::infinity();
constexpr float nan = std::numeric_limits<float>::quiet_NaN();

float fromPattern(std::uint32_t bits) {
    float value;
    std::memcpy(&value, &bits, sizeof value);
    return value;
}

using Function = void (*)(float*, int);
using Reference = double (*)(double);
using Library = float (*)(float);

// The error in units of the last place of a float of the reference's size.
double unitsOff(float value, double reference) {
    int exponent = 0;
    std::frexp(reference, &exponent);
    return std::fabs(value - reference) / std::ldexp(1.0, std::max(exponent - 24, -149));
}

// Where the C library's float function gives a special value (zero, infinity, no number) ours gives
// the same.
bool sameSpecial(float value, float library) {
    return std::isnan(library) ? std::isnan(value) : value == library;
}

void expectClose(Function function, Reference reference, Library library,
                 const std::vector<float>& arguments) {
    std::vector<float> results = arguments;
    function(results.data(), int(results.size()));
    for (std::size_t i = 0; i < results.size(); ++i) {
        const float expected = library(arguments[i]);
        if (!std::isfinite(expected) || !std::isfinite(results[i]) || expected == 0 ||
            results[i] == 0)
            ASSERT_TRUE(sameSpecial(results[i], expected))
                << arguments[i] << " gives " << results[i];
        else
            ASSERT_LE(unitsOff(results[i], reference(double(arguments[i]))), 2.0) << arguments[i];
    }
}

// Every stride-th pattern, and all exponents' first and last patterns with their neighbours.
template <class Visit>
void overPatterns(std::uint32_t stride, Visit visit) {
    std::vector<float> block;
    for (std::uint64_t bits = 0; bits < (std::uint64_t(1) << 32); bits += stride) {
        block.push_back(fromPattern(std::uint32_t(bits)));
        if (block.size() == 4096) {
            visit(block);
            block.clear();
        }
    }
    for (std::uint32_t exponent = 0; exponent < 512; ++exponent)
        for (int step = -40; step <= 40; ++step)
            block.push_back(fromPattern((exponent << 23) + std::uint32_t(step)));
    visit(block);
}

class LnExp : public testing::Test {
protected:
    static void expectSameBitsOnEveryLevel(Function function) {
        overPatterns(65537, [&](const std::vector<float>& block) {
            vsq::selectLevel(vsq::Level::baseline);
            std::vector<float> expected = block;
            function(expected.data(), int(expected.size()));
            support::onEveryLevel([&] {
                std::vector<float> actual = block;
                function(actual.data(), int(actual.size()));
                for (std::size_t i = 0; i < block.size(); ++i) {
                    const bool isSame = std::memcmp(&actual[i], &expected[i], sizeof(float)) == 0;
                    ASSERT_TRUE(isSame || (std::isnan(actual[i]) && std::isnan(expected[i])))
                        << block[i];
                }
            });
        });
    }

    // A result must not depend on the element's place, nor on the array's length.
    static void expectSameInEveryPlace(Function function) {
        support::onEveryLevel([&] {
            std::vector<float> arguments(200), alone(200);
            for (std::size_t i = 0; i < arguments.size(); ++i) {
                arguments[i] = alone[i] = 0.013f * float(i) + 0.001f;
                function(&alone[i], 1);
            }
            for (int n = 1; n <= 200; ++n) {
                Guarded<float> a(std::vector<float>(arguments.begin(), arguments.begin() + n));
                function(a.data(), n);
                EXPECT_EQ(a.values(), std::vector<float>(alone.begin(), alone.begin() + n));
                EXPECT_TRUE(a.intact());
            }
        });
    }
};

TEST_F(LnExp, LnIsWithinTwoUnitsOverTheWholeRange) {
    overPatterns(4999, [](const std::vector<float>& block) {
        expectClose(vsqsbLn1, std::log, logf, block);
    });
}

TEST_F(LnExp, ExpIsWithinTwoUnitsOverTheWholeRange) {
    overPatterns(4999, [](const std::vector<float>& block) {
        expectClose(vsqsbExp1, std::exp, expf, block);
    });
}

TEST_F(LnExp, LnIsCloseNearOneWhereItCancels) {
    std::vector<float> arguments;
    for (std::uint32_t step = 0; step < 40000; ++step) {
        arguments.push_back(fromPattern(0x3F800000 + step));
        arguments.push_back(fromPattern(0x3F800000 - step));
    }
    expectClose(vsqsbLn1, std::log, logf, arguments);
}

TEST_F(LnExp, ExpIsCloseAtTheEndsOfItsRange) {
    std::vector<float> arguments;
    for (float centre : {88.7228394f, -87.3365479f, -103.278931f, -103.972084f, -104.0f, 89.0f})
        for (float x = centre, i = 0; i < 3000; ++i, x = std::nextafter(x, infinity))
            arguments.push_back(x - 0.01f);
    expectClose(vsqsbExp1, std::exp, expf, arguments);
}

TEST_F(LnExp, LnOfZeroIsMinusInfinityAndIsNotRefused) {
    support::KernelReports reports;
    support::onEveryLevel([] {
        float a[2] = {0.0f, -0.0f};
        vsqsbLn1(a, 2);
        EXPECT_EQ(a[0], -infinity);
        EXPECT_EQ(a[1], -infinity);
    });
    EXPECT_TRUE(reports.all().empty());
}

TEST_F(LnExp, LnHasItsSpecialValues) {
    support::onEveryLevel([] {
        float a[8] = {-1.0f, -infinity, nan,       infinity,
                      1.0f,  -1e-40f,   0x1p-149f, std::numeric_limits<float>::max()};
        vsqsbLn1(a, 8);
        EXPECT_TRUE(std::isnan(a[0]));
        EXPECT_TRUE(std::isnan(a[1]));
        EXPECT_TRUE(std::isnan(a[2]));
        EXPECT_EQ(a[3], infinity);
        EXPECT_EQ(a[4], 0.0f);
        EXPECT_FALSE(std::signbit(a[4]));
        EXPECT_TRUE(std::isnan(a[5]));
        EXPECT_LE(unitsOff(a[6], std::log(0x1p-149)), 1.0);
        EXPECT_LE(unitsOff(a[7], std::log(double(std::numeric_limits<float>::max()))), 1.0);
    });
}

TEST_F(LnExp, ExpHasItsSpecialValues) {
    support::onEveryLevel([] {
        float a[8] = {0.0f, -0.0f, infinity, -infinity, nan, 1e30f, -1e30f, 1e-45f};
        vsqsbExp1(a, 8);
        EXPECT_EQ(a[0], 1.0f);
        EXPECT_EQ(a[1], 1.0f);
        EXPECT_EQ(a[2], infinity);
        EXPECT_EQ(a[3], 0.0f);
        EXPECT_TRUE(std::isnan(a[4]));
        EXPECT_EQ(a[5], infinity);
        EXPECT_EQ(a[6], 0.0f);
        EXPECT_EQ(a[7], 1.0f);
    });
}

TEST_F(LnExp, AllLevelsGiveTheSameBits) {
    expectSameBitsOnEveryLevel(vsqsbLn1);
    expectSameBitsOnEveryLevel(vsqsbExp1);
}

TEST_F(LnExp, ResultsDoNotDependOnPlaceOrLength) {
    expectSameInEveryPlace(vsqsbLn1);
    expectSameInEveryPlace(vsqsbExp1);
}

// A special argument takes its neighbours off the straight path, which must not show in their
// results.
TEST_F(LnExp, SpecialArgumentsLeaveTheirNeighboursAlone) {
    const float specials[] = {0.0f, -1.0f, infinity, nan, 1e-40f, 100.0f, -100.0f};
    for (Function function : {vsqsbLn1, vsqsbExp1}) {
        support::onEveryLevel([&] {
            std::vector<float> plain(77);
            for (std::size_t i = 0; i < plain.size(); ++i)
                plain[i] = 0.37f + 0.91f * float(i);
            std::vector<float> expected = plain;
            function(expected.data(), 77);
            for (std::size_t place = 0; place < plain.size(); ++place) {
                std::vector<float> a = plain, alone(1, specials[place % std::size(specials)]);
                a[place] = alone[0];
                function(a.data(), 77);
                function(alone.data(), 1);
                EXPECT_TRUE(sameSpecial(a[place], alone[0]));
                a[place] = expected[place];
                EXPECT_EQ(a, expected);
            }
        });
    }
}

TEST_F(LnExp, RefusesBadArgumentsInOrder) {
    expectRefused([] { vsqsbLn1(nullptr, 0); }, "len<=0", "vsqsbLn1", "vsqlnexp");
    expectRefused([] { vsqsbLn1(nullptr, 1); }, "vec==0", "vsqsbLn1", "vsqlnexp");
    expectRefused([] { vsqsbExp1(nullptr, -1); }, "len<=0", "vsqsbExp1", "vsqlnexp");
    expectRefused([] { vsqsbExp1(nullptr, 1); }, "vec==0", "vsqsbExp1", "vsqlnexp");
}

} // namespace
