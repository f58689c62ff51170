// The spectrum gain / |A(w)| of the all-pole model, A(z) = 1 - sum a[i] z^(-i), by direct
// evaluation where few coefficients meet a short spectrum and by a zero-padded real FFT of twice
// the length elsewhere.
#include "frontend/KT_LPSPE.h"

#include "frame/KT_ERROR.h"
#include "frame/scratch.h"

#include "levels/levels.h"
#include "vsq.h"

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <limits>

namespace {

constexpr ktl::Module module{"..\\_LIBSRC\\KT_LPSPE"};

constexpr int largestOrder = 30;

// By FFT order: up to this many coefficients the direct method is the faster one. Also the rows of
// its table.
constexpr signed char floatLimits[largestOrder + 1] = {0,  1,  3,  7,  9,  7,  7,  7,  22, 9,  9,
                                                       22, 22, 22, 22, 22, 22, 22, 22, 22, 22, 22,
                                                       22, 22, 22, 22, 22, 22, 22, 22, 22};
constexpr signed char fixedLimits[largestOrder + 1] = {0,  1,  3,  7,  15, 13, 11, 11, 11, 11, 12,
                                                       13, 12, 12, 12, 12, 13, 15, 17, 18, 19, 20,
                                                       21, 21, 21, 21, 21, 21, 21, 21, 21};

constexpr int mostDirect = 22; // the largest of the limits

// The Nyquist term comes in element 1.
constexpr int transformFlags = VSQ_Forw | VSQ_RCPerm;

// --- aligned areas inside plain blocks ---

constexpr std::size_t alignment = 32;

template <class T>
T* alignedArea(void* block) {
    return ktl::aligned<T>(block, alignment);
}

// --- twiddle tables ---

template <class T>
T twiddleValue(double value);
template <>
float twiddleValue(double value) {
    return static_cast<float>(value);
}
template <>
short twiddleValue(double value) {
    return static_cast<short>(16384.0 * value);
}

// The first row, of which the others are made: its second half mirrors the first, so that all rows
// are exactly symmetric.
template <class T>
void fillFirstRow(T* cosines, T* minusSines, int n) {
    const double step = 3.14159265358979323846 / n;
    for (int k = 0; k <= n / 2 && k < n; ++k) {
        const bool isQuarter = 2 * k == n;
        const T cosine = isQuarter ? T(0) : twiddleValue<T>(std::cos(k * step));
        const T minusSine = twiddleValue<T>(isQuarter ? -1.0 : -std::sin(k * step));
        cosines[k] = cosine;
        minusSines[k] = minusSine;
        if (k > 0) {
            cosines[n - k] = static_cast<T>(-cosine);
            minusSines[n - k] = minusSine;
        }
    }
}

// Angle i k pi / n: the first row at i k modulo n, negated after an odd number of half turns.
template <class T>
void fillRow(const T* first, T* row, int i, int n) {
    const auto turn = static_cast<unsigned>(2 * static_cast<std::uint32_t>(n) - 1);
    for (int k = 0; k < n; ++k) {
        const unsigned angle = static_cast<unsigned>(i) * static_cast<unsigned>(k) & turn;
        const bool isNegative = angle >= static_cast<unsigned>(n);
        const T* entry = first + (angle & (turn >> 1));
        row[k] = static_cast<T>(isNegative ? -entry[0] : entry[0]);
        row[n + k] = static_cast<T>(isNegative ? -entry[n] : entry[n]);
    }
}

template <class T>
void* calcTwiddle(int limit, int n, const char* funcName) {
    const auto rowLength = 2 * static_cast<std::int64_t>(n);
    const auto size =
        static_cast<std::int64_t>(sizeof(T)) * limit * rowLength + static_cast<int>(alignment);
    char* block = ktl::allocPlain<char>(size);
    if (block == nullptr) {
        module.report(KT_StsNoMem, "NULL Pointer", funcName);
        return nullptr;
    }
    T* const first = alignedArea<T>(block);
    if (limit > 0) fillFirstRow(first, first + n, n);
    for (int i = 2; i <= limit; ++i)
        fillRow(first, first + static_cast<std::ptrdiff_t>(rowLength) * (i - 1), i, n);
    return block;
}

// The table depends on the order alone, and yet belongs to one pair of order and number of
// coefficients.
template <class Calc>
bool renewTable(void*& table, int& order, int& length, int fftOrder, int nCoef, Calc calc) {
    if (order == fftOrder && length == nCoef) return true;
    length = 0;
    if (!ktl::renewBlock(table, order, fftOrder, std::free, calc)) return false;
    length = nCoef;
    return true;
}

// A work buffer of at least this order's size; there is none at first, though the stored order says
// 0.
bool growBuffer(void*& buffer, int& order, int fftOrder, std::int64_t size) {
    return (buffer != nullptr && order >= fftOrder) ||
           ktl::renewBlock(buffer, order, fftOrder, std::free,
                           [=] { return ktl::allocPlain<char>(size); });
}

// --- the transform's input ---

float sumOf(float a, float b) {
    return a + b;
}
short sumOf(short a, short b) {
    return static_cast<short>(std::clamp(a + b, -32768, 32767));
}

// By the kernels, which refuse a source that is not there.
void copyAll(const float* src, float* dst, int n) {
    vsqsbCopy(src, dst, n);
}
void copyAll(const short* src, short* dst, int n) {
    vsqwbCopy(src, dst, n);
}

// -1 (in the coefficients' scale) and the coefficients, one or more, padded with zeros to `length`.
// Coefficients beyond the length come round again, as their frequencies do.
template <class T>
void fillInput(T* v, T minusOne, const T* coef, int nCoef, std::int64_t length) {
    v[0] = minusOne;
    const std::int64_t direct = std::min<std::int64_t>(nCoef, length - 1);
    copyAll(coef, v + 1, static_cast<int>(direct));
    std::fill_n(v + 1 + direct, length - 1 - direct, T(0));
    for (std::int64_t i = direct; i < nCoef; ++i)
        v[(i + 1) % length] = sumOf(v[(i + 1) % length], coef[i]);
}

// --- from powers to the spectrum ---

void takeRoots(float* power, int n) {
    if (n > 0) vsqsbSqrt2(power, power, n);
}

void invert(float* magnitude, int n, float gain) {
    vsqsbInvThresh1(magnitude, n, 0.0f);
    vsqsbMpy1(gain, magnitude, n);
}

// --- float: magnitudes of A, false after a report ---

bool transformFloats(const float* coef, int nCoef, float* spec, int fftOrder) {
    KTContext* pKTContext = KTGetContext();
    const int n = 1 << fftOrder;
    if (!growBuffer(pKTContext->LP.sLPBuffer, pKTContext->LP.sBufferOrder, fftOrder,
                    std::int64_t(n) * 8 + 48)) {
        module.report(KT_StsNoMem, "insufficiency of memory for pointer  pKTContext->LP.sLPBuffer",
                      "KTsLPSpectrum");
        return false;
    }
    float* v = alignedArea<float>(pKTContext->LP.sLPBuffer);
    fillInput(v, -1.0f, coef, nCoef, 2 * std::int64_t(n));
    vsqsRealFftl(v, fftOrder + 1, transformFlags);
    if (KTGetStatus() < 0) {
        module.backtrace("KTsLPSpectrum");
        return false;
    }
    spec[0] = std::fabs(v[0]);
    if (n > 1) vsqcbPowerSpectr(v + 2, spec + 1, n - 1);
    takeRoots(spec + 1, n - 1);
    return true;
}

bool evaluateFloats(const float* coef, int nCoef, float* spec, int fftOrder) {
    auto& lp = KTGetContext()->LP;
    const int n = 1 << fftOrder;
    if (!renewTable(lp.sLPTwiddle, lp.sTwiddleOrder, lp.sTwiddleLen, fftOrder, nCoef,
                    [=] { return KTsCalcLPTwiddle(floatLimits[fftOrder], n); })) {
        module.report(KT_StsNoMem, "insufficiency of memory for pointer  pKTContext->LP.sLPTwiddle",
                      "KTsLPSpectrum");
        return false;
    }
    float own[mostDirect]; // the spectrum may take the place of the coefficients
    std::copy_n(coef, std::max(nCoef, 0), own);
    vsq::kernels().lpc->powerFloat(alignedArea<float>(lp.sLPTwiddle), n, own, nCoef, spec);
    takeRoots(spec, n);
    return true;
}

// --- fixed: the same, into the float area of the context's buffer ---

// -2^(-inScale), of which 16 bits are kept; where the scale leaves no such integer, 0.
short minusOneAt(int inScale) {
    return inScale < 1 && inScale > -16 ? static_cast<short>(-(1 << -inScale)) : short(0);
}

// Pairs of 16-bit parts to powers, in place: element k takes the place of pair k. Squares and sum
// are floats.
void powersOfPairs(float* area, int n) {
    for (int k = 1; k < n; ++k) {
        short pair[2];
        std::memcpy(pair, area + k, sizeof pair);
        const float re = pair[0], im = pair[1];
        const float realSquare = re * re, imaginarySquare = im * im;
        area[k] = realSquare + imaginarySquare;
    }
}

bool transformIntegers(const short* coef, int nCoef, float* area, int fftOrder, int inScale) {
    const int n = 1 << fftOrder;
    short* v = reinterpret_cast<short*>(area);
    fillInput(v, minusOneAt(inScale), coef, nCoef, 2 * std::int64_t(n));
    vsqwRealFftl(v, fftOrder + 1, transformFlags | VSQ_RoundMode0, 0, nullptr);
    if (KTGetStatus() < 0) {
        module.backtrace("KTwLPSpectrum");
        return false;
    }
    const short first = v[0];
    powersOfPairs(area, n);
    area[0] = std::fabs(static_cast<float>(first));
    takeRoots(area + 1, n - 1);
    return true;
}

bool evaluateIntegers(const short* coef, int nCoef, float* area, int fftOrder, int inScale) {
    auto& lp = KTGetContext()->LP;
    const int n = 1 << fftOrder;
    if (!renewTable(lp.wLPTwiddle, lp.wTwiddleOrder, lp.wTwiddleLen, fftOrder, nCoef,
                    [=] { return KTwCalcLPTwiddle(fixedLimits[fftOrder], n); })) {
        module.report(KT_StsNoMem, "insufficiency of memory for pointer  pKTContext->LP.wLPTwiddle",
                      "KTwLPSpectrum");
        return false;
    }
    const long long shift = 14LL - inScale;
    const unsigned one = shift >= 0 && shift < 32 ? 1u << shift : 0u;
    vsq::kernels().lpc->powerFixed(alignedArea<short>(lp.wLPTwiddle), n, coef, nCoef, one,
                                   KTPower2(-28), area);
    takeRoots(area, n);
    return true;
}

// Orders that no table has; the report keeps them from being shifted by.
bool refusesOrder(int fftOrder, const char* funcName) {
    if (fftOrder >= 0 && fftOrder <= largestOrder) return false;
    module.report(KT_StsBadArg, fftOrder < 0 ? "fftOrder<0" : "fftOrder>30", funcName);
    return true;
}

// Coefficients that the direct sum would read from nowhere; the transform's copy refuses them by
// itself.
bool refusesCoefficients(const void* coef, int nCoef, const char* funcName) {
    if (coef != nullptr || nCoef <= 0) return false;
    module.report(KT_StsBadArg, "pCoef==0", funcName);
    return true;
}

} // namespace

