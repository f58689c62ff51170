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

// --- outputs by flavour: rows(server, first, count, room) of the frames first .. first + count - 1
// ---

struct Discrete {
    using Element = float;
    static constexpr unsigned kind = HMM_SERVER_DISCRETE | HMM_SERVER_FLOAT;
    static constexpr bool computes = false; // the stored rows are read in place
    const int* observations;

    bool accepts(const HMMServer*) const { return true; }
    bool rows(const HMMServer* server, int first, int count, float*,
              hmm::RowRun<float>& run) const {
        return hmm::discreteRows(server, observations + first, count, run);
    }
};

struct Continuous {
    using Element = double;
    static constexpr unsigned kind = HMM_SERVER_CONT | HMM_SERVER_FLOAT;
    static constexpr bool computes = true;
    const float* const* frames;

    bool accepts(const HMMServer*) const { return true; }
    bool rows(const HMMServer* server, int first, int count, double* room,
              hmm::RowRun<double>& run) const {
        hmm::pointAtRows<const double>(room, server->nStates, count, run);
        for (int t = 0; t < count; ++t)
            hmm::mixtureRow(server, frames[first + t],
                            room + std::ptrdiff_t(t) * vsq::hmmStride(server->nStates));
        return true;
    }
};

struct Semicontinuous {
    using Element = float;
    static constexpr unsigned kind = HMM_SERVER_SEMICONT | HMM_SERVER_FLOAT;
    static constexpr bool computes = true;
    const SemicontCodebook* codebook;
    const hmm::DensityTable<float>* densities;

    bool accepts(const HMMServer* server) const {
        return hmm::agreesWithCodebook(module, server, codebook, "KTsEvalSemicontHMMForward");
    }
    bool rows(const HMMServer* server, int first, int count, float* room,
              hmm::RowRun<float>& run) const {
        hmm::pointAtRows<const float>(room, server->nStates, count, run);
        for (int t = 0; t < count; ++t)
            hmm::weightedRow(server, densities->row(first + t),
                             room + std::ptrdiff_t(t) * vsq::hmmStride(server->nStates));
        return true;
    }
};

void advance(const vsq::HmmModel<double>& model, const float* const* rows, int n, bool rescaleLast,
             vsq::HmmForward* state) {
    vsq::kernels().hmm->forwardFloat(model, rows, n, rescaleLast, state);
}
void advance(const vsq::HmmModel<double>& model, const double* const* rows, int n, bool rescaleLast,
             vsq::HmmForward* state) {
    vsq::kernels().hmm->forwardDouble(model, rows, n, rescaleLast, state);
}

