#include "vsqmatvec_level.h"
#include "simd.h"

namespace vsq::VSQ_LEVEL {
namespace {

// --- floats ---

constexpr int lanes = 16;
constexpr int group = 4; // rows side by side, whose last additions share registers
using Lanes = Pack<float, lanes>;

// The tree's upper half: 16 lanes to 4.
template <class T>
VSQ_INLINE Pack<T, 4> foldedToFour(const Pack<T, lanes>& v) {
    const Pack<T, 8> eight = low(v) + high(v);
    return low(eight) + high(eight);
}

// The rest of it for four rows at once, after a transposition: lane r is the sum of row r, as sumLanes adds
// it.
template <class T>
VSQ_INLINE Pack<T, 4> sumsOfRows(const Pack<T, lanes> (&sums)[group]) {
    const Pack<T, 4> a = foldedToFour(sums[0]), b = foldedToFour(sums[1]);
    const Pack<T, 4> c = foldedToFour(sums[2]), d = foldedToFour(sums[3]);
    const Pack<T, 4> even0 = evenPairs(a, b), even1 = evenPairs(c, d); // a0 b0 a2 b2, c0 d0 c2 d2
    const Pack<T, 4> odd0 = oddPairs(a, b), odd1 = oddPairs(c, d);
    const Pack<T, 4> lane0 = join(low(even0), low(even1)), lane2 = join(high(even0), high(even1));
    const Pack<T, 4> lane1 = join(low(odd0), low(odd1)), lane3 = join(high(odd0), high(odd1));
    return (lane0 + lane2) + (lane1 + lane3);
}

// The lanes' sums of `count` rows from rows[0] on.
template <int count>
VSQ_INLINE void addColumns(const float* const* rows, int first, const float* x, int nCols, Lanes* sums) {
    const float* row[count];
    for (int r = 0; r < count; ++r) {
        row[r] = rows[r] + first;
        sums[r] = splat<float, lanes>(0);
    }
    int c = 0;
    for (; c + lanes <= nCols; c += lanes) {
        const Lanes part = load<float, lanes>(x + c);
        for (int r = 0; r < count; ++r)
            sums[r] = sums[r] + load<float, lanes>(row[r] + c) * part;
    }
    if (c >= nCols) return;
    const Lanes part = loadPart<float, lanes>(x + c, nCols - c);
    for (int r = 0; r < count; ++r)
        sums[r] = sums[r] + loadPart<float, lanes>(row[r] + c, nCols - c) * part;
}

void rowsS(float* dst, const float* const* rows, int first, const float* x, int nRows, int nCols) {
    Lanes sums[group];
    int r = 0;
    for (; r + group <= nRows; r += group) {
        addColumns<group>(rows + r, first, x, nCols, sums);
        store(dst + r, sumsOfRows(sums));
    }
    for (; r < nRows; ++r) {
        addColumns<1>(rows + r, first, x, nCols, sums);
        dst[r] = sumLanes(sums[0]);
    }
}

// --- words ---

// Sums are formed modulo 2^32, so unsigned, and in any order.
constexpr int words = 32;
using Words = Pack<std::int16_t, words>;
using Sums = Pack<std::uint32_t, words / 2>;

// With a product p = h * 2^16 + l, l unsigned, and a shift s from 1 to 15, p >> s is h * 2^(16 - s) + (l >>
// s). So the halves are summed apart, in pairs: the upper ones, and the lower ones after their shift, which
// leaves them positive.
struct HalvesSummed {
    int shift;
    Sums upper, lower;

    VSQ_INLINE void clear(int count) {
        shift = count;
        upper = lower = splat<std::uint32_t, words / 2>(0);
    }
    VSQ_INLINE void add(const Words& w, const Words& x) {
        upper = upper + bits<std::uint32_t>(pairTotals(highProducts(w, x)));
        const auto rest = bits<std::uint16_t>(w) * bits<std::uint16_t>(x);
        lower = lower + bits<std::uint32_t>(pairTotals(bits<std::int16_t>(rest >> shift)));
    }
    VSQ_INLINE Sums total() const { return (upper << (16 - shift)) + lower; }
};

// Any other shift: the products themselves.
struct ProductsSummed {
    int shift;
    Sums sums;

    VSQ_INLINE void clear(int count) {
        shift = count;
        sums = splat<std::uint32_t, words / 2>(0);
    }
    VSQ_INLINE void add(const Words& w, const Words& x) {
        addHalf(low(w), low(x));
        addHalf(high(w), high(x));
    }
    VSQ_INLINE void addHalf(const Pack<std::int16_t, words / 2>& w, const Pack<std::int16_t, words / 2>& x) {
        const auto products = convert<std::int32_t>(w) * convert<std::int32_t>(x);
        sums = sums + bits<std::uint32_t>(products >> shift);
    }
    VSQ_INLINE Sums total() const { return sums; }
};

// The sums of `count` rows from rows[0] on.
template <int count, class Adder>
VSQ_INLINE void addWords(const short* const* rows, const short* x, int nCols, int shift, Sums* sums) {
    Adder adders[count];
    for (int r = 0; r < count; ++r)
        adders[r].clear(shift);
    int c = 0;
    for (; c + words <= nCols; c += words) {
        const Words part = load<std::int16_t, words>(x + c);
        for (int r = 0; r < count; ++r)
            adders[r].add(load<std::int16_t, words>(rows[r] + c), part);
    }
    if (c < nCols) {
        const Words part = loadPart<std::int16_t, words>(x + c, nCols - c);
        for (int r = 0; r < count; ++r)
            adders[r].add(loadPart<std::int16_t, words>(rows[r] + c, nCols - c), part);
    }
    for (int r = 0; r < count; ++r)
        sums[r] = adders[r].total();
}

template <class Adder>
VSQ_INLINE void sumRows(int* dst, const short* const* rows, const short* x, int nRows, int nCols, int shift) {
    Sums sums[group];
    int r = 0;
    for (; r + group <= nRows; r += group) {
        addWords<group, Adder>(rows + r, x, nCols, shift, sums);
        store(dst + r, bits<std::int32_t>(sumsOfRows(sums)));
    }
    for (; r < nRows; ++r) {
        addWords<1, Adder>(rows + r, x, nCols, shift, sums);
        dst[r] = int(sumLanes(sums[0]));
    }
}

void rowsW(int* dst, const short* const* rows, const short* x, int nRows, int nCols, int shift) {
    const int count = shift & 31;
    if (count >= 1 && count <= 15)
        sumRows<HalvesSummed>(dst, rows, x, nRows, nCols, count);
    else
        sumRows<ProductsSummed>(dst, rows, x, nRows, nCols, count);
}

} // namespace

extern const MatVecKernels matVecKernels{rowsS, rowsW};

} // namespace vsq::VSQ_LEVEL
