#include "models/forward_backward.h"

#include "models/evaluation.h"

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <numeric>
#include <span>

namespace {

// the forward evaluation's: they are one family
constexpr ktl::Module module{"..\\_LIBSRC\\KT_HFOR"};

constexpr int noExponent = 0x7FFFFFFF;

// The record of an id; null, with the exponent marked, where there is nothing to evaluate.
HMMServer* begin(int hmm, double* pScales, int T, int* pExponent) {
    *pExponent = noExponent;
    HMMServer* server = KTFindHMMServer(hmm);
    if (server != nullptr && T > 0) pScales[0] = 1.0;
    return server;
}

// Also the value where there is no server to evaluate.
double failure() {
    return hasHMMRegistry() ? 0.0 : -1.0;
}

// Backward values from occupancies.
void divideByForward(const vsq::HmmLattice& lattice, int nStates, double likelihood) {
    for (std::ptrdiff_t t = 0; t < lattice.nFrames - 1; ++t)
        for (int i = 0; i < nStates; ++i) {
            const double alpha = lattice.alpha[t * lattice.stride + i];
            double& beta = lattice.beta[t * lattice.stride + i];
            beta = alpha == 0.0 ? 0.0 : std::clamp(beta / alpha * likelihood, -DBL_MAX, DBL_MAX);
        }
    std::fill_n(lattice.beta + (lattice.nFrames - 1) * lattice.stride, nStates, 1.0);
}

// The lattice in the caller's array, whose rows have no padding.
double evaluate(const HMMServer* server, const vsq::HmmOutputs& outputs, double* pAlphaBeta,
                double* pScales, int T, int* pExponent) {
    const std::ptrdiff_t half = std::ptrdiff_t(T) * server->nStates;
    const vsq::HmmLattice lattice{pAlphaBeta, pAlphaBeta + half, pScales, server->nStates, T};
    const double likelihood = hmm::forwardBackward(server, outputs, lattice, pExponent);
    if (likelihood > 0.0 && !hmm::isBackwardFinite(lattice, server->nStates)) {
        hmm::occupanciesFromForward(server, lattice, 1.0 / likelihood, nullptr);
        divideByForward(lattice, server->nStates, likelihood);
    }
    return likelihood;
}

} // namespace

