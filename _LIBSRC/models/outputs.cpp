// The codebook of semicontinuous models in an evaluation: the checks that go before, and the
// weighted densities of all frames, which every server of a call and every state shares.
#include "models/outputs.h"

#include "vsq.h"

#include <algorithm>
#include <cmath>

namespace hmm {

const SemicontCodebook* codebookWithDensities(const CodebookChecks& checks, bool isFixed) {
    const SemicontCodebook* codebook =
        isFixed ? KTGetContext()->wSemicont : KTGetContext()->sSemicont;
    if (codebook->ccgPdfs != nullptr) return codebook;
    checks.module.report(
        KT_StsBadArg, isFixed ? "_wSemicontCodebook->ccgPdfs==0" : "_sSemicontCodebook->ccgPdfs==0",
        checks.whenEmpty);
    return nullptr;
}

bool agreesWithCodebook(const CodebookChecks& checks, const HMMServer* server,
                        const SemicontCodebook* codebook) {
    const char* mismatch = nullptr; // both numeric forms report with the float codebook's name
    if (server->nSymbols != codebook->nSymbols)
        mismatch = "nSymbols!=_sSemicontCodebook->nSymbols";
    else if (server->nQuant != codebook->nQuant)
        mismatch = "nQuant!=_sSemicontCodebook->nQuant";
    if (mismatch != nullptr) checks.module.report(KT_StsBadArg, mismatch, checks.whenOther);
    return mismatch == nullptr;
}

CodebookDisagreement::CodebookDisagreement(const HMMServer* server)
    : inSymbols(server->nSymbols != KTGetContext()->sSemicont->nSymbols),
      inLengths(server->nQuant != KTGetContext()->sSemicont->nQuant) {
}

void CodebookDisagreement::report(const ktl::Module& module, const char* funcName) const {
    if (inSymbols) module.report(KT_StsBadArg, "nSymbols!=_sSemicontCodebook->nSymbols", funcName);
    if (inLengths) module.report(KT_StsBadArg, "nQuant!=_sSemicontCodebook->nQuant", funcName);
}

namespace {

void evaluateFrames(const SemicontCodebook* codebook, const float* const* frames, float** rows,
                    int nFrames) {
    KTsEvalPdfsFrames(codebook, frames, rows, nFrames, codebook->nSymbols, codebook->nQuant);
}
void evaluateFrames(const SemicontCodebook* codebook, const short* const* frames, short** rows,
                    int nFrames) {
    KTwEvalPdfsFrames(codebook, frames, rows, nFrames, codebook->nSymbols, codebook->nQuant);
}

} // namespace

template <class T>
bool DensityTable<T>::evaluate(const SemicontCodebook* codebook, const T* const* frames,
                               int nFrames) {
    const int columns = multipleOf4(codebook->nSymbols);
    const std::size_t stride =
        std::size_t(columns) + 16 / sizeof(T); // the rows' room, and slack for whole registers
    const std::size_t pointers = std::size_t(nFrames) * sizeof(T*);
    if (nFrames < 0 || stride > PTRDIFF_MAX / sizeof(T) / (std::size_t(nFrames) + 1) / 2)
        return false;
    block = ktl::AlignedScratch<char>(
        static_cast<std::ptrdiff_t>(pointers + 64 + std::size_t(nFrames) * stride * sizeof(T)));
    if (!block) return false;
    rows = reinterpret_cast<T**>(block.get());
    T* first = aligned<T>(block.get() + pointers, 32);
    for (int t = 0; t < nFrames; ++t)
        rows[t] = first + std::size_t(t) * stride;
    evaluateFrames(codebook, frames, rows, nFrames);
    return true;
}

template class DensityTable<float>;
template class DensityTable<short>;

} // namespace hmm

namespace {

using ktl::gauss::matrices;
using ktl::gauss::means;
using ktl::gauss::weights;

// The exponents of a frame's densities: -|q| / 2 of a diagonal one, -|q| of a full one.
void exponentsOf(const SemicontCodebook* codebook, const float* frame, int nPdfs, int nDim,
                 float* row) {
    if (codebook->pPanel != nullptr)
        vsq::kernels().mahal->panelExponents(frame, ownsSemicontPanel(codebook), nPdfs, nDim,
                                             std::max(codebook->nQuant, 0), row);
    for (int k = 0; codebook->nFull > 0 && k < nPdfs; ++k) {
        const GaussMixServer* density = codebook->ccgPdfs[k];
        if (ktl::gauss::isFull(density))
            row[k] = static_cast<float>(-std::fabs(KTsMahalanobis(
                frame, means<float>(density)[0], matrices<float>(density)[0], nDim, 0)));
    }
}

short fixedDensity(const GaussMixServer* server, const short* frame, int nDim) {
    const auto plan = ktl::gauss::planExponent(server->scale);
    const int quadratic = ktl::gauss::fixedForm(server, 0, frame, nDim);
    // at most 2^14, except where a scale above 1 has shifted the quadratic form beyond 32 bits:
    // then the product wraps
    const int density = KTexpFix(ktl::gauss::exponentOf(quadratic, plan.shift), plan.frac, 14);
    const auto product =
        static_cast<unsigned>(density) * static_cast<unsigned>(int(weights<short>(server)[0]));
    return static_cast<short>(static_cast<int>(product) >> 14);
}

} // namespace

void KTsEvalPdfsFrames(const SemicontCodebook* pCodebook, const float* const* ppFrames,
                       float** ppOut, int nFrames, int nPdfs, int nDim) {
    if (nPdfs <= 0) return;
    nDim = std::clamp(nDim, 0, std::max(pCodebook->nQuant, 0));
    const int padded = hmm::multipleOf4(nPdfs);
    for (int t = 0; t < nFrames; ++t) {
        float* row = ppOut[t];
        exponentsOf(pCodebook, ppFrames[t], nPdfs, nDim, row);
        std::fill(row + nPdfs, row + padded, -hmm::absentCost); // its exponential is 0
        vsqsbExp1(row, padded);
        vsqsbMpy2(ownsSemicontWeights(pCodebook), row, nPdfs);
    }
}

void KTwEvalPdfsFrames(const SemicontCodebook* pCodebook, const short* const* ppFrames,
                       short** ppOut, int nFrames, int nPdfs, int nDim) {
    nDim = std::max(nDim, 0);
    for (int t = 0; t < nFrames; ++t) {
        short* row = ppOut[t];
        for (int k = 0; k < nPdfs; ++k)
            row[k] = fixedDensity(pCodebook->ccgPdfs[k], ppFrames[t], nDim);
        std::fill(row + nPdfs, row + hmm::multipleOf4(nPdfs), short(0));
    }
}
