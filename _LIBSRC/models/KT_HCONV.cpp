// Makes a model of another domain or numeric form from a model: always a new one, beside which the
// source stays or goes as the thread's mode says.
//
// Fixed point, going down: a float x becomes x * 2^(-scale), computed in double and truncated
// toward zero to 32 bits. It is pinned to 0x1FFFFF and -0x1FFFFF, but the comparison takes the
// unscaled x with 0x1FFFFF * 2^(-scale); so for a negative scale larger results pass, and what
// leaves 32 bits becomes the most negative integer. Weights of densities keep the low 16 bits of
// the same words, which turns the sign of pinned ones. Going up: an integer from 0x7FFF on is the
// largest float, from -0x7FFF down its negative, all others are multiplied by 2^(-scale) in float.
#include "frame/KT_CONVERT.h"
#include "frame/KT_ERROR.h"
#include "mixtures/KT_GAUSS.h"
#include "models/layout.h"

#include "vsq.h"

#include <algorithm>
#include <cfloat>
#include <limits>

namespace {

constexpr ktl::Module module{"..\\_LIBSRC\\KT_HCONV"};

constexpr float minusLn10 = -2.3025851f, minusLog10OfE = -0.4342945f;

// Releases the source of a transform unless the mode keeps it.
void releaseUnlessKept(const HeldHMMServer& source) {
    const HMMServer* server = source.get(); // null once a report's handler has released it
    if (server != nullptr && (KTGetContext()->hmmMode & KT_HMM_KEEP) == 0)
        KTFreeHMMServer(server->id);
}

// --- probabilities and costs ---

struct ToExponential {
    static constexpr unsigned from = KT_HMM_LOGARITHMIC;
    static constexpr char refusal[] = "!(ser->status&KT_HMM_LOGARITHMIC)";
    static constexpr char name[] = "KTsExpHMMServer";
    static void apply(float* values, int n) {
        vsqsbMpy1(minusLn10, values, n);
        vsqsbExp1(values, n);
    }
};

struct ToLogarithmic {
    static constexpr unsigned from = KT_HMM_EXPONENTIAL;
    static constexpr char refusal[] = "!(ser->status&KT_HMM_EXPONENTIAL)";
    static constexpr char name[] = "KTsLogHMMServer";
    static void apply(float* values, int n) {
        vsqsbLn1(values, n);
        vsqsbMpy1(minusLog10OfE, values, n);
    }
};

// The kernels count in int and refuse empty arrays.
template <class Domain>
void applyTo(float* values, std::size_t n) {
    constexpr std::size_t run = std::size_t(1) << 30;
    for (; n > 0; values += std::min(n, run), n -= std::min(n, run))
        Domain::apply(values, static_cast<int>(std::min(n, run)));
}

const char* domainRefusal(const HMMServer* server, unsigned from, const char* refusal) {
    if ((server->status & HMM_SERVER_FLOAT) == 0) return "!(ser->status&HMM_SERVER_FLOAT)";
    return (server->status & from) == 0 ? refusal : nullptr;
}

// The transitions of a server in the plain order of its new domain, values untouched; null when
// memory ran out.
void* transitionsOfDomain(const HMMServer* server, unsigned newStatus) {
    const auto from = hmm::TransitionMap::of(*server);
    const hmm::TransitionMap to{from.topology, hmm::orderOf(newStatus), from.n};
    void* block = hmm::allocateArray(to.size(), sizeof(float));
    if (block != nullptr)
        hmm::rewriteTransitions(from, hmm::floats(server->transitions), to, hmm::floats(block));
    return block;
}

// Changes a copy in place, whose id the caller does not have yet. False when memory ran out for the
// rewritten transitions: the initial values alone have changed then.
template <class Domain>
bool changeDomain(HMMServer* server) {
    const unsigned newStatus = (server->status ^ hmmDomainBits) & ~HMM_SERVER_TILED;
    if (server->initials != nullptr)
        applyTo<Domain>(hmm::floats(server->initials), std::size_t(server->nStates));
    if (server->transitions != nullptr) {
        void* rewritten = transitionsOfDomain(server, newStatus);
        if (rewritten == nullptr) return false;
        std::free(server->transitions);
        server->transitions = rewritten;
    }
    server->status = newStatus;
    if (server->transitions != nullptr)
        applyTo<Domain>(hmm::floats(server->transitions), hmm::TransitionMap::of(*server).size());
    if ((newStatus & HMM_SERVER_DISCRETE) == 0 || server->outputs == nullptr) return true;
    const auto shape = hmm::OutputShape::of(newStatus, server->nStates, server->nSymbols);
    if (shape.rows > 0)
        applyTo<Domain>(hmm::outputRows<float>(server->outputs)[0], shape.elements());
    return true;
}

template <class Domain>
int transformed(int hmm) {
    const HMMServer* source = KTFindHMMServer(hmm);
    if (source == nullptr) return -1;
    if (const char* refusal = domainRefusal(source, Domain::from, Domain::refusal)) {
        module.report(KT_StsBadArg, refusal, Domain::name);
        return -1;
    }
    const HeldHMMServer held(source);
    const int id = KTCopyHMMServer(hmm);
    // gone again where the thread's status was negative before
    HMMServer* copy = KTFindHMMServer(id);
    if (copy == nullptr) return -1;
    // the only failure that leaves a server registered: the copy, its initial values transformed
    if (!changeDomain<Domain>(copy)) return -1;
    if (!ownTileIfWanted(copy)) {
        KTFreeHMMServer(id);
        return -1;
    }
    releaseUnlessKept(held);
    return id;
}

// --- float and fixed point ---

struct MixtureScales {
    int weight;
    int mean;
    int invCov;
};

// Float to fixed.
class Down {
public:
    using From = float;
    using To = int;
    using FromWeight = float;
    using ToWeight = short;
    static constexpr unsigned form = HMM_SERVER_FLOAT;
    static constexpr int vectorFiller = HMM_LOG_ZERO;
    static constexpr short weightFiller = 0;

