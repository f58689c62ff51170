// Sums and maxima for the norms. Floats: 16 double lanes and a tree, the same order at every level.
// 16-bit values: exact integers, whose order does not matter, so the compiler arranges the loops.
#include "vectors/vsqnorm_level.h"
#include "simd/pack.h"

namespace vsq::VSQ_LEVEL {
namespace {

constexpr int lanes = 16;
using Doubles = Pack<double, lanes>;

VSQ_INLINE Doubles absolute(const Doubles& v) {
    return bits<double>(bits<std::int64_t>(v) & splat<std::int64_t, lanes>(INT64_MAX));
}

struct ValuesOf { // a's own values
    const float* a;
    VSQ_INLINE Doubles at(int i) const {
        return join(convert<double>(load<float, lanes / 2>(a + i)),
                    convert<double>(load<float, lanes / 2>(a + i + lanes / 2)));
    }
    VSQ_INLINE Doubles at(int i, int count) const {
        return convert<double>(loadPart<float, lanes>(a + i, count));
    }
};

struct DifferencesOf {
    const float *a, *b;
    VSQ_INLINE Doubles at(int i) const { return ValuesOf{a}.at(i) - ValuesOf{b}.at(i); }
    VSQ_INLINE Doubles at(int i, int count) const {
        return ValuesOf{a}.at(i, count) - ValuesOf{b}.at(i, count);
    }
};

// Folds the values into 16 lanes; lanes after the end see 0.
template <class Values, class Fold>
VSQ_INLINE Doubles folded(const Values& values, int n, const Fold& fold) {
    Doubles result = splat<double, lanes>(0);
    int i = 0;
    for (; i + lanes <= n; i += lanes)
        result = fold(result, values.at(i));
    if (i < n) result = fold(result, values.at(i, n - i));
    return result;
}

template <class Fold>
VSQ_INLINE Doubles folded(const float* a, const float* b, int n, const Fold& fold) {
    return b == nullptr ? folded(ValuesOf{a}, n, fold) : folded(DifferencesOf{a, b}, n, fold);
}

double largestFloat(const float* a, const float* b, int n) {
    return largestLane(folded(a, b, n, [](const Doubles& most, const Doubles& value) VSQ_LAMBDA {
        return larger(absolute(value), most);
    }));
}

double sumFloat(const float* a, const float* b, int n) {
    return sumLanes(folded(a, b, n, [](const Doubles& total, const Doubles& value) VSQ_LAMBDA {
        return total + absolute(value);
    }));
}

double squaresFloat(const float* a, const float* b, int n) {
    return sumLanes(folded(a, b, n, [](const Doubles& total, const Doubles& value) VSQ_LAMBDA {
        return total + value * value;
    }));
}

void distancesFloat(const float* const* a, const float* const* b, int count, int n,
                    double* results) {
    for (int i = 0; i < count; ++i)
        results[i] = __builtin_sqrt(squaresFloat(a[i], b[i], n));
}

// Magnitudes of 16-bit differences need 17 bits, so 32-bit lanes hold them and sums of up to 2^15
// of them; longer sums are carried on in 64 bits.
constexpr int wordBlock = 1 << 15;

VSQ_INLINE std::int32_t magnitudeAt(const short* a, const short* b, int i) {
    const std::int32_t value = b == nullptr ? a[i] : a[i] - b[i];
    return value < 0 ? -value : value;
}

std::int64_t largestFixed(const short* a, const short* b, int n) {
    std::int32_t most = 0;
    const auto scan = [&](auto&& at) VSQ_LAMBDA {
        for (int i = 0; i < n; ++i) {
            const std::int32_t value = at(i);
            most = value > most ? value : most;
        }
    };
    if (b == nullptr)
        scan([a](int i) VSQ_LAMBDA { return magnitudeAt(a, nullptr, i); });
    else
        scan([a, b](int i) VSQ_LAMBDA { return magnitudeAt(a, b, i); });
    return most;
}

template <class At>
VSQ_INLINE std::int64_t sumOfMagnitudes(int n, const At& at) {
    std::int64_t total = 0;
    for (int from = 0; from < n;) {
        const int to = n - from > wordBlock ? from + wordBlock : n;
        std::uint32_t part = 0;
        for (int i = from; i < to; ++i)
            part += std::uint32_t(at(i));
        total += part;
        from = to;
    }
    return total;
}

std::int64_t sumFixed(const short* a, const short* b, int n) {
    if (b == nullptr)
        return sumOfMagnitudes(n, [a](int i) VSQ_LAMBDA { return magnitudeAt(a, nullptr, i); });
    return sumOfMagnitudes(n, [a, b](int i) VSQ_LAMBDA { return magnitudeAt(a, b, i); });
}

// The square of a difference fills 32 unsigned bits.
template <class At>
VSQ_INLINE std::int64_t sumOfSquares(int n, const At& at) {
    std::uint64_t total = 0;
    for (int i = 0; i < n; ++i) {
        const auto value = std::uint32_t(at(i));
        total += value * value;
    }
    return std::int64_t(total);
}

std::int64_t squaresFixed(const short* a, const short* b, int n) {
    if (b == nullptr)
        return sumOfSquares(n, [a](int i) VSQ_LAMBDA { return magnitudeAt(a, nullptr, i); });
    return sumOfSquares(n, [a, b](int i) VSQ_LAMBDA { return magnitudeAt(a, b, i); });
}

} // namespace

extern const NormKernels normKernels{
    .largestFloat = largestFloat,
    .sumFloat = sumFloat,
    .squaresFloat = squaresFloat,
    .largestFixed = largestFixed,
    .sumFixed = sumFixed,
    .squaresFixed = squaresFixed,
    .distancesFloat = distancesFloat,
};

} // namespace vsq::VSQ_LEVEL
