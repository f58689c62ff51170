// Lists the components of all states' mixtures as densities of one component each. The list points
// into the mixtures and copies only the weights, as evaluation uses them.
#include "models/flat_mixtures.h"

#include "mixtures/KT_GAUSS.h"
#include "models/layout.h"

#include <algorithm>
#include <cstdlib>

namespace {

using namespace ktl::gauss;

// The states' component counts as running offsets; false for mixtures that cannot be viewed.
bool countComponents(GaussMixServer* const* mixtures, FlatMixtures* view) {
    view->isSingle = 1;
    for (int i = 0; i < view->nStates; ++i) {
        const GaussMixServer* mixture = mixtures[i];
        if (mixture == nullptr || !isFloat(mixture) || mixture->nDim < view->codebook.nQuant)
            return false;
        if (mixture->nMix > INT32_MAX - 4 - view->pComponentStart[i]) return false;
        if (mixture->nMix > 1) view->isSingle = 0;
        view->pComponentStart[i + 1] = view->pComponentStart[i] + mixture->nMix;
    }
    view->codebook.nSymbols = view->pComponentStart[view->nStates];
    return true;
}

// Two arrays in one block: the weights of all components as evaluation uses them, and as many ones.
bool gatherWeights(GaussMixServer* const* mixtures, FlatMixtures* view) {
    const int run = hmm::multipleOf4(view->codebook.nSymbols + 1);
    view->codebook.pWeights = hmm::allocateArray(2 * std::size_t(run), sizeof(float));
    if (view->codebook.pWeights == nullptr) return false;
    float* weight = hmm::floats(view->codebook.pWeights);
    for (int i = 0; i < view->nStates; ++i)
        std::copy_n(mixtures[i]->pNormWeights, mixtures[i]->nMix,
                    weight + view->pComponentStart[i]);
    std::fill_n(weight + run, run, 1.0f);
    return true;
}

bool gatherDensities(GaussMixServer* const* mixtures, FlatMixtures* view) {
    view->codebook.ccgPdfs = ktl::zeroed<GaussMixServer*>(std::size_t(view->codebook.nSymbols) + 1);
    if (view->codebook.ccgPdfs == nullptr) return false;
    GaussMixServer** density = view->codebook.ccgPdfs;
    for (int i = 0; i < view->nStates; ++i)
        for (int m = 0; m < mixtures[i]->nMix; ++m, ++density) {
            const GaussMixServer* mixture = mixtures[i];
            float*** full = isFull(mixture) ? matrices<float>(mixture) + m : nullptr;
            float** diagonal = isFull(mixture) ? nullptr : diagonals<float>(mixture) + m;
            *density = KTsInitGaussMixServer(mixture->pNormWeights + m, means<float>(mixture) + m,
                                             full, diagonal, view->codebook.nQuant, 1, 0);
            if (*density == nullptr) return false;
        }
    return true;
}

} // namespace

FlatMixtures* ownsFlattenMixtures(GaussMixServer* const* mixtures, int nStates, int nQuant) {
    if (mixtures == nullptr || nStates < 1) return nullptr;
    auto* view = ktl::zeroed<FlatMixtures>();
    if (view == nullptr) return nullptr;
    view->nStates = nStates;
    view->codebook.nQuant = nQuant;
    view->codebook.status = HMM_SERVER_FLOAT;
    view->pComponentStart = ktl::zeroed<int>(std::size_t(nStates) + 1);
    if (view->pComponentStart == nullptr || !countComponents(mixtures, view) ||
        !gatherWeights(mixtures, view) || !gatherDensities(mixtures, view) || KTGetStatus() < 0 ||
        !ownsPreparePdfs(&view->codebook)) {
        ownsFreeFlatMixtures(view);
        return nullptr;
    }
    return view;
}

void ownsFreeFlatMixtures(FlatMixtures* pView) {
    if (pView == nullptr) return;
    for (int m = 0; pView->codebook.ccgPdfs != nullptr && m < pView->codebook.nSymbols; ++m)
        KTsFreeGaussMixServer(pView->codebook.ccgPdfs[m]);
    std::free(pView->codebook.ccgPdfs);
    std::free(pView->codebook.pWeights);
    std::free(pView->codebook.pPanel);
    std::free(pView->pComponentStart);
    std::free(pView);
}