    Down(int scale, const MixtureScales& scalesOfMixtures)
        : recordScale(scale), factor(ktl::factorOfScale(scale)), mixtureScales(scalesOfMixtures) {}

    int value(float x) const { return pinned(x, 2097151.0); }
    short weight(float x) const { return static_cast<short>(pinned(x, 32767.0)); }
    GaussMixServer* mixture(GaussMixServer* source) const {
        return KTswConvertGaussMixServer(source, mixtureScales.weight, mixtureScales.mean,
                                         mixtureScales.invCov);
    }
    // Odd bands: what should end the third row stands at its position 2 instead, over a(0,2).
    // Scores of converted models depend on it, so it stays.
    static void finishTransitions(const hmm::TransitionMap& map, int* target) {
        if (map.topology != hmm::Topology::banded || map.n % 2 == 0) return;
        int* third = target + 2 * std::size_t(hmm::even(map.n));
        third[map.n] = 0;
        if (map.n > 2) third[2] = HMM_LOG_ZERO;
    }

    const int recordScale;

private:
    int pinned(float x, double limit) const {
        const double wide = static_cast<double>(x);
        if (wide >= limit * factor) return HMM_LOG_ZERO;
        if (wide < -(limit * factor)) return -HMM_LOG_ZERO;
        return KTdiConvertDown(wide * factor, KT_NoScale, nullptr);
    }

    double factor;
    MixtureScales mixtureScales;
};

// Fixed to float.
class Up {
public:
    using From = int;
    using To = float;
    using FromWeight = short;
    using ToWeight = float;
    static constexpr unsigned form = HMM_SERVER_SHORT;
    static constexpr float vectorFiller = hmm::absentCost;
    static constexpr float weightFiller = 0.0f;

    Up(int scale, const MixtureScales& scalesOfMixtures)
        : factor(narrowed(ktl::factorOfScale(scale))), mixtureScales(scalesOfMixtures) {}

    float value(int v) const {
        if (v >= 0x7FFF) return hmm::absentCost;
        if (v <= -0x7FFF) return -hmm::absentCost;
        return static_cast<float>(v) * factor;
    }
    float weight(short v) const { return value(v); }
    GaussMixServer* mixture(GaussMixServer* source) const {
        return KTwsConvertGaussMixServer(source, mixtureScales.weight, mixtureScales.mean,
                                         mixtureScales.invCov);
    }
    static void finishTransitions(const hmm::TransitionMap&, float*) {}

    const int recordScale = 0;

private:
    static float narrowed(double x) {
        return x > static_cast<double>(FLT_MAX) ? std::numeric_limits<float>::infinity()
                                                : static_cast<float>(x);
    }

    float factor;
    MixtureScales mixtureScales;
};

// One conversion: each step builds one array of the target, and says false when memory ran out.
template <class Direction>
class Conversion {
    using To = typename Direction::To;

public:
    Conversion(const Direction& directionOfCall, const HMMServer* from, HMMServer* to)
        : direction(directionOfCall), source(from), target(to) {}

    bool run() {
        describe();
        return convertInitials() && convertTransitions() && convertOutputs() && convertMixtures() &&
               ownTileIfWanted(target);
    }

private:
    void describe() {
        target->status = (source->status ^ hmmFormBits) & ~HMM_SERVER_TILED;
        target->nStates = source->nStates;
        target->nSymbols = source->nSymbols;
        target->nQuant = source->nQuant;
        target->reserved1 = source->reserved1;
        target->scale = direction.recordScale;
    }

