// Arrays and values from one numeric form into the other, by powers of two. Every factor is exact,
// down to the denormals, so that a conversion rounds once at most; how far a result may go, and
// what becomes of what does not fit, is the scale mode's matter.
#include "frame/KT_CONVERT.h"
#include "frame/numeric.h"

#include "levels/levels.h"

#include <algorithm>
#include <array>
#include <bit>
#include <climits>
#include <cstdint>
#include <limits>

namespace {

// --- powers of two ---

constexpr int highestExponent = 1087; // KTPower2 takes its exponent apart as 1087 - 64 i - j
constexpr int smallestExponent = -1087, infiniteExponent = 1024;

constexpr std::array<float, 64> negativePowers() {
    std::array<float, 64> low{};
    float power = 1.0f;
    for (float& entry : low) {
        entry = power;
        power *= 0.5f;
    }
    return low;
}

// 2^(1087 - 64 i). Only entry 0 lies beyond the doubles; from 1 on each is the one before times
// 2^-64, exact down to the last, the denormal 2^-1025.
constexpr std::array<double, 34> highPowers() {
    std::array<double, 34> high{};
    high[0] = std::numeric_limits<double>::infinity();
    double power = 0x1p1023;
    for (unsigned i = 1; i < high.size(); ++i) {
        high[i] = power;
        power *= 0x1p-64;
    }
    return high;
}

constexpr auto low = negativePowers();
constexpr auto high = highPowers();
static_assert(low[63] == 0x1p-63f && high[1] == 0x1p1023 && high[17] == 0.5 &&
              high[33] == 0x1p-1025);

// --- orders ---

constexpr int floatOrderBias = 126, doubleOrderBias = 1022;

// The position of the highest set bit plus 1; 0 for 0.
int orderOfBits(unsigned bits) {
    return static_cast<int>(std::bit_width(bits));
}

int maxOrder(const float* src, int n) {
    return KTsMaxOrder(src, n);
}
int maxOrder(const double* src, int n) {
    return KTdMaxOrder(src, n);
}
int maxOrder(const short* src, int n) {
    return KTwMaxOrder(src, n);
}

template <class T>
int maxMatrixOrder(T** rows, int nRows, int nCols) {
    if (nRows <= 0 || nCols <= 0) return 0;
    int order = maxOrder(rows[0], nCols);
    for (int row = 1; row < nRows; ++row)
        order = std::max(order, maxOrder(rows[row], nCols));
    return order;
}

// --- downward ---

// The orders that automatic scaling accepts. They belong to the function and not to its source
// type: callers see that KTsibConvertDown lets an infinity through and gives an all-zero array a
// scale.
struct OrderLimits {
    int upper; // an order above it is refused
    int lower; // an order below it counts as zero
};
constexpr OrderLimits narrowLimits{128, -125};
constexpr OrderLimits wideLimits{1024, -1021};

constexpr int refusedScale = 0x7FFFFFFF;

// The bits that a full-scale magnitude fills.
template <class Dst>
constexpr int magnitudeBits = std::numeric_limits<Dst>::digits;

void truncateBlock(const float* src, short* dst, int n, double factor) {
    vsq::kernels().cvrts->truncateFloatToShort(src, dst, n, factor);
}
void truncateBlock(const double* src, short* dst, int n, double factor) {
    vsq::kernels().cvrts->truncateDoubleToShort(src, dst, n, factor);
}
void truncateBlock(const float* src, int* dst, int n, double factor) {
    vsq::kernels().cvrts->truncateFloatToInt(src, dst, n, factor);
}
void truncateBlock(const double* src, int* dst, int n, double factor) {
    vsq::kernels().cvrts->truncateDoubleToInt(src, dst, n, factor);
}

void clampBlock(const float* src, short* dst, int n) {
    vsq::kernels().cvrts->clampFloatToShort(src, dst, n);
}
void clampBlock(const double* src, short* dst, int n) {
    vsq::kernels().cvrts->clampDoubleToShort(src, dst, n);
}
void clampBlock(const float* src, int* dst, int n) {
    vsq::kernels().cvrts->clampFloatToInt(src, dst, n);
}
void clampBlock(const double* src, int* dst, int n) {
    vsq::kernels().cvrts->clampDoubleToInt(src, dst, n);
}

// The scale that automatic scaling finds: `usable` is false where the result is all zeros.
struct FoundScale {
    bool usable;
    int scale;
};

FoundScale findScale(int order, OrderLimits limits, int bits) {
    if (order > limits.upper) return {false, refusedScale};
    if (order < limits.lower) return {false, 0};
    return {true, order - bits};
}

template <class Src, class Dst>
void convertDown(const Src* src, Dst* dst, int n, int scaleMode, int* pScale, OrderLimits limits) {
    const ktl::CallScale callScale(pScale);
    int& scale = *callScale;
    if (scaleMode == KT_FixedScale) {
        truncateBlock(src, dst, n, ktl::factorOfScale(scale));
    } else if (scaleMode == KT_NoScale) {
        truncateBlock(src, dst, n, 1.0);
        scale = 0;
    } else if (scaleMode == KT_AutoScale) {
        const FoundScale found = findScale(maxOrder(src, n), limits, magnitudeBits<Dst>);
        if (found.usable)
            truncateBlock(src, dst, n, ktl::factorOfScale(found.scale));
        else
            std::fill_n(dst, std::max(n, 0), Dst(0));
        scale = found.scale;
    } else {
        clampBlock(src, dst, n);
        scale = 0;
    }
}

// Truncation of one value keeps the low bits of the magnitude that fit the target and then applies
// the sign. From 2^31 on, and for NaN, the result is the target's most negative value.
template <class Dst>
Dst truncateBits(double value) {
    const double magnitude = value < 0 ? -value : value;
    if (!(magnitude < 0x1p31)) return std::numeric_limits<Dst>::min();
    const auto bits = static_cast<std::uint32_t>(magnitude);
    return static_cast<Dst>(value < 0 ? 0u - bits : bits);
}

template <class Dst>
Dst clampValue(double value) {
    using Range = std::numeric_limits<Dst>;
    if (value < Range::min()) return Range::min();
    if (value > Range::max()) return Range::max();
    return truncateBits<Dst>(value);
}

template <class Dst, class Src>
Dst convertValueDown(Src value, int scaleMode, int* pScale, OrderLimits limits) {
    const ktl::CallScale callScale(pScale);
    int& scale = *callScale;
    if (scaleMode == KT_FixedScale) return truncateBits<Dst>(value * ktl::factorOfScale(scale));
    if (scaleMode == KT_AutoScale) {
        const FoundScale found = findScale(maxOrder(&value, 1), limits, magnitudeBits<Dst>);
        scale = found.scale;
        return found.usable ? truncateBits<Dst>(value * ktl::factorOfScale(found.scale)) : Dst(0);
    }
    scale = 0;
    return scaleMode == KT_NoScale ? truncateBits<Dst>(value) : clampValue<Dst>(value);
}

} // namespace

