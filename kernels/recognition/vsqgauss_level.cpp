// Likelihoods of Gaussian mixtures, sums over training vectors, and Gauss-Jordan elimination.
// Exponentials of all densities are taken together, and sums over vectors keep the vectors' order,
// so that results do not depend on the register width.
#include "recognition/vsqgauss_level.h"
#include "recognition/quadratic_forms.h"
#include "vectors/dot_product.h"
#include "vectors/exponential.h"

namespace vsq::VSQ_LEVEL {
namespace {

constexpr int lanes = 16;
using Ints = Pack<std::int32_t, lanes>;

// --- likelihoods ---

// -|form| / 2 rounded to float; 0 where the bit pattern of the weight is 0.
VSQ_INLINE Pack<float, 4> exponentsOf(const Four& forms, const float* weights) {
    const FourBits magnitudes =
        bits<std::int64_t>(forms) & splat<std::int64_t, 4>(INT64_MAX); // all but the sign
    const auto exponents = convert<float>(bits<double>(magnitudes) * splat<double, 4>(-0.5));
    const auto absent = bits<std::int32_t>(load<float, 4>(weights)) == splat<std::int32_t, 4>(0);
    return select(absent, splat<float, 4>(0), exponents);
}

// The sum of the weighted densities. `formsAt(k)` gives the forms of mixtures k to k + 3, of which
// those from nMix on do not count. Exponentials are long chains of steps, which are quickest over
// many lanes at once: all forms come first, and few enough stay in registers.
template <class FormsAt>
VSQ_INLINE double likelihood(const FormsAt& formsAt, const float* weights, const float* normWeights,
                             int nMix, float* work) {
    if (nMix <= 0) return 0.0;
    if (nMix <= 8) {
        const auto first = exponentsOf(formsAt(0), weights);
        const auto second = nMix > 4 ? exponentsOf(formsAt(4), weights + 4) : splat<float, 4>(0);
        const auto densities = Exp()(join(first, second));
        storePart(work, densities, nMix);
        return sumLanes(convert<double>(densities) *
                        convert<double>(loadPart<float, 8>(normWeights, nMix)));
    }
    for (int k = 0; k < nMix; k += 4)
        store(work + k, exponentsOf(formsAt(k), weights + k));
    apply(work, nMix, Exp());
    return dotProduct(work, normWeights, nMix);
}

// Mixtures that fill no group of 4 come one by one, before the others.
template <int groups>
VSQ_INLINE double likelihoodOfDiagonals(const float* x, const float* const* m,
                                        const float* const* c, const Ending& ending,
                                        const float* weights, const float* normWeights, int nMix,
                                        float* work) {
    const int whole = nMix / 4 * 4;
    alignas(32) double rest[4] = {};
    for (int k = whole; k < nMix; ++k) {
        Four sum;
        diagonalLanes<1, groups, PaddedRows>(x, m + k, c + k, ending, &sum);
        rest[k - whole] = sumLanes(sum);
    }
    const auto formsAt = [&](int k) VSQ_LAMBDA {
        if (k == whole) return load<double, 4>(rest);
        Four sums[4];
        diagonalLanes<4, groups, PaddedRows>(x, m + k, c + k, ending, sums);
        return sumEach(sums);
    };
    return likelihood(formsAt, weights, normWeights, nMix, work);
}

double evaluateDiagonal(const float* x, const float* const* m, const float* const* c,
                        const float* weights, const float* normWeights, int n, int nMix,
                        float* work) {
    if (n <= 0)
        return likelihood([](int) VSQ_LAMBDA { return noSum(); }, weights, normWeights, nMix, work);
    const Ending ending(n);
    return ending.groups == 1
               ? likelihoodOfDiagonals<1>(x, m, c, ending, weights, normWeights, nMix, work)
               : likelihoodOfDiagonals<2>(x, m, c, ending, weights, normWeights, nMix, work);
}

double evaluateFull(const float* x, const float* const* m, const float* const* const* c,
                    const float* weights, const float* normWeights, int n, int nMix, float* work) {
    const auto formsAt = [&](int k) VSQ_LAMBDA {
        Four halves[4] = {noSum(), noSum(), noSum(), noSum()};
        for (int i = 0; i < 4 && k + i < nMix; ++i)
            halves[i] = triangleLanes<PaddedRows>(x, m[k + i], c[k + i], n);
        return sumEach(halves) * splat<double, 4>(2);
    };
    return likelihood(formsAt, weights, normWeights, nMix, work);
}

// --- fixed point: forms ---

alignas(64) constexpr std::int16_t laneIndex[lanes] = {0, 1, 2,  3,  4,  5,  6,  7,
                                                       8, 9, 10, 11, 12, 13, 14, 15};

// All ones in the first `count` lanes.
template <class Mask>
VSQ_INLINE Pack<Mask, lanes> firstLanes(int count) {
    const auto index = convert<Mask>(load<std::int16_t, lanes>(laneIndex));
    return index < splat<Mask, lanes>(Mask(count));
}

// The first `count` (1 to 16) elements of a padded row, the other lanes zero, whatever the row
// holds there.
template <class T>
VSQ_INLINE Pack<T, lanes> loadPadded(const T* p, int count) {
    const auto four = [](const T* q) VSQ_LAMBDA { return join(load<T, 4>(q), splat<T, 4>(0)); };
    Pack<T, lanes> all;
    if (count > 12)
        all = load<T, lanes>(p);
    else if (count > 8)
        all = join(load<T, 8>(p), four(p + 8));
    else
        all = join(count > 4 ? load<T, 8>(p) : four(p), splat<T, 8>(0));
    return select(firstLanes<MaskOf<T>>(count), all, splat<T, lanes>(0));
}

VSQ_INLINE Ints wide(const Pack<short, lanes>& v) {
    return convert<std::int32_t>(v);
}

// Products of 17-bit differences wrap as unsigned numbers do; so does the sum.
VSQ_INLINE Ints termsFixed(const Ints& x, const Pack<short, lanes>& m,
                           const Pack<short, lanes>& c) {
    const auto d = bits<std::uint32_t>(x - wide(m));
    return bits<std::int32_t>(d * d * bits<std::uint32_t>(wide(c)));
}

void formsFixed(const short* x, const short* const* m, const short* const* c, int n, int nRows,
                int* forms) {
    for (int k = 0; k < nRows; ++k) {
        Ints sum = splat<std::int32_t, lanes>(0);
        int i = 0;
        for (; i + lanes <= n; i += lanes)
            sum = bits<std::int32_t>(bits<std::uint32_t>(sum) +
                                     bits<std::uint32_t>(termsFixed(wide(load<short, lanes>(x + i)),
                                                                    load<short, lanes>(m[k] + i),
                                                                    load<short, lanes>(c[k] + i))));
        if (i < n)
            sum =
                bits<std::int32_t>(bits<std::uint32_t>(sum) +
                                   bits<std::uint32_t>(termsFixed(
                                       wide(loadPart<short, lanes>(x + i, n - i)),
                                       loadPadded(m[k] + i, n - i), loadPadded(c[k] + i, n - i))));
        forms[k] = int(sumLanes(bits<std::uint32_t>(sum)));
    }
}

// --- statistics of training vectors ---
//
// Every sum takes the vectors in order, one by one, so that its bits depend on nothing else. Lanes
// are elements.

using Floats = Pack<float, lanes>;

// What one chunk of 16 elements adds: the elements, or their squares.
struct Values {
    static VSQ_INLINE Floats of(const float* x) { return load<float, lanes>(x); }
    static VSQ_INLINE Floats of(const short* x) {
        return convert<float>(wide(load<short, lanes>(x)));
    }
    static VSQ_INLINE float one(float x) { return x; }
    static VSQ_INLINE float one(short x) { return float(x); }
};
struct Squares {
    static VSQ_INLINE Floats of(const float* x) {
        return load<float, lanes>(x) * load<float, lanes>(x);
    }
    static VSQ_INLINE Floats of(const short* x) {
        const Ints v = wide(load<short, lanes>(x));
        return convert<float>(v * v);
    }
    static VSQ_INLINE float one(float x) { return x * x; }
    static VSQ_INLINE float one(short x) { return float(x * x); }
};

// Chunks `first` to `first + chunks - 1`, the last of all ending at element n whatever the others
// cover already.
template <class Term, int chunks, class T>
VSQ_INLINE void addChunks(const T* const* vectors, int count, int n, int first, float* sums) {
    Floats total[chunks];
    int start[chunks];
    for (int c = 0; c < chunks; ++c) {
        start[c] = (first + c) * lanes < n - lanes ? (first + c) * lanes : n - lanes;
        total[c] = load<float, lanes>(sums + start[c]);
    }
    for (int t = 0; t < count; ++t)
        for (int c = 0; c < chunks; ++c)
            total[c] = total[c] + Term::of(vectors[t] + start[c]);
    for (int c = 0; c < chunks; ++c) {
        const int done =
            (first + c) * lanes - start[c]; // elements of the chunk before, which has stored them
        float lane[lanes];
        store(lane, total[c]);
        for (int i = done; i < lanes; ++i)
            sums[start[c] + i] = lane[i];
    }
}

template <class Term, class T>
VSQ_INLINE void addTerms(const T* const* vectors, int count, int n, float* sums) {
    constexpr int atOnce = 4;
    if (n < lanes) {
        for (int t = 0; t < count; ++t)
            for (int i = 0; i < n; ++i)
                sums[i] += Term::one(vectors[t][i]);
        return;
    }
    const int chunks = (n + lanes - 1) / lanes;
    // The last chunk overlaps the one before and must start from sums that it has not touched: it
    // comes first.
    int left = chunks;
    if (n % lanes != 0) addChunks<Term, 1>(vectors, count, n, --left, sums);
    int c = 0;
    for (; c + atOnce <= left; c += atOnce)
        addChunks<Term, atOnce>(vectors, count, n, c, sums);
    for (; c + 2 <= left; c += 2)
        addChunks<Term, 2>(vectors, count, n, c, sums);
    for (; c < left; ++c)
        addChunks<Term, 1>(vectors, count, n, c, sums);
}

// Products: 16 columns of a block of vectors are gathered once, then serve every row of the lower
// triangle.
constexpr int blockVectors = 64;
constexpr int tileRows = registerBytes / 8;

template <class T>
struct Panel; // the columns as they are multiplied
template <>
struct Panel<float> {
    using Element = float;
    static VSQ_INLINE Floats products(float x, const float* columns) {
        return splat<float, lanes>(x) * load<float, lanes>(columns);
    }
};
template <>
struct Panel<short> {
    using Element = std::int32_t;
    static VSQ_INLINE Floats products(short x, const std::int32_t* columns) {
        return convert<float>(splat<std::int32_t, lanes>(x) * load<std::int32_t, lanes>(columns));
    }
};

template <int rows, class T>
VSQ_INLINE void addTile(const T* const* vectors, int count, const typename Panel<T>::Element* panel,
                        int row, int column, float* const* sums) {
    Floats total[rows];
    for (int r = 0; r < rows; ++r) {
        const int valid = row + r - column + 1;
        total[r] = loadPart<float, lanes>(sums[row + r] + column, valid < lanes ? valid : lanes);
    }
    for (int t = 0; t < count; ++t)
        for (int r = 0; r < rows; ++r)
            total[r] = total[r] + Panel<T>::products(vectors[t][row + r], panel + t * lanes);
    for (int r = 0; r < rows; ++r) {
        const int valid = row + r - column + 1;
        storePart(sums[row + r] + column, total[r], valid < lanes ? valid : lanes);
    }
}

template <class T>
VSQ_INLINE void addBlock(const T* const* vectors, int count, int n, float* const* sums) {
    alignas(64) typename Panel<T>::Element panel[blockVectors * lanes];
    for (int column = 0; column < n; column += lanes) {
        const int width = n - column < lanes ? n - column : lanes;
        for (int t = 0; t < count; ++t)
            for (int j = 0; j < lanes; ++j)
                panel[t * lanes + j] = j < width ? vectors[t][column + j] : T(0);
        int row = column;
        for (; row + tileRows <= n; row += tileRows)
            addTile<tileRows>(vectors, count, panel, row, column, sums);
        for (; row + 2 <= n; row += 2)
            addTile<2>(vectors, count, panel, row, column, sums);
        for (; row < n; ++row)
            addTile<1>(vectors, count, panel, row, column, sums);
    }
}

template <class T>
VSQ_INLINE void addProducts(const T* const* vectors, int count, int n, float* const* sums) {
    for (int t = 0; t < count; t += blockVectors)
        addBlock(vectors + t, count - t < blockVectors ? count - t : blockVectors, n, sums);
}

void sumsFloat(const float* const* vectors, int count, int n, float* sums) {
    addTerms<Values>(vectors, count, n, sums);
}
void sumsFixed(const short* const* vectors, int count, int n, float* sums) {
    addTerms<Values>(vectors, count, n, sums);
}
void squaresFloat(const float* const* vectors, int count, int n, float* sums) {
    addTerms<Squares>(vectors, count, n, sums);
}
void squaresFixed(const short* const* vectors, int count, int n, float* sums) {
    addTerms<Squares>(vectors, count, n, sums);
}
void productsFloat(const float* const* vectors, int count, int n, float* const* sums) {
    addProducts(vectors, count, n, sums);
}
void productsFixed(const short* const* vectors, int count, int n, float* const* sums) {
    addProducts(vectors, count, n, sums);
}

// --- elimination ---

// The column of the largest magnitude in the row from column k on, the last one of equals.
VSQ_INLINE int pivotColumn(const float* row, int k, int n, double& magnitude) {
    int column = k;
    magnitude = 0.0;
    for (int j = k; j < n; ++j) {
        const double candidate = __builtin_fabs(double(row[j]));
        if (magnitude <= candidate) {
            magnitude = candidate;
            column = j;
        }
    }
    return column;
}

VSQ_INLINE void swapFloats(float& a, float& b) {
    const float kept = a;
    a = b;
    b = kept;
}

VSQ_INLINE void subtractScaled(float* __restrict dst, const float* __restrict src, float f, int n) {
    for (int j = 0; j < n; ++j)
        dst[j] -= src[j] * f;
}

// Whether column k was another one before; swaps it with its pivot in rows `first` on.
VSQ_INLINE bool takePivot(float* const* a, int first, int k, int column, int n) {
    if (column == k) return false;
    for (int i = first; i < n; ++i)
        swapFloats(a[i][k], a[i][column]);
    return true;
}

// With the columns of a permuted by P, the row operations E that bring a P to the diagonal D have
// made b = E, and the inverse is P (D^-1 E): the swaps come back, the last one first, as swaps of
// b's rows.
VSQ_INLINE void undoSwaps(float* const* b, const int* pivots, int n) {
    for (int k = n - 1; k >= 0; --k)
        for (int j = 0; pivots[k] != k && j < n; ++j)
            swapFloats(b[k][j], b[pivots[k]][j]);
}

ScaledProduct invert(float* const* a, float* const* b, int* pivots, int n) {
    constexpr double smallest = 1e-30f;
    if (n == 1) {
        if (__builtin_fabs(double(a[0][0])) < smallest) return {0.0, 0};
        b[0][0] = 1.0f / a[0][0];
        return {double(a[0][0]), 0};
    }
    ScaledProduct det{1.0, 0};
    for (int k = 0; k < n; ++k) {
        double magnitude;
        pivots[k] = pivotColumn(a[k], k, n, magnitude);
        if (magnitude < smallest) return {0.0, 0};
        if (takePivot(a, 0, k, pivots[k], n)) det.part = -det.part;
        for (int i = 0; i < n; ++i) {
            if (i == k) continue;
            const float f = a[i][k] / a[k][k];
            subtractScaled(a[i] + k, a[k] + k, f, n - k);
            subtractScaled(b[i], b[k], f, n);
        }
    }
    for (int i = 0; i < n; ++i) {
        det.times(double(a[i][i]));
        const float reciprocal = 1.0f / a[i][i];
        for (int j = 0; j < n; ++j)
            b[i][j] *= reciprocal;
    }
    undoSwaps(b, pivots, n);
    return det;
}

ScaledProduct determinant(float* const* a, int n) {
    constexpr double smallest = 1e-20f;
    if (n == 1) return {double(a[0][0]), 0};
    ScaledProduct det{1.0, 0};
    for (int k = 0; k < n; ++k) {
        double magnitude;
        const int column = pivotColumn(a[k], k, n, magnitude);
        if (magnitude < smallest) return {0.0, 0};
        if (takePivot(a, k, k, column, n)) det.part = -det.part;
        const float reciprocal = 1.0f / a[k][k];
        for (int i = k + 1; i < n; ++i)
            subtractScaled(a[i] + k + 1, a[k] + k + 1, a[i][k] * reciprocal, n - k - 1);
        det.times(double(a[k][k]));
    }
    return det;
}

} // namespace

extern const GaussKernels gaussKernels{
    .evaluateDiagonal = evaluateDiagonal,
    .evaluateFull = evaluateFull,
    .formsFixed = formsFixed,
    .sumsFloat = sumsFloat,
    .sumsFixed = sumsFixed,
    .squaresFloat = squaresFloat,
    .squaresFixed = squaresFixed,
    .productsFloat = productsFloat,
    .productsFixed = productsFixed,
    .invert = invert,
    .determinant = determinant,
};

} // namespace vsq::VSQ_LEVEL
