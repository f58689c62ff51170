// Mahalanobis distances: a difference of two vectors, weighted by an inverse covariance. No state,
// no allocation.
#include "frame/types.h"

#include "levels/levels.h"

#include <cmath>

namespace {

double distanceOf(double form, int bRoot) {
    return bRoot != 0 ? std::sqrt(form) : form;
}

} // namespace

double KTsMahalanobis(const float* pVec1, const float* pVec2, const float* const* ppInvCov,
                      int nDim, int bRoot) {
    return distanceOf(vsq::kernels().mahal->fullFloat(pVec1, pVec2, ppInvCov, nDim), bRoot);
}

double KTsMahalanobisD(const float* pVec1, const float* pVec2, const float* pInvCovD, int nDim,
                       int bRoot) {
    return distanceOf(vsq::kernels().mahal->diagonalFloat(pVec1, pVec2, pInvCovD, nDim), bRoot);
}

// Fixed point: differences (17 bits) and products are exact in double precision, sums as long as
// they stay below 2^53; nothing wraps. The root comes before the conversion, which alone truncates,
// and saturates where `scaleMode` says so.
int KTwMahalanobis(const short* pVec1, const short* pVec2, const short* const* ppInvCov, int nDim,
                   int bRoot, int scaleMode, int* pScale) {
    const double form = vsq::kernels().mahal->fullFixed(pVec1, pVec2, ppInvCov, nDim);
    return KTdiConvertDown(distanceOf(form, bRoot), scaleMode, pScale);
}

int KTwMahalanobisD(const short* pVec1, const short* pVec2, const short* pInvCovD, int nDim,
                    int bRoot, int scaleMode, int* pScale) {
    const double form = vsq::kernels().mahal->diagonalFixed(pVec1, pVec2, pInvCovD, nDim);
    return KTdiConvertDown(distanceOf(form, bRoot), scaleMode, pScale);
}