    template <class T>
    static T* start(const HMMServer* server, void* block) {
        return hmm::aligned<T>(block, hmm::alignmentOf(server->status));
    }

    bool convertInitials() {
        if (source->initials == nullptr) return true;
        const int length = hmm::initialsLength(target->status, target->nStates);
        target->initials = hmm::allocateArray(std::size_t(length), sizeof(To));
        if (target->initials == nullptr) return false;
        convertRow(start<typename Direction::From>(source, source->initials),
                   start<To>(target, target->initials), source->nStates, length);
        return true;
    }

    bool convertTransitions() {
        if (source->transitions == nullptr) return true;
        const auto from = hmm::TransitionMap::of(*source), to = hmm::TransitionMap::of(*target);
        target->transitions = hmm::allocateArray(to.size(), sizeof(To));
        if (target->transitions == nullptr) return false;
        To* elements = start<To>(target, target->transitions);
        std::fill_n(elements, to.size(), Direction::vectorFiller);
        hmm::rewriteTransitions(from,
                                start<const typename Direction::From>(source, source->transitions),
                                to, elements, [this](auto v) { return direction.value(v); });
        Direction::finishTransitions(to, elements);
        return true;
    }

    bool convertOutputs() {
        if (source->outputs == nullptr) return true;
        const auto shape = hmm::OutputShape::of(target->status, target->nStates, target->nSymbols);
        target->outputs = hmm::allocateOutputs(shape, hmm::alignmentOf(target->status));
        if (target->outputs == nullptr) return false;
        for (int i = 0; i < shape.rows; ++i)
            if ((target->status & HMM_SERVER_DISCRETE) != 0)
                convertRow(hmm::outputRows<typename Direction::From>(source->outputs)[i],
                           hmm::outputRows<To>(target->outputs)[i], shape.columns, shape.stride);
            else
                convertWeights(hmm::outputRows<typename Direction::FromWeight>(source->outputs)[i],
                               hmm::outputRows<typename Direction::ToWeight>(target->outputs)[i],
                               shape);
        return true;
    }

    void convertRow(const typename Direction::From* from, To* to, int n, int length) const {
        std::transform(from, from + n, to, [this](auto v) { return direction.value(v); });
        std::fill(to + n, to + length, Direction::vectorFiller);
    }
    void convertWeights(const typename Direction::FromWeight* from,
                        typename Direction::ToWeight* to, const hmm::OutputShape& shape) const {
        std::transform(from, from + shape.columns, to,
                       [this](auto v) { return direction.weight(v); });
        std::fill(to + shape.columns, to + shape.stride, Direction::weightFiller);
    }

    bool convertMixtures() {
        if ((source->status & HMM_SERVER_CONT) == 0 || source->mixtures == nullptr) return true;
        target->holdsMixtures = true; // whatever the source's status says, they are made here
        bool failed = false;          // a status that was negative before counts, too
        const bool filled = ownFillMixtures(target, source->nStates, [&](int i) {
            GaussMixServer* mixture = direction.mixture(source->mixtures[i]);
            failed = failed || KTGetStatus() < 0;
            return mixture;
        });
        return filled && !failed;
    }

    const Direction& direction;
    const HMMServer* source;
    HMMServer* target;
};

template <class Direction>
int converted(int hmm, const Direction& direction) {
    const HMMServer* source = KTFindHMMServer(hmm);
    if (source == nullptr) return -1;
    if ((source->status & KT_HMM_EXPONENTIAL) != 0) {
        // both directions have always reported under the name of the first
        module.report(KT_StsBadArg, "ser->status&KT_HMM_EXPONENTIAL", "KTswConvertHMMServer");
        return -1;
    }
    if ((source->status & Direction::form) == 0) return -1; // arrays of the other form
    const HeldHMMServer held(source);
    HMMServer* target = ownNewHMMRecord();
    if (target == nullptr) return -1;
    if (!Conversion<Direction>(direction, source, target).run()) {
        ownFreeHMMRecord(target);
        return -1;
    }
    const int id = ownRegisterComplete(target);
    if (id > 0) releaseUnlessKept(held);
    return id;
}

} // namespace

int KTsExpHMMServer(int hmm) {
    return transformed<ToExponential>(hmm);
}

int KTsLogHMMServer(int hmm) {
    return transformed<ToLogarithmic>(hmm);
}

int KTswConvertHMMServer(int hmm, int scale, int weightScale, int meanScale, int invCovScale) {
    return converted(hmm, Down(scale, {weightScale, meanScale, invCovScale}));
}

int KTwsConvertHMMServer(int hmm, int scale, int weightScale, int meanScale, int invCovScale) {
    return converted(hmm, Up(scale, {weightScale, meanScale, invCovScale}));
}
