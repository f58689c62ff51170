// Cost of the best state path through a model, or through the best model of a class: the Viterbi
// recursion on costs, -log10 of probabilities, in float and in fixed point. One text serves all
// output kinds, topologies and numeric forms. A. J. Viterbi, Error Bounds for Convolutional Codes
// and an Asymptotically Optimum Decoding Algorithm, 1967.
#include "models/log10_fixed.h"
#include "models/outputs.h"

#include "vsq.h"

#include <algorithm>
#include <limits>

namespace {

constexpr ktl::Module module{"..\\_LIBSRC\\KT_HVIT"};

constexpr float minusLog10OfE = -0.4342945f;

// Fractional bits of fixed-point output values when their logarithm is taken: those of a density
// and those of its weight. The densities of a mixture are asked for with 16.
constexpr int mixtureBits = 16, mixtureWeightBits = 12;
constexpr int densityBits = 14, densityWeightBits = 10;

// --- output values as costs, in both numeric forms ---

// Turns likelihoods of a frame's states into costs.
void toCosts(const HMMServer* server, float* row) {
    vsqsbLn1(row, server->nStates);
    vsqsbMpy1(minusLog10OfE, row, server->nStates);
}

// The same in fixed point, with the fractional bits of the server's scale; any word is a scale.
void toCosts(const HMMServer* server, int* row, int fractionalBits) {
    const int bitsOfCosts = static_cast<int>(0u - static_cast<unsigned>(server->scale));
    ownwLog10Scaled(row, server->nStates, -fractionalBits, bitsOfCosts);
}

struct FloatCosts {
    using Cost = float;
    using Feature = float;
    using Stored = float;
    using OfMixtures = float;
    using OfWeights = float;
    static constexpr unsigned form = HMM_SERVER_FLOAT;
    static constexpr hmm::Order storedOrder = hmm::Order::byTarget;
    static constexpr int rowUnit = 1; // lengths of stored rows are multiples of it
    static constexpr float none = std::numeric_limits<float>::infinity();
    static constexpr float failure = hmm::absentCost;

    static void scoreMixtures(const HMMServer* server, const float* frame, float* row) {
        hmm::mixtureRow(server, frame, row);
        toCosts(server, row);
    }
    static void scoreWeights(const HMMServer* server, const float* densities, float* row) {
        hmm::weightedRow(server, densities, row);
        toCosts(server, row);
    }
    static void advance(const vsq::HmmModel<float>& model, const float* const* rows, int n,
                        vsq::HmmPath<float>* state) {
        vsq::kernels().hmm->pathFloat(model, rows, n, state);
    }
    static void advance(const vsq::HmmByTarget<float>& model, const float* const* rows, int n,
                        vsq::HmmPath<float>* state) {
        vsq::kernels().hmm->storedPathFloat(model, rows, n, state);
    }
    static float sum(float a, float b) { return a + b; }
};

struct FixedCosts {
    using Cost = int;
    using Feature = short;
    using Stored = int;
    using OfMixtures = int;
    using OfWeights = int;
    static constexpr unsigned form = HMM_SERVER_SHORT;
    static constexpr hmm::Order storedOrder = hmm::Order::fixed;
    static constexpr int rowUnit = 2;
    static constexpr int none = 0x7FFFFFFF;
    static constexpr int failure = 0x7FFFFFFF;

    static void scoreMixtures(const HMMServer* server, const short* frame, int* row) {
        for (int i = 0; i < server->nStates; ++i) {
            int scale = -mixtureBits;
            row[i] =
                KTwEvalGaussMix(server->mixtures[i], frame, server->nQuant, KT_FixedScale, &scale);
        }
        toCosts(server, row, mixtureBits + mixtureWeightBits);
    }
    static void scoreWeights(const HMMServer* server, const short* densities, int* row) {
        const short* const* weights = hmm::outputRows<const short>(server->outputs);
        for (int i = 0; i < server->nStates; ++i)
            row[i] = vsqwDotProdExt(weights[i], densities, server->nSymbols, 0, nullptr);
        toCosts(server, row, densityBits + densityWeightBits);
    }
    static void advance(const vsq::HmmModel<int>& model, const int* const* rows, int n,
                        vsq::HmmPath<int>* state) {
        vsq::kernels().hmm->pathFixed(model, rows, n, state);
    }
    static void advance(const vsq::HmmByTarget<int>& model, const int* const* rows, int n,
                        vsq::HmmPath<int>* state) {
        vsq::kernels().hmm->storedPathFixed(model, rows, n, state);
    }
    static int sum(int a, int b) {
        return static_cast<int>(static_cast<unsigned>(a) + static_cast<unsigned>(b));
    }
};

// --- the recursion over one server ---

// Element by element: for orders that no kernel reads, where there is no memory to unpack them.
template <class Costs>
void advanceEachElement(const hmm::TransitionMap& map, const typename Costs::Cost* stored,
                        const typename Costs::Cost* const* rows, int n,
                        vsq::HmmPath<typename Costs::Cost>* state) {
    for (int t = 0; t < n; ++t, std::swap(state->current, state->other))
        for (int j = 0; j < map.n; ++j) {
            typename Costs::Cost best = Costs::none;
            for (int i = 0; i < map.n; ++i)
                if (hmm::stores(map.topology, i, j))
                    best =
                        std::min(best, Costs::sum(state->current[i], stored[map.position(i, j)]));
            state->other[j] = Costs::sum(rows[t][j], best);
        }
}

// The recursion over the frames of a server, and the best server so far.
template <class Costs>
class Path {
public:
    using Number = typename Costs::Cost;
    using Stored = Number;
    static constexpr hmm::Order storedOrder = Costs::storedOrder;

