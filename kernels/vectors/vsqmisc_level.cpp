// Roots, thresholds, reciprocals and magnitudes, 16 floats at a time. Thresholds compare bit
// patterns, not values. What is refused (a negative root, a zero divisor) is never computed, not
// even in a lane that is thrown away, so that no floating-point exception is raised.
#include "vectors/vsqmisc_level.h"
#include "simd/pack.h"

namespace vsq::VSQ_LEVEL {
namespace {

constexpr int lanes = 16;
using Floats = Pack<float, lanes>;
using Ints = Pack<std::int32_t, lanes>;

// Runs `step(values, i, count)` over the array in packs; `count` lanes of the last one are real,
// the others `fill`.
template <class Step>
VSQ_INLINE void overPacks(const float* src, int n, float fill, const Step& step) {
    int i = 0;
    for (; i + lanes <= n; i += lanes)
        step(load<float, lanes>(src + i), i, lanes);
    if (i < n) step(loadPart<float, lanes>(src + i, n - i, fill), i, n - i);
}

VSQ_INLINE void put(float* p, const Floats& v, int count) {
    if (count == lanes)
        store(p, v);
    else
        storePart(p, v, count);
}

VSQ_INLINE Floats get(const float* p, int count) {
    return count == lanes ? load<float, lanes>(p) : loadPart<float, lanes>(p, count);
}

VSQ_INLINE Floats absolute(const Floats& v) {
    return bits<float>(bits<std::int32_t>(v) & splat<std::int32_t, lanes>(INT32_MAX));
}

bool root(const float* src, float* dst, int n) {
    const Floats zero = splat<float, lanes>(0);
    Ints negative = splat<std::int32_t, lanes>(0);
    overPacks(src, n, 0, [&](const Floats& x, int i, int count) VSQ_LAMBDA {
        const Ints isNegative = x < zero;
        negative = negative | isNegative;
        // by its bits: a compiler that takes the selection for a maximum loses the sign of a zero
        const Floats roots = squareRoot(
            bits<float>(bits<std::int32_t>(x) & (isNegative ^ splat<std::int32_t, lanes>(-1))));
        put(dst + i, select(isNegative, get(dst + i, count), roots), count);
    });
    return smallestLane(negative) != 0;
}

// Patterns of non-negative floats ascend with their value, those of negative floats descend. So
// against a non-negative threshold the signed patterns compare as the values do; against a negative
// one they compare the other way round among the negative elements, and the others are left out.
void raiseTo(float* vec, int n, float thresh) {
    const Ints limit = bits<std::int32_t>(splat<float, lanes>(thresh));
    const Ints isBelowZero = limit >> 31; // all ones for a negative threshold
    overPacks(vec, n, 0, [&](const Floats& x, int i, int count) VSQ_LAMBDA {
        const Ints pattern = bits<std::int32_t>(x);
        const Ints above = (limit < pattern) & (pattern >> 31);
        const Ints below = pattern < limit;
        const Ints replace = select(isBelowZero, above, below);
        put(vec + i, bits<float>(select(replace, limit, pattern)), count);
    });
}

void lowerTo(float* vec, int n, float thresh) {
    const Ints limit = bits<std::int32_t>(splat<float, lanes>(thresh));
    const Ints isBelowZero = limit >> 31;
    overPacks(vec, n, 0, [&](const Floats& x, int i, int count) VSQ_LAMBDA {
        const Ints pattern = bits<std::int32_t>(x);
        const Ints below = (pattern < limit) & (pattern >> 31);
        const Ints above = limit < pattern;
        const Ints replace = select(isBelowZero, below, above);
        put(vec + i, bits<float>(select(replace, limit, pattern)), count);
    });
}

bool reciprocal(float* vec, int n, float thresh) {
    const Floats one = splat<float, lanes>(1), zero = splat<float, lanes>(0),
                 limit = splat<float, lanes>(thresh);
    const Ints sign = splat<std::int32_t, lanes>(INT32_MIN);
    Ints zeros = splat<std::int32_t, lanes>(0);
    overPacks(vec, n, 1, [&](const Floats& x, int i, int count) VSQ_LAMBDA {
        const Ints isSmall = absolute(x) < limit;
        const Floats signedLimit =
            bits<float>(bits<std::int32_t>(limit) | (bits<std::int32_t>(x) & sign));
        const Floats limited = select(isSmall, signedLimit, x);
        const Ints isZero = limited == zero;
        zeros = zeros | isZero;
        put(vec + i, select(isZero, x, one / select(isZero, one, limited)), count);
    });
    return smallestLane(zeros) != 0;
}

// Pairs are read in ascending runs into a buffer before anything is written, and so power and
// magnitude work in place: dst[i] never lies after the pair i, and the compiler may take the
// buffer apart from both arrays.
constexpr int run = 128;

VSQ_INLINE void powerOfRun(const float* __restrict__ src, float* __restrict__ buffer, int n) {
    for (int i = 0; i < n; ++i) {
        const float re = src[2 * i], im = src[2 * i + 1];
        buffer[i] = re * re + im * im;
    }
}

template <class Finish>
VSQ_INLINE void overRuns(const float* src, float* dst, int n, const Finish& finish) {
    float buffer[run];
    for (int from = 0; from < n; from += run) {
        const int count = n - from < run ? n - from : run;
        powerOfRun(src + 2 * std::int64_t(from), buffer, count);
        finish(buffer, dst + from, count);
        if (count < run) return; // from + run might pass the largest int
    }
}

void power(const float* src, float* dst, int n) {
    overRuns(src, dst, n, [](const float* buffer, float* part, int count) VSQ_LAMBDA {
        std::memcpy(part, buffer, std::size_t(count) * sizeof(float));
    });
}

void magnitude(const float* src, float* dst, int n) {
    overRuns(src, dst, n, [](const float* buffer, float* part, int count) VSQ_LAMBDA {
        root(buffer, part, count);
    });
}

} // namespace

extern const MiscKernels miscKernels{
    .root = root,
    .raiseTo = raiseTo,
    .lowerTo = lowerTo,
    .reciprocal = reciprocal,
    .magnitude = magnitude,
    .power = power,
};

} // namespace vsq::VSQ_LEVEL
