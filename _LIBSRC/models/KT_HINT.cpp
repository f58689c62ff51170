// Takes over a model's parameters from the caller's row tables: finds the topology of the
// transition matrix and stores everything in the layouts that the evaluation loops walk.
#include "frame/KT_ERROR.h"
#include "models/layout.h"

#include <algorithm>
#include <cstdlib>

namespace {

constexpr ktl::Module module{"..\\_LIBSRC\\KT_HINT"};

constexpr int HMM_FIXED_PAD =
    0x1FFFFFFF; // fills fixed transition rows of costs; larger than any sum that wins

// What differs between the numeric forms: the caller's and the stored element, which transitions
// count as present, and what fills places without a value.
struct FloatForm {
    using Input = float;
    using Stored = float;
    static bool present(float value, bool costs) {
        return costs ? value < HMM_TOPOLOGY_ZERO_COST : value > 0.0f;
    }
    static float missing(bool) { return 0.0f; } // no place of a float array is left over
    static float rowEnd(bool) { return 0.0f; }
    static float vectorEnd(bool) { return hmm::absentCost; }
    static void replaceZeros(float*, std::size_t, bool) {}
};

struct FixedForm {
    using Input = short;
    using Stored = int;
    // 0x7FFE counts as present here although it is stored as zero probability
    static bool present(short value, bool costs) { return costs ? value < 0x7FFF : value > 0; }
    static int missing(bool costs) { return costs ? HMM_LOG_ZERO : 0; }
    static int rowEnd(bool costs) { return costs ? HMM_FIXED_PAD : 0; }
    static int vectorEnd(bool costs) { return costs ? HMM_LOG_ZERO : 0; }
    static void replaceZeros(int* values, std::size_t n, bool costs) {
        if (costs)
            std::replace_if(
                values, values + n, [](int v) { return v == 0x7FFE || v == 0x7FFF; }, HMM_LOG_ZERO);
    }
};

template <class Form>
using Rows = const typename Form::Input* const*;

// No present element below the diagonal makes a model triangular; if from three states on none lies
// beyond the second place above it either, the model is banded.
template <class Form>
unsigned classify(Rows<Form> trans, int n, bool costs) {
    const auto anyPresent = [&](auto from, auto to) {
        for (int i = 0; i < n; ++i)
            for (int j = from(i); j < to(i); ++j)
                if (Form::present(trans[i][j], costs)) return true;
        return false;
    };
    if (n < 2 || anyPresent([](int) { return 0; }, [](int i) { return i; })) return 0;
    if (n < 3 || anyPresent([](int i) { return i + 3; }, [n](int) { return n; }))
        return HMM_SERVER_TRIANGULAR;
    return HMM_SERVER_BANDED;
}

// One parameter setting in progress.
template <class Form>
struct Setting {
    using Stored = typename Form::Stored;

    KTContext* context;
    HMMServer* server;
    int nStates;
    int nSymbols;
    unsigned status;

    bool costs() const { return (status & KT_HMM_LOGARITHMIC) != 0; }
    std::size_t alignment() const { return hmm::alignmentOf(status); }
    Stored* start(void* block) const { return hmm::aligned<Stored>(block, alignment()); }

