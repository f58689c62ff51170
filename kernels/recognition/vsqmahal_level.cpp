// Mahalanobis forms, one at a time and as panels: a panel gives each row of a codebook a lane and
// adds in the order of the single form, so that both give the same bits.
#include "recognition/vsqmahal_level.h"
#include "recognition/quadratic_forms.h"

namespace vsq::VSQ_LEVEL {
namespace {

template <class T>
VSQ_INLINE void diagonalForms(const T* x, const T* const* y, const T* const* c, int n, Four* sums) {
    const Ending ending(n);
    if (ending.groups == 1)
        diagonalLanes<1, 1, ExactRows>(x, y, c, ending, sums);
    else
        diagonalLanes<1, 2, ExactRows>(x, y, c, ending, sums);
}

template <class T>
VSQ_INLINE double diagonalForm(const T* x, const T* y, const T* c, int n) {
    if (n <= 0) return 0.0;
    Four lanes;
    diagonalForms(x, &y, &c, n, &lanes);
    return sumLanes(lanes);
}

double diagonalFloat(const float* x, const float* y, const float* c, int n) {
    return diagonalForm(x, y, c, n);
}

double diagonalFixed(const short* x, const short* y, const short* c, int n) {
    return diagonalForm(x, y, c, n);
}

// ---- many diagonal forms of one vector: a lane for each row ----

constexpr int lanes = panelLanes;
using Lanes = Pack<double, lanes>;

void fillPanel(const float* const* y, const float* const* c, int nRows, int n, double* panel) {
    for (int first = 0; first < nRows; first += lanes)
        for (int i = 0; i < n; ++i, panel += 2 * lanes)
            for (int k = 0; k < lanes; ++k) {
                const int row = first + k;
                const bool present = row < nRows && y[row] != nullptr && c[row] != nullptr;
                panel[k] = present ? double(y[row][i]) : 0.0;
                panel[lanes + k] = present ? double(c[row][i]) : 0.0;
            }
}

// `count` blocks of eight rows, whose sums do not wait for each other.
template <int count>
struct Blocks {
    Lanes sum[count];

    VSQ_INLINE Blocks operator+(const Blocks& other) const {
        Blocks result;
        for (int b = 0; b < count; ++b)
            result.sum[b] = sum[b] + other.sum[b];
        return result;
    }
};

// The terms of elements first, first + 8, ...: what lane `first` of a single form adds up.
template <int count>
VSQ_INLINE Blocks<count> laneSum(const float* x, const double* panel, std::ptrdiff_t blockStride,
                                 int n, int first) {
    Blocks<count> result;
    for (int b = 0; b < count; ++b)
        result.sum[b] = splat<double, lanes>(0.0);
    for (int i = first; i < n; i += lanes) {
        const Lanes wideX = splat<double, lanes>(double(x[i]));
        for (int b = 0; b < count; ++b) {
            const double* row = panel + b * blockStride + std::ptrdiff_t(i) * (2 * lanes);
            const Lanes d = wideX - load<double, lanes>(row);
            result.sum[b] = result.sum[b] + load<double, lanes>(row + lanes) * d * d;
        }
    }
    return result;
}

// The sums of the lanes first, first + step, ... by the tree of sumLanes.
template <int count, int first, int step>
VSQ_INLINE Blocks<count> treeSum(const float* x, const double* panel, std::ptrdiff_t blockStride,
                                 int n) {
    if constexpr (step == lanes)
        return laneSum<count>(x, panel, blockStride, n, first);
    else
        return treeSum<count, first, 2 * step>(x, panel, blockStride, n) +
               treeSum<count, first + step, 2 * step>(x, panel, blockStride, n);
}

template <int count>
VSQ_INLINE void exponentsOfBlocks(const float* x, const double* panel, std::ptrdiff_t blockStride,
                                  int n, int rest, float* exponents) {
    const Blocks<count> forms = treeSum<count, 0, 1>(x, panel, blockStride, n);
    for (int b = 0; b < count; ++b) {
        const auto form =
            bits<double>(bits<std::int64_t>(forms.sum[b]) & splat<std::int64_t, lanes>(INT64_MAX));
        const auto exponent = convert<float>(form * splat<double, lanes>(-0.5));
        if (rest >= (b + 1) * lanes)
            store(exponents + b * lanes, exponent);
        else
            storePart(exponents + b * lanes, exponent, rest - b * lanes);
    }
}

void panelExponents(const float* x, const double* panel, int nRows, int n, int nPanel,
                    float* exponents) {
    const std::ptrdiff_t blockStride = std::ptrdiff_t(nPanel) * (2 * lanes);
    int k = 0;
    for (; k + lanes < nRows; k += 2 * lanes, panel += 2 * blockStride)
        exponentsOfBlocks<2>(x, panel, blockStride, n, nRows - k, exponents + k);
    if (k < nRows) exponentsOfBlocks<1>(x, panel, blockStride, n, nRows - k, exponents + k);
}

double fullFloat(const float* x, const float* y, const float* const* c, int n) {
    return 2 * sumLanes(triangleLanes<ExactRows>(x, y, c, n));
}

double fullFixed(const short* x, const short* y, const short* const* c, int n) {
    return 2 * sumLanes(triangleLanes<ExactRows>(x, y, c, n));
}

} // namespace

extern const MahalKernels mahalKernels{
    .diagonalFloat = diagonalFloat,
    .diagonalFixed = diagonalFixed,
    .fullFloat = fullFloat,
    .fullFixed = fullFixed,
    .fillPanel = fillPanel,
    .panelExponents = panelExponents,
};

} // namespace vsq::VSQ_LEVEL
