// Cost of the best state path through a model, or through the best model of a class: the Viterbi
// recursion on costs, -log10 of probabilities, in float and in fixed point. One text serves the
// flavours, topologies and numeric forms. A. J. Viterbi, Error Bounds for Convolutional Codes and
// an Asymptotically Optimum Decoding Algorithm, 1967.
#include "models/log10_fixed.h"
#include "models/outputs.h"

#include "vsq.h"

#include <algorithm>
#include <limits>

namespace {

constexpr ktl::Module module{"..\\_LIBSRC\\KT_HVIT"};

constexpr float minusLog10OfE = -0.4342945f;

// --- the numeric forms ---

struct FloatForm {
    using Cost = float;
    using Feature = float;
    static constexpr unsigned bit = HMM_SERVER_FLOAT;
    static constexpr bool isFixed = false;
    static constexpr hmm::Order straight = hmm::Order::byTarget;
    static constexpr int rowUnit = 1; // lengths of stored rows are multiples of it
    static constexpr float none = std::numeric_limits<float>::infinity();
    static constexpr float failure = hmm::absentCost;
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

struct FixedForm {
    using Cost = int;
    using Feature = short;
    static constexpr unsigned bit = HMM_SERVER_SHORT;
    static constexpr bool isFixed = true;
    static constexpr hmm::Order straight = hmm::Order::fixed;
    static constexpr int rowUnit = 2;
    static constexpr int none = 0x7FFFFFFF;
    static constexpr int failure = 0x7FFFFFFF;
    static void advance(const vsq::HmmModel<int>& model, const int* const* rows, int n,
                        vsq::HmmPath<int>* state) {
        vsq::kernels().hmm->pathInt(model, rows, n, state);
    }
    static void advance(const vsq::HmmByTarget<int>& model, const int* const* rows, int n,
                        vsq::HmmPath<int>* state) {
        vsq::kernels().hmm->storedPathInt(model, rows, n, state);
    }
    static int sum(int a, int b) {
        return static_cast<int>(static_cast<unsigned>(a) + static_cast<unsigned>(b));
    }
};

// Turns likelihoods of a frame's states into costs.
void toCosts(const HMMServer* server, float* row) {
    vsqsbLn1(row, server->nStates);
    vsqsbMpy1(minusLog10OfE, row, server->nStates);
}

// The number of fractional bits of a scale; any word is a scale.
int negated(int scale) {
    return static_cast<int>(0u - static_cast<unsigned>(scale));
}

// --- output costs by flavour ---

template <class Form>
struct Discrete {
    static constexpr unsigned kind = HMM_SERVER_DISCRETE | Form::bit;
    static constexpr bool computes = false; // the stored rows are read in place
    const int* observations;

    bool accepts(const HMMServer*) const { return true; }
    bool rows(const HMMServer* server, int first, int count, typename Form::Cost*,
              hmm::RowRun<typename Form::Cost>& run) const {
        return hmm::discreteRows(server, observations + first, count, run);
    }
};

// Flavours whose output costs are computed, into rows of the scratch.
template <class Form, class Flavour>
struct Computed {
    using Cost = typename Form::Cost;
    static constexpr bool computes = true;

    bool rows(const HMMServer* server, int first, int count, Cost* room,
              hmm::RowRun<Cost>& run) const {
        hmm::pointAtRows<const Cost>(room, server->nStates, count, run);
        for (int t = 0; t < count; ++t)
            static_cast<const Flavour*>(this)->row(
                server, first + t, room + std::ptrdiff_t(t) * vsq::hmmStride(server->nStates));
        return true;
    }
};

template <class Form>
struct Continuous : Computed<Form, Continuous<Form>> {
    static constexpr unsigned kind = HMM_SERVER_CONT | Form::bit;
    const typename Form::Feature* const* frames;

    explicit Continuous(const typename Form::Feature* const* framesOfCall) : frames(framesOfCall) {}
    bool accepts(const HMMServer*) const { return true; }
    void row(const HMMServer* server, int t, float* costs) const {
        hmm::mixtureRow(server, frames[t], costs);
        toCosts(server, costs);
    }
    void row(const HMMServer* server, int t, int* costs) const {
        for (int i = 0; i < server->nStates; ++i) {
            int scale = -16;
            costs[i] = KTwEvalGaussMix(server->mixtures[i], frames[t], server->nQuant,
                                       KT_FixedScale, &scale);
        }
        ownwLog10Scaled(costs, server->nStates, -28, negated(server->scale));
    }
};

template <class Form>
struct Semicontinuous : Computed<Form, Semicontinuous<Form>> {
    static constexpr unsigned kind = HMM_SERVER_SEMICONT | Form::bit;
    const SemicontCodebook* codebook;
    const hmm::DensityTable<typename Form::Feature>* densities;
    const char* funcName;

