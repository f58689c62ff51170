#include "levels.h"
#include "simd.h"

namespace vsq::VSQ_LEVEL {
namespace {

constexpr int lanes = 16;
using Floats = Pack<float, lanes>;
using Ints = Pack<std::int32_t, lanes>;
using Words = Pack<std::uint32_t, lanes>;

VSQ_INLINE Floats splatted(float value) {
    return splat<float, lanes>(value);
}

// The polynomial with these coefficients, the constant one first.
template <int count>
VSQ_INLINE Floats polynomial(const Floats& x, const float (&coefficients)[count]) {
    Floats value = splatted(coefficients[count - 1]);
    for (int i = count - 2; i >= 0; --i)
        value = value * x + splatted(coefficients[i]);
    return value;
}

// Both functions take ln 2 in two parts. The upper part has so few bits that its product with an exponent is
// exact.
constexpr float ln2High = 0x1.62e4p-1f;
constexpr float ln2Low = 0x1.7f7d1cp-20f;

// Coefficients from vsqlnexp_coefficients.py: ln(1 + f) = f - f^2 / 2 + f^3 p(f) for 1 + f from sqrt(1/2) to
// sqrt(2), with a relative error of 2^-27.3.
constexpr float lnCoefficients[] = {0x1.555554p-2f, -0x1.000226p-2f, 0x1.99a008p-3f, -0x1.547244p-3f,
                                    0x1.22da1ep-3f, -0x1.0d8542p-3f, 0x1.055b68p-3f, -0x1.38b578p-4f};

// ln x = k ln 2 + ln m with x = 2^k m and m from sqrt(1/2) to sqrt(2).
VSQ_INLINE Floats lnOf(const Floats& x) {
    constexpr std::uint32_t rootOfHalf = 0x3F3504F3; // its bit pattern
    const Floats zero = splatted(0), infinity = splatted(__builtin_inff());
    // Denormals are scaled into the normal range first.
    const Ints isTiny = x < splatted(0x1p-126f);
    const Words pattern = bits<std::uint32_t>(select(isTiny, x * splatted(0x1p23f), x));
    const Ints offset = bits<std::int32_t>(pattern - splat<std::uint32_t, lanes>(rootOfHalf));
    const Floats k = convert<float>(offset >> 23) - select(isTiny, splatted(23), zero);
    const Ints mantissa =
        (offset & splat<std::int32_t, lanes>(0x7FFFFF)) + splat<std::int32_t, lanes>(rootOfHalf);

    const Floats f = bits<float>(mantissa) - splatted(1);
    const Floats square = f * f;
    const Floats rest = square * f * polynomial(f, lnCoefficients) + k * splatted(ln2Low);
    const Floats ln = k * splatted(ln2High) + (f + (rest - splatted(0.5f) * square));

    const Floats finite =
        select(x == zero, zero - infinity, select(x < zero, splatted(__builtin_nanf("")), ln));
    return select(x < infinity, finite, x + x); // infinity and not-a-numbers
}

// e^r = 1 + r + r^2 q(r) for |r| up to ln(2) / 2, with a relative error of 2^-28.2.
constexpr float expCoefficients[] = {0x1.fffffcp-2f, 0x1.55549p-3f, 0x1.5558f4p-5f, 0x1.123a6cp-7f,
                                     0x1.6a2352p-10f};

// e^x = 2^n e^r with n the integer next to x / ln 2 and r = x - n ln 2.
VSQ_INLINE Floats expOf(const Floats& x) {
    constexpr float oneByLn2 = 0x1.715476p+0f;
    constexpr float rounder = 0x1.8p23f; // a sum with it is rounded to an integer, which its last bits hold
    // Beyond these limits the results stay 0 and infinity. Not-a-numbers pass them, and all that follows.
    const Floats high = splatted(89), low = splatted(-104);
    const Floats limited = larger(low, smaller(high, x));
    const Floats turns = limited * splatted(oneByLn2) + splatted(rounder);
    const Ints n = bits<std::int32_t>(turns) - bits<std::int32_t>(splatted(rounder));
    const Floats nAsFloat = turns - splatted(rounder);
    const Floats r = (limited - nAsFloat * splatted(ln2High)) - nAsFloat * splatted(ln2Low);
    const Floats mantissa = splatted(1) + (r + r * r * polynomial(r, expCoefficients));
    // 2^n in two factors, each a normal float; only the second product may round, to a denormal.
    const Ints half = n >> 1;
    const Ints bias = splat<std::int32_t, lanes>(127);
    const Floats first = bits<float>((half + bias) << 23), second = bits<float>((n - half + bias) << 23);
    return mantissa * first * second;
}

template <class Function>
VSQ_INLINE void apply(float* vec, int n, const Function& function) {
    int i = 0;
    for (; i + lanes <= n; i += lanes)
        store(vec + i, function(load<float, lanes>(vec + i)));
    if (i < n) storePart(vec + i, function(loadPart<float, lanes>(vec + i, n - i, 1)), n - i);
}

void ln(float* vec, int n) {
    apply(vec, n, [](const Floats& x) VSQ_LAMBDA { return lnOf(x); });
}

void exp(float* vec, int n) {
    apply(vec, n, [](const Floats& x) VSQ_LAMBDA { return expOf(x); });
}

} // namespace

extern const LnExpKernels lnExpKernels{ln, exp};

} // namespace vsq::VSQ_LEVEL
