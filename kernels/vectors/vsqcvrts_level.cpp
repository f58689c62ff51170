// Conversions in blocks of eight registers. Narrowing instructions saturate, so that only the few
// values for which that is wrong are looked for. In place, blocks go upward or downward, so that no
// element is read after a result has covered it.
#include "vectors/vsqcvrts_level.h"
#include "simd/pack.h"

#include <cstddef>

namespace vsq::VSQ_LEVEL {
namespace {

using std::int16_t;
using std::int32_t;
using std::int64_t;

// Runs step(index, lanes) over [0, n): in wide packs, then in narrower ones, then one by one.
template <int lanes, class Step>
VSQ_INLINE void forBlocks(int n, const Step& step) {
    int i = 0;
    for (; n - i >= lanes; i += lanes)
        step(i, std::integral_constant<int, lanes>());
    if constexpr (lanes > 32)
        for (; n - i >= 32; i += 32)
            step(i, std::integral_constant<int, 32>());
    for (; n - i >= 4; i += 4)
        step(i, std::integral_constant<int, 4>());
    for (; i < n; ++i)
        step(i, std::integral_constant<int, 1>());
}

// The same from the end of [0, n) to its beginning.
template <int lanes, class Step>
VSQ_INLINE void forBlocksBackward(int n, const Step& step) {
    int i = n > 0 ? n : 0;
    for (; i % 4 != 0;)
        step(--i, std::integral_constant<int, 1>());
    for (; i >= lanes;)
        step(i -= lanes, std::integral_constant<int, lanes>());
    for (; i >= 4;)
        step(i -= 4, std::integral_constant<int, 4>());
}

// Whether arrays of n elements share memory. A conversion in place reads no element after a result
// has been written over it: with results that are no wider than the elements blocks go upward, with
// wider ones downward.
template <class Src, class Dst>
bool overlap(const Src* src, const Dst* dst, int n) {
    const auto from = reinterpret_cast<std::uintptr_t>(src),
               to = reinterpret_cast<std::uintptr_t>(dst);
    const auto count = static_cast<std::uintptr_t>(n > 0 ? n : 0);
    return from < to ? to - from < count * sizeof(Src) : from - to < count * sizeof(Dst);
}

constexpr int wide = 2 * registerBytes; // lanes of a block: eight registers of 32-bit elements

// The registers of a pack folded into one, lane by lane.
template <class T, int N, class Fold>
VSQ_INLINE auto foldedRegisters(const Pack<T, N>& v, const Fold& fold) {
    if constexpr (isRegister<T, N>)
        return v;
    else
        return fold(foldedRegisters(v.lo, fold), foldedRegisters(v.hi, fold));
}

template <int N>
VSQ_INLINE bool anyAbove(const Pack<int, N>& v, int limit) {
    const auto above = [](const auto& a, const auto& b) VSQ_LAMBDA { return larger(a, b); };
    const auto largest = foldedRegisters(v, above);
    return anyLane(splat<int, int(sizeof largest / sizeof(int))>(limit) < largest);
}

// --- downward ---

// Narrowing saturates, and so brings nearly all values where they belong by itself: what lies below
// the short range, and what does not even fit 32 bits and has become the most negative int. Where
// arrays are long the few that end elsewhere are looked for, which costs less than to replace them
// beforehand in every register.
constexpr bool hasIntMaximum = registerBytes > 16; // SSE2 has no maximum of 32-bit integers
template <int N>
constexpr bool looksFirst = hasIntMaximum && (N == wide);

// In a truncation they are those between the two ranges, which are to become the most negative
// value.
template <class T, int N>
VSQ_INLINE Pack<short, N> truncateTo(short, const Pack<T, N>& x) {
    if constexpr (looksFirst<N>) {
        const Pack<int, N> whole = truncated(x);
        if (__builtin_expect(!anyAbove(whole, INT16_MAX), true)) return narrowed(whole);
    }
    return narrowed(
        truncated(select(x < splat<T, N>(T(INT16_MAX + 1)), x, splat<T, N>(T(INT16_MIN)))));
}
template <class T, int N>
VSQ_INLINE Pack<int, N> truncateTo(int, const Pack<T, N>& x) {
    return truncated(x);
}

// The smaller of limit and x is x for a NaN, which then truncates to the most negative int.
template <class T, int N>
VSQ_INLINE Pack<short, N> clampTo(short, const Pack<T, N>& x) {
    return narrowed(truncated(smaller(splat<T, N>(T(INT16_MAX)), x)));
}
template <int N>
VSQ_INLINE Pack<int, N> clampTo(int, const Pack<double, N>& x) {
    return truncated(smaller(splat<double, N>(INT32_MAX), x));
}
template <int N>
VSQ_INLINE Pack<int, N> clampTo(int, const Pack<float, N>& x) { // no float is 2^31 - 1
    return select(splat<float, N>(0x1p31f) <= x, splat<int, N>(INT32_MAX), truncated(x));
}

// Whether products with the factor, a power of two, come out the same in float as in double
// followed by one rounding: it is a normal float. Results below the normal range truncate to 0
// either way, those above it are out of range.
bool isNormalFloat(double factor) {
    return factor >= 0x1p-126 && factor <= 0x1p127;
}

template <class Work, class Src, class Dst>
VSQ_INLINE void truncateIn(const Src* src, Dst* dst, int n, Work factor) {
    forBlocks<wide>(n, [=](int i, auto lanes) VSQ_LAMBDA {
        constexpr int N = decltype(lanes)::value;
        store(dst + i,
              truncateTo(Dst(), convert<Work>(load<Src, N>(src + i)) * splat<Work, N>(factor)));
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
    forBlocks<wide>(n, [=](int i, auto lanes) VSQ_LAMBDA {
        store(dst + i, clampTo(Dst(), load<Src, decltype(lanes)::value>(src + i)));
    });
}

// When floats are clamped to shorts, those above 32 bits end elsewhere. Their most negative int is
// looked for only once a stretch, which is then done again with care. In place there is nothing
// left to do again, and care comes first.
constexpr int stretch = 16 * wide;

void clampFrames(const float* src, short* dst, int n) {
    int done = 0;
    const bool looksBack = looksFirst<wide> && !overlap(src, dst, n);
    while (looksBack && n - done >= wide) {
        const int from = done, limit = n - done < stretch ? n : done + stretch;
        auto least = splat<int, wide / 8>(0);
        for (; limit - done >= wide; done += wide) {
            const auto whole = truncated(load<float, wide>(src + done));
            const auto lower = [](const auto& a, const auto& b)
                                   VSQ_LAMBDA { return smaller(a, b); };
            least = smaller(least, foldedRegisters(whole, lower));
            store(dst + done, narrowed(whole));
        }
        if (__builtin_expect(anyLane(least == splat<int, wide / 8>(INT32_MIN)), false))
            clamp(src + from, dst + from, done - from);
    }
    clamp(src + done, dst + done, n - done);
}

// --- upward ---

template <class Work, class Src, class Dst>
VSQ_INLINE void raiseIn(const Src* src, Dst* dst, int n, Work factor) {
    for (int i = 0; i < n; ++i)
        dst[i] = static_cast<Dst>(static_cast<Work>(src[i]) * factor);
}

// Register by register, so that each load widens straight from memory.
VSQ_INLINE void raiseIn(const short* src, float* dst, int n, float factor) {
    constexpr int fitting = registerBytes / int(sizeof(float));
    forBlocks<wide>(n, [=](int i, auto lanes) VSQ_LAMBDA {
        constexpr int all = decltype(lanes)::value, N = all < fitting ? all : fitting;
#pragma GCC unroll 8
        for (int part = 0; part < all; part += N)
            store(dst + i + part, convert<float>(convert<int>(load<short, N>(src + i + part))) *
                                      splat<float, N>(factor));
    });
}

template <int N>
VSQ_INLINE Pack<int, N> loadWhole(const short* src) {
    return convert<int>(load<short, N>(src));
}
template <int N>
VSQ_INLINE Pack<int, N> loadWhole(const int* src) {
    return load<int, N>(src);
}

// In place: each block is loaded before its wider results cover it and elements that have been
// done.
template <class Work, class Src, class Dst>
VSQ_INLINE void raiseBackward(const Src* src, Dst* dst, int n, Work factor) {
    forBlocksBackward<registerBytes / int(sizeof(Dst))>(n, [=](int i, auto lanes) VSQ_LAMBDA {
        constexpr int N = decltype(lanes)::value;
        store(dst + i, convert<Dst>(convert<Work>(loadWhole<N>(src + i)) * splat<Work, N>(factor)));
    });
}

template <class Src, class Dst>
void raise(const Src* src, Dst* dst, int n, double factor) {
    const bool inFloat = sizeof(Dst) == sizeof(float) && isNormalFloat(factor);
    if (overlap(src, dst, n)) {
        if (inFloat)
            raiseBackward(src, dst, n, static_cast<Dst>(factor));
        else
            raiseBackward(src, dst, n, factor);
    } else if (inFloat)
        raiseIn(src, dst, n, static_cast<Dst>(factor));
    else
        raiseIn<double, Src, Dst>(src, dst, n, factor);
}

// --- range of an array ---

// Exponent fields lie in the topmost 16 bits, so the search runs over 16-bit lanes, whose maximum
// is one instruction at every level; the lanes below the topmost are masked to 0. `count` counts
// 16-bit lanes.
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

// The exponent fields, and how far they stand above bit 0 of the topmost 16 bits.
constexpr int32_t floatField = 0x7F800000;
constexpr int64_t doubleField = 0x7FF0000000000000;
constexpr int floatFieldShift = 7, doubleFieldShift = 4;

int largestFloatExponent(const float* src, int n) {
    return largestMasked<int32_t, 64>(src, std::ptrdiff_t(2) * n, floatField) >> floatFieldShift;
}

int largestDoubleExponent(const double* src, int n) {
    return largestMasked<int64_t, 64>(src, std::ptrdiff_t(4) * n, doubleField) >> doubleFieldShift;
}

// All magnitudes or'ed together: their highest set bit is that of the largest one. The most
// negative value is its own negative, and as an unsigned word its magnitude. Four chains, so that
// they do not wait for each other; the last register may begin before the others end, since nothing
// changes when a value comes twice.
template <class T>
VSQ_INLINE unsigned joinedMagnitudes(const T* src, int n) {
    using Word = typename std::make_unsigned<T>::type;
    constexpr int N = registerBytes / int(sizeof(T)), chains = 4;
    Word all = 0;
    if (n < N) {
        for (int i = 0; i < n; ++i)
            all = Word(all | (src[i] < 0 ? Word(0) - Word(src[i]) : Word(src[i])));
        return all;
    }
    const auto none = splat<T, N>(0);
    Pack<T, N> joined[chains] = {none, none, none, none};
    const auto add = [](Pack<T, N>& part, const Pack<T, N>& x) VSQ_LAMBDA {
        const auto negative = bits<T>(splat<Word, N>(0) - bits<Word>(x)); // unsigned words may wrap
        part = part | larger(x, negative);
    };
    int i = 0;
    for (; n - i >= chains * N; i += chains * N)
        for (int chain = 0; chain < chains; ++chain)
            add(joined[chain], load<T, N>(src + i + chain * N));
    for (; n - i >= N; i += N)
        add(joined[0], load<T, N>(src + i));
    add(joined[1], load<T, N>(src + n - N));
    T lanes[N];
    store(lanes, (joined[0] | joined[1]) | (joined[2] | joined[3]));
    for (const T lane : lanes)
        all = Word(all | Word(lane));
    return all;
}

unsigned joinedShortMagnitudes(const short* src, int n) {
    return joinedMagnitudes(src, n);
}
unsigned joinedIntMagnitudes(const int* src, int n) {
    return joinedMagnitudes(src, n);
}

} // namespace

extern const CvrtsKernels cvrtsKernels{
    .truncateFloatToShort = truncate<float, short>,
    .truncateDoubleToShort = truncate<double, short>,
    .truncateFloatToInt = truncate<float, int>,
    .truncateDoubleToInt = truncate<double, int>,
    .clampFloatToShort = clampFrames,
    .clampDoubleToShort = clamp<double, short>,
    .clampFloatToInt = clamp<float, int>,
    .clampDoubleToInt = clamp<double, int>,
    .shortToFloat = raise<short, float>,
    .shortToDouble = raise<short, double>,
    .intToFloat = raise<int, float>,
    .intToDouble = raise<int, double>,
    .largestFloatExponent = largestFloatExponent,
    .largestDoubleExponent = largestDoubleExponent,
    .joinedShortMagnitudes = joinedShortMagnitudes,
    .joinedIntMagnitudes = joinedIntMagnitudes,
};

} // namespace vsq::VSQ_LEVEL
