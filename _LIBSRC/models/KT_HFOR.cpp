// Total likelihood of an observation sequence under a model or the best of a class, as a cost
// (-log10 P): the forward recursion in double precision, kept in range by exact powers of two whose
// exponents are counted. L. R. Rabiner, A Tutorial on Hidden Markov Models and Selected
// Applications in Speech Recognition, 1989.
#include "models/outputs.h"

#include <algorithm>
#include <cmath>

namespace {

constexpr ktl::Module module{"..\\_LIBSRC\\KT_HFOR"};

constexpr double log10Of2 = 0.3010299956639812;
constexpr int noExponent = 0x7FFFFFFF;

// Output values as probabilities. A mixture's sum keeps its double.
struct Likelihoods {
    using Feature = float;
    using Stored = float;
    using OfMixtures = double;
    using OfWeights = float;
    static constexpr unsigned form = HMM_SERVER_FLOAT;
    static void scoreMixtures(const HMMServer* server, const float* frame, double* row) {
        hmm::mixtureRow(server, frame, row);
    }
    static void scoreWeights(const HMMServer* server, const float* densities, float* row) {
        hmm::weightedRow(server, densities, row);
    }
};

void advanceKernel(const vsq::HmmModel<double>& model, const float* const* rows, int n,
                   bool rescaleLast, vsq::HmmForward* state) {
    vsq::kernels().hmm->forwardFloat(model, rows, n, rescaleLast, state);
}
void advanceKernel(const vsq::HmmModel<double>& model, const double* const* rows, int n,
                   bool rescaleLast, vsq::HmmForward* state) {
    vsq::kernels().hmm->forwardDouble(model, rows, n, rescaleLast, state);
}

void advanceKernel(const vsq::HmmBySource& model, const float* const* rows, int n, bool rescaleLast,
                   vsq::HmmForward* state) {
    vsq::kernels().hmm->storedForwardFloat(model, rows, n, rescaleLast, state);
}
void advanceKernel(const vsq::HmmBySource& model, const double* const* rows, int n,
                   bool rescaleLast, vsq::HmmForward* state) {
    vsq::kernels().hmm->storedForwardDouble(model, rows, n, rescaleLast, state);
}

// The first frame: start values times outputs, their sum on top of `carried`.
template <class T>
double startVector(const HMMServer* server, const T* outputs, double carried, double* target) {
    const float* initials = hmm::floats(server->initials);
    std::fill_n(target, vsq::hmmStride(server->nStates), 0.0);
    double sum = carried;
    for (int i = 0; i < server->nStates; ++i) {
        target[i] = static_cast<double>(outputs[i]) * static_cast<double>(initials[i]);
        sum += target[i];
    }
    return sum;
}

// The likelihood is sum * 2^(-exponent): comparing the pairs avoids the logarithm of a very small
// number.
class Best {
public:
    explicit Best(int* pBest) : pId(pBest) {}

    void consider(int newExponent, double newSum, int id) {
        if (newExponent < exponent) {
            exponent = newExponent;
            sum = newSum;
        } else if (newExponent == exponent && newSum > sum) {
            sum = newSum;
        }
        const double newCost = exponent * log10Of2 - std::log10(sum);
        if (newCost < cost) {
            cost = newCost;
            if (pId != nullptr) *pId = id;
        }
    }
    float result() const {
        return exponent == noExponent ? hmm::absentCost : static_cast<float>(cost);
    }

private:
    int* pId; // where the best server's id goes
    int exponent = noExponent;
    double sum = 0.0;
    double cost = static_cast<double>(hmm::absentCost);
};

// The recursion over the frames of a server, and the best server so far.
class Forward {
public:
    using Number = double;
    using Stored = float;
    static constexpr hmm::Order storedOrder = hmm::Order::bySource;

    explicit Forward(int* pBest) : best(pBest) {}
    float cost() const { return best.result(); }

    // With a single frame the sums of a class's members add up: each starts from the one before.
    void open(const HMMServer* server, const float* stored, double* vectors, int nFrames) {
        const int stride = vsq::hmmStride(server->nStates);
        asStored = {hmm::kernelTopology(server->status), server->nStates, stride, stored};
        state = {vectors, vectors + stride, nFrames == 1 ? carried : 0.0, 0, false};
    }

    template <class T>
    void start(const HMMServer* server, const T* outputs) {
        state.sum = startVector(server, outputs, state.sum, state.current);
    }

    template <class T>
    bool advance(const vsq::HmmModel<double>& model, const T* const* rows, int n, bool isLast) {
        advanceKernel(model, rows, n, isLast, &state);
        return !state.failed;
    }

    // Costs are no probabilities: a server of them that can't be unpacked fails.
    template <class T>
    bool advanceStored(const HMMServer* server, const T* const* rows, int n, bool isLast) {
        if (hmm::orderOf(server->status) != storedOrder) return false;
        advanceKernel(asStored, rows, n, isLast, &state);
        return !state.failed;
    }

    void close(const HMMServer* server) {
        carried = state.sum;
        best.consider(state.exponent, state.sum, server->id);
    }

private:
    Best best;
    double carried = 0.0;
    vsq::HmmBySource asStored{};
    vsq::HmmForward state{};
};

// The cost of the best server; *pBest is cleared first where there is a registry.
template <class Outputs>
float totalCost(int hmm, Outputs outputs, int nFrames, int* pBest) {
    if (!hasHMMRegistry()) return hmm::absentCost;
    if (pBest != nullptr) *pBest = 0;
    Forward forward(pBest);
    return hmm::evaluateAll(hmm, forward, outputs, nFrames) ? forward.cost() : hmm::absentCost;
}

} // namespace

float KTsEvalHMMForward(int hmm, const int* observations, int nFrames, int* pBest) {
    return totalCost(hmm, hmm::Discrete<Likelihoods>(observations), nFrames, pBest);
}

float KTsEvalContHMMForward(int hmm, const float* const* frames, int nFrames, int* pBest) {
    return totalCost(hmm, hmm::Continuous<Likelihoods>(frames), nFrames, pBest);
}

float KTsEvalSemicontHMMForward(int hmm, const float* const* frames, int nFrames, int* pBest) {
    constexpr hmm::CodebookChecks checks{module, "KTsEvalSemicontHMMForward",
                                         "KTsEvalSemicontHMMForward", true};
    return totalCost(hmm, hmm::Semicontinuous<Likelihoods>(frames, checks), nFrames, pBest);
}
