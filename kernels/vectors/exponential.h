// The exponential function of floats, lane by lane; for level sources. Every number of lanes gives
// an element the same bits, and so do the straight path and the one for special arguments.
#pragma once

#include "simd/pack.h"

namespace vsq::VSQ_LEVEL {
namespace {

// Constants from vsqlnexp_coefficients.py.
//
// e^x = 2^n e^r with n the multiple of 1/8 next to x / ln 2 and r = x - n ln 2. The whole part of n
// is a step in the exponent, 2^(its eighths) a look into a table, and e^r = 1 + r + r^2 q(r) for
// |r| up to ln(2) / 16, with a relative error of 2^-25.2.
constexpr float eighthPowers[8] = {0x1p+0f,        0x1.172b84p+0f, 0x1.306fep+0f,  0x1.4bfdaep+0f,
                                   0x1.6a09e6p+0f, 0x1.8ace54p+0f, 0x1.ae89fap+0f, 0x1.d5818ep+0f};
constexpr float expCoefficients[] = {0x1.000878p-1f, 0x1.555658p-3f};

// ln 2 in two parts: the upper one has so few bits that its product with n is exact.
constexpr float ln2High = 0x1.62ep-1f;
constexpr float ln2Low = 0x1.0bfbe8p-15f;

// a sum with it is rounded to eighths, which its last bits count
constexpr float rounder = 0x1.8p20f;

template <int lanes>
struct ReducedExp {
    Pack<float, lanes> mantissa; // 2^(eighths of n) e^r
    Pack<float, lanes> n;
    Pack<float, lanes> turns; // n + rounder
};

template <int lanes>
VSQ_INLINE ReducedExp<lanes> reducedExp(const Pack<float, lanes>& x) {
    const auto constant = [](float value) VSQ_LAMBDA { return splat<float, lanes>(value); };
    constexpr float oneByLn2 = 0x1.715476p+0f;
    const Pack<float, lanes> turns = x * constant(oneByLn2) + constant(rounder);
    const Pack<float, lanes> n = turns - constant(rounder);
    const Pack<float, lanes> r = (x - n * constant(ln2High)) - n * constant(ln2Low);
    const Pack<float, lanes> rest =
        r + r * r * (constant(expCoefficients[1]) * r + constant(expCoefficients[0]));
    const Pack<float, lanes> power = lookUp8(eighthPowers, bits<std::int32_t>(turns));
    return {power + power * rest, n, turns};
}

template <int lanes>
VSQ_INLINE Pack<float, lanes> expOfAny(const Pack<float, lanes>& x) {
    // Beyond these limits the results stay 0 and infinity. NaNs pass them, and all that follows.
    constexpr float zeroBelow = -104, infiniteAbove = 89;
    const auto limited =
        larger(splat<float, lanes>(zeroBelow), smaller(splat<float, lanes>(infiniteAbove), x));
    const ReducedExp<lanes> reduced = reducedExp<lanes>(limited);
    if constexpr (hasPowers) return timesPowers(reduced.mantissa, reduced.n);
    // 2^(the whole part of n) in two factors, each a normal float; only the second product may
    // round, to a denormal.
    const auto bias = splat<std::int32_t, lanes>(127); // of a float's exponent
    const Pack<std::int32_t, lanes> whole =
        (bits<std::int32_t>(reduced.turns) - bits<std::int32_t>(splat<float, lanes>(rounder))) >> 3;
    const Pack<std::int32_t, lanes> half = whole >> 1;
    const auto first = bits<float>((half + bias) << 23),
               second = bits<float>((whole - half + bias) << 23);
    return reduced.mantissa * first * second;
}

struct Exp {
    template <int lanes>
    VSQ_INLINE Pack<float, lanes> operator()(const Pack<float, lanes>& x) const {
        if constexpr (hasPowers) return expOfAny<lanes>(x);
        // Up to here the result is a normal float and the whole part of n a step in its exponent.
        constexpr float normalBelow = 87;
        const Pack<std::int32_t, lanes> limit =
            bits<std::int32_t>(splat<float, lanes>(normalBelow));
        const Pack<std::int32_t, lanes> magnitude =
            bits<std::int32_t>(x) & splat<std::int32_t, lanes>(INT32_MAX);
        if (__builtin_expect(anyBelow(limit, magnitude), false)) return expOfAny<lanes>(x);
        const ReducedExp<lanes> reduced = reducedExp<lanes>(x);
        const auto exponent =
            bits<std::int32_t>(reduced.turns) >> 3 << 23; // the rounder's bits are shifted out
        return bits<float>(bits<std::int32_t>(reduced.mantissa) + exponent);
    }
};

// vec[i] = function(vec[i]), so many registers at a time as leave room for the function's
// coefficients; the last ones with 1 in the lanes beyond them.
template <int registers = 1, class Function>
VSQ_INLINE void apply(float* vec, int n, const Function& function) {
    constexpr int narrow = registerBytes / int(sizeof(float)), wide = registers * narrow;
    int i = 0;
    for (; i + wide <= n; i += wide)
        store(vec + i, function.template operator()<wide>(load<float, wide>(vec + i)));
    if (wide > narrow && i + narrow <= n) {
        store(vec + i, function.template operator()<narrow>(load<float, narrow>(vec + i)));
        i += narrow;
    }
    if (i < n)
        storePart(vec + i,
                  function.template operator()<narrow>(loadPart<float, narrow>(vec + i, n - i, 1)),
                  n - i);
}

} // namespace
} // namespace vsq::VSQ_LEVEL
