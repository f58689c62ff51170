// Rows times a vector. Four rows go side by side, so that they share the loads of the vector and
// the tree of last additions. 16-bit products are shifted before they are summed; the usual shifts
// go in 16-bit lanes, which are twice as many.
#include "recognition/vsqmatvec_level.h"
#include "simd/shuffle.h"

namespace vsq::VSQ_LEVEL {
namespace {

// --- floats ---

constexpr int lanes = 16;
constexpr int group = 4; // rows side by side, whose last additions share registers
using Lanes = Pack<float, lanes>;

// Lanes 0 and 1 of each quarter of x and y side by side, or (upper) lanes 2 and 3: from quarters a
// b and c d, a c and b d.
template <bool upper, class T>
VSQ_INLINE Pack<T, 8> pairsOfQuarters(const Pack<T, 8>& x, const Pack<T, 8>& y) {
    if constexpr (isRegister<T, 8>)
        return pick<(upper ? quarterPairUpperLane : quarterPairLane)>(x, y);
    else if constexpr (upper)
        return {highHalves(x.lo, y.lo), highHalves(x.hi, y.hi)};
    else
        return {lowHalves(x.lo, y.lo), lowHalves(x.hi, y.hi)};
}

// Lane r is the sum of row r as sumLanes adds it: the tree of four rows at once, which share
// registers from the second step on.
template <class T>
VSQ_INLINE Pack<T, group> sumsOfRows(const Pack<T, lanes> (&sums)[group]) {
    Pack<T, 8> eight[group];
    for (int r = 0; r < group; ++r)
        eight[r] = low(sums[r]) + high(sums[r]);
    const Pack<T, 8> ab = lowHalves(eight[0], eight[1]) + highHalves(eight[0], eight[1]);
    const Pack<T, 8> cd = lowHalves(eight[2], eight[3]) + highHalves(eight[2], eight[3]);
    const Pack<T, 8> acbd = pairsOfQuarters<false>(ab, cd) + pairsOfQuarters<true>(ab, cd);
    return evenPairs(low(acbd), high(acbd)) + oddPairs(low(acbd), high(acbd));
}

// The lanes' sums of `count` rows from rows[0] on.
template <int count>
VSQ_INLINE void addColumns(const float* const* rows, int first, const float* x, int nCols,
                           Lanes* sums) {
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

// The sums of four rows.
VSQ_INLINE Pack<float, group> sumsOfFour(const float* const* rows, int first, const float* x,
                                         int nCols) {
    Lanes sums[group];
    addColumns<group>(rows, first, x, nCols, sums);
    return sumsOfRows(sums);
}

void rowsFloat(float* dst, const float* const* rows, int first, const float* x, int nRows,
               int nCols) {
    int r = 0;
    // 16 sums are stored at once, since a load of more than one store has written would wait for
    // them.
    for (; r + 4 * group <= nRows; r += 4 * group) {
        const auto a = sumsOfFour(rows + r, first, x, nCols);
        const auto b = sumsOfFour(rows + r + group, first, x, nCols);
        const auto c = sumsOfFour(rows + r + 2 * group, first, x, nCols);
        const auto d = sumsOfFour(rows + r + 3 * group, first, x, nCols);
        store(dst + r, join(join(a, b), join(c, d)));
    }
    for (; r + group <= nRows; r += group)
        store(dst + r, sumsOfFour(rows + r, first, x, nCols));
    for (; r < nRows; ++r) {
        Lanes sum[1];
        addColumns<1>(rows + r, first, x, nCols, sum);
        dst[r] = sumLanes(sum[0]);
    }
}

// --- words ---

// Sums are formed modulo 2^32, so unsigned, and in any order.
constexpr int words = 32;
using Words = Pack<std::int16_t, words>;
using Sums = Pack<std::uint32_t, words / 2>;

// The columns of x, as an adder wants them.
struct Columns {
    Words x;
    VSQ_INLINE explicit Columns(const Words& columns) : x(columns) {}
};

// A shift of 15, for weights in Q15: (w * x) >> 15 is the upper half of w * 2x. 2x modulo 2^16 as a
// signed word is off by 2^16 where x is outside of [-2^14, 2^14), and the upper half by w: there w
// is added, or ~w, which is -w - 1, for negative x, whose number makes up for the 1. The 16 bits of
// such a sum hold all results, with the 1 even that of the largest product, 2^30.
struct DoubledColumns {
    Words twice, outside, negative;

    VSQ_INLINE explicit DoubledColumns(const Words& x) : twice(x << 1) {
        outside = (x ^ twice) >> 15;
        negative = outside & (x >> 15);
    }
    VSQ_INLINE unsigned countOfNegatives() const {
        return 0u - unsigned(sumLanes(pairTotals(negative)));
    }
};
struct UpperHalvesSummed {
    using Prepared = DoubledColumns;
    Sums sums;

    VSQ_INLINE void clear(int) { sums = splat<std::uint32_t, words / 2>(0); }
    VSQ_INLINE void add(const Words& w, const Prepared& x) {
        const auto shifted = bits<std::uint16_t>(highProducts(w, x.twice)) +
                             bits<std::uint16_t>((w ^ x.negative) & x.outside);
        sums = sums + bits<std::uint32_t>(pairTotals(bits<std::int16_t>(shifted)));
    }
    VSQ_INLINE Sums total() const { return sums; }
};

// With a product p = h * 2^16 + l, l unsigned, and a shift s from 1 to 14, p >> s is h * 2^(16 - s)
// + (l >> s). So the halves are summed apart, in pairs: the upper ones, and the lower ones after
// their shift, which leaves them positive.
struct HalvesSummed {
    using Prepared = Columns;
    int shift;
    Sums upper, lower;

    VSQ_INLINE void clear(int count) {
        shift = count;
        upper = lower = splat<std::uint32_t, words / 2>(0);
    }
    VSQ_INLINE void add(const Words& w, const Columns& x) {
        upper = upper + bits<std::uint32_t>(pairTotals(highProducts(w, x.x)));
        const auto rest = bits<std::uint16_t>(w) * bits<std::uint16_t>(x.x);
        lower = lower + bits<std::uint32_t>(pairTotals(bits<std::int16_t>(rest >> shift)));
    }
    VSQ_INLINE Sums total() const { return (upper << (16 - shift)) + lower; }
};

// Any other shift: the products themselves.
struct ProductsSummed {
    using Prepared = Columns;
    int shift;
    Sums sums;

    VSQ_INLINE void clear(int count) {
        shift = count;
        sums = splat<std::uint32_t, words / 2>(0);
    }
    VSQ_INLINE void add(const Words& w, const Columns& x) {
        addHalf(low(w), low(x.x));
        addHalf(high(w), high(x.x));
    }
    VSQ_INLINE void addHalf(const Pack<std::int16_t, words / 2>& w,
                            const Pack<std::int16_t, words / 2>& x) {
        const auto products = convert<std::int32_t>(w) * convert<std::int32_t>(x);
        sums = sums + bits<std::uint32_t>(products >> shift);
    }
    VSQ_INLINE Sums total() const { return sums; }
};

// How a row is taken: whole blocks from the first column on, and what is left over from the block
// that ends with the row, whose columns that have been summed meet zeros of x. Rows shorter than a
// block are filled up with zeros.
template <class Adder>
struct RowPlan {
    const short* x;
    // whole blocks, columns left over, and where the block with them begins
    int blocks, rest, restAt;
    typename Adder::Prepared last;

    VSQ_INLINE RowPlan(const short* columns, int nCols)
        : x(columns), blocks(nCols > 0 ? nCols / words : 0), rest(nCols > 0 ? nCols % words : 0),
          restAt(blocks > 0 ? nCols - words : 0),
          last(lastOf(columns + blocks * words, rest, blocks > 0)) {}

    static VSQ_INLINE Words lastOf(const short* left, int count, bool atEnd) {
        std::int16_t window[words] = {};
        for (int i = 0; i < count; ++i)
            window[atEnd ? words - count + i : i] = left[i];
        return load<std::int16_t, words>(window);
    }
    VSQ_INLINE Words lastOf(const short* row) const {
        return blocks > 0 ? load<std::int16_t, words>(row + restAt)
                          : loadPart<std::int16_t, words>(row, rest);
    }
};

// The sums of `count` rows from rows[0] on.
template <int count, class Adder>
VSQ_INLINE void addWords(const short* const* rows, const RowPlan<Adder>& plan, int shift,
                         Sums* sums) {
    Adder adders[count];
    for (int r = 0; r < count; ++r)
        adders[r].clear(shift);
    for (int c = 0; c < plan.blocks * words; c += words) {
        const typename Adder::Prepared part(load<std::int16_t, words>(plan.x + c));
        for (int r = 0; r < count; ++r)
            adders[r].add(load<std::int16_t, words>(rows[r] + c), part);
    }
    if (plan.rest > 0)
        for (int r = 0; r < count; ++r)
            adders[r].add(plan.lastOf(rows[r]), plan.last);
    for (int r = 0; r < count; ++r)
        sums[r] = adders[r].total();
}

// `constant` is added to every sum.
template <class Adder>
VSQ_INLINE void sumRows(int* dst, const short* const* rows, const short* x, int nRows, int nCols,
                        int shift, unsigned constant) {
    const RowPlan<Adder> plan(x, nCols);
    Sums sums[group];
    int r = 0;
    for (; r + group <= nRows; r += group) {
        addWords<group, Adder>(rows + r, plan, shift, sums);
        store(dst + r,
              bits<std::int32_t>(sumsOfRows(sums) + splat<std::uint32_t, group>(constant)));
    }
    for (; r < nRows; ++r) {
        addWords<1, Adder>(rows + r, plan, shift, sums);
        dst[r] = int(sumLanes(sums[0]) + constant);
    }
}

unsigned countOfNegatives(const short* x, int nCols) {
    unsigned count = 0;
    for (int c = 0; c < nCols; c += words)
        count +=
            DoubledColumns(c + words <= nCols ? load<std::int16_t, words>(x + c)
                                              : loadPart<std::int16_t, words>(x + c, nCols - c))
                .countOfNegatives();
    return count;
}

void rowsFixed(int* dst, const short* const* rows, const short* x, int nRows, int nCols,
               int shift) {
    const int count = shift & 31;
    if (count == 15)
        sumRows<UpperHalvesSummed>(dst, rows, x, nRows, nCols, count, countOfNegatives(x, nCols));
    else if (count >= 1 && count <= 14)
        sumRows<HalvesSummed>(dst, rows, x, nRows, nCols, count, 0);
    else
        sumRows<ProductsSummed>(dst, rows, x, nRows, nCols, count, 0);
}

} // namespace

extern const MatVecKernels matVecKernels{
    .rowsFloat = rowsFloat,
    .rowsFixed = rowsFixed,
};

} // namespace vsq::VSQ_LEVEL