namespace hmm {
namespace {

constexpr double lift = 0x1p600; // on forward values, so that no product with a transition vanishes
constexpr int targetsAtOnce = 64;

// visit(i, first, row, position) for every state with a forward value that leads to some of the
// targets from `block` on: row.size() of them from `first` on, stored from `position` on.
template <class Visit>
void eachRow(const HMMServer* server, const double* alpha, int block, const Visit& visit) {
    const TransitionMap map = sourceMap(server);
    for (int i = 0; i < map.n; ++i) {
        const int first = std::max(firstTarget(map.topology, i), block);
        const int end = std::min(endTarget(map.topology, map.n, i), block + targetsAtOnce);
        if (alpha[i] == 0.0 || first >= end) continue;
        const std::size_t position = map.position(i, first);
        const float* row = floats(server->transitions) + position;
        visit(i, first, std::span(row, std::size_t(end - first)), position);
    }
}

// The occupancies of some targets, shared out to the frame before.
void shareOut(const HMMServer* server, const double* alpha, const double* occupancies, int block,
              double* before, double* moves) {
    double factors[targetsAtOnce] = {};
    eachRow(server, alpha, block, [&](int i, int first, std::span<const float> row, std::size_t) {
        const double lifted = alpha[i] * lift;
        for (std::size_t k = 0; k < row.size(); ++k)
            factors[std::size_t(first - block) + k] += lifted * double(row[k]);
    });
    for (int j = block; j < server->nStates && j < block + targetsAtOnce; ++j) {
        double& factor = factors[j - block];
        factor = occupancies[j] == 0.0 || factor == 0.0 ? 0.0 : occupancies[j] / factor;
    }
    eachRow(server, alpha, block,
            [&](int i, int first, std::span<const float> row, std::size_t position) {
                const double lifted = alpha[i] * lift;
                double shares[targetsAtOnce];
                for (std::size_t k = 0; k < row.size(); ++k)
                    shares[k] = lifted * double(row[k]) * factors[std::size_t(first - block) + k];
                before[i] += std::reduce(shares, shares + row.size());
                for (std::size_t k = 0; moves != nullptr && k < row.size(); ++k)
                    moves[position + k] += shares[k];
            });
}

} // namespace

// What is no number stays none on the way back, since every state leads to itself: the first frame
// tells.
bool isBackwardFinite(const vsq::HmmLattice& lattice, int nStates) {
    return std::all_of(lattice.beta, lattice.beta + nStates,
                       [](double beta) { return std::isfinite(beta); });
}

void occupanciesFromForward(const HMMServer* server, const vsq::HmmLattice& lattice, double weight,
                            double* moves) {
    const std::ptrdiff_t last = lattice.nFrames - 1;
    for (int i = 0; i < server->nStates; ++i)
        lattice.beta[last * lattice.stride + i] = lattice.alpha[last * lattice.stride + i] * weight;
    for (std::ptrdiff_t t = last; t > 0; --t) {
        const double* occupancies = lattice.beta + t * lattice.stride;
        double* before = lattice.beta + (t - 1) * lattice.stride;
        std::fill_n(before, server->nStates, 0.0);
        for (int block = 0; block < server->nStates; block += targetsAtOnce)
            shareOut(server, lattice.alpha + (t - 1) * lattice.stride, occupancies, block, before,
                     moves);
    }
}

vsq::HmmStored storedModel(const HMMServer* server, const vsq::HmmUnpacked& unpacked) {
    return {kernelTopology(server->status), server->nStates, floats(server->transitions),
            floats(server->initials), unpacked};
}

bool inAlphabet(const HMMServer* server, const int* pObservations, int T) {
    for (int t = 0; t < T; ++t)
        if (pObservations[t] < 0 || pObservations[t] >= server->nSymbols) return false;
    return true;
}

void compareWithCodebook(const HMMServer* server) {
    constexpr char name[] = "KTsEvalSemicontHMMForwardBackward";
    const CodebookDisagreement disagreement(server);
    if (KTGetContext()->sSemicont->ccgPdfs == nullptr)
        module.report(KT_StsBadArg, "_sSemicontCodebook->ccgPdfs==0", name);
    disagreement.report(module, name);
}

double forwardBackward(const HMMServer* server, const vsq::HmmOutputs& outputs,
                       const vsq::HmmLattice& lattice, int* pExponent,
                       const vsq::HmmUnpacked& unpacked) {
    *pExponent = noExponent;
    if (lattice.nFrames < 1 || !evaluable(server, HMM_SERVER_FLOAT)) return 0.0;
    return vsq::kernels().hmmtrain->forwardBackward(storedModel(server, unpacked), outputs, lattice,
                                                    pExponent);
}

} // namespace hmm

double KTsEvalHMMForwardBackward(int hmm, const int* pObservations, double* pAlphaBeta,
                                 double* pScales, int T, int* pExponent) {
    const HMMServer* server = begin(hmm, pScales, T, pExponent);
    if (server == nullptr || !hmm::evaluable(server, HMM_SERVER_DISCRETE | HMM_SERVER_FLOAT) ||
        !hmm::inAlphabet(server, pObservations, T))
        return failure();
    const vsq::HmmOutputs outputs{hmm::outputRows<const float>(server->outputs), pObservations,
                                  nullptr, 0};
    return evaluate(server, outputs, pAlphaBeta, pScales, T, pExponent);
}

double KTsEvalContHMMForwardBackward(int hmm, double* pAlphaBeta, double* pScales,
                                     const float* pOutProbs, int T, int* pExponent) {
    const HMMServer* server = begin(hmm, pScales, T, pExponent);
    if (server == nullptr) return failure();
    const vsq::HmmOutputs outputs{nullptr, nullptr, pOutProbs, server->nStates};
    return evaluate(server, outputs, pAlphaBeta, pScales, T, pExponent);
}

double KTsEvalSemicontHMMForwardBackward(int hmm, double* pAlphaBeta, double* pScales,
                                         const float* pOutProbs, int T, int* pExponent) {
    const HMMServer* server = begin(hmm, pScales, T, pExponent);
    if (server == nullptr) return failure();
    const HeldHMMServer held(server);
    hmm::compareWithCodebook(server);
    if (held.get() == nullptr) return failure(); // the handler of a report has released it
    const vsq::HmmOutputs outputs{nullptr, nullptr, pOutProbs, server->nStates};
    return evaluate(server, outputs, pAlphaBeta, pScales, T, pExponent);
}
