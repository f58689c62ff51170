// Forward and best-path recursions over frames, one text for both: they differ in how a transition
// and contributions combine. Full, triangular and banded models are walked as they are stored, or
// in a padded shape that keeps small models in registers. Sums over states have one order.
#include "recognition/vsqhmm_level.h"
#include "recognition/vsqhmm_range.h"
#include "simd/pack.h"

#include <cstddef>

namespace vsq::VSQ_LEVEL {
namespace {

// One vector of states: 16 lanes at every level, so that sums over states add in the same order
// everywhere.
constexpr int lanes = hmmLanes;
template <class T>
using Vector = Pack<T, lanes>;

template <class T>
VSQ_INLINE Vector<T> at(const T* p) {
    return load<T, lanes>(p);
}

// Masks as wide as T: the lanes from `first` on are all ones.
template <class T>
constexpr MaskOf<T> laneMasks[2 * lanes] = {0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,
                                            0,  0,  0,  0,  0,  -1, -1, -1, -1, -1, -1,
                                            -1, -1, -1, -1, -1, -1, -1, -1, -1, -1};

template <class T>
VSQ_INLINE Vector<MaskOf<T>> lanesFrom(int first) {
    return at(laneMasks<T> + lanes - first);
}

// ---- the two recursions: what a source contributes, and how contributions join ----

struct Forward {
    static constexpr double none = 0.0;
    template <int n>
    static VSQ_INLINE Pack<double, n> along(const Pack<double, n>& from,
                                            const Pack<double, n>& transition) {
        return from * transition;
    }
    template <int n>
    static VSQ_INLINE Pack<double, n> join(const Pack<double, n>& a, const Pack<double, n>& b) {
        return a + b;
    }
    // below a triangle's diagonal stands 0, which adds nothing
    static VSQ_INLINE Vector<double> above(int, const Vector<double>& contribution) {
        return contribution;
    }
};

template <class T>
struct BestPath;

template <>
struct BestPath<float> {
    static constexpr float none = __builtin_inff();
    template <int n>
    static VSQ_INLINE Pack<float, n> along(const Pack<float, n>& from,
                                           const Pack<float, n>& transition) {
        return from + transition;
    }
    template <int n>
    static VSQ_INLINE Pack<float, n> join(const Pack<float, n>& a, const Pack<float, n>& b) {
        return smaller(b, a);
    }
    static VSQ_INLINE Vector<float> above(int diagonal, const Vector<float>& contribution) {
        return select(lanesFrom<float>(diagonal), contribution, splat<float, lanes>(none));
    }
};

template <>
struct BestPath<int> {
    static constexpr int none = INT32_MAX;
    template <int n>
    static VSQ_INLINE Pack<int, n> along(const Pack<int, n>& from, const Pack<int, n>& transition) {
        return bits<int>(bits<unsigned>(from) + bits<unsigned>(transition)); // wraps
    }
    template <int n>
    static VSQ_INLINE Pack<int, n> join(const Pack<int, n>& a, const Pack<int, n>& b) {
        return smaller(b, a);
    }
    static VSQ_INLINE Vector<int> above(int diagonal, const Vector<int>& contribution) {
        return select(lanesFrom<int>(diagonal), contribution, splat<int, lanes>(none));
    }
};

// ---- full and triangular: blocks of up to four vectors of targets stay in registers while the
// sources go by ----

constexpr int blockVectors = 4;

// Row i of a model: its element j is the transition from i to j. In front of a stored triangle's
// diagonal stand elements of rows before.
template <class T>
VSQ_INLINE const T* rowOf(const HmmModel<T>& model, int i) {
    return model.trans + std::ptrdiff_t(i) * model.stride;
}
VSQ_INLINE const float* rowOf(const HmmBySource& model, int i) {
    const std::ptrdiff_t source = i, missing = source * (source + 1) / 2;
    return model.trans + source * model.nStates -
           (model.topology == HmmTopology::triangular ? missing : 0);
}

// A vector of transitions as the recursion's numbers.
template <class T, class Stored>
VSQ_INLINE Vector<T> transitionsAt(const Stored* p) {
    if constexpr (std::is_same_v<T, Stored>)
        return at(p);
    else
        return convert<T>(at(p));
}

// What the source in front of lane `diagonal` contributes to a triangle.
template <class Rule, class T, class Model>
VSQ_INLINE Vector<T> aboveDiagonal(const Model&, int diagonal, const Vector<T>& contribution) {
    if constexpr (std::is_same_v<Model, HmmBySource>)
        return select(lanesFrom<T>(diagonal), contribution, splat<T, lanes>(Rule::none));
    else
        return Rule::above(diagonal, contribution);
}

// Joins the contributions of the sources from..to-1 into the block's vectors first..last-1.
template <class Rule, int first, int last, class Model, class T>
VSQ_INLINE void joinSources(const Model& model, const T* current, int block, int from, int to,
                            Vector<T>* targets) {
    for (int i = from; i < to; ++i) {
        const auto* row = rowOf(model, i) + block;
        const Vector<T> source = splat<T, lanes>(current[i]);
        for (int v = first; v < last; ++v)
            targets[v] =
                Rule::join(targets[v], Rule::along(source, transitionsAt<T>(row + v * lanes)));
    }
}

// The same for the sources on the diagonal of a triangle: those of vector `diagonal` reach the
// targets from themselves on.
template <class Rule, int diagonal, int last, class Model, class T>
VSQ_INLINE void joinDiagonal(const Model& model, const T* current, int block, Vector<T>* targets) {
    const int from = block + diagonal * lanes;
    const int to = from + lanes < model.nStates ? from + lanes : model.nStates;
    for (int i = from; i < to; ++i) {
        const auto* row = rowOf(model, i) + block;
        const Vector<T> source = splat<T, lanes>(current[i]);
        const Vector<T> onDiagonal = Rule::along(source, transitionsAt<T>(row + diagonal * lanes));
        targets[diagonal] =
            Rule::join(targets[diagonal], aboveDiagonal<Rule, T>(model, i - from, onDiagonal));
        for (int v = diagonal + 1; v < last; ++v)
            targets[v] =
                Rule::join(targets[v], Rule::along(source, transitionsAt<T>(row + v * lanes)));
    }
    if constexpr (diagonal + 1 < last)
        joinDiagonal<Rule, diagonal + 1, last>(model, current, block, targets);
}

template <class Rule, int count, class Model, class T, class Finish>
VSQ_INLINE void advanceBlock(const Model& model, const T* current, int block,
                             const Finish& finish) {
    Vector<T> targets[count];
    for (int v = 0; v < count; ++v)
        targets[v] = splat<T, lanes>(Rule::none);
    if (model.topology == HmmTopology::triangular) {
        joinSources<Rule, 0, count>(model, current, block, 0, block, targets);
        joinDiagonal<Rule, 0, count>(model, current, block, targets);
    } else {
        joinSources<Rule, 0, count>(model, current, block, 0, model.nStates, targets);
    }
    for (int v = 0; v < count; ++v)
        finish(block + v * lanes, targets[v]);
}

template <class Rule, class Model, class T, class Finish>
VSQ_INLINE void advanceMatrix(const Model& model, const T* current, const Finish& finish) {
    int block = 0;
    for (; block + blockVectors * lanes <= model.stride; block += blockVectors * lanes)
        advanceBlock<Rule, blockVectors>(model, current, block, finish);
    switch ((model.stride - block) / lanes) {
    case 3:
        advanceBlock<Rule, 3>(model, current, block, finish);
        break;
    case 2:
        advanceBlock<Rule, 2>(model, current, block, finish);
        break;
    case 1:
        advanceBlock<Rule, 1>(model, current, block, finish);
        break;
    default:
        break;
    }
}

// ---- banded: three sources for each target ----

// The transitions into `n` neighbouring states from themselves and from the one and the two below.
template <class T, int n>
struct Band {
    Pack<T, n> stay, fromOne, fromTwo;