    Semicontinuous(const SemicontCodebook* book,
                   const hmm::DensityTable<typename Form::Feature>* table, const char* name)
        : codebook(book), densities(table), funcName(name) {}
    bool accepts(const HMMServer* server) const {
        return hmm::agreesWithCodebook(module, server, codebook, funcName);
    }
    void row(const HMMServer* server, int t, float* costs) const {
        hmm::weightedRow(server, densities->row(t), costs);
        toCosts(server, costs);
    }
    void row(const HMMServer* server, int t, int* costs) const {
        const short* const* weights = hmm::outputRows<const short>(server->outputs);
        for (int i = 0; i < server->nStates; ++i)
            costs[i] = vsqwDotProdExt(weights[i], densities->row(t), server->nSymbols, 0, nullptr);
        ownwLog10Scaled(costs, server->nStates, -24, negated(server->scale));
    }
};

// --- the recursion over one server ---

// Element by element: for orders that no kernel reads, where there is no memory to unpack them.
template <class Form>
void advancePlainly(const hmm::TransitionMap& map, const typename Form::Cost* stored,
                    const typename Form::Cost* const* rows, int n,
                    vsq::HmmPath<typename Form::Cost>* state) {
    for (int t = 0; t < n; ++t, std::swap(state->current, state->other))
        for (int j = 0; j < map.n; ++j) {
            typename Form::Cost best = Form::none;
            for (int i = 0; i < map.n; ++i)
                if (hmm::stores(map.topology, i, j))
                    best = std::min(best, Form::sum(state->current[i], stored[map.position(i, j)]));
            state->other[j] = Form::sum(rows[t][j], best);
        }
}

template <class Form, class Outputs>
class Evaluation {
    using Cost = typename Form::Cost;

public:
    Evaluation(const Outputs& outputsOfCall, int frameCount)
        : outputs(outputsOfCall), nFrames(frameCount) {}

    // The server's cost; false when it cannot be evaluated or memory ran out.
    bool run(const HMMServer* server, Cost* cost) {
        const Cost* stored =
            hmm::aligned<const Cost>(server->transitions, hmm::alignmentOf(server->status));
        if (!room.reserve(server, stored, nFrames, Outputs::computes, Form::straight)) return false;
        const int stride = vsq::hmmStride(server->nStates);
        asStored = {hmm::kernelTopology(server->status), server->nStates, Form::rowUnit, stored};
        state = {room.vectors, room.vectors + stride};
        std::fill_n(room.vectors, 2 * std::ptrdiff_t(stride), Cost(0));
        if (!allFrames(server)) return false;
        *cost = *std::min_element(state.current, state.current + server->nStates);
        return true;
    }

private:
    bool allFrames(const HMMServer* server) {
        const Cost* initials =
            hmm::aligned<const Cost>(server->initials, hmm::alignmentOf(server->status));
        for (int first = 0; first < nFrames; first += room.run) {
            const int count = std::min(room.run, nFrames - first);
            hmm::RowRun<Cost> run;
            if (!outputs.rows(server, first, count, room.outputs, run)) return false;
            const int skipped = first == 0 ? 1 : 0;
            if (first == 0)
                std::transform(initials, initials + server->nStates, run[0], state.current,
                               Form::sum);
            if (count > skipped) follow(server, run.data() + skipped, count - skipped);
        }
        return true;
    }

    // The recursion over a run of frames.
    void follow(const HMMServer* server, const Cost* const* rows, int n) {
        if (room.isUnpacked)
            Form::advance(room.model, rows, n, &state);
        else if (hmm::orderOf(server->status) == Form::straight)
            Form::advance(asStored, rows, n, &state);
        else
            advancePlainly<Form>(hmm::TransitionMap::of(*server), asStored.trans, rows, n, &state);
    }

