// Covariances into inverse covariances, and back.
#include "mixtures/mixture_block.h"

#include "levels/levels.h"

#include <algorithm>
#include <cfloat>
#include <cmath>

namespace ktl::gauss {
namespace {

constexpr double smallestElement = 1e-30f; // the float nearest 1e-30
constexpr double smallestDeterminant = 1.3817869688151111e-76;

// A server of the old one's weights and means; flags, and the covariance still zero.
GaussMixServer* emptyTwin(const GaussMixServer* server) {
    GaussMixServer* twin = createOrReport<float>(shapeOf(server), "KTsInitGaussMixServer");
    if (twin == nullptr) return nullptr;
    std::copy_n(weights<float>(server), server->nMix, weights<float>(twin));
    std::copy_n(weights<float>(server), server->nMix, twin->pNormWeights);
    std::copy_n(means<float>(server)[0], meanElements(shapeOf(server)), means<float>(twin)[0]);
    return twin;
}

float reciprocal(float v) {
    if (std::fabs(v) <= FLT_MIN) return v > 0 ? FLT_MAX : -FLT_MAX;
    return 1.0f / v;
}

// Returns the determinant of the variances, 0 for a singular density.
ScaledProduct invertDiagonal(const float* variances, float* inverses, int n) {
    ScaledProduct product{1.0, 0};
    for (int i = 0; i < n; ++i) {
        if (std::fabs(double(variances[i])) < smallestElement) return {0.0, 0};
        product.times(double(variances[i]));
        inverses[i] = reciprocal(variances[i]);
    }
    return product;
}

// The same for a full matrix: by way of the work matrix, the inverse growing in the new server's
// rows.
ScaledProduct invertMatrix(const float* const* rows, float* const* inverse, const WorkMatrix& work,
                           int n) {
    const int stride = padded(n);
    for (int i = 0; i < n; ++i) {
        std::copy_n(rows[i], stride, work.rows[i]);
        std::fill_n(inverse[i], stride, 0.0f);
        inverse[i][i] = 1.0f;
    }
    return vsq::kernels().gauss->invert(work.rows, inverse, work.pivots, n);
}

// False when a density is singular.
bool invertAll(const GaussMixServer* from, GaussMixServer* to, const WorkMatrix& work,
               bool normalize) {
    const bool fromCovariance = (from->flags & KT_GAUSS_RAW) != 0;
    for (int k = 0; k < from->nMix; ++k) {
        const ScaledProduct det =
            isFull(from)
                ? invertMatrix(matrices<float>(from)[k], matrices<float>(to)[k], work, from->nDim)
                : invertDiagonal(diagonals<float>(from)[k], diagonals<float>(to)[k], from->nDim);
        if (std::fabs(det.value()) < smallestDeterminant) return false;
        if (!normalize) continue;
        const double weight = double(to->pNormWeights[k]);
        to->pNormWeights[k] =
            float(fromCovariance ? overRoot(weight, det) : timesRoot(weight, det));
    }
    return true;
}

} // namespace
} // namespace ktl::gauss

using namespace ktl::gauss;

GaussMixServer* KTsInvertGaussianCovMatrix(GaussMixServer* pServer, int flags) {
    bool released = false;
    return ktl::gauss::invert(pServer, flags, &released);
}

GaussMixServer* ktl::gauss::invert(GaussMixServer* pServer, int flags, bool* pReleased) {
    *pReleased = false;
    if (pServer == nullptr || !isFloat(pServer)) return nullptr;
    const bool normalize = (flags & KT_GAUSS_NORMALIZE) != 0;
    WorkMatrix work{};
    if (isFull(pServer)) {
        work = workMatrix(pServer->nDim);
        if (work.rows == nullptr) {
            std::free(pServer); // as the caller is promised, for this failure alone
            *pReleased = true;
            module.report(KT_StsNoMem, noTable, "KTsInvertGaussianCovMatrix");
            return nullptr;
        }
    }
    GaussMixServer* inverted = emptyTwin(pServer);
    if (inverted == nullptr) return nullptr;
    if (!invertAll(pServer, inverted, work, normalize)) {
        std::free(inverted);
        return nullptr;
    }
    inverted->flags |= normalize ? KT_GAUSS_NORMALIZE : 0;
    inverted->nObservations = pServer->nObservations;
    return inverted;
}
