// The LP spectrum against its definition in long double, and in fixed point against the integer
// definition.
#include "frame/context.h"
#include "support/alloc_faults.h"
#include "support/every_level.h"
#include "support/guarded.h"
#include "support/reports.h"
#include "vsq.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <random>
#include <vector>

namespace {

constexpr long double pi = 3.14159265358979323846264338327950288L;

int floatLimit(int order) {
    const int limits[11] = {0, 1, 3, 7, 9, 7, 7, 7, 22, 9, 9};
    return order < 11 ? limits[order] : 22;
}

int fixedLimit(int order) {
    const int limits[22] = {0,  1,  3,  7,  15, 13, 11, 11, 11, 11, 12,
                            13, 12, 12, 12, 12, 13, 15, 17, 18, 19, 20};
    return order < 22 ? limits[order] : 21;
}

std::vector<float> coefficients(int n, int seed) { // |A| stays between 0.1 and 1.9
    std::mt19937 random(static_cast<unsigned>(seed));
    std::uniform_real_distribution<float> value(-1.0f, 1.0f);
    std::vector<float> a(std::size_t(n), 0.0f);
    for (float& v : a)
        v = 0.9f * value(random) / float(std::max(n, 1));
    return a;
}

std::vector<long double> magnitudes(const std::vector<float>& a, int bins) {
    std::vector<long double> result;
    for (int k = 0; k < bins; ++k) {
        long double re = 1, im = 0;
        for (std::size_t i = 1; i <= a.size(); ++i) {
            const long double angle =
                pi * static_cast<long double>(i * std::size_t(k) % (2 * std::size_t(bins))) / bins;
            re -= std::cos(angle) * a[i - 1];
            im += std::sin(angle) * a[i - 1];
        }
        result.push_back(std::hypot(re, im));
    }
    return result;
}

class LPSpectrum : public testing::Test {
protected:
    void TearDown() override {
        KTSetStatus(0);
        KTFreeLPTbls();
    }
};

// Direct: twiddles rounded to 2^-25 against |A| above 0.1, and four roundings of 2^-24. Transform:
// 1.5e-7 * sqrt(order) relative to the root mean square of at most 2 * sqrt(1 + 0.81) values,
// against the same |A|.
double tolerance(int order, bool isDirect) {
    return isDirect ? 4 * 0x1p-24 + 0.9 * 0x1p-24 / 0.1
                    : (1.5e-7 * std::sqrt(order + 1.0) * 3.0 / 0.1) + 4 * 0x1p-24;
}

void checkFloat(int order, int nCoef) {
    const int n = 1 << order;
    const std::vector<float> a = coefficients(nCoef, 100 * order + nCoef);
    const auto wanted = magnitudes(a, n);
    support::Guarded<float> got(std::size_t(n), -5.0f);
    KTsLPSpectrum(a.data(), nCoef, got.data(), order, 2.5f);
    for (std::size_t k = 0; k < got.size(); ++k) {
        const double value = double(2.5L / wanted[k]);
        ASSERT_NEAR(got[k], value, value * tolerance(order, nCoef <= floatLimit(order)))
            << "order " << order << " coefficients " << nCoef << " bin " << k;
    }
    ASSERT_TRUE(got.intact());
}

TEST_F(LPSpectrum, FloatEqualsTheDefinitionByBothMethods) {
    support::onEveryLevel([] {
        for (int order = 0; order <= 11; ++order)
            for (int nCoef = 0; nCoef <= 25; ++nCoef)
                if (order < 9 || nCoef % 5 == 2) checkFloat(order, nCoef);
        checkFloat(13, 12);
        checkFloat(12, 40);
    });
}

TEST_F(LPSpectrum, LevelsAgreeToTheBit) {
    for (int nCoef : {1, 7, 12, 22, 30}) {
        const std::vector<float> a = coefficients(nCoef, 3);
        std::vector<std::vector<float>> results;
        support::onEveryLevel([&] {
            std::vector<float> spectrum(256);
            KTsLPSpectrum(a.data(), nCoef, spectrum.data(), 8, 1.0f);
            results.push_back(spectrum);
        });
        for (const auto& result : results)
            EXPECT_EQ(result, results[0]);
    }
}

// Which method ran shows in which of its two blocks the context holds.
TEST_F(LPSpectrum, TheThresholdChoosesTheMethod) {
    auto& lp = KTGetContext()->LP;
    for (int order = 0; order <= 14; ++order) {
        std::vector<float> spectrum(std::size_t(1) << order);
        for (int beyond : {0, 1}) {
            KTFreeLPTbls();
            const int nCoef = floatLimit(order) + beyond;
            const std::vector<float> a = coefficients(nCoef, 1);
            KTsLPSpectrum(a.data(), nCoef, spectrum.data(), order, 1.0f);
            EXPECT_EQ(lp.sLPBuffer != nullptr, beyond == 1) << order;
            if (nCoef > 0) {
                EXPECT_EQ(lp.sLPTwiddle != nullptr, beyond == 0) << order;
            }
        }
    }
    for (int order = 0; order <= 14; ++order) {
        std::vector<short> spectrum(std::size_t(1) << order);
        for (int beyond : {0, 1}) {
            KTFreeLPTbls();
            const int nCoef = fixedLimit(order) + beyond;
            const std::vector<short> a(std::size_t(nCoef), 1);
            KTwLPSpectrum(a.data(), nCoef, spectrum.data(), order, 1.0f, -10, KT_AutoScale,
                          nullptr);
            if (nCoef > 0) {
                EXPECT_EQ(lp.wLPTwiddle != nullptr, beyond == 0) << order;
            }
        }
    }
}

TEST_F(LPSpectrum, OneBinTakesATransformOfOrderOne) {
    const float a[1] = {0.5f};
    float spectrum[1] = {-1};
    KTsLPSpectrum(a, 1, spectrum, 0, 3.0f);
    EXPECT_EQ(spectrum[0], 6.0f);
    const short w[1] = {1 << 9}; // 0.5 at scale -10
    short fixed[1] = {-1};
    KTwLPSpectrum(w, 1, fixed, 0, 3.0f, -10, KT_Saturate, nullptr);
    EXPECT_EQ(fixed[0], 6);
}

TEST_F(LPSpectrum, CoefficientsOfZeroGiveTheGainEverywhere) {
    for (int order : {0, 3, 5, 8, 10})
        for (int nCoef : {0, 1, 5, 30}) {
            const std::vector<float> a(std::size_t(nCoef), 0.0f);
            std::vector<float> spectrum(std::size_t(1) << order);
            KTsLPSpectrum(a.data(), nCoef, spectrum.data(), order, 0.75f);
            for (float v : spectrum)
                ASSERT_EQ(v, 0.75f) << order << " " << nCoef;
            const std::vector<short> w(std::size_t(nCoef), 0);
            std::vector<short> fixed(std::size_t(1) << order);
            KTwLPSpectrum(w.data(), nCoef, fixed.data(), order, 100.0f, -12, KT_Saturate, nullptr);
            for (short v : fixed)
                ASSERT_EQ(v, 100) << order << " " << nCoef;
        }
}

TEST_F(LPSpectrum, FewerThanNoCoefficientsCountAsNone) {
    float spectrum[8] = {};
    KTsLPSpectrum(nullptr, -3, spectrum, 3, 2.0f);
    for (float v : spectrum)
        EXPECT_EQ(v, 2.0f);
}

// More coefficients than the transform has places: frequencies repeat, so the definition still
// holds.
TEST_F(LPSpectrum, ManyCoefficientsOnFewBinsStayInsideTheBuffer) {
    for (int order : {0, 1, 2, 3})
        for (int nCoef = 1; nCoef < 40; ++nCoef)
            checkFloat(order, nCoef);
    const std::vector<short> a(40, 10);
    support::Guarded<short> spectrum(4, short(0));
    KTwLPSpectrum(a.data(), 40, spectrum.data(), 2, 1.0f, -12, KT_AutoScale, nullptr);
    EXPECT_TRUE(spectrum.intact());
}

TEST_F(LPSpectrum, OrdersWithoutATableAreRefused) {
    support::CapturedReports reports;
    float a = 0.5f, spectrum = 7.0f;
    short w = 5, fixed = 7;
    int scale = 3;
    for (int order : {-1, 31, 2147483647}) {
        KTsLPSpectrum(&a, 1, &spectrum, order, 1.0f);
        KTwLPSpectrum(&w, 1, &fixed, order, 1.0f, 0, KT_AutoScale, &scale);
        ASSERT_EQ(reports.count(), 2u);
        EXPECT_EQ(reports[0].status, KT_StsBadArg);
        EXPECT_EQ(reports[0].function, "KTsLPSpectrum");
        EXPECT_EQ(reports[0].message, order < 0 ? "fftOrder<0" : "fftOrder>30");
        EXPECT_EQ(reports[1].function, "KTwLPSpectrum");
        reports.clear();
    }
    EXPECT_EQ(spectrum, 7.0f);
    EXPECT_EQ(fixed, 7);
    EXPECT_EQ(scale, 3);
}

// What the process says as it ends: nothing, but for a leak checker's word on the scratch that is
// left.
#ifdef __SANITIZE_ADDRESS__
constexpr char lastWords[] = "";
#else
constexpr char lastWords[] = "^$";
#endif

TEST_F(LPSpectrum, AZeroOfTheFilterEndsTheProcess) {
    const float a[1] = {1.0f}; // A is 0 at frequency 0
    float spectrum[8];
    EXPECT_EXIT(KTsLPSpectrum(a, 1, spectrum, 3, 1.0f), testing::ExitedWithCode(1), lastWords);
    const short w[1] = {1 << 10};
    short fixed[8];
    EXPECT_EXIT(KTwLPSpectrum(w, 1, fixed, 3, 1.0f, -10, KT_AutoScale, nullptr),
                testing::ExitedWithCode(1), lastWords);
}

// Both methods keep the coefficients while they are needed, so that the spectrum may take their
// place.
TEST_F(LPSpectrum, MayTakeThePlaceOfItsCoefficients) {
    support::onEveryLevel([] {
        for (int order : {3, 5, 8, 11})
            for (int nCoef : {1, 7, 8, 22, 30}) {
                const std::vector<float> a = coefficients(nCoef, 9);
                std::vector<float> wanted(std::size_t(1) << order),
                    shared(std::max(wanted.size(), a.size()));
                KTsLPSpectrum(a.data(), nCoef, wanted.data(), order, 2.0f);
                std::copy(a.begin(), a.end(), shared.begin());
                KTsLPSpectrum(shared.data(), nCoef, shared.data(), order, 2.0f);
                shared.resize(wanted.size());
                ASSERT_EQ(shared, wanted) << order << ' ' << nCoef;
            }
    });
}

// The transform's input is copied by a kernel, which refuses to copy from nowhere.
TEST_F(LPSpectrum, TheTransformRefusesCoefficientsThatAreNotThere) {
    float spectrum[8];
    EXPECT_EXIT(KTsLPSpectrum(nullptr, 8, spectrum, 3, 1.0f), testing::ExitedWithCode(1),
                lastWords);
    short fixed[8];
    EXPECT_EXIT(KTwLPSpectrum(nullptr, 8, fixed, 3, 1.0f, -10, KT_AutoScale, nullptr),
                testing::ExitedWithCode(1), lastWords);
    EXPECT_EXIT(KTsLPSpectrum(nullptr, 1, spectrum, 0, 1.0f), testing::ExitedWithCode(1),
                lastWords);
}

TEST_F(LPSpectrum, TheDirectSumReportsCoefficientsThatAreNotThere) {
    support::CapturedReports reports;
    float spectrum[8] = {7};
    short fixed[8] = {7};
    int scale = 3;
    KTsLPSpectrum(nullptr, 2, spectrum, 3, 1.0f);
    KTwLPSpectrum(nullptr, 2, fixed, 3, 1.0f, -10, KT_AutoScale, &scale);
    ASSERT_EQ(reports.count(), 2u);
    EXPECT_EQ(reports[0].status, KT_StsBadArg);
    EXPECT_EQ(reports[0].function, "KTsLPSpectrum");
    EXPECT_EQ(reports[0].message, "pCoef==0");
    EXPECT_EQ(reports[1].function, "KTwLPSpectrum");
    EXPECT_EQ(spectrum[0], 7);
    EXPECT_EQ(fixed[0], 7);
    EXPECT_EQ(scale, 3);
}

// --- fixed point ---

// The direct method as defined: 14-bit twiddles, 32-bit sums.
std::vector<float> directMagnitudes(const std::vector<short>& a, int bins, int inScale) {
    std::vector<float> result;
    const int shift = 14 - inScale;
    for (int k = 0; k < bins; ++k) {
        std::uint32_t re = shift >= 0 && shift < 32 ? 1u << shift : 0u, im = 0;
        for (std::size_t i = 1; i <= a.size(); ++i) {
            const std::size_t turn = i * std::size_t(k) % (2 * std::size_t(bins));
            // multiples of a quarter turn are exact
            const bool isQuarter = 2 * turn % std::size_t(bins) == 0;
            const long double angle = pi * static_cast<long double>(turn) / bins;
            long double cosine = std::cos(angle), sine = std::sin(angle);
            if (isQuarter) cosine = std::round(cosine), sine = std::round(sine);
            re -= static_cast<std::uint32_t>(static_cast<int>(16384 * cosine) * a[i - 1]);
            im += static_cast<std::uint32_t>(static_cast<int>(-16384 * sine) * a[i - 1]);
        }
        const double real = static_cast<float>(static_cast<std::int32_t>(re));
        const double imaginary = static_cast<float>(static_cast<std::int32_t>(im));
        result.push_back(
            std::sqrt(static_cast<float>((real * real + imaginary * imaginary) * 0x1p-28)));
    }
    return result;
}

// The transform's bins are the definition's, truncated to integers and saturated; bin 0 by
// magnitude.
std::vector<float> transformMagnitudes(const std::vector<short>& a, int bins, int inScale) {
    std::vector<float> v(2 * std::size_t(bins), 0.0f);
    v[0] = inScale < 1 ? static_cast<float>(static_cast<short>(-(1 << -inScale))) : 0.0f;
    for (std::size_t i = 0; i < a.size(); ++i)
        v[i + 1] = a[i];
    int order = 0;
    while ((1 << order) < 2 * bins)
        ++order;
    std::vector<short> bits(a.begin(), a.end());
    bits.resize(2 * std::size_t(bins), 0);
    std::rotate(bits.begin(), bits.end() - 1, bits.end());
    bits[0] = static_cast<short>(v[0]);
    vsqwRealFftl(bits.data(), order, 0x2201, 0, nullptr); // tested on its own
    std::vector<float> result = {std::fabs(static_cast<float>(bits[0]))};
    for (std::size_t k = 1; k < std::size_t(bins); ++k) {
        const float re = bits[2 * k], im = bits[2 * k + 1];
        const float square = re * re, other = im * im;
        result.push_back(std::sqrt(square + other));
    }
    return result;
}

void checkFixed(int order, int nCoef, int inScale, int mode) {
    const int n = 1 << order;
    std::mt19937 random(static_cast<unsigned>(100 * order + nCoef));
    std::vector<short> a(std::size_t(nCoef), 0);
    const int one = inScale < 1 ? 1 << std::min(-inScale, 14) : 1;
    for (short& v : a)
        v = static_cast<short>(int(random() % unsigned(2 * one)) - one);
    std::vector<float> wanted = nCoef <= fixedLimit(order) ? directMagnitudes(a, n, inScale)
                                                           : transformMagnitudes(a, n, inScale);
    if (std::count(wanted.begin(), wanted.end(), 0.0f) > 0) return; // refused, tested elsewhere
    const float gain = 1000.0f * static_cast<float>(std::ldexp(1.0, -inScale));
    for (float& v : wanted)
        v = 1.0f / v * gain;
    std::vector<short> wantedSpectrum(std::size_t(n), 0);
    int wantedScale = 2, scale = 2;
    KTswbConvertDown(wanted.data(), wantedSpectrum.data(), n, mode, &wantedScale);
    support::Guarded<short> got(std::size_t(n), short(-9));
    KTwLPSpectrum(a.data(), nCoef, got.data(), order, 1000.0f, inScale, mode, &scale);
    ASSERT_EQ(got.values(), wantedSpectrum)
        << "order " << order << " coefficients " << nCoef << " scale " << inScale;
    ASSERT_EQ(scale, wantedScale);
    ASSERT_TRUE(got.intact());
}

TEST_F(LPSpectrum, FixedPointEqualsTheIntegerDefinition) {
    support::onEveryLevel([] {
        for (int order = 0; order <= 10; ++order)
            for (int nCoef = 0; nCoef < std::min(26, 2 << order); ++nCoef)
                for (int inScale : {-14, -10, -3, 0})
                    checkFixed(order, nCoef, inScale, nCoef % 4);
    });
}

TEST_F(LPSpectrum, FixedPointScalesWithoutRoomForOne) {
    support::onEveryLevel([] {
        for (int inScale : {1, 5, 14, 15, 30, 31, 100, -15, -16, -17, -18, -30})
            checkFixed(6, 5, inScale, KT_AutoScale);
        for (int inScale : {1, 5, 30})
            checkFixed(6, 20, inScale, KT_AutoScale);
    });
}

TEST_F(LPSpectrum, FixedPointTakesANullScaleForZero) {
    const short a[2] = {300, -200};
    short x[16], y[16];
    int scale = 0;
    KTwLPSpectrum(a, 2, x, 4, 5.0f, -10, KT_FixedScale, &scale);
    KTwLPSpectrum(a, 2, y, 4, 5.0f, -10, KT_FixedScale, nullptr);
    for (int k = 0; k < 16; ++k)
        EXPECT_EQ(x[k], y[k]);
}

TEST_F(LPSpectrum, FixedPointFollowsTheFloatSpectrum) {
    const std::vector<float> a = coefficients(10, 5);
    std::vector<short> w(10), fixed(128);
    std::vector<float> spectrum(128);
    int inScale = -14, outScale = 0;
    KTswbConvertDown(a.data(), w.data(), 10, KT_FixedScale, &inScale);
    KTsLPSpectrum(a.data(), 10, spectrum.data(), 7, 1.0f);
    KTwLPSpectrum(w.data(), 10, fixed.data(), 7, 1.0f, inScale, KT_AutoScale, &outScale);
    // ten coefficients and twiddles truncated by up to 2^-14 each
    for (std::size_t k = 0; k < 128; ++k)
        EXPECT_NEAR(std::ldexp(fixed[k], outScale), spectrum[k],
                    spectrum[k] * 20 * 0x1p-14 / 0.1 + std::ldexp(1.0, outScale));
}

// --- tables and buffers ---

TEST_F(LPSpectrum, ASecondCallBuildsNothing) {
    const std::vector<float> a = coefficients(22, 1);
    const std::vector<short> w(22, 5);
    std::vector<float> spectrum(256);
    std::vector<short> fixed(256);
    auto& lp = KTGetContext()->LP;
    for (int nCoef : {9, 22}) {
        KTsLPSpectrum(a.data(), nCoef, spectrum.data(), 8, 1.0f);
        KTwLPSpectrum(w.data(), nCoef, fixed.data(), 8, 1.0f, -10, KT_AutoScale, nullptr);
        const void* table = lp.sLPTwiddle;
        support::alloc::arm(1);
        KTsLPSpectrum(a.data(), nCoef, spectrum.data(), 8, 1.0f);
        KTwLPSpectrum(w.data(), nCoef, fixed.data(), 8, 1.0f, -10, KT_AutoScale, nullptr);
        EXPECT_EQ(support::alloc::allocations(), 0);
        support::alloc::disarm();
        EXPECT_EQ(lp.sLPTwiddle, table);
        EXPECT_EQ(lp.sTwiddleOrder, 8);
        EXPECT_EQ(lp.sTwiddleLen, nCoef);
    }
    support::alloc::arm(0); // another number of coefficients renews the table
    KTsLPSpectrum(a.data(), 10, spectrum.data(), 8, 1.0f);
    EXPECT_EQ(support::alloc::allocations(), 1);
    support::alloc::disarm();
}

TEST_F(LPSpectrum, BuffersGrowOnlyAndAreMadeForOrderZeroToo) {
    const std::vector<float> a = coefficients(30, 1);
    std::vector<float> spectrum(256);
    auto& lp = KTGetContext()->LP;
    KTsLPSpectrum(a.data(), 1, spectrum.data(), 0, 1.0f);
    EXPECT_NE(lp.sLPBuffer, nullptr);
    KTsLPSpectrum(a.data(), 30, spectrum.data(), 8, 1.0f);
    const void* buffer = lp.sLPBuffer;
    EXPECT_EQ(lp.sBufferOrder, 8);
    KTsLPSpectrum(a.data(), 30, spectrum.data(), 4, 1.0f);
    EXPECT_EQ(lp.sLPBuffer, buffer);
    EXPECT_EQ(lp.sBufferOrder, 8);
}

TEST_F(LPSpectrum, TheTransformSeesAnOlderFailureOfTheThread) {
    support::CapturedReports reports;
    const std::vector<float> a = coefficients(12, 1);
    const std::vector<short> w(14, 5);
    std::vector<float> spectrum(32, 7.0f);
    std::vector<short> fixed(32, 7);
    KTSetStatus(KT_StsBadArg);
    KTsLPSpectrum(a.data(), 12, spectrum.data(), 5, 1.0f);
    KTwLPSpectrum(w.data(), 14, fixed.data(), 5, 1.0f, -10, KT_AutoScale, nullptr);
    ASSERT_EQ(reports.count(), 2u);
    EXPECT_EQ(reports[0].status, KT_StsBacktrace);
    EXPECT_EQ(reports[0].function, "KTsLPSpectrum");
    EXPECT_EQ(reports[0].message, "");
    EXPECT_EQ(reports[0].source, "..\\_LIBSRC\\KT_LPSPE");
    EXPECT_EQ(reports[1].status, KT_StsBacktrace);
    EXPECT_EQ(reports[1].function, "KTwLPSpectrum");
    EXPECT_EQ(reports[1].message, "");
    EXPECT_EQ(KTGetStatus(), KT_StsBadArg);
    EXPECT_EQ(spectrum, std::vector<float>(32, 7.0f));
    EXPECT_EQ(fixed, std::vector<short>(32, 7));
    reports.clear();
    KTSetStatus(KT_StsBadArg); // the direct method does not look
    KTsLPSpectrum(a.data(), 5, spectrum.data(), 5, 1.0f);
    EXPECT_EQ(reports.count(), 0u);
    EXPECT_NE(spectrum[0], 7.0f);
}

struct Exhaustion {
    bool isFixed;
    int nCoef; // at order 5: 5 direct, 20 transform
    std::vector<std::vector<std::pair<std::string, std::string>>>
        reports; // per failing allocation: function, message
};

TEST_F(LPSpectrum, ExhaustionReportsThePointerAndLeavesTheSpectrum) {
    const std::string text = "insufficiency of memory for pointer  pKTContext->LP.";
    const Exhaustion cases[] = {
        {false,
         5,
         {{{"KTsCalcLPTwiddle", "NULL Pointer"}, {"KTsLPSpectrum", text + "sLPTwiddle"}}}},
        {false, 20, {{{"KTsLPSpectrum", text + "sLPBuffer"}}}},
        {true,
         5,
         {{{"KTwLPSpectrum", text + "wLPBuffer"}},
          {{"KTwCalcLPTwiddle", "NULL Pointer"}, {"KTwLPSpectrum", text + "wLPTwiddle"}}}},
        {true, 20, {{{"KTwLPSpectrum", text + "wLPBuffer"}}}},
    };
    const std::vector<float> a = coefficients(20, 1);
    const std::vector<short> w(20, 5);
    for (const Exhaustion& c : cases) {
        KTFreeLPTbls();
        std::vector<float> spectrum(32);
        std::vector<short> fixed(32);
        { // the transform's own tables are the kernel layer's affair
            KTsLPSpectrum(a.data(), 20, spectrum.data(), 5, 1.0f);
            KTwLPSpectrum(w.data(), 20, fixed.data(), 5, 1.0f, -10, KT_AutoScale, nullptr);
            auto& lp = KTGetContext()->LP;
            for (void** block : {&lp.sLPBuffer, &lp.wLPBuffer}) {
                std::free(*block);
                *block = nullptr;
            }
            lp.sBufferOrder = lp.wBufferOrder = 0;
        }
        support::CapturedReports reports;
        spectrum.assign(32, 7.0f);
        fixed.assign(32, 7);
        int scale = 3;
        std::size_t step = 0;
        const int failures = support::alloc::failEach(
            [&] {
                if (c.isFixed)
                    KTwLPSpectrum(w.data(), c.nCoef, fixed.data(), 5, 1.0f, -10, KT_AutoScale,
                                  &scale);
                else
                    KTsLPSpectrum(a.data(), c.nCoef, spectrum.data(), 5, 1.0f);
            },
            [&] {
                ASSERT_LT(step, c.reports.size());
                const auto& wanted = c.reports[step++];
                ASSERT_EQ(reports.count(), wanted.size());
                for (std::size_t i = 0; i < wanted.size(); ++i) {
                    EXPECT_EQ(reports[i].status, KT_StsNoMem);
                    EXPECT_EQ(reports[i].function, wanted[i].first);
                    EXPECT_EQ(reports[i].message, wanted[i].second);
                    EXPECT_EQ(reports[i].source, "..\\_LIBSRC\\KT_LPSPE");
                }
                EXPECT_EQ(KTGetStatus(), KT_StsNoMem);
                EXPECT_EQ(spectrum, std::vector<float>(32, 7.0f));
                EXPECT_EQ(fixed, std::vector<short>(32, 7));
                EXPECT_EQ(scale, 3);
                reports.clear();
            });
        EXPECT_EQ(std::size_t(failures), c.reports.size());
        EXPECT_NE(c.isFixed ? float(fixed[0]) : spectrum[0], 7.0f);
    }
}

} // namespace
