// Float servers into fixed ones and back.
//
// Fixed point: an element is a 16-bit integer, its real value stored * 2^scale, with one scale each
// for weights, means and covariance elements. Going down truncates toward zero and saturates at
// 32767 and -32767, so that a negated element can't overflow. Nothing wraps.
#include "frame/KT_CONVERT.h"
#include "frame/scratch.h"
#include "mixtures/mixture_block.h"

#include <algorithm>
#include <cmath>

namespace ktl::gauss {
namespace {

// under which both conversions report exhaustion
constexpr char allocName[] = "KTsInitGaussMixServer";

// The factor may be beyond a double: infinite from 2^1024 on, where every element but 0 is beyond
// 16 bits, and 0 below 2^-1074, where infinity alone is. Neither an element of 0 nor an infinite
// one meets such a factor.
short saturated(float value, int scale, double factor) {
    if (value == 0.0f) return 0;
    const double u = std::isinf(value) ? double(value) : double(value) * factor;
    if (u >= 32767.0) return 0x7FFF;
    if (u < -32767.0) return -0x7FFF;
    return KTswConvertDown(value, KT_FixedScale, &scale);
}

void convertDown(const float* src, short* dst, std::ptrdiff_t n, int scale) {
    const double factor = ktl::factorOfScale(scale);
    for (std::ptrdiff_t i = 0; i < n; ++i)
        dst[i] = saturated(src[i], scale, factor);
}

// One report's worth of checks, the same for both directions. Where flags were lost, what is there
// decides.
bool acceptable(const GaussMixServer* server, bool wrongForm, const char* refusal,
                const char* funcName) {
    if ((server->pppInverseCov == nullptr) == (server->ppInverseCovD == nullptr)) {
        module.report(KT_StsBadArg, bothOrNeither, funcName);
        return false;
    }
    if (wrongForm) {
        module.report(KT_StsBadArg, refusal, funcName);
        return false;
    }
    return true;
}

// Divides each weight by what KT_GAUSS_NORMALIZE had folded into it.
template <class DeterminantOf>
void divideWeights(GaussMixServer* server, const DeterminantOf& determinantOf) {
    for (int k = 0; k < server->nMix; ++k) {
        const ScaledProduct det = determinantOf(k);
        float& weight = weights<float>(server)[k];
        if (det.part != 0.0) weight = float(overRoot(double(weight), det));
    }
}

// Takes the determinant factor out of pWeights again. False when memory ran out.
bool plainWeights(GaussMixServer* server) {
    const int n = server->nDim;
    if (!isFull(server)) {
        divideWeights(server,
                      [=](int k) { return diagonalDeterminant(diagonals<float>(server)[k], n); });
        return true;
    }
    const ktl::Scratch<float> elements(std::int64_t(n) * n);
    const ktl::Scratch<float*> rows(n);
    if (!elements || !rows) return false;
    divideWeights(server, [&](int k) {
        for (int i = 0; i < n; ++i) {
            rows[i] = elements.get() + std::ptrdiff_t(i) * n;
            std::copy_n(matrices<float>(server)[k][i], n, rows[i]);
        }
        return determinant(rows.get(), n);
    });
    return true;
}

} // namespace
} // namespace ktl::gauss

using namespace ktl::gauss;

GaussMixServer* KTswConvertGaussMixServer(GaussMixServer* flser, int weightScale, int meanScale,
                                          int invCovScale) {
    if (flser == nullptr) return nullptr;
    const bool fixed = (flser->flags & GAUSS_SERVER_FVR_W) != 0 || !isFloat(flser);
    if (!acceptable(flser, fixed, "flser->flags&GAUSS_SERVER_FVR_W", "KTswConvertGaussMixfServer"))
        return nullptr;
    const Shape shape = shapeOf(flser);
    GaussMixServer* shser = createOrReport<short>(shape, allocName);
    if (shser == nullptr) return nullptr;
    // A fixed server has no second set of weights, so the determinant factor goes into its only
    // one.
    convertDown(flser->pNormWeights, weights<short>(shser), shape.nMix, weightScale);
    convertDown(means<float>(flser)[0], means<short>(shser)[0], meanElements(shape), meanScale);
    convertDown(covariance<float>(flser), covariance<short>(shser), covarianceElements(shape),
                invCovScale);
    shser->scale = int(2u * unsigned(meanScale) + unsigned(invCovScale));
    shser->flags = (flser->flags & ~(GAUSS_SERVER_FVR_S | KT_GAUSS_BLOCK)) | GAUSS_SERVER_FVR_W;
    shser->nObservations = flser->nObservations;
    return shser;
}

GaussMixServer* KTwsConvertGaussMixServer(GaussMixServer* shser, int weightScale, int meanScale,
                                          int invCovScale) {
    if (shser == nullptr) return nullptr;
    const bool floats = (shser->flags & GAUSS_SERVER_FVR_S) != 0 || isFloat(shser);
    if (!acceptable(shser, floats, "shser->flags&GAUSS_SERVER_FVR_S", "KTwsConvertGaussMixfServer"))
        return nullptr;
    const Shape shape = shapeOf(shser);
    GaussMixServer* flser = createOrReport<float>(shape, allocName);
    if (flser == nullptr) return nullptr;
    KTwsbConvertUp(weights<short>(shser), flser->pNormWeights, shape.nMix, weightScale);
    for (int k = 0; k < shape.nMix; ++k) {
        KTwsbConvertUp(means<short>(shser)[k], means<float>(flser)[k], shape.nDim, meanScale);
        if (!shape.full)
            KTwsbConvertUp(diagonals<short>(shser)[k], diagonals<float>(flser)[k], shape.nDim,
                           invCovScale);
        for (int i = 0; shape.full && i < shape.nDim; ++i)
            KTwsbConvertUp(matrices<short>(shser)[k][i], matrices<float>(flser)[k][i], shape.nDim,
                           invCovScale);
    }
    std::copy_n(flser->pNormWeights, shape.nMix, weights<float>(flser));
    flser->flags = (shser->flags & ~(GAUSS_SERVER_FVR_W | KT_GAUSS_BLOCK)) | GAUSS_SERVER_FVR_S;
    flser->nObservations = shser->nObservations;
    if ((shser->flags & KT_GAUSS_NORMALIZE) != 0 && !plainWeights(flser)) {
        module.report(KT_StsNoMem, noTable, allocName);
        std::free(flser);
        return nullptr;
    }
    return flser;
}