    VSQ_INLINE Band(const HmmModel<T>& model, int first)
        : stay(load<T, n>(model.trans + first)),
          fromOne(load<T, n>(model.trans + model.stride + first)),
          fromTwo(load<T, n>(model.trans + 2 * model.stride + first)) {}

    // `below` holds the states before. In front of the first state it is all Rule::none: the
    // transitions there are 0, so that what comes along them stays none.
    template <class Rule>
    VSQ_INLINE Pack<T, n> reached(const Pack<T, n>& below, const Pack<T, n>& here) const {
        return Rule::join(
            Rule::join(Rule::along(here, stay), Rule::along(movedUp<1>(below, here), fromOne)),
            Rule::along(movedUp<2>(below, here), fromTwo));
    }
};

template <class Rule, class T, class Finish>
VSQ_INLINE void advanceBand(const HmmModel<T>& model, const T* current, const Finish& finish) {
    Vector<T> below = splat<T, lanes>(Rule::none);
    for (int j = 0; j < model.stride; j += lanes) {
        const Vector<T> here = at(current + j);
        finish(j, Band<T, lanes>(model, j).template reached<Rule>(below, here));
        below = here;
    }
}

// Whether a model's states fit into n lanes, so that they and their transitions stay in registers.
template <int n, class T>
VSQ_INLINE bool isNarrowBand(const HmmModel<T>& model) {
    return model.topology == HmmTopology::banded && model.nStates <= n;
}

template <class Rule, class T, class Finish>
VSQ_INLINE void advanceFrame(const HmmModel<T>& model, const T* current, const Finish& finish) {
    if (model.topology == HmmTopology::banded)
        advanceBand<Rule>(model, current, finish);
    else
        advanceMatrix<Rule>(model, current, finish);
}

template <class Rule, class T, class Finish>
VSQ_INLINE void advanceFrame(const HmmBySource& model, const T* current, const Finish& finish) {
    advanceMatrix<Rule>(model, current, finish);
}

// ---- forward ----

// Reached when a frame's sum has left its range, and on the last frame: the power of two for its
// vector, already multiplied into the sum and counted.
__attribute__((noinline)) double rescale(HmmForward* state) {
    double power = 0.0;
    state->failed = bringIntoRange(&state->sum, &power, &state->exponent) != RangeFault::none;
    return power;
}

// Lanes that hold no state as ones: what lies after the last state's output takes no part.
template <int n>
VSQ_INLINE Pack<std::int64_t, n> unusedLanes(int nStates, int first) {
    const int used = nStates - first < n ? nStates - first : n;
    return load<std::int64_t, n>(laneMasks<double> + lanes - used);
}

template <class Model, class T>
VSQ_INLINE void forward(const Model& model, const T* const* rows, int nFrames, bool rescaleLast,
                        HmmForward* state) {
    const auto unused = unusedLanes<lanes>(model.nStates, model.stride - lanes);
    for (int t = 0; t < nFrames; ++t) {
        const T* outputs = rows[t];
        double* next = state->other;
        Vector<double> sums = splat<double, lanes>(0.0);
        advanceFrame<Forward>(
            model, state->current, [&](int j, const Vector<double>& reached) VSQ_LAMBDA {
                Vector<double> values = reached * convert<double>(load<T, lanes>(outputs + j));
                if (j + lanes == model.stride)
                    values = select(unused, splat<double, lanes>(0.0), values);
                store(next + j, values);
                sums = sums + values;
            });
        state->other = state->current;
        state->current = next;
        state->sum = sumLanes(sums);
        if (!isInRange(state->sum) || (rescaleLast && t == nFrames - 1)) {
            const double power = rescale(state);
            if (state->failed) return;
            for (int j = 0; j < model.stride; ++j)
                next[j] *= power;
        }
    }
}

// The same for a banded model of up to n states. Lanes above n are zero in the other text's sums,
// so the bits agree.
template <int n, class T>
VSQ_INLINE void forwardNarrow(const HmmModel<double>& model, const T* const* rows, int nFrames,
                              bool rescaleLast, HmmForward* state) {
    const Band<double, n> band(model, 0);
    const auto unused = unusedLanes<n>(model.nStates, 0);
    const Pack<double, n> zero = splat<double, n>(0.0);
    Pack<double, n> current = load<double, n>(state->current);
    for (int t = 0; t < nFrames; ++t) {
        const Pack<double, n> reached = band.template reached<Forward>(zero, current);
        current = select(unused, zero, reached * convert<double>(load<T, n>(rows[t])));
        state->sum = sumLanes(current);
        if (!isInRange(state->sum) || (rescaleLast && t == nFrames - 1)) {
            const double power = rescale(state);
            if (state->failed) return;
            current = current * splat<double, n>(power);
        }
    }
    store(state->current, current);
}

template <class T>
VSQ_INLINE void forwardAny(const HmmModel<double>& model, const T* const* rows, int nFrames,
                           bool rescaleLast, HmmForward* state) {
    if (isNarrowBand<lanes / 2>(model))
        forwardNarrow<lanes / 2>(model, rows, nFrames, rescaleLast, state);
    else if (isNarrowBand<lanes>(model))
        forwardNarrow<lanes>(model, rows, nFrames, rescaleLast, state);
    else
        forward(model, rows, nFrames, rescaleLast, state);
}

void forwardFloat(const HmmModel<double>& model, const float* const* rows, int nFrames,
                  bool rescaleLast, HmmForward* state) {
    forwardAny(model, rows, nFrames, rescaleLast, state);
}

void forwardDouble(const HmmModel<double>& model, const double* const* rows, int nFrames,
                   bool rescaleLast, HmmForward* state) {
    forwardAny(model, rows, nFrames, rescaleLast, state);
}

void storedForwardFloat(const HmmBySource& model, const float* const* rows, int nFrames,
                        bool rescaleLast, HmmForward* state) {
    forward(model, rows, nFrames, rescaleLast, state);
}

void storedForwardDouble(const HmmBySource& model, const double* const* rows, int nFrames,
                         bool rescaleLast, HmmForward* state) {
    forward(model, rows, nFrames, rescaleLast, state);
}

// ---- best path ----

template <class T>
VSQ_INLINE void bestPath(const HmmModel<T>& model, const T* const* rows, int nFrames,
                         HmmPath<T>* state) {
    using Rule = BestPath<T>;
    for (int t = 0; t < nFrames; ++t) {
        const T* outputs = rows[t];
        T* next = state->other;
        advanceFrame<Rule>(model, state->current, [&](int j, const Vector<T>& reached) VSQ_LAMBDA {
            store(next + j, Rule::along(at(outputs + j), reached));
        });
        state->other = state->current;
        state->current = next;
    }
}

template <int n, class T>
VSQ_INLINE void bestPathNarrow(const HmmModel<T>& model, const T* const* rows, int nFrames,
                               HmmPath<T>* state) {
    using Rule = BestPath<T>;
    const Band<T, n> band(model, 0);
    const Pack<T, n> none = splat<T, n>(Rule::none);
    Pack<T, n> current = load<T, n>(state->current);
    for (int t = 0; t < nFrames; ++t)
        current = Rule::along(load<T, n>(rows[t]), band.template reached<Rule>(none, current));
    store(state->current, current);
}

template <class T>
VSQ_INLINE void bestPathAny(const HmmModel<T>& model, const T* const* rows, int nFrames,
                            HmmPath<T>* state) {
    if (isNarrowBand<lanes / 2>(model))
        bestPathNarrow<lanes / 2>(model, rows, nFrames, state);
    else if (isNarrowBand<lanes>(model))
        bestPathNarrow<lanes>(model, rows, nFrames, state);
    else
        bestPath(model, rows, nFrames, state);
}

void pathFloat(const HmmModel<float>& model, const float* const* rows, int nFrames,
               HmmPath<float>* state) {
    bestPathAny(model, rows, nFrames, state);
}

void pathFixed(const HmmModel<int>& model, const int* const* rows, int nFrames,
               HmmPath<int>* state) {
    bestPathAny(model, rows, nFrames, state);
}

// ---- best path of costs as they are stored: a row for each target, its sources side by side ----

// Targets whose best sources are looked for in one pass: as many as registers hold, beside the
// sources.
constexpr int targetsAtOnce = registerBytes >= 64 ? 8 : registerBytes == 32 ? 4 : 2;

VSQ_INLINE float sum(float a, float b) {
    return a + b;
}
VSQ_INLINE int sum(int a, int b) { // wraps
    return static_cast<int>(static_cast<unsigned>(a) + static_cast<unsigned>(b));
}

// The first of the sums that are zero: among equal ones the lowest source wins, and zero has two
// signs.
__attribute__((noinline)) float firstZero(const float* current, const float* row, int count) {
    for (int i = 0; i < count; ++i)
        if (const float cost = current[i] + row[i]; cost == 0.0f) return cost;
    return 0.0f;
}

VSQ_INLINE float least(const Vector<float>& best, const float* current, const float* row,
                       int count) {
    const float cost = smallestLane(best);
    return cost == 0.0f ? firstZero(current, row, count) : cost;
}
VSQ_INLINE int least(const Vector<int>& best, const int*, const int*, int) {
    return smallestLane(best);
}

// The targets j, j - 1, ..., `count` of them, whose rows begin at `row`; returns where the next one
// begins.
template <int count, class T>
VSQ_INLINE const T* reachTargets(const HmmByTarget<T>& model, const T* current, const T* outputs,
                                 int j, const T* row, T* next) {
    using Rule = BestPath<T>;
    const T* rows[count];
    int sources[count];
    Vector<T> best[count];
    for (int r = 0; r < count; ++r) {
        rows[r] = row;
        sources[r] = model.topology == HmmTopology::triangular ? j - r + 1 : model.nStates;
        row += (sources[r] + model.unit - 1) & -model.unit;
        best[r] = splat<T, lanes>(Rule::none);
    }
    const int whole = sources[count - 1] / lanes * lanes;
    for (int i = 0; i < whole; i += lanes) {
        const Vector<T> here = at(current + i);
        for (int r = 0; r < count; ++r)
            best[r] = Rule::join(best[r], Rule::along(here, at(rows[r] + i)));
    }
    for (int r = 0; r < count; ++r) {
        // after the last source stands something else
        for (int i = whole; i < sources[r]; i += lanes) {
            const int used = sources[r] - i < lanes ? sources[r] - i : lanes;
            const Vector<T> reached = Rule::along(at(current + i), at(rows[r] + i));
            best[r] = Rule::join(best[r],
                                 select(lanesFrom<T>(used), splat<T, lanes>(Rule::none), reached));
        }
        next[j - r] = sum(outputs[j - r], least(best[r], current, rows[r], sources[r]));
    }
    return row;
}

template <class T>
VSQ_INLINE void storedPath(const HmmByTarget<T>& model, const T* const* rows, int nFrames,
                           HmmPath<T>* state) {
    for (int t = 0; t < nFrames; ++t) {
        const T* row = model.trans;
        int j = model.nStates - 1;
        for (; j + 1 >= targetsAtOnce; j -= targetsAtOnce)
            row = reachTargets<targetsAtOnce>(model, state->current, rows[t], j, row, state->other);
        for (; j >= 0; --j)
            row = reachTargets<1>(model, state->current, rows[t], j, row, state->other);
        T* next = state->other;
        state->other = state->current;
        state->current = next;
    }
}

void storedPathFloat(const HmmByTarget<float>& model, const float* const* rows, int nFrames,
                     HmmPath<float>* state) {
    storedPath(model, rows, nFrames, state);
}

void storedPathFixed(const HmmByTarget<int>& model, const int* const* rows, int nFrames,
                     HmmPath<int>* state) {
    storedPath(model, rows, nFrames, state);
}

} // namespace

extern const HmmKernels hmmKernels{
    .forwardFloat = forwardFloat,
    .forwardDouble = forwardDouble,
    .pathFloat = pathFloat,
    .pathFixed = pathFixed,
    .storedForwardFloat = storedForwardFloat,
    .storedForwardDouble = storedForwardDouble,
    .storedPathFloat = storedPathFloat,
    .storedPathFixed = storedPathFixed,
};

} // namespace vsq::VSQ_LEVEL
