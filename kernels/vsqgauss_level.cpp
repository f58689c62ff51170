#include "vsqgauss_level.h"
#include "simd.h"

namespace vsq::VSQ_LEVEL {
namespace {

// --- quadratic forms ---

constexpr int lanes = 16;
using Lanes = Pack<double, lanes>;
using Ints = Pack<std::int32_t, lanes>;

// As many rows at once as there are registers for their sums.
constexpr int group = registerBytes / 16;

alignas(64) constexpr std::int16_t laneIndex[lanes] = {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15};

// The first `count` (1 to 16) elements of a padded row, the other lanes zero, whatever the row holds there.
template <class T>
VSQ_INLINE Pack<T, lanes> loadPadded(const T* p, int count) {
    const Pack<T, 4> none = splat<T, 4>(0);
    const Pack<T, 4> first = load<T, 4>(p), second = count > 4 ? load<T, 4>(p + 4) : none;
    const Pack<T, 4> third = count > 8 ? load<T, 4>(p + 8) : none,
                     fourth = count > 12 ? load<T, 4>(p + 12) : none;
    const auto index = convert<MaskOf<T>>(load<std::int16_t, lanes>(laneIndex));
    const auto kept = index < splat<MaskOf<T>, lanes>(MaskOf<T>(count));
    return select(kept, join(join(first, second), join(third, fourth)), splat<T, lanes>(0));
}

VSQ_INLINE Lanes terms(const Lanes& x, const Pack<float, lanes>& m, const Pack<float, lanes>& c) {
    const Lanes d = x - convert<double>(m);
    return convert<double>(c) * d * d;
}

VSQ_INLINE Ints wide(const Pack<short, lanes>& v) {
    return convert<std::int32_t>(v);
}

// Products of 17-bit differences wrap as unsigned numbers do; so does the sum.
VSQ_INLINE Ints termsW(const Ints& x, const Pack<short, lanes>& m, const Pack<short, lanes>& c) {
    const auto d = bits<std::uint32_t>(x - wide(m));
    return bits<std::int32_t>(d * d * bits<std::uint32_t>(wide(c)));
}

VSQ_INLINE float exponentOf(double form, const float& weight) {
    std::uint32_t pattern;
    __builtin_memcpy(&pattern, &weight, sizeof pattern);
    return pattern == 0 ? 0.0f : float(-__builtin_fabs(form) * 0.5);
}

// The forms of `rows` rows side by side.
template <int rows>
VSQ_INLINE void diagonalGroup(const float* x, const float* const* m, const float* const* c, int n,
                              double* forms) {
    Lanes sums[rows];
    for (int k = 0; k < rows; ++k)
        sums[k] = splat<double, lanes>(0);
    int i = 0;
    for (; i + lanes <= n; i += lanes) {
        const Lanes wideX = convert<double>(load<float, lanes>(x + i));
        for (int k = 0; k < rows; ++k)
            sums[k] = sums[k] + terms(wideX, load<float, lanes>(m[k] + i), load<float, lanes>(c[k] + i));
    }
    if (i < n) {
        const Lanes wideX = convert<double>(loadPart<float, lanes>(x + i, n - i));
        for (int k = 0; k < rows; ++k)
            sums[k] = sums[k] + terms(wideX, loadPadded(m[k] + i, n - i), loadPadded(c[k] + i, n - i));
    }
    for (int k = 0; k < rows; ++k)
        forms[k] = sumLanes(sums[k]);
}

void exponentsDiagonal(const float* x, const float* const* m, const float* const* c, const float* weights,
                       int n, int nRows, float* exponents) {
    double forms[group];
    int k = 0;
    for (; k + group <= nRows; k += group) {
        diagonalGroup<group>(x, m + k, c + k, n, forms);
        for (int g = 0; g < group; ++g)
            exponents[k + g] = exponentOf(forms[g], weights[k + g]);
    }
    for (; k < nRows; ++k) {
        diagonalGroup<1>(x, m + k, c + k, n, forms);
        exponents[k] = exponentOf(forms[0], weights[k]);
    }
}

void formsW(const short* x, const short* const* m, const short* const* c, int n, int nRows, int* forms) {
    for (int k = 0; k < nRows; ++k) {
        Ints sum = splat<std::int32_t, lanes>(0);
        int i = 0;
        for (; i + lanes <= n; i += lanes)
            sum = bits<std::int32_t>(
                bits<std::uint32_t>(sum) +
                bits<std::uint32_t>(termsW(wide(load<short, lanes>(x + i)), load<short, lanes>(m[k] + i),
                                           load<short, lanes>(c[k] + i))));
        if (i < n)
            sum = bits<std::int32_t>(
                bits<std::uint32_t>(sum) +
                bits<std::uint32_t>(termsW(wide(loadPart<short, lanes>(x + i, n - i)),
                                           loadPadded(m[k] + i, n - i), loadPadded(c[k] + i, n - i))));
        forms[k] = int(sumLanes(bits<std::uint32_t>(sum)));
    }
}

// --- statistics of training vectors ---

VSQ_INLINE float productOf(float a, float b) {
    return a * b;
}
VSQ_INLINE float productOf(short a, short b) {
    return float(a * b);
}

template <class T>
VSQ_INLINE void addSums(const T* const* vectors, int count, int n, float* __restrict sums) {
    for (int t = 0; t < count; ++t)
        for (int i = 0; i < n; ++i)
            sums[i] += float(vectors[t][i]);
}

template <class T>
VSQ_INLINE void addSquares(const T* const* vectors, int count, int n, float* __restrict sums) {
    for (int t = 0; t < count; ++t) {
        const T* x = vectors[t];
        for (int i = 0; i < n; ++i)
            sums[i] += productOf(x[i], x[i]);
    }
}

template <class T>
VSQ_INLINE void addProducts(const T* const* vectors, int count, int n, float* const* rows) {
    for (int t = 0; t < count; ++t) {
        const T* x = vectors[t];
        for (int i = 0; i < n; ++i) {
            float* __restrict sums = rows[i];
            for (int j = 0; j <= i; ++j)
                sums[j] += productOf(x[i], x[j]);
        }
    }
}

void sumsS(const float* const* vectors, int count, int n, float* sums) {
    addSums(vectors, count, n, sums);
}
void sumsW(const short* const* vectors, int count, int n, float* sums) {
    addSums(vectors, count, n, sums);
}
void squaresS(const float* const* vectors, int count, int n, float* sums) {
    addSquares(vectors, count, n, sums);
}
void squaresW(const short* const* vectors, int count, int n, float* sums) {
    addSquares(vectors, count, n, sums);
}
void productsS(const float* const* vectors, int count, int n, float* const* sums) {
    addProducts(vectors, count, n, sums);
}
void productsW(const short* const* vectors, int count, int n, float* const* sums) {
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

// With the columns of a permuted by P, the row operations E that bring a P to the diagonal D have made b = E,
// and the inverse is P (D^-1 E): the swaps come back, the last one first, as swaps of b's rows.
VSQ_INLINE void undoSwaps(float* const* b, const int* pivots, int n) {
    for (int k = n - 1; k >= 0; --k)
        for (int j = 0; pivots[k] != k && j < n; ++j)
            swapFloats(b[k][j], b[pivots[k]][j]);
}

double invert(float* const* a, float* const* b, int* pivots, int n) {
    constexpr double smallest = 1e-30f;
    if (n == 1) {
        if (__builtin_fabs(double(a[0][0])) < smallest) return 0.0;
        b[0][0] = 1.0f / a[0][0];
        return double(a[0][0]);
    }
    double det = 1.0;
    for (int k = 0; k < n; ++k) {
        double magnitude;
        pivots[k] = pivotColumn(a[k], k, n, magnitude);
        if (magnitude < smallest) return 0.0;
        if (takePivot(a, 0, k, pivots[k], n)) det = -det;
        for (int i = 0; i < n; ++i) {
            if (i == k) continue;
            const float f = a[i][k] / a[k][k];
            subtractScaled(a[i] + k, a[k] + k, f, n - k);
            subtractScaled(b[i], b[k], f, n);
        }
    }
    for (int i = 0; i < n; ++i) {
        det *= double(a[i][i]);
        const float reciprocal = 1.0f / a[i][i];
        for (int j = 0; j < n; ++j)
            b[i][j] *= reciprocal;
    }
    undoSwaps(b, pivots, n);
    return det;
}

double determinant(float* const* a, int n) {
    constexpr double smallest = 1e-20f;
    if (n == 1) return double(a[0][0]);
    double det = 1.0;
    bool negative = false;
    for (int k = 0; k < n; ++k) {
        double magnitude;
        const int column = pivotColumn(a[k], k, n, magnitude);
        if (magnitude < smallest) return 0.0;
        if (takePivot(a, k, k, column, n)) negative = !negative;
        const float reciprocal = 1.0f / a[k][k];
        for (int i = k + 1; i < n; ++i)
            subtractScaled(a[i] + k + 1, a[k] + k + 1, a[i][k] * reciprocal, n - k - 1);
        det *= double(a[k][k]);
    }
    return negative ? -det : det;
}

} // namespace

extern const GaussKernels gaussKernels{exponentsDiagonal, formsW,    sumsS,     sumsW,  squaresS,
                                       squaresW,          productsS, productsW, invert, determinant};

} // namespace vsq::VSQ_LEVEL