void* KTsCalcLPTwiddle(int limit, int N) {
    return calcTwiddle<float>(limit, N, "KTsCalcLPTwiddle");
}
void* KTwCalcLPTwiddle(int limit, int N) {
    return calcTwiddle<short>(limit, N, "KTwCalcLPTwiddle");
}

void KTsLPSpectrum(const float* pCoef, int nCoef, float* pSpec, int fftOrder, float gain) {
    if (refusesOrder(fftOrder, "KTsLPSpectrum")) return;
    const bool isDirect = nCoef <= floatLimits[fftOrder];
    if (isDirect && refusesCoefficients(pCoef, nCoef, "KTsLPSpectrum")) return;
    if (isDirect ? evaluateFloats(pCoef, nCoef, pSpec, fftOrder)
                 : transformFloats(pCoef, nCoef, pSpec, fftOrder))
        invert(pSpec, 1 << fftOrder, gain);
}

// Direct method: 32-bit sums of products of the coefficients with 14-bit twiddles, which wrap
// silently; transform: 16-bit bins that saturate. From there on floats, and the conversion downward
// as outMode says.
void KTwLPSpectrum(const short* pCoef, int nCoef, short* pSpec, int fftOrder, float gain,
                   int inScale, int outMode, int* pOutScale) {
    if (refusesOrder(fftOrder, "KTwLPSpectrum")) return;
    const bool isDirect = nCoef <= fixedLimits[fftOrder];
    if (isDirect && refusesCoefficients(pCoef, nCoef, "KTwLPSpectrum")) return;
    KTContext* pKTContext = KTGetContext();
    const int n = 1 << fftOrder;
    if (!growBuffer(pKTContext->LP.wLPBuffer, pKTContext->LP.wBufferOrder, fftOrder,
                    std::int64_t(n) * 4 + 32)) {
        module.report(KT_StsNoMem, "insufficiency of memory for pointer  pKTContext->LP.wLPBuffer");
        return;
    }
    float* const area = alignedArea<float>(pKTContext->LP.wLPBuffer);
    if (!(isDirect ? evaluateIntegers(pCoef, nCoef, area, fftOrder, inScale)
                   : transformIntegers(pCoef, nCoef, area, fftOrder, inScale)))
        return;
    invert(area, n, static_cast<float>(KTwdConvertUp(1, inScale) * static_cast<double>(gain)));
    KTswbConvertDown(area, pSpec, n, outMode, pOutScale);
}