    Outputs outputs;
    int nFrames;
    hmm::Room<Cost, Cost> room;
    vsq::HmmByTarget<Cost> asStored{};
    vsq::HmmPath<Cost> state{};
};

// Walks the servers; among equal scores the last one wins: the comparison is "not greater". False
// when the operation is to leave with the plain failure value: an unknown server or class, a
// negative status, a server that cannot be evaluated, no memory. A walk over no servers leaves
// `best` as it is and is a result.
template <class Form, class Outputs>
bool evaluate(int hmm, const Outputs& outputs, int nFrames, int* pBest, typename Form::Cost* best) {
    hmm::ServerWalk walk(hmm);
    if (!walk.isKnown() || nFrames < 1) return false;
    Evaluation<Form, Outputs> evaluation(outputs, nFrames);
    while (const HMMServer* server = walk.next()) {
        typename Form::Cost cost;
        if (KTGetStatus() < 0 || !outputs.accepts(server) ||
            !hmm::evaluable(server, Outputs::kind) || !evaluation.run(server, &cost))
            return false;
        if (cost <= *best) {
            *best = cost;
            if (pBest != nullptr) *pBest = server->id;
        }
    }
    return true;
}

template <class Form>
bool evaluateSemicont(int hmm, const typename Form::Feature* const* frames, int nFrames, int* pBest,
                      const char* funcName, typename Form::Cost* best) {
    // An empty codebook is reported before anything else is looked at; in both forms under the
    // float operation's name.
    const SemicontCodebook* codebook =
        hmm::codebookWithDensities(module, Form::isFixed, "KTsEvalSemicontHMMViterbi");
    if (codebook == nullptr || !hmm::ServerWalk(hmm).isKnown() || nFrames < 1) return false;
    hmm::DensityTable<typename Form::Feature> densities;
    if (!densities.evaluate(codebook, frames, nFrames)) return false;
    return evaluate<Form>(hmm, Semicontinuous<Form>(codebook, &densities, funcName), nFrames, pBest,
                          best);
}

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

} // namespace

float KTsEvalHMMViterbi(int hmm, const int* observations, int nFrames, int* pBest) {
    float best = FloatForm::failure;
    const bool done =
        hasHMMRegistry() &&
        evaluate<FloatForm>(hmm, Discrete<FloatForm>{observations}, nFrames, pBest, &best);
    return done ? best : FloatForm::failure;
}

float KTsEvalContHMMViterbi(int hmm, const float* const* frames, int nFrames, int* pBest) {
    float best = FloatForm::failure;
    const bool done = hasHMMRegistry() && evaluate<FloatForm>(hmm, Continuous<FloatForm>(frames),
                                                              nFrames, pBest, &best);
    return done ? best : FloatForm::failure;
}

float KTsEvalSemicontHMMViterbi(int hmm, const float* const* frames, int nFrames, int* pBest) {
    float best = FloatForm::failure;
    const bool done =
        hasHMMRegistry() && evaluateSemicont<FloatForm>(hmm, frames, nFrames, pBest,
                                                        "KTsEvalSemicontHMMViterbi", &best);
    return done ? best : FloatForm::failure;
}

int KTwEvalHMMViterbi(int hmm, const int* observations, int nFrames, int* pBest, int scaleMode,
                      int* pScale) {
    int best = FixedForm::failure;
    const bool done =
        hasHMMRegistry() &&
        evaluate<FixedForm>(hmm, Discrete<FixedForm>{observations}, nFrames, pBest, &best);
    return done ? scaled(best, scaleMode, pScale) : FixedForm::failure;
}

int KTwEvalContHMMViterbi(int hmm, const short* const* frames, int nFrames, int* pBest,
                          int scaleMode, int* pScale) {
    int best = FixedForm::failure;
    const bool done = hasHMMRegistry() && evaluate<FixedForm>(hmm, Continuous<FixedForm>(frames),
                                                              nFrames, pBest, &best);
    return done ? scaled(best, scaleMode, pScale) : FixedForm::failure;
}

int KTwEvalSemicontHMMViterbi(int hmm, const short* const* frames, int nFrames, int* pBest,
                              int scaleMode, int* pScale) {
    int best = FixedForm::failure;
    const bool done =
        hasHMMRegistry() && evaluateSemicont<FixedForm>(hmm, frames, nFrames, pBest,
                                                        "KTwEvalSemicontHMMViterbi", &best);
    return done ? scaled(best, scaleMode, pScale) : FixedForm::failure;
}
