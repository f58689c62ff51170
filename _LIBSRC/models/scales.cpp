// Measures the orders of a model's parts, by which a caller chooses the scales for its conversion
// to fixed point.
#include "frame/KT_CONVERT.h"
#include "frame/KT_ERROR.h"
#include "frame/scratch.h"
#include "mixtures/KT_GAUSS.h"
#include "models/layout.h"
#include "quantisers/density_codebook.h"

#include <algorithm>
#include <climits>

namespace {

constexpr ktl::Module module{"..\\_LIBSRC\\KT_HCONV"};

// Costs above these stand for absent transitions and outputs and would hide the order of the
// others.
constexpr float HMM_SCALE_ZERO_COST = 40.0f;
constexpr int fixedZeroCost = 0x10000;

constexpr int lowestOrder = -0x7FFFFFFF;

struct FloatForm {
    using Element = float;
    using Weight = float;
    static constexpr char noMemory[] = "insufficiency of memory for pointer  buff";
    static constexpr float zeroCost = HMM_SCALE_ZERO_COST;
    static int order(const float* values, int n) { return KTsMaxOrder(values, n); }
};

struct FixedForm {
    using Element = int;
    using Weight = short;
    static constexpr char noMemory[] = "insufficiency of memory for pointer  bufs";
    static constexpr int zeroCost = fixedZeroCost;
    static int order(const int* values, int n) { return KTiMaxOrder(values, n); }
};

// The largest order of a model's initial vector, transitions and, for a discrete one, outputs.
template <class Form>
class CommonOrder {
    using Element = typename Form::Element;

public:
    // `plainTransitions`: the block of the transitions, not tiled.
    CommonOrder(const HMMServer* serverOfCall, void* plainTransitions)
        : server(serverOfCall), transitions(plainTransitions) {
        // only a discrete model's nSymbols says how long rows are
        if ((server->status & HMM_SERVER_DISCRETE) != 0 && server->outputs != nullptr)
            outputs = hmm::OutputShape::of(server->status, server->nStates, server->nSymbols);
    }

    // False after a report when memory for the scratch ran out.
    bool measure(int* result) {
        const std::size_t nTransitions = transitions != nullptr ? transitionCount() : 0;
        if ((server->status & KT_HMM_LOGARITHMIC) != 0 &&
            !grow(std::max(
                {nTransitions, outputs.elements(), std::size_t(std::max(server->nStates, 0))})))
            return false;
        if (server->initials != nullptr)
            consider(start(server->initials), std::size_t(server->nStates));
        consider(start(transitions), nTransitions);
        if (outputs.rows > 0) considerOutputs();
        *result = largest;
        return true;
    }

private:
    const Element* start(void* block) const {
        return hmm::aligned<const Element>(block, hmm::alignmentOf(server->status));
    }

    // A float band ends with a second copy of its last transition, which is left out.
    std::size_t transitionCount() const {
        auto map = hmm::TransitionMap::of(*server);
        // read through a plain copy
        if (map.order == hmm::Order::tiled) map.order = hmm::Order::byTarget;
        const bool hasDuplicate =
            map.topology == hmm::Topology::banded && map.order != hmm::Order::fixed;
        return hasDuplicate ? 3 * std::size_t(map.n) - 3 : map.size();
    }

    bool grow(std::size_t wanted) {
        KTContext* context = KTGetContext();
        if (wanted <= INT_MAX &&
            ktl::growBuffer<int>(context->hmmScalesBuffer, context->hmmScalesLen,
                                 static_cast<int>(wanted))) {
            scratch = reinterpret_cast<Element*>(context->hmmScalesBuffer);
            return true;
        }
        module.report(KT_StsNoMem, Form::noMemory, "KTGetHMMScales");
        return false;
    }

    // Costs are looked at through the scratch, without those that stand for zero probability.
    void consider(const Element* values, std::size_t n) {
        if (n == 0) return;
        if (scratch != nullptr) {
            std::replace_copy_if(
                values, values + n, scratch, [](Element v) { return v > Form::zeroCost; },
                Element(0));
            values = scratch;
        }
        constexpr std::size_t run = std::size_t(1) << 30; // orders count in int
        for (std::size_t done = 0; done < n; done += run)
            largest = std::max(
                largest, Form::order(values + done, static_cast<int>(std::min(n - done, run))));
    }

    // Rows follow each other, with padding. Among costs the padding is one of the large values that
    // are left out; otherwise the rows are looked at without it.
    void considerOutputs() {
        const Element* const* rows = hmm::outputRows<const Element>(server->outputs);
        if (scratch != nullptr) return consider(rows[0], outputs.elements());
        for (int k = 0; k < outputs.rows; ++k)
            consider(rows[k], std::size_t(outputs.columns));
    }

