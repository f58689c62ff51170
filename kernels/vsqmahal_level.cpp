#include "levels.h"
#include "simd.h"

namespace vsq::VSQ_LEVEL {
namespace {

constexpr int lanes = 16;
using Lanes = Pack<double, lanes>;

// Elements i to i + 15 of n as doubles; those from n on are not touched and count as 0.
template <class T>
VSQ_INLINE Lanes loadWide(const T* p, int i, int n) {
    const Pack<T, lanes> raw = n - i >= lanes ? load<T, lanes>(p + i) : loadPart<T, lanes>(p + i, n - i);
    if constexpr (sizeof(T) == 2)
        return convert<double>(convert<std::int32_t>(raw));
    else
        return convert<double>(raw);
}

template <class T>
VSQ_INLINE Lanes diagonalTerms(const T* x, const T* y, const T* c, int i, int n) {
    const Lanes d = loadWide(x, i, n) - loadWide(y, i, n);
    return loadWide(c, i, n) * d * d;
}

template <class T>
VSQ_INLINE double diagonalForm(const T* x, const T* y, const T* c, int n) {
    Lanes sum = splat<double, lanes>(0.0);
    int i = 0;
    for (; i + lanes <= n; i += lanes)
        sum = sum + diagonalTerms(x, y, c, i, i + lanes);
    if (i < n) sum = sum + diagonalTerms(x, y, c, i, n);
    return sumLanes(sum);
}

double diagonal(const float* x, const float* y, const float* c, int n) {
    return diagonalForm(x, y, c, n);
}

double diagonalFixed(const short* x, const short* y, const short* c, int n) {
    return diagonalForm(x, y, c, n);
}

void diagonalRows(const float* x, const float* const* y, const float* const* c, int nRows, int n,
                  double* forms) {
    for (int k = 0; k < nRows; ++k)
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
        sum = sum + loadWide(row, j, j + lanes) * load<double, lanes>(d + j);
    if (j < count) sum = sum + loadWide(row, j, count) * load<double, lanes>(d + j);
    return sum;
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
        for (int j = 0; j < columns; j += lanes)
            store(d + j, loadWide(x, first + j, n) - loadWide(y, first + j, n));
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
