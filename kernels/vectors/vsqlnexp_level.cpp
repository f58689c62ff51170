// The polynomials are evaluated as short trees and two registers' worth of elements at a time: a
// chain of single steps would leave the processor waiting for each result. Special arguments leave
// the straight path: a branch that is hardly ever taken costs less than selections in every step.
// Both paths give an element the same bits.
#include "vectors/vsqlnexp_level.h"
#include "vectors/exponential.h"

namespace vsq::VSQ_LEVEL {
namespace {

template <int n>
using Floats = Pack<float, n>;
template <int n>
using Ints = Pack<std::int32_t, n>;
template <int n>
using Words = Pack<std::uint32_t, n>;

// Right to 29 bits, which is enough where the product with an exponent is not subtracted from.
constexpr float ln2 = 0x1.62e43p-1f;

constexpr std::uint32_t smallestNormal = 0x00800000, infinity = 0x7F800000; // bit patterns

// --- ln ---

// Coefficients from vsqlnexp_coefficients.py: ln(1 + f) = f - f^2 / 2 + f^3 p(f) for 1 + f from
// sqrt(1/2) to sqrt(2), with a relative error of 2^-24.9.
constexpr float lnCoefficients[] = {0x1.5556d8p-2f,  -0x1.000382p-2f, 0x1.98d7f2p-3f,
                                    -0x1.53824ap-3f, 0x1.317456p-3f,  -0x1.2432b8p-3f,
                                    0x1.645eb0p-4f};

// ln x = k ln 2 + ln m, where 2^k m with m from sqrt(1/2) to sqrt(2) is the positive normal number
// with this pattern; `excess` is taken off k.
template <int n>
VSQ_INLINE Floats<n> lnOfNormal(const Words<n>& pattern, const Floats<n>& excess) {
    constexpr std::uint32_t rootOfHalf = 0x3F3504F3; // its bit pattern
    const auto constant = [](float value) VSQ_LAMBDA { return splat<float, n>(value); };
    const float(&c)[7] = lnCoefficients;
    const Ints<n> offset = bits<std::int32_t>(pattern - splat<std::uint32_t, n>(rootOfHalf));
    const Floats<n> k = convert<float>(offset >> 23) - excess;
    const Ints<n> mantissa =
        (offset & splat<std::int32_t, n>(0x7FFFFF)) + splat<std::int32_t, n>(rootOfHalf);

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
    // NaNs stay
    const Floats<n> positive = select(x < constant(__builtin_inff()), ln, x + x);
    const Floats<n> atZero = select(x == constant(0), constant(-__builtin_inff()), positive);
    return select(x < constant(0), constant(__builtin_nanf("")), atZero);
}

struct Ln {
    template <int n>
    VSQ_INLINE Floats<n> operator()(const Floats<n>& x) const {
        // The patterns of positive normal numbers, moved to the lower end of the signed integers.
        constexpr std::uint32_t lowest = 0x80000000;
        constexpr auto highest =
            static_cast<std::int32_t>(lowest + (infinity - smallestNormal - 1));
        const Words<n> pattern = bits<std::uint32_t>(x);
        const Ints<n> moved =
            bits<std::int32_t>(pattern - splat<std::uint32_t, n>(smallestNormal - lowest));
        if (__builtin_expect(anyBelow(splat<std::int32_t, n>(highest), moved), false))
            return lnOfAny<n>(x);
        return lnOfNormal<n>(pattern, splat<float, n>(0));
    }
};

void ln(float* vec, int n) {
    apply<2>(vec, n, Ln());
}

void exp(float* vec, int n) {
    apply(vec, n, Exp());
}

} // namespace

extern const LnExpKernels lnExpKernels{
    .ln = ln,
    .exp = exp,
};

} // namespace vsq::VSQ_LEVEL
