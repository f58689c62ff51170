// The exponential function of floats, lane by lane; for level sources. Every number of lanes gives an element the same
// bits, and so do the straight path and the one for special arguments.
#pragma once

#include "simd.h"

namespace vsq::VSQ_LEVEL {
namespace {

// ln 2 in two parts: the upper one has so few bits that its product with an exponent is exact.
constexpr float ln2High = 0x1.62e4p-1f;
constexpr float ln2Low = 0x1.7f7d1cp-20f;

// Coefficients from vsqlnexp_coefficients.py: e^r = 1 + r + r^2 q(r) for |r| up to ln(2) / 2, with a relative error of 2^-28.2.
constexpr float expCoefficients[] = {0x1.fffffcp-2f, 0x1.55549p-3f, 0x1.5558f4p-5f, 0x1.123a6cp-7f,
                                     0x1.6a2352p-10f};

// e^x = 2^n e^r with n the integer next to x / ln 2 and r = x - n ln 2.
template <int lanes>
struct ReducedExp {
    Pack<float, lanes> mantissa; // e^r
    Pack<std::int32_t, lanes> n;
};

template <int lanes>
VSQ_INLINE ReducedExp<lanes> reducedExp(const Pack<float, lanes>& x) {
    const auto constant = [](float value) VSQ_LAMBDA { return splat<float, lanes>(value); };
    constexpr float oneByLn2 = 0x1.715476p+0f;
    constexpr float rounder = 0x1.8p23f; // a sum with it is rounded to an integer, which its last bits hold
    const float(&c)[5] = expCoefficients;
    const Pack<float, lanes> turns = x * constant(oneByLn2) + constant(rounder);
    const Pack<float, lanes> n = turns - constant(rounder);
    const Pack<float, lanes> r = (x - n * constant(ln2High)) - n * constant(ln2Low), r2 = r * r;
    const Pack<float, lanes> lower = constant(c[1]) * r + constant(c[0]);
    const Pack<float, lanes> upper = constant(c[3]) * r + constant(c[2]) + constant(c[4]) * r2;
    return {constant(1) + (r + r2 * (lower + upper * r2)),
            bits<std::int32_t>(turns) - bits<std::int32_t>(constant(rounder))};
}

template <int n>
VSQ_INLINE Pack<float, n> expOfAny(const Pack<float, n>& x) {
    // Beyond these limits the results stay 0 and infinity. Not-a-numbers pass them, and all that follows.
    const auto limited = larger(splat<float, n>(-104), smaller(splat<float, n>(89), x));
    const ReducedExp<n> reduced = reducedExp<n>(limited);
    // 2^n in two factors, each a normal float; only the second product may round, to a denormal.
    const Pack<std::int32_t, n> half = reduced.n >> 1, bias = splat<std::int32_t, n>(127);
    const auto first = bits<float>((half + bias) << 23),
               second = bits<float>((reduced.n - half + bias) << 23);
    return reduced.mantissa * first * second;
}

struct Exp {
    template <int lanes>
    VSQ_INLINE Pack<float, lanes> operator()(const Pack<float, lanes>& x) const {
        // Up to here the result is a normal float and 2^n a step in its exponent.
        const Pack<std::int32_t, lanes> limit = bits<std::int32_t>(splat<float, lanes>(87));
        const Pack<std::int32_t, lanes> magnitude =
            bits<std::int32_t>(x) & splat<std::int32_t, lanes>(0x7FFFFFFF);
        if (__builtin_expect(anyLane(limit < magnitude), false)) return expOfAny<lanes>(x);
        const ReducedExp<lanes> reduced = reducedExp<lanes>(x);
        return bits<float>(bits<std::int32_t>(reduced.mantissa) + (reduced.n << 23));
    }
};

// vec[i] = function(vec[i]), two registers' worth at a time; the last ones with 1 in the lanes beyond them.
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

} // namespace
} // namespace vsq::VSQ_LEVEL
