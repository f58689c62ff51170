#include "vsqcvrts_level.h"
#include "simd.h"

#include <cstddef>

namespace vsq::VSQ_LEVEL {
namespace {

using std::int16_t;
using std::int32_t;
using std::int64_t;

// Runs step(index, lanes) over [0, n): in wide packs, then in fours, then one by one.
template <int lanes, class Step>
VSQ_INLINE void forBlocks(int n, const Step& step) {
    int i = 0;
    for (; n - i >= lanes; i += lanes)
        step(i, std::integral_constant<int, lanes>());
    for (; n - i >= 4; i += 4)
        step(i, std::integral_constant<int, 4>());
    for (; i < n; ++i)
        step(i, std::integral_constant<int, 1>());
}

// --- downward ---

// Narrowing saturates, so what lies below the short range ends at its most negative value by itself, as does
// what does not even fit 32 bits; only what lies above it, and not-a-number, is replaced beforehand.
template <class T, int N>
VSQ_INLINE Pack<short, N> truncateTo(short, const Pack<T, N>& x) {
    return narrowed(truncated(select(x < splat<T, N>(T(32768)), x, splat<T, N>(T(-32768)))));
}
template <class T, int N>
VSQ_INLINE Pack<int, N> truncateTo(int, const Pack<T, N>& x) {
    return truncated(x);
}

// The smaller of limit and x is x for a not-a-number, which then truncates to the most negative int.
template <class T, int N>
VSQ_INLINE Pack<short, N> clampTo(short, const Pack<T, N>& x) {
    return narrowed(truncated(smaller(splat<T, N>(T(32767)), x)));
}
template <int N>
VSQ_INLINE Pack<int, N> clampTo(int, const Pack<double, N>& x) {
    return truncated(smaller(splat<double, N>(2147483647.0), x));
}
template <int N>
VSQ_INLINE Pack<int, N> clampTo(int, const Pack<float, N>& x) { // no float is 2^31 - 1
    return select(splat<float, N>(2147483648.0f) <= x, splat<int, N>(INT32_MAX), truncated(x));
}

// Whether products with the factor, a power of two, come out the same in float as in double followed by one
// rounding: it is a normal float. Results below the normal range truncate to 0 either way, those above it are
// out of range.
bool isNormalFloat(double factor) {
    return factor >= 0x1p-126 && factor <= 0x1p127;
}

template <class Work, class Src, class Dst>
VSQ_INLINE void truncateIn(const Src* src, Dst* dst, int n, Work factor) {
    forBlocks<32>(n, [=](int i, auto lanes) VSQ_LAMBDA {
        constexpr int N = decltype(lanes)::value;
        store(dst + i, truncateTo(Dst(), convert<Work>(load<Src, N>(src + i)) * splat<Work, N>(factor)));
    });
}

template <class Src, class Dst>
void truncate(const Src* src, Dst* dst, int n, double factor) {
    if (sizeof(Src) == sizeof(float) && isNormalFloat(factor))
        truncateIn<Src>(src, dst, n, static_cast<Src>(factor));
    else
        truncateIn<double>(src, dst, n, factor);
}

template <class Src, class Dst>
void clamp(const Src* src, Dst* dst, int n) {
    forBlocks<32>(n, [=](int i, auto lanes) VSQ_LAMBDA {
        store(dst + i, clampTo(Dst(), load<Src, decltype(lanes)::value>(src + i)));
    });
}

// --- upward ---

template <class Work, class Src, class Dst>
VSQ_INLINE void raiseIn(const Src* src, Dst* dst, int n, Work factor) {
    for (int i = 0; i < n; ++i)
        dst[i] = static_cast<Dst>(static_cast<Work>(src[i]) * factor);
}

template <class Src, class Dst>
void raise(const Src* src, Dst* dst, int n, double factor) {
    if (sizeof(Dst) == sizeof(float) && isNormalFloat(factor))
        raiseIn<Dst>(src, dst, n, static_cast<Dst>(factor));
    else
        raiseIn<double>(src, dst, n, factor);
}

// --- range of an array ---

// Exponent fields lie in the topmost 16 bits, so the search runs over 16-bit lanes, whose maximum is one
// instruction at every level; the lanes below the topmost are masked to 0. `count` counts 16-bit lanes.
template <class Word, int N>
VSQ_INLINE int largestMasked(const void* src, std::ptrdiff_t count, Word mask) {
    constexpr int perWord = int(sizeof(Word) / sizeof(int16_t));
    const auto* lanes = static_cast<const char*>(src);
    Word masks[N / perWord];
    for (auto& word : masks)
        word = mask;
    const auto keep = load<int16_t, N>(reinterpret_cast<const int16_t*>(masks));
    auto first = splat<int16_t, N>(0), second = first;
    std::ptrdiff_t i = 0;
    const auto at = [=](std::ptrdiff_t lane) VSQ_LAMBDA {
        return load<int16_t, N>(reinterpret_cast<const int16_t*>(lanes + lane * 2)) & keep;
    };
    for (; i <= count - 2 * N; i += 2 * N) {
        first = larger(first, at(i));
        second = larger(second, at(i + N));
    }
    if (i <= count - N) {
        first = larger(first, at(i));
        i += N;
    }
    int largest = largestLane(larger(first, second));
    for (; i < count; i += perWord) {
        Word word;
        std::memcpy(&word, lanes + i * 2, sizeof word);
        const int top = static_cast<int>((word & mask) >> (8 * sizeof(Word) - 16));
        largest = top > largest ? top : largest;
    }
    return largest;
}

int largestFloatExponent(const float* src, int n) {
    return largestMasked<int32_t, 64>(src, std::ptrdiff_t(2) * n, 0x7F800000) >> 7;
}

int largestDoubleExponent(const double* src, int n) {
    return largestMasked<int64_t, 64>(src, std::ptrdiff_t(4) * n, 0x7FF0000000000000) >> 4;
}

// Largest and smallest element, so that no magnitude is formed before the end, where it is unsigned: the most
// negative value has one.
template <class T>
VSQ_INLINE unsigned largestMagnitude(const T* src, int n) {
    constexpr int N = 128 / int(sizeof(T));
    auto highest = splat<T, N>(0), lowest = highest;
    int i = 0;
    for (; n - i >= N; i += N) {
        const auto x = load<T, N>(src + i);
        highest = larger(highest, x);
        lowest = smaller(lowest, x);
    }
    T high = largestLane(highest), low = smallestLane(lowest);
    for (; i < n; ++i) {
        high = src[i] > high ? src[i] : high;
        low = src[i] < low ? src[i] : low;
    }
    const unsigned above = static_cast<unsigned>(high), below = 0u - static_cast<unsigned>(low);
    return above > below ? above : below;
}

unsigned largestShortMagnitude(const short* src, int n) {
    return largestMagnitude(src, n);
}
unsigned largestIntMagnitude(const int* src, int n) {
    return largestMagnitude(src, n);
}

} // namespace

extern const CvrtsKernels cvrtsKernels{
    truncate<float, short>, truncate<double, short>, truncate<float, int>,  truncate<double, int>,
    clamp<float, short>,    clamp<double, short>,    clamp<float, int>,     clamp<double, int>,
    raise<short, float>,    raise<short, double>,    raise<int, float>,     raise<int, double>,
    largestFloatExponent,   largestDoubleExponent,   largestShortMagnitude, largestIntMagnitude,
};

} // namespace vsq::VSQ_LEVEL
