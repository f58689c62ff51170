#include "vsqmahal_level.h"
#include "simd.h"

namespace vsq::VSQ_LEVEL {
namespace {

constexpr int lanes = 8;
using Lanes = Pack<double, lanes>;

template <class T>
VSQ_INLINE Lanes widened(const Pack<T, lanes>& raw) {
    if constexpr (sizeof(T) == 2)
        return convert<double>(convert<std::int32_t>(raw));
    else
        return convert<double>(raw);
}

template <class T>
VSQ_INLINE Lanes loadWide(const T* p) {
    return widened(load<T, lanes>(p));
}

// The first `count` elements, fewer than there are lanes; the others are not touched and count as 0.
template <class T>
VSQ_INLINE Lanes loadWide(const T* p, int count) {
    return widened(loadPart<T, lanes>(p, count));
}

template <class T>
VSQ_INLINE double diagonalForm(const T* x, const T* y, const T* c, int n) {
    Lanes sum = splat<double, lanes>(0.0);
    int i = 0;
    for (; i + lanes <= n; i += lanes) {
        const Lanes d = loadWide(x + i) - loadWide(y + i);
        sum = sum + loadWide(c + i) * d * d;
    }
    if (i < n) {
        const Lanes d = loadWide(x + i, n - i) - loadWide(y + i, n - i);
        sum = sum + loadWide(c + i, n - i) * d * d;
    }
    return sumLanes(sum);
}

double diagonal(const float* x, const float* y, const float* c, int n) {
    return diagonalForm(x, y, c, n);
}

double diagonalFixed(const short* x, const short* y, const short* c, int n) {
    return diagonalForm(x, y, c, n);
}

// Four forms side by side: x is converted once, and the four sums do not wait for each other.
VSQ_INLINE void fourDiagonalForms(const float* x, const float* const* y, const float* const* c, int n,
                                  double* forms) {
    constexpr int rows = 4;
    Lanes sum[rows] = {};
    int i = 0;
    for (; i + lanes <= n; i += lanes) {
        const Lanes wideX = loadWide(x + i);
        for (int k = 0; k < rows; ++k) {
            const Lanes d = wideX - loadWide(y[k] + i);
            sum[k] = sum[k] + loadWide(c[k] + i) * d * d;
        }
    }
    if (i < n) {
        const Lanes wideX = loadWide(x + i, n - i);
        for (int k = 0; k < rows; ++k) {
            const Lanes d = wideX - loadWide(y[k] + i, n - i);
            sum[k] = sum[k] + loadWide(c[k] + i, n - i) * d * d;
        }
    }
    for (int k = 0; k < rows; ++k)
        forms[k] = sumLanes(sum[k]);
}

void diagonalRows(const float* x, const float* const* y, const float* const* c, int nRows, int n,
                  double* forms) {
    int k = 0;
    for (; k + 4 <= nRows; k += 4)
        fourDiagonalForms(x, y + k, c + k, n, forms + k);
    for (; k < nRows; ++k)
        forms[k] = diagonalForm(x, y[k], c[k], n);
}

// The strict lower triangle is walked in strips of so many columns, whose differences then fit on the stack
// whatever the dimension; up to this dimension there is one strip.
constexpr int stripColumns = 256;

// Columns 0 to count - 1 of a row times the strip's differences, whose padding is zero.
template <class T>
VSQ_INLINE Lanes rowTerms(const T* row, const double* d, int count) {
    Lanes sum = splat<double, lanes>(0.0);
    int j = 0;
    for (; j + lanes <= count; j += lanes)
        sum = sum + loadWide(row + j) * load<double, lanes>(d + j);
    if (j < count) sum = sum + loadWide(row + j, count - j) * load<double, lanes>(d + j);
    return sum;
}

// d = x - y in `count` elements, with zeros up to a multiple of the lanes.
template <class T>
VSQ_INLINE void differences(const T* x, const T* y, int count, double* d) {
    int j = 0;
    for (; j + lanes <= count; j += lanes)
        store(d + j, loadWide(x + j) - loadWide(y + j));
    if (j < count) store(d + j, loadWide(x + j, count - j) - loadWide(y + j, count - j));
}

// A row's lanes are weighted and added without being summed first: one sum across lanes serves the whole
// triangle.
template <class T>
VSQ_INLINE double fullForm(const T* x, const T* y, const T* const* c, int n) {
    Lanes triangle = splat<double, lanes>(0.0);
    double diagonalSum = 0.0;
    for (int first = 0; first < n; first += stripColumns) {
        const int columns = n - first < stripColumns ? n - first : stripColumns;
        double d[stripColumns];
        differences(x + first, y + first, columns, d);
        for (int i = first; i < n; ++i) {
            const int count = i - first < columns ? i - first : columns;
            const double di = i - first < columns ? d[i - first] : double(x[i]) - double(y[i]);
            if (i - first < columns) diagonalSum += double(c[i][i]) * di * di;
            triangle = triangle + splat<double, lanes>(di) * rowTerms(c[i] + first, d, count);
        }
    }
    const double triangleSum = sumLanes(triangle);
    return diagonalSum + triangleSum + triangleSum;
}

double full(const float* x, const float* y, const float* const* c, int n) {
    return fullForm(x, y, c, n);
}

double fullFixed(const short* x, const short* y, const short* const* c, int n) {
    return fullForm(x, y, c, n);
}

} // namespace

extern const MahalKernels mahalKernels{diagonal, diagonalFixed, full, fullFixed, diagonalRows};

} // namespace vsq::VSQ_LEVEL