    explicit Path(int* pBest) : pId(pBest) {}
    Number cost() const { return best; }

    void open(const HMMServer* server, const Number* stored, Number* vectors, int) {
        const int stride = vsq::hmmStride(server->nStates);
        asStored = {hmm::kernelTopology(server->status), server->nStates, Costs::rowUnit, stored};
        state = {vectors, vectors + stride};
        std::fill_n(vectors, 2 * std::ptrdiff_t(stride), Number(0));
    }

    void start(const HMMServer* server, const Number* outputs) {
        const auto* initials =
            hmm::aligned<const Number>(server->initials, hmm::alignmentOf(server->status));
        std::transform(initials, initials + server->nStates, outputs, state.current, Costs::sum);
    }

    bool advance(const vsq::HmmModel<Number>& model, const Number* const* rows, int n, bool) {
        Costs::advance(model, rows, n, &state);
        return true;
    }

    bool advanceStored(const HMMServer* server, const Number* const* rows, int n, bool) {
        if (hmm::orderOf(server->status) == storedOrder)
            Costs::advance(asStored, rows, n, &state);
        else
            advanceEachElement<Costs>(hmm::TransitionMap::of(*server), asStored.trans, rows, n,
                                      &state);
        return true;
    }

    // Among equal costs the last server wins: the comparison is "not greater".
    void close(const HMMServer* server) {
        const Number cost = *std::min_element(state.current, state.current + server->nStates);
        if (cost <= best) {
            best = cost;
            if (pId != nullptr) *pId = server->id;
        }
    }

private:
    int* pId; // where the best server's id goes
    Number best = Costs::failure;
    vsq::HmmByTarget<Number> asStored{};
    vsq::HmmPath<Number> state{};
};

// The result at the caller's scale: a shift by *pScale in the fixed mode, as it stands in any
// other. Nothing saturates.
int scaled(int best, int scaleMode, int* pScale) {
    if (scaleMode != KT_FixedScale) {
        if (pScale != nullptr) *pScale = 0;
        return best;
    }
    const int shift = pScale != nullptr ? *pScale : 0;
    if (shift >= 0) return best >> std::min(shift, 31);
    return shift > -32 ? static_cast<int>(static_cast<unsigned>(best) << -shift) : 0;
}

template <class Outputs>
float pathCost(int hmm, Outputs outputs, int nFrames, int* pBest) {
    Path<FloatCosts> path(pBest);
    const bool isDone = hasHMMRegistry() && hmm::evaluateAll(hmm, path, outputs, nFrames);
    return isDone ? path.cost() : FloatCosts::failure;
}

template <class Outputs>
int pathCost(int hmm, Outputs outputs, int nFrames, int* pBest, int scaleMode, int* pScale) {
    Path<FixedCosts> path(pBest);
    const bool isDone = hasHMMRegistry() && hmm::evaluateAll(hmm, path, outputs, nFrames);
    return isDone ? scaled(path.cost(), scaleMode, pScale) : FixedCosts::failure;
}

// An empty codebook is reported before anything else is looked at; in both numeric forms under the
// float operation's name.
constexpr hmm::CodebookChecks floatChecks{module, "KTsEvalSemicontHMMViterbi",
                                          "KTsEvalSemicontHMMViterbi", false};
constexpr hmm::CodebookChecks fixedChecks{module, "KTsEvalSemicontHMMViterbi",
                                          "KTwEvalSemicontHMMViterbi", false};

} // namespace

float KTsEvalHMMViterbi(int hmm, const int* observations, int nFrames, int* pBest) {
    return pathCost(hmm, hmm::Discrete<FloatCosts>(observations), nFrames, pBest);
}

float KTsEvalContHMMViterbi(int hmm, const float* const* frames, int nFrames, int* pBest) {
    return pathCost(hmm, hmm::Continuous<FloatCosts>(frames), nFrames, pBest);
}

float KTsEvalSemicontHMMViterbi(int hmm, const float* const* frames, int nFrames, int* pBest) {
    return pathCost(hmm, hmm::Semicontinuous<FloatCosts>(frames, floatChecks), nFrames, pBest);
}

int KTwEvalHMMViterbi(int hmm, const int* observations, int nFrames, int* pBest, int scaleMode,
                      int* pScale) {
    return pathCost(hmm, hmm::Discrete<FixedCosts>(observations), nFrames, pBest, scaleMode,
                    pScale);
}

int KTwEvalContHMMViterbi(int hmm, const short* const* frames, int nFrames, int* pBest,
                          int scaleMode, int* pScale) {
    return pathCost(hmm, hmm::Continuous<FixedCosts>(frames), nFrames, pBest, scaleMode, pScale);
}

int KTwEvalSemicontHMMViterbi(int hmm, const short* const* frames, int nFrames, int* pBest,
                              int scaleMode, int* pScale) {
    return pathCost(hmm, hmm::Semicontinuous<FixedCosts>(frames, fixedChecks), nFrames, pBest,
                    scaleMode, pScale);
}
