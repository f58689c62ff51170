// Linear prediction: the autocorrelation method by Durbin's recursion and the covariance method by
// an LDL decomposition.
#include "frontend/KT_LPRED.h"

#include "frame/KT_ERROR.h"
#include "frame/scratch.h"

#include "levels/levels.h"
#include "vsq.h"

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstdlib>
#include <cstring>

namespace {

constexpr ktl::Module module{"..\\_LIBSRC\\KT_LPRED"};

constexpr int methodAutocorr = 1, methodCovariance = 2;

// The tables' own rounding: bit 1 is cleared after adding 3, so a length is never below what was
// asked for plus 1. Beyond the ints there is no table: -1, which the allocator refuses.
int paddedLength(long long n) {
    const long long padded = (n + 3) & ~2LL;
    return padded <= INT_MAX ? static_cast<int>(padded) : -1;
}

// Makes `table` one of nRows rows of at least `length` floats. A table that is there and long
// enough stays.
bool growTable(float**& table, int& capacity, int nRows, int length) {
    return (length >= 0 && capacity >= length) ||
           ktl::renewBlock(table, capacity, length, KTFree2,
                           [=] { return KTsAlloc2(nRows, length); });
}

int lagsOf(int order) {
    return order < INT_MAX ? order + 1 : INT_MAX;
}

// --- covariance method ---

// Row `row` (from 0) of a packed lower triangle with its diagonal, and of one without.
template <class T>
T* rowWithDiagonal(T* triangle, std::ptrdiff_t row) {
    return triangle + row * (row + 1) / 2;
}
template <class T>
T* rowBelowDiagonal(T* triangle, std::ptrdiff_t row) {
    return triangle + row * (row - 1) / 2;
}

double innerProduct(const float* x, const float* y, int n) {
    double sum = 0;
    for (int i = 0; i < n; ++i)
        sum += static_cast<double>(x[i]) * y[i];
    return sum;
}

// The areas of the one scratch row. `c` ends with one word more than it needs, which takes lag 0.
struct Areas {
    float* l; // unit lower triangle without its diagonal
    float* u; // the same, by columns
    float* c; // covariances, lower triangle with its diagonal
    float* b; // right-hand side: lags 1 to n
    float* d;
    float* y;
};

Areas areasOf(float* row, std::ptrdiff_t sizeT, std::ptrdiff_t sizeV) {
    Areas areas;
    areas.l = row;
    areas.u = areas.l + sizeT;
    areas.c = areas.u + sizeT;
    areas.b = areas.c + sizeT + sizeV;
    areas.d = areas.b + sizeV;
    areas.y = areas.d + sizeV;
    return areas;
}

// The number of terms depends on the row alone, not on the column.
void fillCovariances(const float* src, int nSamples, float* c, int n) {
    for (int row = 1; row <= n; ++row)
        for (int col = 1; col <= row; ++col)
            *c++ = static_cast<float>(vsqsDotProd(src + row - col, src, nSamples - row));
}

// C = L D L'. `v` holds the current row of L D; it has n elements.
void decompose(const Areas& areas, float* v, int n) {
    for (int row = 0; row < n; ++row) {
        const float* c = rowWithDiagonal(areas.c, row);
        float* l = rowBelowDiagonal(areas.l, row);
        for (int col = 0; col < row; ++col) {
            v[col] =
                static_cast<float>(c[col] - innerProduct(rowBelowDiagonal(areas.l, col), v, col));
            l[col] = v[col] / areas.d[col];
            v[col] = l[col] * areas.d[col];
        }
        areas.d[row] = static_cast<float>(c[row] - innerProduct(l, v, row));
    }
}

// Rows of L to columns, so that back substitution reads forward: column i holds L[i+1][i],
// L[i+2][i], ...
void transpose(const float* l, float* u, int n) {
    for (int col = 0; col + 1 < n; ++col)
        for (int row = col + 1; row < n; ++row)
            *u++ = rowBelowDiagonal(l, row)[col];
}

void substitute(const Areas& areas, float* coef, int n) {
    for (int i = 0; i < n; ++i)
        areas.y[i] =
            static_cast<float>(areas.b[i] - innerProduct(rowBelowDiagonal(areas.l, i), areas.y, i));
    transpose(areas.l, areas.u, n);
    const float* column = areas.u + static_cast<std::ptrdiff_t>(n) * (n - 1) / 2;
    for (int i = n - 1; i >= 0; --i) {
        column -= n - 1 - i;
        const double known = innerProduct(column, coef + i + 1, n - 1 - i);
        coef[i] = static_cast<float>(static_cast<double>(areas.y[i]) / areas.d[i] - known);
    }
}

int predict(const float* src, int nSamples, float* coef, int order, int flags) {
    if (flags & methodAutocorr) return ownsLPAutocorr(src, nSamples, coef, order);
    return flags & methodCovariance ? ownsLPCovariance(src, nSamples, coef, order) : 0;
}

} // namespace

