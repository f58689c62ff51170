// Conversions, powers of two and orders, against references written with long double and plain
// loops.
#include "frame/KT_CONVERT.h"
#include "support/every_level.h"
#include "support/guarded.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <climits>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <random>
#include <vector>

namespace {

constexpr int refused = 0x7FFFFFFF;
constexpr float floatInf = std::numeric_limits<float>::infinity();
constexpr float floatNan = std::numeric_limits<float>::quiet_NaN();

// --- one name for the four block and single forms ---

void down(const float* s, short* d, int n, int mode, int* scale) {
    KTswbConvertDown(s, d, n, mode, scale);
}
void down(const double* s, short* d, int n, int mode, int* scale) {
    KTdwbConvertDown(s, d, n, mode, scale);
}
void down(const float* s, int* d, int n, int mode, int* scale) {
    KTsibConvertDown(s, d, n, mode, scale);
}
void down(const double* s, int* d, int n, int mode, int* scale) {
    KTdibConvertDown(s, d, n, mode, scale);
}
void down(float v, short& d, int mode, int* scale) {
    d = KTswConvertDown(v, mode, scale);
}
void down(double v, short& d, int mode, int* scale) {
    d = KTdwConvertDown(v, mode, scale);
}
void down(float v, int& d, int mode, int* scale) {
    d = KTsiConvertDown(v, mode, scale);
}
void down(double v, int& d, int mode, int* scale) {
    d = KTdiConvertDown(v, mode, scale);
}
void up(const short* s, float* d, int n, int scale) {
    KTwsbConvertUp(s, d, n, scale);
}
void up(const short* s, double* d, int n, int scale) {
    KTwdbConvertUp(s, d, n, scale);
}
void up(const int* s, float* d, int n, int scale) {
    KTisbConvertUp(s, d, n, scale);
}
void up(const int* s, double* d, int n, int scale) {
    KTidbConvertUp(s, d, n, scale);
}

// --- the plain reference ---

// 2^exponent as the library defines it: infinite from 1024 on.
double power(std::int64_t exponent) {
    return exponent >= 1024 ? std::numeric_limits<double>::infinity()
                            : std::ldexp(1.0, int(std::max<std::int64_t>(exponent, -1100)));
}

template <class Dst>
Dst truncatedValue(double value) {
    const double whole = std::trunc(value);
    const bool fits = whole >= double(std::numeric_limits<Dst>::min()) &&
                      whole <= double(std::numeric_limits<Dst>::max());
    return fits ? Dst(whole) : std::numeric_limits<Dst>::min(); // a not-a-number does not fit
}

template <class Dst>
Dst clampedValue(double value) {
    if (std::isnan(value)) return std::numeric_limits<Dst>::min();
    return truncatedValue<Dst>(std::fmin(std::fmax(value, double(std::numeric_limits<Dst>::min())),
                                         double(std::numeric_limits<Dst>::max())));
}

// The order by its definition, for finite normal values and zeros.
int orderOf(const std::vector<float>& v) {
    int order = -126;
    for (float x : v) {
        if (!std::isfinite(x)) return 129;
        if (std::fabs(x) >= std::numeric_limits<float>::min())
            order = std::max(order, std::ilogb(x) + 1);
    }
    return order;
}
int orderOf(const std::vector<double>& v) {
    int order = -1022;
    for (double x : v) {
        if (!std::isfinite(x)) return 1025;
        if (std::fabs(x) >= std::numeric_limits<double>::min())
            order = std::max(order, std::ilogb(x) + 1);
    }
    return order;
}

struct Limits {
    int upper, lower;
};

template <class Src, class Dst>
std::vector<Dst> referenceDown(const std::vector<Src>& src, int mode, int& scale, Limits limits) {
    const int bits = sizeof(Dst) == 2 ? 15 : 31;
    std::vector<Dst> dst(src.size(), 0);
    if (mode == KT_AutoScale) {
        const int order = orderOf(src);
        scale = order > limits.upper ? refused : order < limits.lower ? 0 : order - bits;
        if (order > limits.upper || order < limits.lower) return dst;
    } else if (mode != KT_FixedScale) {
        scale = 0;
    }
    for (std::size_t i = 0; i < src.size(); ++i) {
        const double product = double(src[i]) * power(-std::int64_t(scale));
        dst[i] = mode == KT_NoScale || mode == KT_FixedScale || mode == KT_AutoScale
                     ? truncatedValue<Dst>(product)
                     : clampedValue<Dst>(product);
    }
    return dst;
}

template <class Src, class Dst>
Limits blockLimits() {
    return sizeof(Dst) == 2 ? Limits{128, -125} : Limits{1024, -1021};
}

template <class Src, class Dst>
void checkDown(const std::vector<Src>& src, int mode, int scale) {
    int wantedScale = scale;
    const std::vector<Dst> wanted =
        referenceDown<Src, Dst>(src, mode, wantedScale, blockLimits<Src, Dst>());
    support::Guarded<Dst> got(src.size(), Dst(77));
    int gotScale = scale;
    down(src.data(), got.data(), int(src.size()), mode, &gotScale);
    ASSERT_EQ(got.values(), wanted) << "mode " << mode << " scale " << scale;
    ASSERT_EQ(gotScale, wantedScale) << "mode " << mode;
    ASSERT_TRUE(got.intact());
}

// Values around everything that matters to a conversion: limits, fractions, extremes.
template <class Src>
std::vector<Src> trickyValues() {
    std::vector<Src> values;
    for (double base :
         {0.0,          0.25,         0.5,          1.0,          1.5,          2.0,
          100.75,       32766.5,      32767.0,      32767.5,      32767.9,      32768.0,
          32768.5,      32769.0,      40000.0,      65535.0,      65536.0,      131071.0,
          2147483392.0, 2147483520.0, 2147483647.0, 2147483647.5, 2147483648.0, 2147483649.0,
          4294967295.0, 4294967296.0, 1e10,         1e20,         1e38,         1e-10,
          1e-30,        1e-38,        1e-44})
        for (double sign : {1.0, -1.0})
            values.push_back(Src(sign * base));
    using Range = std::numeric_limits<Src>;
    for (Src v :
         {Range::infinity(), Range::quiet_NaN(), Range::max(), Range::min(), Range::denorm_min()}) {
        values.push_back(v);
        values.push_back(-v);
    }
    return values;
}

template <class Src>
std::vector<Src> randomValues(std::mt19937& random, std::size_t n, double spread) {
    std::uniform_real_distribution<double> mantissa(-1.0, 1.0), exponent(-spread, spread);
    std::vector<Src> values(n);
    for (Src& v : values)
        v = Src(mantissa(random) * std::exp2(exponent(random)));
    return values;
}

template <class Src, class Dst>
void checkDownEverywhere() {
    support::onEveryLevel([] {
        std::mt19937 random(11);
        const int modes[] = {KT_NoScale, KT_FixedScale, KT_AutoScale, KT_Saturate, 7, -1};
        for (std::size_t n = 0; n < 80; ++n)
            for (int mode : modes)
                if (n > 0 || mode != KT_AutoScale)
                    checkDown<Src, Dst>(randomValues<Src>(random, n, 20.0), mode,
                                        int(random() % 41) - 20);
        for (int mode : modes)
            for (int scale : {0,    1,     -1,   14,    -14,     100,      -100,   126,  127,
                              128,  -127,  -128, 160,   -160,    300,      -300,   1023, -1023,
                              1024, -1024, 1100, -1100, INT_MAX, -INT_MAX, INT_MIN}) {
                checkDown<Src, Dst>(trickyValues<Src>(), mode, scale);
                checkDown<Src, Dst>(randomValues<Src>(random, 100, 120.0), mode, scale);
            }
    });
}

TEST(ConvertDown, BlocksEqualTheReference) {
    checkDownEverywhere<float, short>();
    checkDownEverywhere<double, short>();
    checkDownEverywhere<float, int>();
    checkDownEverywhere<double, int>();
}

TEST(ConvertDown, EveryFloatExponentUnderEveryMode) {
    support::onEveryLevel([] {
        std::mt19937 random(5);
        for (std::uint32_t exponent = 0; exponent < 256; ++exponent)
            for (std::uint32_t sign : {0u, 1u}) {
                std::vector<float> src;
                for (int i = 0; i < 40; ++i)
                    src.push_back(std::bit_cast<float>(sign << 31 | exponent << 23 |
                                                       (std::uint32_t(random()) & 0x7FFFFFu)));
                for (int mode : {KT_NoScale, KT_FixedScale, KT_AutoScale, KT_Saturate}) {
                    checkDown<float, short>(src, mode, int(exponent) - 140);
                    checkDown<float, int>(src, mode, int(exponent) - 155);
                }
            }
    });
}

// All short values and the halves beside them pass through a saturating conversion as truncation
// says.
TEST(ConvertDown, EveryShortAndTheFractionsBesideIt) {
    support::onEveryLevel([] {
        std::vector<float> src;
        for (int v = -33000; v <= 33000; ++v)
            for (float fraction : {-0.5f, 0.0f, 0.5f})
                src.push_back(float(v) + fraction);
        checkDown<float, short>(src, KT_Saturate, 0);
        checkDown<float, short>(src, KT_NoScale, 0);
    });
}

// Long arrays are looked through for such values, short ones are not; neither their place nor the
// length may show.
TEST(ConvertDown, LongArraysWithOneValueBeyondTheRange) {
    support::onEveryLevel([] {
        std::mt19937 random(31);
        for (std::size_t n : {64u, 127u, 128u, 129u, 1000u, 2048u, 2049u, 5000u})
            for (float odd : {32768.5f, 40000.0f, -40000.0f, 2147483648.0f, 1e10f, -1e10f,
                              -2147483648.0f, floatInf, floatNan})
                for (std::size_t at : {std::size_t{0}, n / 2, n - n / 8 - 1, n - 1}) {
                    std::vector<float> src = randomValues<float>(random, n, 10.0);
                    src[at] = odd;
                    for (int mode : {KT_NoScale, KT_Saturate})
                        checkDown<float, short>(src, mode, 0);
                }
    });
}

TEST(ConvertDown, AutoScaleFillsSixteenBits) {
    const float src[2] = {0.5f, -0.25f};
    short dst[2];
    int scale = 99;
    KTswbConvertDown(src, dst, 2, KT_AutoScale, &scale);
    EXPECT_EQ(dst[0], 16384);
    EXPECT_EQ(dst[1], -8192);
    EXPECT_EQ(scale, -15);
}

TEST(ConvertDown, AutoScaleOfZerosIsZero) {
    const float src[3] = {};
    short dst[3] = {1, 2, 3};
    int scale = 99;
    KTswbConvertDown(src, dst, 3, KT_AutoScale, &scale);
    EXPECT_EQ(dst[0] | dst[1] | dst[2], 0);
    EXPECT_EQ(scale, 0);
}

TEST(ConvertDown, AutoScaleRefusesAnInfinity) {
    const float src[3] = {1.0f, floatInf, 2.0f};
    short dst[3] = {1, 2, 3};
    int scale = 99;
    KTswbConvertDown(src, dst, 3, KT_AutoScale, &scale);
    EXPECT_EQ(dst[0] | dst[1] | dst[2], 0);
    EXPECT_EQ(scale, 2147483647);
}

TEST(ConvertDown, AutoScaleLeavesTheTopBitOfOneFree) {
    const float src[2] = {1.0f, -1.0f};
    short dst[2];
    int scale = 99;
    KTswbConvertDown(src, dst, 2, KT_AutoScale, &scale);
    EXPECT_EQ(dst[0], 16384);
    EXPECT_EQ(dst[1], -16384);
    EXPECT_EQ(scale, -14);
}

// The order counts magnitudes: -32768 would fit, and is not reached.
TEST(ConvertDown, AutoScaleDoesNotReachTheMostNegativeValue) {
    const float src[2] = {-1.0f, 0.5f};
    short dst[2];
    int scale = 7;
    KTswbConvertDown(src, dst, 2, KT_AutoScale, &scale);
    EXPECT_EQ(scale, -14);
    EXPECT_EQ(dst[0], -16384);
    EXPECT_EQ(dst[1], 8192);
}

TEST(ConvertDown, AutoScaleToIntegersHasLimitsOfItsOwn) {
    const float zeros[2] = {};
    int dst[2] = {5, 5};
    int scale = 99;
    KTsibConvertDown(zeros, dst, 2, KT_AutoScale, &scale);
    EXPECT_EQ(scale, -157);
    EXPECT_EQ(dst[0] | dst[1], 0);

    const float infinite[2] = {floatInf, 1.0f}; // order 129, not refused: factor 2^-98
    KTsibConvertDown(infinite, dst, 2, KT_AutoScale, &scale);
    EXPECT_EQ(scale, 98);
    EXPECT_EQ(dst[0], INT_MIN);
    EXPECT_EQ(dst[1], 0);

    const double small[1] = {1e-50}, large[1] = {1e50};
    short narrow[1] = {5};
    KTdwbConvertDown(small, narrow, 1, KT_AutoScale, &scale);
    EXPECT_EQ(narrow[0], 0);
    EXPECT_EQ(scale, 0);
    KTdwbConvertDown(large, narrow, 1, KT_AutoScale, &scale);
    EXPECT_EQ(narrow[0], 0);
    EXPECT_EQ(scale, refused);
    KTdibConvertDown(large, dst, 1, KT_AutoScale, &scale);
    EXPECT_EQ(scale, 167 - 31);
    EXPECT_EQ(dst[0], int(std::ldexp(1e50, 31 - 167)));
}

TEST(ConvertDown, SaturationClampsThenTruncates) {
    const float src[5] = {40000.0f, -40000.0f, 32767.9f, -32768.9f, floatNan};
    for (int mode : {KT_Saturate, 7}) {
        short dst[5];
        int scale = 99;
        KTswbConvertDown(src, dst, 5, mode, &scale);
        EXPECT_EQ(dst[0], 32767);
        EXPECT_EQ(dst[1], -32768);
        EXPECT_EQ(dst[2], 32767);
        EXPECT_EQ(dst[3], -32768);
        EXPECT_EQ(dst[4], -32768);
        EXPECT_EQ(scale, 0);
    }
}

TEST(ConvertDown, OutOfRangeInABlockIsTheMostNegativeValue) {
    const float src[4] = {40000.0f, -40000.0f, floatNan, -floatInf};
    short dst[4];
    KTswbConvertDown(src, dst, 4, KT_NoScale, nullptr);
    for (short v : dst)
        EXPECT_EQ(v, -32768);
    int scale = -1; // 20000 * 2
    const float doubled[1] = {20000.0f};
    KTswbConvertDown(doubled, dst, 1, KT_FixedScale, &scale);
    EXPECT_EQ(dst[0], -32768);
    EXPECT_EQ(scale, -1);
}

TEST(ConvertDown, ANullScaleStandsForZero) {
    const float src[2] = {3.75f, -3.75f};
    for (int mode : {KT_NoScale, KT_FixedScale, KT_Saturate}) {
        short dst[2];
        KTswbConvertDown(src, dst, 2, mode, nullptr);
        EXPECT_EQ(dst[0], 3);
        EXPECT_EQ(dst[1], -3);
        EXPECT_EQ(KTswConvertDown(3.75f, mode, nullptr), 3);
    }
    short dst[2];
    KTswbConvertDown(src, dst, 2, KT_AutoScale, nullptr);
    EXPECT_EQ(dst[0], 30720); // order 2, factor 2^13
    EXPECT_EQ(KTswConvertDown(3.75f, KT_AutoScale, nullptr), 30720);
}

TEST(ConvertDown, NoElementsWriteNothing) {
    support::onEveryLevel([] {
        for (int mode : {KT_NoScale, KT_FixedScale, KT_AutoScale, KT_Saturate})
            for (int n : {0, -1, INT_MIN}) {
                short dst = 77;
                int wide = 77, scale = 0;
                KTswbConvertDown(nullptr, &dst, n, mode, &scale);
                KTdwbConvertDown(nullptr, &dst, n, mode, &scale);
                KTsibConvertDown(nullptr, &wide, n, mode, &scale);
                KTdibConvertDown(nullptr, &wide, n, mode, &scale);
                EXPECT_EQ(dst, 77);
                EXPECT_EQ(wide, 77);
            }
        float value = 5.0f;
        KTwsbConvertUp(nullptr, &value, 0, 3);
        KTisbConvertUp(nullptr, &value, -7, 3);
        EXPECT_EQ(value, 5.0f);
    });
}

// --- single values ---

// Magnitudes below 2^31 only: nothing is settled beyond.
template <class Dst>
Dst wrappedValue(double value) {
    const auto magnitude = static_cast<long long>(std::trunc(std::fabs(value)));
    const long long kept =
        sizeof(Dst) == 2 ? static_cast<std::int16_t>(magnitude & 0xFFFF) : magnitude;
    return static_cast<Dst>(value < 0 ? -kept : kept);
}

template <class Src, class Dst>
void checkValues(Limits limits) {
    std::mt19937 random(21);
    std::vector<Src> values = randomValues<Src>(random, 5000, 40.0);
    for (Src v : trickyValues<Src>())
        values.push_back(v);
    for (Src v : values)
        for (int mode : {KT_NoScale, KT_FixedScale, KT_AutoScale, KT_Saturate, 4, -3})
            for (int given : {0, 3, -3, 40, -40}) {
                int scale = given, wantedScale = given;
                Dst got;
                down(v, got, mode, &scale);
                const auto truncating = referenceDown<Src, Dst>({v}, mode, wantedScale, limits);
                ASSERT_EQ(scale, wantedScale) << v << " mode " << mode;
                const double product = double(v) * power(-std::int64_t(wantedScale));
                const bool saturates = mode < 0 || mode > 2;
                if (saturates && std::isnan(v)) continue;
                if (saturates || wantedScale == refused ||
                    (mode == KT_AutoScale && wantedScale == 0 && truncating[0] == 0))
                    ASSERT_EQ(got, truncating[0]) << v << " mode " << mode;
                else if (std::fabs(product) < 0x1p31)
                    ASSERT_EQ(got, wrappedValue<Dst>(product))
                        << v << " mode " << mode << " scale " << given;
                else
                    ASSERT_EQ(got, std::numeric_limits<Dst>::min()) << v;
            }
}

TEST(ConvertValueDown, EqualsTheReferenceWithTheLimitsOfEachFunction) {
    checkValues<float, short>({128, -125});
    checkValues<double, short>({1024, -1021});
    checkValues<float, int>({128, -125});
    checkValues<double, int>({128, -125});
}

TEST(ConvertValueDown, WrapsWhereTheBlockFormDoesNot) {
    EXPECT_EQ(KTswConvertDown(40000.0f, KT_NoScale, nullptr), -25536);
    EXPECT_EQ(KTswConvertDown(-40000.0f, KT_NoScale, nullptr), 25536);
    EXPECT_EQ(KTdwConvertDown(65536.0 + 5.5, KT_NoScale, nullptr), 5);
    EXPECT_EQ(KTdwConvertDown(-32768.0, KT_NoScale, nullptr), -32768);
    EXPECT_EQ(KTdiConvertDown(-2147483647.5, KT_NoScale, nullptr), -2147483647);
}

TEST(ConvertValueDown, BelowOneIsZero) {
    EXPECT_EQ(KTswConvertDown(0.999f, KT_NoScale, nullptr), 0);
    EXPECT_EQ(KTdiConvertDown(-0.999999999, KT_NoScale, nullptr), 0);
}

TEST(ConvertValueDown, SaturationComparesFirst) {
    int scale = 9;
    EXPECT_EQ(KTswConvertDown(32767.9f, KT_Saturate, &scale), 32767);
    EXPECT_EQ(scale, 0);
    EXPECT_EQ(KTswConvertDown(-1e30f, 7, &scale), -32768);
    EXPECT_EQ(KTsiConvertDown(3e9f, KT_Saturate, &scale), INT_MAX);
    EXPECT_EQ(KTdiConvertDown(-3e9, KT_Saturate, &scale), INT_MIN);
    EXPECT_EQ(KTdwConvertDown(12345.999, KT_Saturate, &scale), 12345);
}

TEST(ConvertValueDown, AutoScaleLimitsDifferByFunction) {
    int scale = 9;
    EXPECT_EQ(KTdiConvertDown(1e-50, KT_AutoScale, &scale), 0);
    EXPECT_EQ(scale, 0);
    EXPECT_EQ(KTdwConvertDown(std::ldexp(0.75, -165), KT_AutoScale, &scale), 24576);
    EXPECT_EQ(scale, -180);
    EXPECT_EQ(KTdiConvertDown(1e50, KT_AutoScale, &scale), 0);
    EXPECT_EQ(scale, refused);
    EXPECT_EQ(KTsiConvertDown(floatInf, KT_AutoScale, &scale), 0);
    EXPECT_EQ(scale, refused);
    EXPECT_EQ(KTswConvertDown(floatNan, KT_AutoScale, &scale), 0);
    EXPECT_EQ(scale, refused);
}

// --- upward ---

template <class Src, class Dst>
void checkUp(const std::vector<Src>& src, int scale) {
    support::Guarded<Dst> got(src.size(), Dst(-1));
    up(src.data(), got.data(), int(src.size()), scale);
    for (std::size_t i = 0; i < src.size(); ++i) {
        const Dst wanted = Dst(double(src[i]) * power(-std::int64_t(scale)));
        if (std::isnan(wanted))
            ASSERT_TRUE(std::isnan(got[i]));
        else
            ASSERT_EQ(got[i], wanted) << src[i] << " scale " << scale;
    }
    ASSERT_TRUE(got.intact());
}

TEST(ConvertUp, EveryShortAtManyScales) {
    std::vector<short> all;
    for (int v = -32768; v <= 32767; ++v)
        all.push_back(short(v));
    support::onEveryLevel([&] {
        for (int scale :
             {0,    1,    -1,   15,   -15,  100,   -100,  126,  127,  149,     160,    -112,
              -113, -127, -128, -160, 1023, -1023, -1024, 1074, 1100, INT_MAX, INT_MIN}) {
            checkUp<short, float>(all, scale);
            checkUp<short, double>(all, scale);
        }
    });
}

TEST(ConvertUp, IntegersAreRoundedOnce) {
    std::mt19937 random(3);
    support::onEveryLevel([&] {
        for (int n = 0; n < 60; ++n)
            for (int scale : {0,   1,   -1,  31,  -31, 100, 126,  127,  140,  150,
                              160, 170, 180, -96, -97, -98, -127, -128, 1000, -1000}) {
                std::vector<int> src(std::size_t(n), 0);
                for (int& v : src)
                    v = static_cast<int>(random()) >> (random() % 31);
                if (n > 2) src[0] = INT_MIN, src[1] = INT_MAX;
                checkUp<int, float>(src, scale);
                checkUp<int, double>(src, scale);
            }
    });
}

TEST(ConvertUp, SingleValuesKeepFullPrecisionUnderBothNames) {
    EXPECT_EQ(KTwdConvertUp(-3, 1), -1.5);
    EXPECT_EQ(KTwsConvertUp(-3, 1), -1.5);
    EXPECT_EQ(KTidConvertUp(2147483647, 0), 2147483647.0);
    EXPECT_EQ(KTisConvertUp(2147483647, 0), 2147483647.0); // a float would round it to 2^31
    EXPECT_EQ(KTisConvertUp(INT_MIN, -2), -8589934592.0);
}

TEST(ConvertUp, RestoresWithTheNegatedScale) {
    const float src[4] = {0.5f, -0.25f, 0.125f, 0.4375f};
    short mantissa[4];
    float back[4];
    int scale = 0;
    KTswbConvertDown(src, mantissa, 4, KT_AutoScale, &scale);
    KTwsbConvertUp(mantissa, back, 4, -scale);
    for (int i = 0; i < 4; ++i)
        EXPECT_EQ(back[i], src[i]);
}

// --- in place: source and destination start together ---

// The bytes of an array that is converted where it stands.
template <class Src, class Dst>
class SharedArray {
public:
    explicit SharedArray(const std::vector<Src>& src) : bytes(src.size() * larger + margin, 0xA5) {
        std::memcpy(bytes.data(), src.data(), src.size() * sizeof(Src));
    }
    const Src* source() const { return reinterpret_cast<const Src*>(bytes.data()); }
    Dst* destination() { return reinterpret_cast<Dst*>(bytes.data()); }
    std::vector<Dst> result(std::size_t n) const {
        std::vector<Dst> values(n);
        std::memcpy(values.data(), bytes.data(), n * sizeof(Dst));
        return values;
    }
    // Whether nothing was written behind the larger of the two arrays.
    bool intact() const {
        return std::all_of(bytes.end() - margin, bytes.end(),
                           [](unsigned char b) { return b == 0xA5; });
    }

private:
    static constexpr std::size_t larger = std::max(sizeof(Src), sizeof(Dst));
    static constexpr std::ptrdiff_t margin = 256;
    std::vector<unsigned char> bytes;
};

template <class Src, class Dst>
void checkDownInPlace(const std::vector<Src>& src, int mode) {
    const int n = int(src.size());
    int wantedScale = 3, gotScale = 3;
    std::vector<Dst> wanted(src.size());
    down(src.data(), wanted.data(), n, mode, &wantedScale);
    SharedArray<Src, Dst> shared(src);
    down(shared.source(), shared.destination(), n, mode, &gotScale);
    ASSERT_EQ(shared.result(src.size()), wanted) << "mode " << mode << " n " << n;
    ASSERT_EQ(gotScale, wantedScale);
    ASSERT_TRUE(shared.intact());
}

template <class Src, class Dst>
void checkUpInPlace(const std::vector<Src>& src, int scale) {
    const int n = int(src.size());
    std::vector<Dst> wanted(src.size());
    up(src.data(), wanted.data(), n, scale);
    SharedArray<Src, Dst> shared(src);
    up(shared.source(), shared.destination(), n, scale);
    ASSERT_EQ(shared.result(src.size()), wanted) << "scale " << scale << " n " << n;
    ASSERT_TRUE(shared.intact());
}

constexpr int inPlaceLengths[] = {0,  1,  2,  3,   5,   15,  16,   17,   31,
                                  63, 64, 65, 127, 130, 257, 1023, 4096, 4099};

// Ordinary values with a few that 16 and 32 bits do not hold, early and late.
template <class Src>
std::vector<Src> wideValues(int n, bool finite) {
    std::mt19937 random(static_cast<unsigned>(n + 7));
    std::uniform_real_distribution<double> uniform(-30000, 30000);
    std::vector<Src> values(std::size_t(n), Src(0));
    for (Src& v : values)
        v = Src(uniform(random));
    const double odd[] = {0x1p31,   -0x1p33,           40000.0, finite ? 1e20 : HUGE_VAL,
                          -40000.0, finite ? 2.0 : NAN};
    for (int i = 0; i < 6 && n > 2; ++i)
        values[random() % values.size()] = Src(odd[i]);
    return values;
}

TEST(ConvertInPlace, DownInEveryModeAndLength) {
    support::onEveryLevel([] {
        for (int n : inPlaceLengths)
            for (bool finite : {true, false})
                for (int mode : {KT_NoScale, KT_FixedScale, KT_AutoScale, KT_Saturate, 7}) {
                    checkDownInPlace<float, short>(wideValues<float>(n, finite), mode);
                    checkDownInPlace<double, short>(wideValues<double>(n, finite), mode);
                    checkDownInPlace<float, int>(wideValues<float>(n, finite), mode);
                    checkDownInPlace<double, int>(wideValues<double>(n, finite), mode);
                }
    });
}

TEST(ConvertInPlace, SaturationWithOneValueBeyondThe32BitsOfALongBlock) {
    support::onEveryLevel([] {
        for (std::size_t at : {0u, 100u, 2000u, 4095u}) {
            std::vector<float> src(4096);
            for (std::size_t i = 0; i < src.size(); ++i)
                src[i] = float(i) - 2048.0f;
            src[at] = 0x1p31f;
            SharedArray<float, short> shared(src);
            KTswbConvertDown(shared.source(), shared.destination(), 4096, KT_Saturate, nullptr);
            const std::vector<short> got = shared.result(src.size());
            for (std::size_t i = 0; i < src.size(); ++i)
                ASSERT_EQ(got[i], i == at ? 32767 : short(int(i) - 2048)) << i;
        }
    });
}

TEST(ConvertInPlace, UpAtManyScalesAndLengths) {
    std::mt19937 random(5);
    support::onEveryLevel([&] {
        for (int n : inPlaceLengths) {
            std::vector<short> words(std::size_t(n), 0);
            std::vector<int> integers(std::size_t(n), 0);
            for (short& v : words)
                v = short(random());
            for (int& v : integers)
                v = int(random());
            for (int scale : {0, 15, -15, 126, 149, -127}) {
                checkUpInPlace<short, float>(words, scale);
                checkUpInPlace<short, double>(words, scale);
                checkUpInPlace<int, float>(integers, scale);
                checkUpInPlace<int, double>(integers, scale);
            }
        }
    });
}

// --- helpers ---

TEST(Power2, IsExactOverTheWholeDoubleRange) {
    for (int e = -1200; e <= 1100; ++e)
        ASSERT_EQ(KTPower2(e), e >= 1024 ? HUGE_VAL : std::ldexp(1.0, e)) << e;
    EXPECT_EQ(KTPower2(1024), HUGE_VAL);
    EXPECT_EQ(KTPower2(-1), 0.5);
    EXPECT_EQ(KTPower2(INT_MAX), HUGE_VAL);
    EXPECT_EQ(KTPower2(INT_MIN), 0.0);
}

TEST(MaxOrder, FloatFollowsTheExponentField) {
    support::onEveryLevel([] {
        const auto orderOfOne = [](float v) { return KTsMaxOrder(&v, 1); };
        EXPECT_EQ(orderOfOne(0.0f), -126);
        EXPECT_EQ(orderOfOne(-0.0f), -126);
        EXPECT_EQ(orderOfOne(1e-44f), -126);
        EXPECT_EQ(orderOfOne(1.0f), 1);
        EXPECT_EQ(orderOfOne(0.75f), 0);
        EXPECT_EQ(orderOfOne(-floatInf), 129);
        EXPECT_EQ(orderOfOne(floatNan), 129);
        EXPECT_EQ(orderOfOne(std::numeric_limits<float>::max()), 128);
        EXPECT_EQ(KTsMaxOrder(nullptr, 0), -126);
    });
}

// The largest element is found at every place of arrays of every length.
TEST(MaxOrder, FindsTheLargestEverywhere) {
    support::onEveryLevel([] {
        for (int n = 1; n < 300; ++n)
            for (int at : {0, n / 3, n / 2, n - 1}) {
                std::vector<float> f(std::size_t(n), 0.3f);
                std::vector<double> d(std::size_t(n), 0.3);
                std::vector<short> w(std::size_t(n), 3);
                std::vector<int> i(std::size_t(n), -3);
                f[std::size_t(at)] = -1000.0f, d[std::size_t(at)] = -1e200,
                w[std::size_t(at)] = -1000, i[std::size_t(at)] = 70000;
                ASSERT_EQ(KTsMaxOrder(f.data(), n), 10);
                ASSERT_EQ(KTdMaxOrder(d.data(), n), std::ilogb(1e200) + 1);
                ASSERT_EQ(KTwMaxOrder(w.data(), n), 10);
                ASSERT_EQ(KTiMaxOrder(i.data(), n), 17);
            }
    });
}

TEST(MaxOrder, DoubleAndIntegerEdges) {
    support::onEveryLevel([] {
        const double inf = HUGE_VAL, zero = 0.0, one = 1.0;
        EXPECT_EQ(KTdMaxOrder(&inf, 1), 1025);
        EXPECT_EQ(KTdMaxOrder(&zero, 1), -1022);
        EXPECT_EQ(KTdMaxOrder(&one, 1), 1);
        EXPECT_EQ(KTdMaxOrder(nullptr, 0), 0);
        EXPECT_EQ(KTdMaxOrder(nullptr, -4), 0);
        EXPECT_EQ(KTiMaxOrder(nullptr, 0), 0);
        EXPECT_EQ(KTwMaxOrder(nullptr, 0), 0);
        const int lowest = INT_MIN;
        EXPECT_EQ(KTiMaxOrder(&lowest, 1), 32);
    });
}

TEST(MaxOrder, EveryShort) {
    support::onEveryLevel([] {
        for (int v = -32768; v <= 32767; ++v) {
            int wanted = 0;
            while (wanted < 16 && std::abs(v) >= (1 << wanted))
                ++wanted;
            const short value = short(v);
            ASSERT_EQ(KTwMaxOrder(&value, 1), wanted) << v;
            const short many[70] = {0, value};
            ASSERT_EQ(KTwMaxOrder(many, 70), wanted) << v;
        }
        const short lowest = -32768, zero = 0;
        EXPECT_EQ(KTwMaxOrder(&lowest, 1), 16);
        EXPECT_EQ(KTwMaxOrder(&zero, 1), 0);
    });
}

TEST(MaxMatrixOrder, RunsOverTheRows) {
    float a[3] = {0.1f, 0.2f, 0.3f}, b[3] = {9.0f, 0.0f, 0.0f};
    float* rows[2] = {a, b};
    EXPECT_EQ(KTsMaxMatrixOrder(rows, 2, 3), 4);
    EXPECT_EQ(KTsMaxMatrixOrder(rows, 1, 3), -1);
    EXPECT_EQ(KTsMaxMatrixOrder(rows, 2, 0), 0);
    EXPECT_EQ(KTsMaxMatrixOrder(nullptr, 0, 3), 0);
    EXPECT_EQ(KTsMaxMatrixOrder(nullptr, -1, -1), 0);
    short c[2] = {1, -2}, d[2] = {0, 64};
    short* shortRows[2] = {c, d};
    EXPECT_EQ(KTwMaxMatrixOrder(shortRows, 2, 2), 7);
    EXPECT_EQ(KTwMaxMatrixOrder(shortRows, 1, 2), 2);
    EXPECT_EQ(KTwMaxMatrixOrder(nullptr, 5, 0), 0);
    float zeros[2] = {};
    float* zeroRows[1] = {zeros};
    short noughts[2] = {};
    short* noughtRows[1] = {noughts};
    EXPECT_EQ(KTsMaxMatrixOrder(zeroRows, 1, 2), -126);
    EXPECT_EQ(KTwMaxMatrixOrder(noughtRows, 1, 2), 0);
}

} // namespace