double KTPower2(int exponent) {
    const int k = highestExponent - std::clamp(exponent, smallestExponent, infiniteExponent);
    return high[static_cast<unsigned>(k >> 6)] * low[static_cast<unsigned>(k & 63)];
}

double ktl::factorOfScale(int scale) {
    return KTPower2(scale == INT_MIN ? INT_MAX : -scale);
}

int KTsMaxOrder(const float* pSrc, int n) {
    return vsq::kernels().cvrts->largestFloatExponent(pSrc, n) - floatOrderBias;
}

int KTdMaxOrder(const double* pSrc, int n) {
    return n < 1 ? 0 : vsq::kernels().cvrts->largestDoubleExponent(pSrc, n) - doubleOrderBias;
}

int KTwMaxOrder(const short* pSrc, int n) {
    return orderOfBits(vsq::kernels().cvrts->joinedShortMagnitudes(pSrc, n));
}

int KTiMaxOrder(const int* pSrc, int n) {
    return orderOfBits(vsq::kernels().cvrts->joinedIntMagnitudes(pSrc, n));
}

int KTsMaxMatrixOrder(float** ppRows, int nRows, int nCols) {
    return maxMatrixOrder(ppRows, nRows, nCols);
}
int KTwMaxMatrixOrder(short** ppRows, int nRows, int nCols) {
    return maxMatrixOrder(ppRows, nRows, nCols);
}

void KTswbConvertDown(const float* pSrc, short* pDst, int n, int scaleMode, int* pScale) {
    convertDown(pSrc, pDst, n, scaleMode, pScale, narrowLimits);
}
void KTdwbConvertDown(const double* pSrc, short* pDst, int n, int scaleMode, int* pScale) {
    convertDown(pSrc, pDst, n, scaleMode, pScale, narrowLimits);
}
void KTsibConvertDown(const float* pSrc, int* pDst, int n, int scaleMode, int* pScale) {
    convertDown(pSrc, pDst, n, scaleMode, pScale, wideLimits);
}
void KTdibConvertDown(const double* pSrc, int* pDst, int n, int scaleMode, int* pScale) {
    convertDown(pSrc, pDst, n, scaleMode, pScale, wideLimits);
}

short KTswConvertDown(float value, int scaleMode, int* pScale) {
    return convertValueDown<short>(value, scaleMode, pScale, narrowLimits);
}
short KTdwConvertDown(double value, int scaleMode, int* pScale) {
    return convertValueDown<short>(value, scaleMode, pScale, wideLimits);
}
int KTsiConvertDown(float value, int scaleMode, int* pScale) {
    return convertValueDown<int>(value, scaleMode, pScale, narrowLimits);
}
int KTdiConvertDown(double value, int scaleMode, int* pScale) {
    return convertValueDown<int>(value, scaleMode, pScale, narrowLimits);
}

void KTwsbConvertUp(const short* pSrc, float* pDst, int n, int scale) {
    vsq::kernels().cvrts->shortToFloat(pSrc, pDst, n, ktl::factorOfScale(scale));
}
void KTwdbConvertUp(const short* pSrc, double* pDst, int n, int scale) {
    vsq::kernels().cvrts->shortToDouble(pSrc, pDst, n, ktl::factorOfScale(scale));
}
void KTisbConvertUp(const int* pSrc, float* pDst, int n, int scale) {
    vsq::kernels().cvrts->intToFloat(pSrc, pDst, n, ktl::factorOfScale(scale));
}
void KTidbConvertUp(const int* pSrc, double* pDst, int n, int scale) {
    vsq::kernels().cvrts->intToDouble(pSrc, pDst, n, ktl::factorOfScale(scale));
}

double KTwdConvertUp(short value, int scale) {
    return value * ktl::factorOfScale(scale);
}
double KTidConvertUp(int value, int scale) {
    return value * ktl::factorOfScale(scale);
}
double KTwsConvertUp(short value, int scale) {
    return KTwdConvertUp(value, scale);
}
double KTisConvertUp(int value, int scale) {
    return KTidConvertUp(value, scale);
}