    const HMMServer* server;
    void* transitions;
    hmm::OutputShape outputs{}; // no rows where there are none to look at
    Element* scratch = nullptr; // null where the values are no costs
    int largest = INT_MIN;
};

template <class Form>
bool measureCommon(const HMMServer* server, int* result) {
    if (hmm::orderOf(server->status) != hmm::Order::tiled || server->transitions == nullptr)
        return CommonOrder<Form>(server, server->transitions).measure(result);
    ktl::Held<char, ktl::freePlain> plain(
        static_cast<char*>(KTUntileHMMTrans(server->transitions, server->status, server->nStates)));
    return plain && CommonOrder<Form>(server, plain.get()).measure(result);
}

// --- weights, means and inverse covariances ---

int maxOrder(float* values, int n) {
    return n > 0 ? KTsMaxOrder(values, n) : lowestOrder;
}
int maxOrder(short* values, int n) {
    return n > 0 ? KTwMaxOrder(values, n) : lowestOrder;
}
int maxOrder(float** rows, int nRows, int nCols) {
    return KTsMaxMatrixOrder(rows, nRows, nCols);
}
int maxOrder(short** rows, int nRows, int nCols) {
    return KTwMaxMatrixOrder(rows, nRows, nCols);
}

struct MixtureOrders {
    int weights = lowestOrder;
    int means = lowestOrder;
    int vars = lowestOrder;
};

// Considers the first nMix Gaussians of a mixture, nQuant dimensions of them.
template <class T>
void consider(const GaussMixServer* mixture, int nMix, int nQuant, MixtureOrders* orders) {
    using namespace ktl::gauss;
    const int n = std::min(nQuant, mixture->nDim); // a file may say more than its mixtures hold
    T* weight = weights<T>(mixture);
    if constexpr (std::is_same_v<T, float>) weight = mixture->pNormWeights;
    orders->weights = std::max(orders->weights, maxOrder(weight, nMix));
    orders->means = std::max(orders->means, maxOrder(means<T>(mixture), nMix, n));
    if (!isFull(mixture))
        orders->vars = std::max(orders->vars, maxOrder(diagonals<T>(mixture), nMix, n));
    for (int k = 0; isFull(mixture) && k < nMix; ++k)
        orders->vars = std::max(orders->vars, maxOrder(matrices<T>(mixture)[k], n, n));
}

void considerEither(const GaussMixServer* mixture, int nMix, int nQuant, MixtureOrders* orders) {
    if (ktl::gauss::isFloat(mixture))
        consider<float>(mixture, nMix, nQuant, orders);
    else
        consider<short>(mixture, nMix, nQuant, orders);
}

MixtureOrders ordersOfStates(const HMMServer* server) {
    MixtureOrders orders;
    for (int i = 0; server->mixtures != nullptr && i < server->nStates; ++i)
        considerEither(server->mixtures[i], server->mixtures[i]->nMix, server->nQuant, &orders);
    return orders;
}

// A semicontinuous model has weights of its own; the densities are those of the thread's codebook.
template <class Form>
MixtureOrders ordersOfCodebook(const HMMServer* server) {
    using Weight = typename Form::Weight;
    const KTContext* context = KTGetContext();
    const SemicontCodebook* codebook =
        std::is_same_v<Weight, float> ? context->sSemicont : context->wSemicont;
    MixtureOrders orders;
    for (int k = 0; codebook->ccgPdfs != nullptr && k < codebook->nSymbols; ++k)
        considerEither(codebook->ccgPdfs[k], 1, server->nQuant, &orders);
    const auto shape = hmm::OutputShape::of(server->status, server->nStates, server->nSymbols);
    orders.weights = lowestOrder;
    if (server->outputs != nullptr)
        orders.weights =
            maxOrder(hmm::outputRows<Weight>(server->outputs), shape.rows, shape.stride);
    return orders;
}

template <class Form>
void measure(const HMMServer* server, int* pOrder, int* pWeightsOrder, int* pMeansOrder,
             int* pVarsOrder) {
    if (pOrder != nullptr && !measureCommon<Form>(server, pOrder)) return;
    const bool continuous = (server->status & HMM_SERVER_CONT) != 0;
    if (!continuous && (server->status & HMM_SERVER_SEMICONT) == 0) return;
    const MixtureOrders orders =
        continuous ? ordersOfStates(server) : ordersOfCodebook<Form>(server);
    if (pWeightsOrder != nullptr) *pWeightsOrder = orders.weights;
    if (pMeansOrder != nullptr) *pMeansOrder = orders.means;
    if (pVarsOrder != nullptr) *pVarsOrder = orders.vars;
}

} // namespace

void KTGetHMMScales(int hmm, int* pOrder, int* pWeightsOrder, int* pMeansOrder, int* pVarsOrder) {
    const HMMServer* server = KTFindHMMServer(hmm);
    if (server == nullptr) return;
    if ((server->status & HMM_SERVER_SHORT) != 0)
        measure<FixedForm>(server, pOrder, pWeightsOrder, pMeansOrder, pVarsOrder);
    else
        measure<FloatForm>(server, pOrder, pWeightsOrder, pMeansOrder, pVarsOrder);
}