    bool setTransitions(Rows<Form> trans);
    bool setOutputs(const void* out);
    bool setInitials(const typename Form::Input* initial);

private:
    void storeTransitions(Rows<Form> trans, const hmm::TransitionMap& map, Stored* target) const;
    void storeDiscrete(Rows<Form> out, const hmm::OutputShape& shape, Stored* const* rows) const;
    bool tile();
};

void discard(void*& block) {
    std::free(block);
    block = nullptr;
}

template <class Form>
bool Setting<Form>::setTransitions(Rows<Form> trans) {
    const unsigned topology = classify<Form>(trans, nStates, costs());
    const bool isReused = nStates == server->nStates && topology == (status & hmmTopologyBits);
    status = (status & ~(hmmTopologyBits | HMM_SERVER_TILED)) | topology;
    const hmm::TransitionMap map{hmm::topologyOf(status), hmm::orderOf(status), nStates};
    // the status that was given need not tell how the array is laid out
    if (!isReused || map.size() != hmm::TransitionMap::of(*server).size())
        discard(server->transitions);
    if (server->transitions == nullptr)
        server->transitions = hmm::allocateArray(map.size(), sizeof(Stored));
    if (server->transitions == nullptr) return false;
    Stored* target = start(server->transitions);
    storeTransitions(trans, map, target);
    Form::replaceZeros(target, map.size(), costs());
    const bool wantsTiles =
        map.order == hmm::Order::byTarget && (context->hmmMode & HMM_MODE_TILED) != 0;
    return !wantsTiles || tile();
}

template <class Form>
void Setting<Form>::storeTransitions(Rows<Form> trans, const hmm::TransitionMap& map,
                                     Stored* target) const {
    std::fill_n(target, map.size(), Form::rowEnd(costs()));
    if (map.topology == hmm::Topology::banded && map.order == hmm::Order::fixed) {
        const std::size_t row = std::size_t(hmm::even(nStates));
        target[row] = target[2 * row] = target[2 * row + 1] = Form::missing(costs());
    }
    for (int i = 0; i < nStates; ++i)
        for (int j = 0; j < nStates; ++j)
            if (hmm::stores(map.topology, i, j)) target[map.position(i, j)] = trans[i][j];
    if (map.duplicate() < map.size()) target[map.duplicate()] = trans[nStates - 1][nStates - 1];
}

template <class Form>
bool Setting<Form>::tile() {
    void* tiled = KTTileHMMTrans(server->transitions, status, nStates);
    if (tiled == nullptr) return false;
    std::free(server->transitions);
    server->transitions = tiled;
    status |= HMM_SERVER_TILED;
    return true;
}

// Weights of a state's densities, row by row, the padding 0.
template <class T>
void storeWeights(const T* const* out, const hmm::OutputShape& shape, T* const* rows) {
    for (int i = 0; i < shape.rows; ++i) {
        std::copy_n(out[i], shape.columns, rows[i]);
        std::fill_n(rows[i] + shape.columns, shape.stride - shape.columns, T(0));
    }
}

// The caller's rows are per state, the stored ones per symbol, so that an observed symbol selects
// one vector.
template <class Form>
void Setting<Form>::storeDiscrete(Rows<Form> out, const hmm::OutputShape& shape,
                                  Stored* const* rows) const {
    for (int k = 0; k < shape.rows; ++k) {
        for (int i = 0; i < nStates; ++i)
            rows[k][i] = out[i][k];
        std::fill_n(rows[k] + nStates, shape.stride - nStates, Form::vectorEnd(costs()));
        Form::replaceZeros(rows[k], std::size_t(shape.stride), costs());
    }
}

template <class Form>
bool Setting<Form>::setOutputs(const void* out) {
    using Input = typename Form::Input;
    const hmm::OutputShape shape = hmm::OutputShape::of(status, nStates, nSymbols);
    if (shape != hmm::OutputShape::of(server->status, server->nStates, server->nSymbols))
        discard(server->outputs);
    if (server->outputs == nullptr) server->outputs = hmm::allocateOutputs(shape, alignment());
    if (server->outputs == nullptr) return false;
    const auto rows = static_cast<Rows<Form>>(out);
    if ((status & HMM_SERVER_DISCRETE) != 0)
        storeDiscrete(rows, shape, hmm::outputRows<Stored>(server->outputs));
    else
        storeWeights(rows, shape, hmm::outputRows<Input>(server->outputs));
    return true;
}

template <class Form>
bool Setting<Form>::setInitials(const typename Form::Input* initial) {
    const int length = hmm::initialsLength(status, nStates);
    if (nStates != server->nStates || length != hmm::initialsLength(server->status, nStates))
        discard(server->initials);
    if (server->initials == nullptr)
        server->initials = hmm::allocateArray(std::size_t(length), sizeof(Stored));
    if (server->initials == nullptr) return false;
    Stored* target = start(server->initials);
    std::copy_n(initial, nStates, target);
    std::fill_n(target + nStates, length - nStates, Form::vectorEnd(costs()));
    Form::replaceZeros(target, std::size_t(length), costs());
    return true;
}

template <class Form>
void apply(Setting<Form> setting, int tag, const void* trans, const void* out,
           const void* initial) {
    using Input = typename Form::Input;
    if (trans != nullptr && !setting.setTransitions(static_cast<Rows<Form>>(trans))) return;
    if (out != nullptr && !setting.setOutputs(out)) return;
    if (initial != nullptr && !setting.setInitials(static_cast<const Input*>(initial))) return;
    setting.server->nStates = setting.nStates;
    setting.server->tag = tag;
    setting.server->nSymbols = setting.nSymbols;
    setting.server->status = setting.status;
}

} // namespace

bool KTSetHMMServerParm(int id, int tag, const void* trans, const void* out, const void* initial,
                        int nStates, int nSymbols, int status) {
    HMMServer* server = KTFindHMMServer(id);
    if (server == nullptr) return true;
    const unsigned word = status < 0 ? server->status : static_cast<unsigned>(status);
    const bool needsOutputs = (word & HMM_SERVER_CONT) == 0;
    if (nStates >= 0 &&
        (initial == nullptr || trans == nullptr || (needsOutputs && out == nullptr))) {
        module.report(KT_StsBadArg, "change HMM nStates without data");
        return false;
    }
    if (nSymbols >= 0 && out == nullptr) {
        module.report(KT_StsBadArg, "change HMM nSymbols without data");
        return false;
    }
    const int states = nStates < 0 ? server->nStates : nStates;
    const int symbols = nSymbols < 0 ? server->nSymbols : nSymbols;
    KTContext* context = KTGetContext();
    if ((word & hmmFormBits) == 0) {
        module.report(KT_StsUnknownErr, "wrong HMM flavor");
        return false;
    }
    // there is no memory for so many
    if (nStates > hmm::mostCount || nSymbols > hmm::mostCount) return true;
    if ((word & HMM_SERVER_FLOAT) != 0)
        apply(Setting<FloatForm>{context, server, states, symbols, word}, tag, trans, out, initial);
    else
        apply(Setting<FixedForm>{context, server, states, symbols, word}, tag, trans, out, initial);
    return true;
}
