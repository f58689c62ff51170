// Squared distances from a vector to many codes, and the winner. Float sums are formed as an even
// and an odd one per code, the same at every level. Fixed-point sums are exact or wrap, in any
// order.
#include "recognition/vsqkohonen_level.h"
#include "simd/pack.h"

namespace vsq::VSQ_LEVEL {
namespace {

// --- float: codes in lanes, two neighbouring lanes for the even and the odd sum of one code ---

constexpr int pairs = registerBytes / 8; // pairs of floats in a register, and codes taken together
using Pairs = Pack<float, 2 * pairs>;
using Register = Pairs::Register;

// Exchanges the off-diagonal blocks of `size` x `size` pairs between two rows of pairs.
template <int size, int... I>
VSQ_INLINE void exchange(Pairs& a, Pairs& b, std::integer_sequence<int, I...>) {
    using Units = Pack<double, pairs>::Register;
    const Units x = (Units)a.r, y = (Units)b.r;
    a.r = (Register)__builtin_shufflevector(x, y, ((I & size) == 0 ? I : I - size + pairs)...);
    b.r = (Register)__builtin_shufflevector(x, y, ((I & size) == 0 ? I + size : I + pairs)...);
}

// Row u, pair j becomes row j, pair u.
template <int size = 1>
VSQ_INLINE void transpose(Pairs (&rows)[pairs]) {
    for (int i = 0; i < pairs; ++i)
        if ((i & size) == 0)
            exchange<size>(rows[i], rows[i + size], std::make_integer_sequence<int, pairs>());
    if constexpr (2 * size < pairs) transpose<2 * size>(rows);
}

VSQ_INLINE Pairs partOf(const float* p, int count) {
    return count >= 2 * pairs ? load<float, 2 * pairs>(p) : loadPart<float, 2 * pairs>(p, count);
}

// Adds the squares of 2 * pairs elements from place k on; `left` of them exist, the others add
// nothing.
VSQ_INLINE void addPart(Pairs& sums, const Pairs& vector, const float* const* codes, int k,
                        int left) {
    Pairs rows[pairs];
    for (int i = 0; i < pairs; ++i) {
        const Pairs difference = partOf(codes[i] + k, left) - vector;
        rows[i] = difference * difference;
    }
    transpose(rows);
    for (int i = 0; i < pairs; ++i)
        sums = sums + rows[i];
}

template <int... I>
VSQ_INLINE Pairs evenPlusOdd(const Pairs& a, const Pairs& b, std::integer_sequence<int, I...>) {
    const Register even = __builtin_shufflevector(a.r, b.r, (2 * I)...);
    const Register odd = __builtin_shufflevector(a.r, b.r, (2 * I + 1)...);
    return {even + odd};
}

VSQ_INLINE Pairs squaresOfGroup(const float* vector, const float* const* codes, int nDim) {
    Pairs first = splat<float, 2 * pairs>(0), second = first;
    for (int k = 0; k < nDim; k += 2 * pairs) {
        const int left = nDim - k;
        const Pairs part = partOf(vector + k, left);
        addPart(first, part, codes, k, left);
        addPart(second, part, codes + pairs, k, left);
    }
    return evenPlusOdd(first, second, std::make_integer_sequence<int, 2 * pairs>());
}

void squaresFloat(const float* vector, const float* const* codes, float* squares, int nDim,
                  int nCodes) {
    constexpr int together = 2 * pairs;
    int c = 0;
    for (; c + together <= nCodes; c += together)
        store(squares + c, squaresOfGroup(vector, codes + c, nDim));
    if (c == nCodes) return;
    const float* last[together]; // the group that is not full, its last code repeated
    for (int i = 0; i < together; ++i)
        last[i] = codes[c + i < nCodes ? c + i : nCodes - 1];
    storePart(squares + c, squaresOfGroup(vector, last, nDim), nCodes - c);
}

// --- fixed point ---

constexpr int group = 8;
using Words = Pack<std::int16_t, group>;
using Squares = Pack<std::uint32_t, group>;

// Differences have 17 bits, so that their squares fill 32 unsigned ones.
VSQ_INLINE Squares squaresOf(const Words& a, const Words& b) {
    const auto difference =
        bits<std::uint32_t>(convert<std::int32_t>(a) - convert<std::int32_t>(b));
    return difference * difference;
}

constexpr std::int16_t lastOnes[2 * group] = {0,  0,  0,  0,  0,  0,  0,  0,
                                              -1, -1, -1, -1, -1, -1, -1, -1};

// The sum of the squares in words of type Sum. What is left after whole groups is taken as the
// last whole group of the row, without the elements that have been taken already.
template <class Sum>
VSQ_INLINE Sum sumOfSquares(const short* a, const short* b, int nDim) {
    if (nDim < group) {
        Sum sum = 0;
        for (int k = 0; k < nDim; ++k) {
            const auto difference = std::uint32_t(a[k] - b[k]);
            sum += difference * difference;
        }
        return sum;
    }
    auto total = splat<Sum, group>(0);
    int k = 0;
    for (; k + group <= nDim; k += group)
        total = total + convert<Sum>(squaresOf(load<std::int16_t, group>(a + k),
                                               load<std::int16_t, group>(b + k)));
    if (k < nDim) {
        const Words left = load<std::int16_t, group>(lastOnes + (nDim - k));
        const int last = nDim - group;
        const Words x = load<std::int16_t, group>(a + last) & left;
        const Words y = load<std::int16_t, group>(b + last) & left;
        total = total + convert<Sum>(squaresOf(x, y));
    }
    return sumLanes(total);
}

void squaresFixed(const short* vector, const short* const* codes, void* squares, int nDim,
                  int nCodes) {
    for (int c = 0; c < nCodes; ++c) {
        const float rounded =
            float(std::int64_t(sumOfSquares<std::uint64_t>(codes[c], vector, nDim)));
        std::memcpy(static_cast<char*>(squares) + std::ptrdiff_t(c) * 4, &rounded, 4);
    }
}

void wrappingSquares(const short* vector, const short* const* codes, int* squares, int nDim,
                     int nCodes) {
    for (int c = 0; c < nCodes; ++c)
        squares[c] = int(sumOfSquares<std::uint32_t>(codes[c], vector, nDim));
}

constexpr int lanes = 16;
using Ints = Pack<std::int32_t, lanes>;

// A double holds the word and its root exactly enough: no root of a word that is not a square is
// within 2^-18 of an integer from below, so that the truncation is exact.
VSQ_INLINE Ints rootsOf(const Ints& words) {
    auto values = convert<double>(words);
    constexpr double wordRange = 0x1p32; // a negative word stands for itself plus this
    values =
        select(values < splat<double, lanes>(0), values + splat<double, lanes>(wordRange), values);
    return truncated(squareRoot(values));
}

template <class Change>
VSQ_INLINE void changeAll(int* values, int n, const Change& change) {
    int i = 0;
    for (; i + lanes <= n; i += lanes)
        store(values + i, change(load<int, lanes>(values + i)));
    if (i < n) storePart(values + i, change(loadPart<int, lanes>(values + i, n - i)), n - i);
}

void integerRoots(int* values, int n) {
    changeAll(values, n, [](const Ints& words) VSQ_LAMBDA { return rootsOf(words); });
}

void shiftRight(int* values, int n, int count) {
    changeAll(values, n, [count](const Ints& words) VSQ_LAMBDA { return words >> count; });
}

void shiftLeft(int* values, int n, int count) {
    changeAll(values, n, [count](const Ints& words) VSQ_LAMBDA {
        return bits<std::int32_t>(bits<std::uint32_t>(words) << count);
    });
}

// --- the winner ---

VSQ_INLINE Ints wordsAt(const void* values, int i, int n) {
    const auto* words = static_cast<const char*>(values) + std::ptrdiff_t(i) * 4;
    if (n - i >= lanes) {
        std::int32_t copy[lanes];
        std::memcpy(copy, words, sizeof copy);
        return load<std::int32_t, lanes>(copy);
    }
    std::int32_t copy[lanes];
    for (std::int32_t& word : copy)
        word = INT32_MAX;
    std::memcpy(copy, words, std::size_t(n - i) * 4);
    return load<std::int32_t, lanes>(copy);
}

int firstSmallest(const void* values, int n) {
    Ints least = splat<std::int32_t, lanes>(INT32_MAX);
    for (int i = 0; i < n; i += lanes)
        least = smaller(wordsAt(values, i, n), least);
    const Ints smallest = splat<std::int32_t, lanes>(smallestLane(least));
    for (int i = 0; i < n; i += lanes)
        if (const unsigned found = laneBits(wordsAt(values, i, n) == smallest))
            return i + __builtin_ctz(found);
    return 0;
}

} // namespace

extern const KohonenKernels kohonenKernels{
    .squaresFloat = squaresFloat,
    .squaresFixed = squaresFixed,
    .wrappingSquares = wrappingSquares,
    .integerRoots = integerRoots,
    .shiftRight = shiftRight,
    .shiftLeft = shiftLeft,
    .firstSmallest = firstSmallest,
};

} // namespace vsq::VSQ_LEVEL
