#include "vsqmahal_level.h"
#include "quadratic_forms.h"

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

double diagonal(const float* x, const float* y, const float* c, int n) {
    return diagonalForm(x, y, c, n);
}

double diagonalFixed(const short* x, const short* y, const short* c, int n) {
    return diagonalForm(x, y, c, n);
}

// Four forms side by side: the four sums do not wait for each other.
template <int groups>
VSQ_INLINE void rowsOfForms(const float* x, const float* const* y, const float* const* c, int nRows, int n,
                            double* forms) {
    const Ending ending(n);
    Four lanes[4];
    int k = 0;
    for (; k + 4 <= nRows; k += 4) {
        diagonalLanes<4, groups, ExactRows>(x, y + k, c + k, ending, lanes);
        store(forms + k, sumEach(lanes));
    }
    for (; k < nRows; ++k) {
        diagonalLanes<1, groups, ExactRows>(x, y + k, c + k, ending, lanes);
        forms[k] = sumLanes(lanes[0]);
    }
}

void diagonalRows(const float* x, const float* const* y, const float* const* c, int nRows, int n,
                  double* forms) {
    if (n <= 0) {
        for (int k = 0; k < nRows; ++k)
            forms[k] = 0.0;
    } else if (Ending(n).groups == 1) {
        rowsOfForms<1>(x, y, c, nRows, n, forms);
    } else {
        rowsOfForms<2>(x, y, c, nRows, n, forms);
    }
}

double full(const float* x, const float* y, const float* const* c, int n) {
    return 2 * sumLanes(triangleLanes<ExactRows>(x, y, c, n));
}

double fullFixed(const short* x, const short* y, const short* const* c, int n) {
    return 2 * sumLanes(triangleLanes<ExactRows>(x, y, c, n));
}

} // namespace

extern const MahalKernels mahalKernels{diagonal, diagonalFixed, full, fullFixed, diagonalRows};

} // namespace vsq::VSQ_LEVEL
