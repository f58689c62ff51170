// Quadratic forms of the difference of two vectors, as distances and mixtures share them; for level
// sources. Differences, products and sums are double precision.
//
// Vectors go by groups of 4, in registers of 4 doubles also where there are wider ones: what limits
// the speed is the conversions, and processors that split wide registers take a conversion of 8
// floats for more than two of 4.
#pragma once

#include "simd/pack.h"

namespace vsq::VSQ_LEVEL {
namespace {

using Four = Pack<double, 4>;
using FourBits = Pack<std::int64_t, 4>;

VSQ_INLINE Four noSum() {
    return splat<double, 4>(0.0);
}

// Elements as they are subtracted: floats as doubles, 16-bit integers as 32-bit ones, which are
// converted once then.
VSQ_INLINE Four operand(const Pack<float, 4>& raw) {
    return convert<double>(raw);
}
VSQ_INLINE Pack<std::int32_t, 4> operand(const Pack<std::int16_t, 4>& raw) {
    return convert<std::int32_t>(raw);
}
VSQ_INLINE Four wide(const Four& v) {
    return v;
}
VSQ_INLINE Four wide(const Pack<std::int32_t, 4>& v) {
    return convert<double>(v);
}

template <class T>
VSQ_INLINE auto fourAt(const T* p) {
    return operand(load<T, 4>(p));
}
template <class T>
VSQ_INLINE Four wideFour(const T* p) {
    return wide(fourAt(p));
}

alignas(64) constexpr std::int64_t fourOnes[8] = {-1, -1, -1, -1, 0, 0, 0, 0};

// The first `count` lanes, the others 0 whatever they were.
VSQ_INLINE Four firstOf(const Four& v, int count) {
    return bits<double>(bits<std::int64_t>(v) & load<std::int64_t, 4>(fourOnes + 4 - count));
}

// How the last group of a row is read, of which `count` (1 to 4) elements exist: as they are, or
// whole where rows of floats are padded to groups of 4 with whatever it may be.
struct ExactRows {
    template <class T>
    static VSQ_INLINE auto last(const T* p, int count) {
        return operand(loadPart<T, 4>(p, count));
    }
};
struct PaddedRows {
    static VSQ_INLINE Four last(const float* p, int count) { return firstOf(wideFour(p), count); }
};

// --- diagonal: the sum of c * (x - y)^2 ---

// In 8 lanes, two groups of 4. A vector ends with 1 to 8 elements, in one or two groups: `first` is
// where they begin.
struct Ending {
    int first, groups, count; // `count` elements in the last group
    VSQ_INLINE explicit Ending(int n)
        : first((n - 1) / 8 * 8), groups(n - first > 4 ? 2 : 1),
          count(n - first - 4 * (groups - 1)) {}
};

template <class Operand>
VSQ_INLINE Four squares(const Operand& x, const Operand& y, const Operand& c) {
    const Four d = wide(x - y);
    return wide(c) * d * d;
}

// The forms of `rows` rows side by side, each as 4 lanes of which sumLanes makes it.
template <int rows, int groups, class Rows, class T>
VSQ_INLINE void diagonalLanes(const T* x, const T* const* y, const T* const* c,
                              const Ending& ending, Four* sums) {
    Four lo[rows], hi[rows];
    for (int k = 0; k < rows; ++k)
        lo[k] = hi[k] = noSum();
    for (int i = 0; i < ending.first; i += 8) {
        const auto x0 = fourAt(x + i), x4 = fourAt(x + i + 4);
        for (int k = 0; k < rows; ++k) {
            lo[k] = lo[k] + squares(x0, fourAt(y[k] + i), fourAt(c[k] + i));
            hi[k] = hi[k] + squares(x4, fourAt(y[k] + i + 4), fourAt(c[k] + i + 4));
        }
    }
    const int last = ending.first + 4 * (groups - 1), count = ending.count;
    if constexpr (groups == 2) {
        const auto x0 = fourAt(x + ending.first);
        for (int k = 0; k < rows; ++k)
            lo[k] = lo[k] + squares(x0, fourAt(y[k] + ending.first), fourAt(c[k] + ending.first));
    }
    const auto rest = ExactRows::last(x + last, count);
    for (int k = 0; k < rows; ++k) {
        Four& sum = groups == 2 ? hi[k] : lo[k];
        sum = sum + squares(rest, Rows::last(y[k] + last, count), Rows::last(c[k] + last, count));
        sums[k] = lo[k] + hi[k];
    }
}

// Four sums across lanes side by side, each with the bits of sumLanes.
VSQ_INLINE Four sumEach(const Four* v) {
    const Four x = lowHalves(v[0], v[2]) + highHalves(v[0], v[2]);
    const Four y = lowHalves(v[1], v[3]) + highHalves(v[1], v[3]);
    return evenPairs(x, y) + oddPairs(x, y);
}

// --- full: twice the sum over the lower triangle of c[i][j] * (x[i] - y[i]) * (x[j] - y[j]), with
// half of the diagonal
//
// Panels of 16 columns: for each row, its difference times the row's groups is added to the
// columns' sums, which stay in registers; the columns' differences come last, once. Elements after
// the diagonal are not looked at.

// Differences are kept for so many rows at a time, on the stack.
constexpr int rowsAtATime = 256;

template <class T>
VSQ_INLINE void differences(const T* x, const T* y, int count, double* d) {
    int j = 0;
    for (; j + 4 <= count; j += 4)
        store(d + j, wide(fourAt(x + j) - fourAt(y + j)));
    if (j < count)
        store(d + j, wide(ExactRows::last(x + j, count - j) - ExactRows::last(y + j, count - j)));
}

// 1/2 at the diagonal's place in its group of 4.
alignas(64) constexpr double diagonalFactors[4][4] = {
    {0.5, 1, 1, 1}, {1, 0.5, 1, 1}, {1, 1, 0.5, 1}, {1, 1, 1, 0.5}};

// Adds the columns of the up to 4 rows, from c[first] on, whose diagonals stand in group `group` of
// the panel.
template <int group, class Rows, class T>
VSQ_INLINE void addDiagonalRows(const T* const* c, const double* d, int first, int count, int panel,
                                Four* columns) {
    for (int r = 0; r < 4 && first + r < count; ++r) {
        const T* const row = c[first + r] + panel;
        const Four di = splat<double, 4>(d[first + r]);
        for (int g = 0; g < group; ++g)
            columns[g] = columns[g] + wideFour(row + 4 * g) * di;
        const Four toDiagonal =
            wide(Rows::last(row + 4 * group, r + 1)) * (di * load<double, 4>(diagonalFactors[r]));
        columns[group] =
            // an infinite difference shall not leak out
            columns[group] + firstOf(toDiagonal, r + 1);
    }
}

// The columns of one panel in `count` rows, whose differences are d. The panel's own first row is
// at `own`, which is negative where it comes before these.
template <class Rows, class T>
VSQ_INLINE void addPanel(const T* const* c, const double* d, int count, int own, int panel,
                         Four* columns) {
    if (own >= 0) {
        addDiagonalRows<0, Rows>(c, d, own, count, panel, columns);
        addDiagonalRows<1, Rows>(c, d, own + 4, count, panel, columns);
        addDiagonalRows<2, Rows>(c, d, own + 8, count, panel, columns);
        addDiagonalRows<3, Rows>(c, d, own + 12, count, panel, columns);
    }
    for (int r = own >= 0 ? own + 16 : 0; r < count; ++r) {
        const Four di = splat<double, 4>(d[r]);
        for (int g = 0; g < 4; ++g)
            columns[g] = columns[g] + wideFour(c[r] + panel + 4 * g) * di;
    }
}

// 4 lanes of which sumLanes makes half of the form.
template <class Rows, class T>
VSQ_INLINE Four triangleLanes(const T* x, const T* y, const T* const* c, int n) {
    Four total = noSum();
    for (int row = 0; row < n; row += rowsAtATime) {
        const int count = n - row < rowsAtATime ? n - row : rowsAtATime;
        alignas(64) double d[rowsAtATime], ofColumns[16];
        differences(x + row, y + row, count, d);
        for (int panel = 0; panel < row + count; panel += 16) {
            Four columns[4] = {noSum(), noSum(), noSum(), noSum()};
            addPanel<Rows>(c + row, d, count, panel - row, panel, columns);
            const int width = n - panel < 16 ? n - panel : 16;
            if (panel < row) differences(x + panel, y + panel, width, ofColumns);
            const double* const dj = panel < row ? ofColumns : d + (panel - row);
            for (int g = 0; g < 4; ++g)
                if (4 * g < width) total = total + columns[g] * load<double, 4>(dj + 4 * g);
        }
    }
    return total;
}

} // namespace
} // namespace vsq::VSQ_LEVEL
