// The likelihood of a vector under a mixture.
//
// Fixed point: the form of a diagonal server is a 32-bit integer sum of d*d*c and wraps silently;
// that of a full one is summed in double and truncated to 32 bits. The shift of the form wraps.
// Exponentials have 30 fractional bits and saturate; their weighted sum is exact in 64 bits, and
// scaleMode says which 32 of them come back.
#include "mixtures/mixture_block.h"

#include "levels/levels.h"

#include <algorithm>

namespace ktl::gauss {

int fixedForm(const GaussMixServer* server, int mixture, const short* pVector, int nDim) {
    const short* mean = means<short>(server)[mixture];
    if (isFull(server)) {
        const short* const* rows = matrices<short>(server)[mixture];
        return KTdiConvertDown(vsq::kernels().mahal->fullFixed(pVector, mean, rows, nDim),
                               KT_NoScale, nullptr);
    }
    int form;
    const short* diagonal = diagonals<short>(server)[mixture];
    vsq::kernels().gauss->formsFixed(pVector, &mean, &diagonal, nDim, 1, &form);
    return form;
}

namespace {

// Into pWork: the integer forms. A mixture of weight 0 may get anything.
void fixedForms(const GaussMixServer* server, const short* pVector, int nDim, int* work) {
    if (!isFull(server)) {
        vsq::kernels().gauss->formsFixed(pVector, means<short>(server), diagonals<short>(server),
                                         nDim, server->nMix, work);
        return;
    }
    for (int k = 0; k < server->nMix; ++k)
        if (weights<short>(server)[k] != 0) work[k] = fixedForm(server, k, pVector, nDim);
}

} // namespace
} // namespace ktl::gauss

using namespace ktl::gauss;

double KTsEvalGaussMix(GaussMixServer* pServer, const float* pVector, int nDim) {
    if (pServer == nullptr || !isFloat(pServer)) return 0.0;
    auto* work = static_cast<float*>(pServer->pWork);
    const float* weight = weights<float>(pServer);
    const int n = std::min(nDim, pServer->nDim);
    if (isFull(pServer))
        return vsq::kernels().gauss->evaluateFull(pVector, means<float>(pServer),
                                                  matrices<float>(pServer), weight,
                                                  pServer->pNormWeights, n, pServer->nMix, work);
    return vsq::kernels().gauss->evaluateDiagonal(pVector, means<float>(pServer),
                                                  diagonals<float>(pServer), weight,
                                                  pServer->pNormWeights, n, pServer->nMix, work);
}

int KTwEvalGaussMix(GaussMixServer* pServer, const short* pVector, int nDim, int scaleMode,
                    int* pScale) {
    if (pServer == nullptr || isFloat(pServer)) return 0;
    auto* work = static_cast<int*>(pServer->pWork);
    const short* weight = weights<short>(pServer);
    fixedForms(pServer, pVector, std::min(nDim, pServer->nDim), work);
    fixedDensities(work, weight, pServer->nMix, pServer->scale);
    return KTwDotMix(work, weight, pServer->nMix, scaleMode, pScale);
}
