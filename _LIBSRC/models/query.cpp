// Gives a model's parameters back in the shape in which a caller hands them over: the inverse of
// the setting of parameters, whatever the storage layout.
//
// Fixed point: stored values have 32 bits, the caller's 16; what does not fit is pinned to 0x7FFF
// and -0x7FFF, so that the stored zero probability comes back as the input value for it. Nothing
// wraps.
#include "models/layout.h"

#include <algorithm>

namespace {

// What differs between the numeric forms: elements, and what a transition that is not stored comes
// back as.
struct FloatForm {
    using Stored = float;
    using Result = float;
    static float absent(unsigned status) {
        return (status & KT_HMM_LOGARITHMIC) != 0 ? hmm::absentCost : 0.0f;
    }
    static float result(float value) { return value; }
};

struct FixedForm {
    using Stored = int;
    using Result = short;
    static constexpr int largest = 0x7FFF;
    static short absent(unsigned) { return largest; }
    static short result(int value) {
        return static_cast<short>(std::clamp(value, -largest, largest));
    }
};

// One query. What a server lacks because memory ran out at its creation is left unwritten.
template <class Form>
struct Query {
    using Stored = typename Form::Stored;
    using Result = typename Form::Result;

    const HMMServer* server;

    const Stored* stored(void* block) const {
        return hmm::aligned<Stored>(block, hmm::alignmentOf(server->status));
    }

    void initial(void* target) const {
        if (target == nullptr || server->initials == nullptr) return;
        const Stored* source = stored(server->initials);
        std::transform(source, source + server->nStates, static_cast<Result*>(target),
                       Form::result);
    }

    void transitions(void** rows) const {
        if (rows == nullptr || server->transitions == nullptr) return;
        const auto map = hmm::TransitionMap::of(*server);
        const Stored* source = stored(server->transitions);
        for (int i = 0; i < map.n; ++i) {
            auto* row = static_cast<Result*>(rows[i]);
            if (row == nullptr) continue;
            std::fill_n(row, map.n, Form::absent(server->status));
            for (int j = hmm::firstTarget(map.topology, i);
                 j < hmm::endTarget(map.topology, map.n, i); ++j)
                row[j] = Form::result(source[map.position(i, j)]);
        }
    }

    // Stored per symbol, given back per state.
    void discrete(void** rows) const {
        if (rows == nullptr || server->outputs == nullptr) return;
        const Stored* const* symbols = hmm::outputRows<const Stored>(server->outputs);
        for (int i = 0; i < server->nStates; ++i) {
            auto* row = static_cast<Result*>(rows[i]);
            for (int k = 0; row != nullptr && k < server->nSymbols; ++k)
                row[k] = Form::result(symbols[k][i]);
        }
    }

    // Weights are stored in the caller's own type.
    void weights(void** rows) const {
        if (rows == nullptr || server->outputs == nullptr) return;
        const Result* const* states = hmm::outputRows<const Result>(server->outputs);
        for (int i = 0; i < server->nStates; ++i)
            if (rows[i] != nullptr)
                std::copy_n(states[i], server->nSymbols, static_cast<Result*>(rows[i]));
    }

    // A copy that fails has reported to a handler that may release the server: then there are no
    // more.
    void mixtures(GaussMixServer** slots) const {
        if (slots == nullptr || server->mixtures == nullptr) return;
        const HeldHMMServer held(server);
        const int n = server->nStates;
        for (int i = 0; i < n; ++i)
            if (slots[i] != nullptr)
                slots[i] =
                    held.get() != nullptr ? ownCopyMixture(held.get()->mixtures[i]) : nullptr;
    }
};

template <class Form>
void answer(const Query<Form>& query, void* initial, void** trans, void** out, void** semicontOut,
            GaussMixServer** mixtures) {
    const unsigned status = query.server->status;
    query.initial(initial);
    query.transitions(trans);
    if ((status & HMM_SERVER_DISCRETE) != 0)
        query.discrete(out);
    else if ((status & HMM_SERVER_SEMICONT) != 0)
        query.weights(semicontOut);
    else if ((status & HMM_SERVER_CONT) != 0)
        query.mixtures(mixtures);
}

} // namespace

int KTGetHMMProb(int hmm, void* initial, void** trans, void** out, void** semicontOut,
                 GaussMixServer** mixtures) {
    const HMMServer* server = KTFindHMMServer(hmm);
    if (server == nullptr) return -1;
    if ((server->status & HMM_SERVER_SHORT) != 0)
        answer(Query<FixedForm>{server}, initial, trans, out, semicontOut, mixtures);
    else
        answer(Query<FloatForm>{server}, initial, trans, out, semicontOut, mixtures);
    return 0;
}
