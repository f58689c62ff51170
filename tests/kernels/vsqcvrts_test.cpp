#include "support/every_level.h"
#include "support/guarded.h"
#include "support/kernel_reports.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <random>
#include <vector>

namespace {

constexpr int saturate = 0x80, toZero = 0x1000, down = 0x2000, nearest = 0;
constexpr float inf = std::numeric_limits<float>::infinity();
constexpr float notNumber = std::numeric_limits<float>::quiet_NaN();

// Halves go to the even neighbour; written without the library's rounding.
double nearestEven(double v) {
    const double below = std::floor(v), rest = v - below;
    if (rest != 0.5) return rest < 0.5 ? below : below + 1;
    return std::fmod(below, 2.0) == 0 ? below : below + 1;
}

template <class T>
T reference(float value, int flags) {
    using Range = std::numeric_limits<T>;
    if (std::isnan(value)) return Range::min();
    double whole = value;
    if (std::isfinite(value))
        whole = flags & toZero ? std::trunc(whole)
                : flags & down ? std::floor(whole)
                               : nearestEven(whole);
    if (whole < Range::min()) return Range::min();
    if (whole > Range::max()) return flags & saturate ? Range::max() : Range::min();
    return static_cast<T>(whole);
}

std::vector<float> samples(int n, int seed) {
    std::mt19937 random(static_cast<unsigned>(seed));
    std::uniform_real_distribution<float> mantissa(-1.0f, 1.0f);
    std::vector<float> values;
    for (float v :
         {0.5f,           -0.5f,    1.5f,     2.5f,      -2.5f,     127.5f,        -128.5f,
          -129.0f,        32767.5f, 32768.0f, -32768.5f, -32769.0f, 2147483520.0f, 2147483648.0f,
          -2147483648.0f, -3e9f,    1e30f,    -1e30f,    inf,       -inf,          notNumber})
        values.push_back(v);
    for (int exponent = -3; int(values.size()) < n; exponent = (exponent + 4) % 35)
        values.push_back(std::ldexp(mantissa(random), exponent));
    values.resize(std::size_t(n));
    return values;
}

template <class T>
void checkDown(int n, int flags) {
    const std::vector<float> src = samples(n, n);
    support::Guarded<T> dst(src.size(), T(1));
    vsqsbFloatToInt(src.data(), dst.data(), n, 8 * sizeof(T), flags);
    for (std::size_t i = 0; i < src.size(); ++i)
        ASSERT_EQ(dst[i], reference<T>(src[i], flags)) << src[i] << " flags " << flags;
    ASSERT_TRUE(dst.intact());
}

TEST(FloatToInt, EveryWidthRoundingAndLength) {
    support::onEveryLevel([] {
        for (int rounding : {nearest, toZero, down, toZero | down})
            for (int range : {0, saturate})
                for (int n = 1; n < 120; ++n) {
                    checkDown<std::int8_t>(n, rounding | range);
                    checkDown<std::int16_t>(n, rounding | range);
                    checkDown<std::int32_t>(n, rounding | range);
                }
    });
}

TEST(FloatToInt, WorksInPlaceOnWordsOfAFloatsWidth) {
    support::onEveryLevel([] {
        std::vector<float> values = samples(100, 3);
        const std::vector<float> src = values;
        vsqsbFloatToInt(values.data(), values.data(), 100, 32, toZero | saturate);
        for (std::size_t i = 0; i < src.size(); ++i) {
            std::int32_t word;
            std::memcpy(&word, &values[i], sizeof word);
            EXPECT_EQ(word, reference<std::int32_t>(src[i], toZero | saturate));
        }
    });
}

// Where source and destination start together, whatever the width of a word.
template <class T>
void checkDownInPlace(int n, int flags) {
    const std::vector<float> src = samples(n, n);
    std::vector<float> shared = src;
    vsqsbFloatToInt(shared.data(), shared.data(), n, 8 * sizeof(T), flags);
    std::vector<T> got(src.size());
    std::memcpy(got.data(), shared.data(), got.size() * sizeof(T));
    for (std::size_t i = 0; i < src.size(); ++i)
        ASSERT_EQ(got[i], reference<T>(src[i], flags)) << i << " of " << n << " flags " << flags;
}

constexpr int inPlaceLengths[] = {1, 2, 5, 17, 64, 119, 1023, 4096};

TEST(FloatToInt, WorksInPlaceOnEveryWidth) {
    support::onEveryLevel([] {
        for (int rounding : {nearest, toZero, down})
            for (int range : {0, saturate})
                for (int n : inPlaceLengths) {
                    checkDownInPlace<std::int8_t>(n, rounding | range);
                    checkDownInPlace<std::int16_t>(n, rounding | range);
                    checkDownInPlace<std::int32_t>(n, rounding | range);
                }
    });
}

template <class T>
void checkUp(int n) {
    std::mt19937 random(static_cast<unsigned>(n));
    std::vector<T> src(std::size_t(n), T(0));
    for (T& v : src)
        v = static_cast<T>(random());
    src[0] = std::numeric_limits<T>::min();
    support::Guarded<float> dst(src.size(), -1.0f);
    vsqsbIntToFloat(src.data(), dst.data(), n, 8 * sizeof(T), 0);
    for (std::size_t i = 0; i < src.size(); ++i)
        ASSERT_EQ(dst[i], static_cast<float>(src[i]));
    ASSERT_TRUE(dst.intact());
}

TEST(IntToFloat, EveryWidthAndLength) {
    support::onEveryLevel([] {
        for (int n = 1; n < 120; ++n) {
            checkUp<std::int8_t>(n);
            checkUp<std::int16_t>(n);
            checkUp<std::int32_t>(n);
        }
    });
}

template <class T>
void checkUpInPlace(int n) {
    std::mt19937 random(static_cast<unsigned>(n));
    std::vector<T> src(std::size_t(n), T(0));
    for (T& v : src)
        v = static_cast<T>(random());
    std::vector<float> shared(src.size());
    std::memcpy(shared.data(), src.data(), src.size() * sizeof(T));
    vsqsbIntToFloat(shared.data(), shared.data(), n, 8 * sizeof(T), 0);
    for (std::size_t i = 0; i < src.size(); ++i)
        ASSERT_EQ(shared[i], static_cast<float>(src[i])) << i << " of " << n;
}

TEST(IntToFloat, WorksInPlaceOnEveryWidth) {
    support::onEveryLevel([] {
        for (int n : inPlaceLengths) {
            checkUpInPlace<std::int8_t>(n);
            checkUpInPlace<std::int16_t>(n);
            checkUpInPlace<std::int32_t>(n);
        }
    });
}

// --- refusals ---

TEST(FloatToInt, RefusesInTheOrderOfItsChecks) {
    support::KernelReports reports;
    const float src[2] = {};
    short dst[2] = {7, 7};
    vsqsbFloatToInt(nullptr, nullptr, 0, 16, toZero);
    ASSERT_EQ(reports.all().size(), 1u);
    EXPECT_EQ(reports.all()[0].status, -5);
    EXPECT_EQ(reports.all()[0].function, "vsqsbFloatToInt");
    EXPECT_EQ(reports.takeMessage(), "len<=0");
    vsqsbFloatToInt(nullptr, nullptr, 2, 16, toZero);
    EXPECT_EQ(reports.takeMessage(), "src==0");
    vsqsbFloatToInt(src, nullptr, 2, 16, toZero);
    EXPECT_EQ(reports.takeMessage(), "dst==0");
    vsqsbFloatToInt(src, dst, 2, 16, 0x100);
    EXPECT_EQ(reports.takeMessage(), "flags is wrong");
    for (int wordSize : {0, 7, 24, 64, -16}) {
        vsqsbFloatToInt(src, dst, 2, wordSize, toZero);
        EXPECT_EQ(reports.takeMessage(), "wordSize is wrong");
    }
    EXPECT_EQ(dst[0], 7);
}

TEST(IntToFloat, RefusesInTheOrderOfItsChecks) {
    support::KernelReports reports;
    const short src[2] = {};
    float dst[2] = {7, 7};
    vsqsbIntToFloat(nullptr, nullptr, -1, 16, 0);
    ASSERT_EQ(reports.all().size(), 1u);
    EXPECT_EQ(reports.all()[0].function, "vsqsbIntToFloat");
    EXPECT_EQ(reports.takeMessage(), "len<=0");
    vsqsbIntToFloat(nullptr, nullptr, 2, 16, 0);
    EXPECT_EQ(reports.takeMessage(), "src==0");
    vsqsbIntToFloat(src, nullptr, 2, 16, 0);
    EXPECT_EQ(reports.takeMessage(), "dst==0");
    vsqsbIntToFloat(src, dst, 2, 16, 0x400);
    EXPECT_EQ(reports.takeMessage(), "flags is wrong");
    vsqsbIntToFloat(src, dst, 2, 12, 0);
    EXPECT_EQ(reports.takeMessage(), "wordSize is wrong");
    EXPECT_EQ(dst[0], 7.0f);
}

TEST(ConversionRefusals, EndTheProcess) {
    float value = 0;
    short word = 0;
    EXPECT_EXIT(vsqsbFloatToInt(&value, &word, 0, 16, toZero), testing::ExitedWithCode(1), "^$");
    EXPECT_EXIT(vsqsbFloatToInt(&value, &word, 1, 9, toZero), testing::ExitedWithCode(1), "^$");
    EXPECT_EXIT(vsqsbIntToFloat(nullptr, &value, 1, 16, 0), testing::ExitedWithCode(1), "^$");
}

} // namespace
