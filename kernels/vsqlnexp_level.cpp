// The polynomials are evaluated as short trees and two registers' worth of elements at a time: a chain of
// single steps would leave the processor waiting for each result. Special arguments leave the straight path:
// a branch that is hardly ever taken costs less than selections in every step. Both paths give an element the
// same bits.
#include "vsqlnexp_level.h"
#include "simd.h"

namespace vsq::VSQ_LEVEL {
namespace {

template <int n>
using Floats = Pack<float, n>;
template <int n>
using Ints = Pack<std::int32_t, n>;
template <int n>
using Words = Pack<std::uint32_t, n>;

// ln 2, and for the exponential function in two parts: the upper one has so few bits that its product with an
// exponent is exact. The float ln 2 itself is right to 29 bits, which is enough where the product is not
// subtracted from.
constexpr float ln2 = 0x1.62e43p-1f;
constexpr float ln2High = 0x1.62e4p-1f;
constexpr float ln2Low = 0x1.7f7d1cp-20f;

constexpr std::uint32_t smallestNormal = 0x00800000, infinity = 0x7F800000; // bit patterns

// --- ln ---

// Coefficients from vsqlnexp_coefficients.py: ln(1 + f) = f - f^2 / 2 + f^3 p(f) for 1 + f from sqrt(1/2) to
// sqrt(2), with a relative error of 2^-24.9.
constexpr float lnCoefficients[] = {0x1.5556d8p-2f, -0x1.000382p-2f, 0x1.98d7f2p-3f, -0x1.53824ap-3f,
                                    0x1.317456p-3f, -0x1.2432b8p-3f, 0x1.645eb0p-4f};

// ln x = k ln 2 + ln m, where 2^k m with m from sqrt(1/2) to sqrt(2) is the positive normal number with this
// pattern; `excess` is taken off k.
template <int n>
VSQ_INLINE Floats<n> lnOfNormal(const Words<n>& pattern, const Floats<n>& excess) {
    constexpr std::uint32_t rootOfHalf = 0x3F3504F3; // its bit pattern
    const auto constant = [](float value) VSQ_LAMBDA { return splat<float, n>(value); };
    const float(&c)[7] = lnCoefficients;
    const Ints<n> offset = bits<std::int32_t>(pattern - splat<std::uint32_t, n>(rootOfHalf));
    const Floats<n> k = convert<float>(offset >> 23) - excess;
    const Ints<n> mantissa = (offset & splat<std::int32_t, n>(0x7FFFFF)) + splat<std::int32_t, n>(rootOfHalf);

    const Floats<n> f = bits<float>(mantissa) - constant(1), f2 = f * f;
    const Floats<n> lower =
        (constant(c[0]) * f - constant(0.5f)) + (constant(c[2]) * f + constant(c[1])) * f2;
    const Floats<n> upper =
        (constant(c[4]) * f + constant(c[3])) + (constant(c[6]) * f + constant(c[5])) * f2;
    return k * constant(ln2) + (f + f2 * (lower + upper * (f2 * f2)));
}

template <int n>
VSQ_INLINE Floats<n> lnOfAny(const Floats<n>& x) {
    const auto constant = [](float value) VSQ_LAMBDA { return splat<float, n>(value); };
    // Denormals are scaled into the normal range first.
    const Ints<n> isTiny = x < constant(0x1p-126f);
    const Words<n> pattern = bits<std::uint32_t>(select(isTiny, x * constant(0x1p23f), x));
    const Floats<n> ln = lnOfNormal<n>(pattern, select(isTiny, constant(23), constant(0)));
    const Floats<n> positive = select(x < constant(__builtin_inff()), ln, x + x); // not-a-numbers stay
    const Floats<n> atZero = select(x == constant(0), constant(-__builtin_inff()), positive);
    return select(x < constant(0), constant(__builtin_nanf("")), atZero);
}

struct Ln {
    template <int n>
    VSQ_INLINE Floats<n> operator()(const Floats<n>& x) const {
        const Words<n> pattern = bits<std::uint32_t>(x);
        const Words<n> range = splat<std::uint32_t, n>(infinity - smallestNormal);
        const Ints<n> isSpecial = range <= pattern - splat<std::uint32_t, n>(smallestNormal);
        if (__builtin_expect(anyLane(isSpecial), false)) return lnOfAny<n>(x);
        return lnOfNormal<n>(pattern, splat<float, n>(0));
    }
};

// --- exp ---

// e^r = 1 + r + r^2 q(r) for |r| up to ln(2) / 2, with a relative error of 2^-28.2.
constexpr float expCoefficients[] = {0x1.fffffcp-2f, 0x1.55549p-3f, 0x1.5558f4p-5f, 0x1.123a6cp-7f,
                                     0x1.6a2352p-10f};

// e^x = 2^n e^r with n the integer next to x / ln 2 and r = x - n ln 2.
template <int lanes>
struct ReducedExp {
    Floats<lanes> mantissa; // e^r
    Ints<lanes> n;
};

template <int lanes>
VSQ_INLINE ReducedExp<lanes> reducedExp(const Floats<lanes>& x) {
    const auto constant = [](float value) VSQ_LAMBDA { return splat<float, lanes>(value); };
    constexpr float oneByLn2 = 0x1.715476p+0f;
    constexpr float rounder = 0x1.8p23f; // a sum with it is rounded to an integer, which its last bits hold
    const float(&c)[5] = expCoefficients;
    const Floats<lanes> turns = x * constant(oneByLn2) + constant(rounder);
    const Floats<lanes> n = turns - constant(rounder);
    const Floats<lanes> r = (x - n * constant(ln2High)) - n * constant(ln2Low), r2 = r * r;
    const Floats<lanes> lower = constant(c[1]) * r + constant(c[0]);
    const Floats<lanes> upper = constant(c[3]) * r + constant(c[2]) + constant(c[4]) * r2;
    return {constant(1) + (r + r2 * (lower + upper * r2)),
            bits<std::int32_t>(turns) - bits<std::int32_t>(constant(rounder))};
}

template <int n>
VSQ_INLINE Floats<n> expOfAny(const Floats<n>& x) {
    // Beyond these limits the results stay 0 and infinity. Not-a-numbers pass them, and all that follows.
    const auto limited = larger(splat<float, n>(-104), smaller(splat<float, n>(89), x));
    const ReducedExp<n> reduced = reducedExp<n>(limited);
    // 2^n in two factors, each a normal float; only the second product may round, to a denormal.
    const Ints<n> half = reduced.n >> 1, bias = splat<std::int32_t, n>(127);
    const auto first = bits<float>((half + bias) << 23),
               second = bits<float>((reduced.n - half + bias) << 23);
    return reduced.mantissa * first * second;
}

struct Exp {
    template <int lanes>
    VSQ_INLINE Floats<lanes> operator()(const Floats<lanes>& x) const {
        // Up to here the result is a normal float and 2^n a step in its exponent.
        const Ints<lanes> limit = bits<std::int32_t>(splat<float, lanes>(87));
        const Ints<lanes> magnitude = bits<std::int32_t>(x) & splat<std::int32_t, lanes>(0x7FFFFFFF);
        if (__builtin_expect(anyLane(limit < magnitude), false)) return expOfAny<lanes>(x);
        const ReducedExp<lanes> reduced = reducedExp<lanes>(x);
        return bits<float>(bits<std::int32_t>(reduced.mantissa) + (reduced.n << 23));
    }
};

template <class Function>
VSQ_INLINE void apply(float* vec, int n, const Function& function) {
    constexpr int wide = 32, narrow = 16;
    int i = 0;
    for (; i + wide <= n; i += wide)
        store(vec + i, function.template operator()<wide>(load<float, wide>(vec + i)));
    for (; i + narrow <= n; i += narrow)
        store(vec + i, function.template operator()<narrow>(load<float, narrow>(vec + i)));
    if (i < n)
        storePart(vec + i, function.template operator()<narrow>(loadPart<float, narrow>(vec + i, n - i, 1)),
                  n - i);
}

void ln(float* vec, int n) {
    apply(vec, n, Ln());
}

void exp(float* vec, int n) {
    apply(vec, n, Exp());
}

} // namespace

extern const LnExpKernels lnExpKernels{ln, exp};

} // namespace vsq::VSQ_LEVEL