int ownsLPAutocorr(const float* pSrc, int nSamples, float* pCoef, int order) {
    KTContext* pKTContext = KTGetContext();
    if (!growTable(pKTContext->LP.arrAutocorr, pKTContext->LP.nAutocorr, 3,
                   paddedLength(order + 1LL))) {
        module.report(KT_StsNoMem,
                      "insufficiency of memory for pointer  pKTContext->LP.arrAutocorr");
        return 0;
    }
    float** rows = pKTContext->LP.arrAutocorr;
    vsqsAutoCorr(pSrc, nSamples, rows[0], lagsOf(order), 0);
    if (!vsq::kernels().lpc->durbin(rows[0], rows[1], rows[2], order)) return 0;
    std::copy_n(rows[2] + 1, std::max(order, 0), pCoef);
    return 1;
}

int ownsLPCovariance(const float* pSrc, int nSamples, float* pCoef, int order) {
    KTContext* pKTContext = KTGetContext();
    const long long n = std::max(order, 0);
    const int sizeT = paddedLength(n * (n - 1) / 2), sizeV = paddedLength(n);
    const long long length = sizeT < 0 || sizeV < 0 ? -1 : 3LL * sizeT + 4LL * sizeV;
    if (!growTable(pKTContext->LP.arrCovariance, pKTContext->LP.nCovariance, 1,
                   length <= INT_MAX ? static_cast<int>(length) : -1)) {
        module.report(KT_StsNoMem,
                      "insufficiency of memory for pointer  pKTContext->LP.arrCovariance");
        return 0;
    }
    const Areas areas = areasOf(pKTContext->LP.arrCovariance[0], sizeT, sizeV);
    vsqsAutoCorr(pSrc, nSamples, areas.b - 1, lagsOf(order), 0);
    fillCovariances(pSrc, nSamples, areas.c, order);
    decompose(areas, areas.y, order); // y is not in use before the substitution
    substitute(areas, pCoef, order);
    return 1;
}

int KTsLPredict(const float* pSrc, int nSamples, float* pCoef, int order, int flags) {
    return predict(pSrc, nSamples, pCoef, order, flags);
}

int KTwLPredict(const short* pSrc, int nSamples, short* pCoef, int order, int flags, int scaleMode,
                int* pScale) {
    const std::ptrdiff_t samples = std::max(nSamples, 0), coefficients = std::max(order, 0);
    const ktl::Scratch<float> vec(samples + coefficients);
    if (!vec) {
        module.report(KT_StsNoMem, "insufficiency of memory for pointer  vec");
        return 0;
    }
    float* const coef = vec.data() + samples;
    std::fill_n(coef, coefficients, 0.0f); // what a worker that gives up leaves
    KTwsbConvertUp(pSrc, vec.data(), nSamples, 0);
    const int result = predict(vec.data(), nSamples, coef, order, flags);
    KTswbConvertDown(coef, pCoef, order, scaleMode, pScale);
    return result;
}

void KTFreeLPTbls(void) {
    auto& lp = KTGetContext()->LP;
    lp.wTwiddleOrder = lp.wTwiddleLen = lp.sTwiddleOrder = lp.sTwiddleLen = 0;
    lp.wBufferOrder = lp.sBufferOrder = 0;
    for (void** block :
         {&lp.wLPTwiddle, &lp.sLPTwiddle, &lp.wLPBuffer, &lp.sLPBuffer, &lp.spare0}) {
        std::free(*block);
        *block = nullptr;
    }
    lp.nAutocorr = lp.nCovariance = 0;
    for (float*** table : {&lp.arrAutocorr, &lp.arrCovariance}) {
        KTFree2(*table);
        *table = nullptr;
    }
    vsqFreeFftTbls();
    vsqsFreeRealFftTbls();
    vsqwFreeRealFftTbls();
}
