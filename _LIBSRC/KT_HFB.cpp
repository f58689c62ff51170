#include "KT_HFB.h"

#include "KT_HEVAL.h"

namespace {

constexpr ktl::Module module{"..\\_LIBSRC\\KT_HFOR"}; // the forward evaluation's: they are one family

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
    return (KTGetContext()->hmmMode & HMM_MODE_READY) != 0 ? 0.0 : -1.0;
}

// The lattice in the caller's array, whose rows have no padding.
double evaluate(const HMMServer* server, const vsq::HmmOutputs& outputs, double* pAlphaBeta, double* pScales,
                int T, int* pExponent) {
    const std::ptrdiff_t half = std::ptrdiff_t(T) * server->nStates;
    const vsq::HmmLattice lattice{pAlphaBeta, pAlphaBeta + half, pScales, server->nStates, T};
    return hmm::forwardBackward(server, outputs, lattice, pExponent);
}

} // namespace

namespace hmm {

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
                       const vsq::HmmLattice& lattice, int* pExponent, const vsq::HmmUnpacked& unpacked) {
    *pExponent = noExponent;
    if (lattice.nFrames < 1 || !evaluable(server, HMM_SERVER_FLOAT)) return 0.0;
    return vsq::kernels().hmmtrain->forwardBackward(storedModel(server, unpacked), outputs, lattice,
                                                    pExponent);
}

} // namespace hmm

double KTsEvalHMMForwardBackward(int hmm, const int* pObservations, double* pAlphaBeta, double* pScales,
                                 int T, int* pExponent) {
    const HMMServer* server = begin(hmm, pScales, T, pExponent);
    if (server == nullptr || !hmm::evaluable(server, HMM_SERVER_DISCRETE | HMM_SERVER_FLOAT) ||
        !hmm::inAlphabet(server, pObservations, T))
        return failure();
    const vsq::HmmOutputs outputs{hmm::outputRows<const float>(server->outputs), pObservations, nullptr, 0};
    return evaluate(server, outputs, pAlphaBeta, pScales, T, pExponent);
}

double KTsEvalContHMMForwardBackward(int hmm, double* pAlphaBeta, double* pScales, const float* pOutProbs,
                                     int T, int* pExponent) {
    const HMMServer* server = begin(hmm, pScales, T, pExponent);
    if (server == nullptr) return failure();
    const vsq::HmmOutputs outputs{nullptr, nullptr, pOutProbs, server->nStates};
    return evaluate(server, outputs, pAlphaBeta, pScales, T, pExponent);
}

double KTsEvalSemicontHMMForwardBackward(int hmm, double* pAlphaBeta, double* pScales, const float* pOutProbs,
                                         int T, int* pExponent) {
    const HMMServer* server = begin(hmm, pScales, T, pExponent);
    if (server == nullptr) return failure();
    const HeldHMMServer held(server);
    hmm::compareWithCodebook(server);
    if (held.get() == nullptr) return failure(); // the handler of a report has released it
    const vsq::HmmOutputs outputs{nullptr, nullptr, pOutProbs, server->nStates};
    return evaluate(server, outputs, pAlphaBeta, pScales, T, pExponent);
}