void advanceStored(const vsq::HmmBySource& model, const float* const* rows, int n, bool rescaleLast,
                   vsq::HmmForward* state) {
    vsq::kernels().hmm->storedForwardFloat(model, rows, n, rescaleLast, state);
}
void advanceStored(const vsq::HmmBySource& model, const double* const* rows, int n,
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

// One call's work on server after server.
template <class Outputs>
class Evaluation {
    using Element = typename Outputs::Element;

public:
    Evaluation(const Outputs& outputsOfCall, int frameCount)
        : outputs(outputsOfCall), nFrames(frameCount) {}

    // The server's sum and exponent; false when it cannot produce the sequence, or when memory ran
    // out. With a single frame the sums of a class's members add up: each starts from the one
    // before.
    bool run(const HMMServer* server, double* sum, int* exponent) {
        const float* stored = hmm::floats(server->transitions);
        if (!room.reserve(server, stored, nFrames, Outputs::computes, hmm::Order::bySource))
            return false;
        const int stride = vsq::hmmStride(server->nStates);
        asStored = {hmm::kernelTopology(server->status), server->nStates, stride, stored};
        state = {room.vectors, room.vectors + stride, 0.0, 0, false};
        if (!allFrames(server, nFrames == 1 ? carried : 0.0)) return false;
        carried = *sum = state.sum;
        *exponent = state.exponent;
        return true;
    }

private:
    bool allFrames(const HMMServer* server, double startSum) {
        for (int first = 0; first < nFrames; first += room.run) {
            const int count = std::min(room.run, nFrames - first);
            hmm::RowRun<Element> run;
            if (!outputs.rows(server, first, count, room.outputs, run)) return false;
            const int skipped = first == 0 ? 1 : 0;
            if (first == 0) state.sum = startVector(server, run[0], startSum, state.current);
            if (count > skipped &&
                !follow(server, run.data() + skipped, count - skipped, first + count == nFrames))
                return false;
        }
        return true;
    }

    // The recursion over a run of frames. Costs are no probabilities: a server of them that can't
    // be unpacked fails.
    bool follow(const HMMServer* server, const Element* const* rows, int n, bool isLast) {
        if (room.isUnpacked)
            advance(room.model, rows, n, isLast, &state);
        else if (hmm::orderOf(server->status) == hmm::Order::bySource)
            advanceStored(asStored, rows, n, isLast, &state);
        else
            return false;
        return !state.failed;
    }

    Outputs outputs;
    int nFrames;
    double carried = 0.0;
    hmm::Room<double, Element> room;
    vsq::HmmBySource asStored{};
    vsq::HmmForward state{};
};

// The likelihood is sum * 2^(-exponent): comparing the pairs avoids the logarithm of a very small
// number.
struct Best {
    int exponent = noExponent;
    double sum = 0.0;
    double cost = static_cast<double>(hmm::absentCost);

    void consider(int newExponent, double newSum, int id, int* pBest) {
        if (newExponent < exponent) {
            exponent = newExponent;
            sum = newSum;
        } else if (newExponent == exponent && newSum > sum) {
            sum = newSum;
        }
        const double newCost = exponent * log10Of2 - std::log10(sum);
        if (newCost < cost) {
            cost = newCost;
            *pBest = id;
        }
    }
};

template <class Outputs>
float evaluate(int hmm, const Outputs& outputs, int nFrames, int* pBest) {
    hmm::ServerWalk walk(hmm);
    if (!walk.isKnown() || nFrames < 1) return hmm::absentCost;
    Evaluation<Outputs> evaluation(outputs, nFrames);
    Best best;
    while (const HMMServer* server = walk.next()) {
        double sum = 0.0;
        int exponent = 0;
        if (KTGetStatus() < 0 || !outputs.accepts(server) ||
            !hmm::evaluable(server, Outputs::kind) || !evaluation.run(server, &sum, &exponent))
            return hmm::absentCost;
        best.consider(exponent, sum, server->id, pBest);
    }
    return best.exponent == noExponent ? hmm::absentCost : static_cast<float>(best.cost);
}

// Whether there is a registry; if so *pBest is cleared. A null pBest is replaced by a word of the
// caller's caller.
bool begin(int*& pBest, int& unwanted) {
    if (pBest == nullptr) pBest = &unwanted;
    if (!hasHMMRegistry()) return false;
    *pBest = 0;
    return true;
}

} // namespace

float KTsEvalHMMForward(int hmm, const int* observations, int nFrames, int* pBest) {
    int unwanted;
    return begin(pBest, unwanted) ? evaluate(hmm, Discrete{observations}, nFrames, pBest)
                                  : hmm::absentCost;
}

float KTsEvalContHMMForward(int hmm, const float* const* frames, int nFrames, int* pBest) {
    int unwanted;
    return begin(pBest, unwanted) ? evaluate(hmm, Continuous{frames}, nFrames, pBest)
                                  : hmm::absentCost;
}

float KTsEvalSemicontHMMForward(int hmm, const float* const* frames, int nFrames, int* pBest) {
    int unwanted;
    if (!begin(pBest, unwanted) || !hmm::ServerWalk(hmm).isKnown()) return hmm::absentCost;
    const SemicontCodebook* codebook =
        hmm::codebookWithDensities(module, false, "KTsEvalSemicontHMMForward");
    hmm::DensityTable<float> densities;
    if (codebook == nullptr || !densities.evaluate(codebook, frames, nFrames))
        return hmm::absentCost;
    return evaluate(hmm, Semicontinuous{codebook, &densities}, nFrames, pBest);
}
