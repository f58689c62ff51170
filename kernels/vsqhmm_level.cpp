#include "vsqhmm_level.h"
#include "simd.h"

namespace vsq::VSQ_LEVEL {
namespace {

// One vector of states: 16 lanes at every level, so that sums over states add in the same order everywhere.
constexpr int lanes = hmmLanes;
template <class T>
using Vector = Pack<T, lanes>;

template <class T>
VSQ_INLINE Vector<T> at(const T* p) {
    return load<T, lanes>(p);
}

constexpr int laneNumbers[lanes] = {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15};

// The lanes from `first` on, as masks of T's width.
template <class T>
VSQ_INLINE Pack<MaskOf<T>, lanes> lanesFrom(int first) {
    const auto mask = splat<int, lanes>(first) <= at(laneNumbers);
    if constexpr (sizeof(T) == sizeof(int))
        return mask;
    else
        return convert<MaskOf<T>>(mask);
}

// ---- the two recursions: what a source contributes, and how contributions join ----

struct Forward {
    using Value = double;
    static VSQ_INLINE Vector<double> none() { return splat<double, lanes>(0.0); }
    static VSQ_INLINE Vector<double> along(const Vector<double>& from, const Vector<double>& transition) {
        return from * transition;
    }
    static VSQ_INLINE Vector<double> join(const Vector<double>& a, const Vector<double>& b) { return a + b; }
};

template <class T>
struct BestPath;

template <>
struct BestPath<float> {
    using Value = float;
    static VSQ_INLINE Vector<float> none() { return splat<float, lanes>(__builtin_inff()); }
    static VSQ_INLINE Vector<float> along(const Vector<float>& from, const Vector<float>& transition) {
        return from + transition;
    }
    static VSQ_INLINE Vector<float> join(const Vector<float>& a, const Vector<float>& b) {
        return smaller(b, a);
    }
};

template <>
struct BestPath<int> {
    using Value = int;
    static VSQ_INLINE Vector<int> none() { return splat<int, lanes>(0x7FFFFFFF); }
    static VSQ_INLINE Vector<int> along(const Vector<int>& from, const Vector<int>& transition) {
        return bits<int>(bits<unsigned>(from) + bits<unsigned>(transition)); // wraps
    }
    static VSQ_INLINE Vector<int> join(const Vector<int>& a, const Vector<int>& b) { return smaller(b, a); }
};

// ---- full and triangular: blocks of up to four vectors of targets stay in registers while the sources go by
// ----

constexpr int blockVectors = 4;

// Joins the contributions of the sources from..to-1 into the block's vectors first..last-1.
template <class Rule, int first, int last, class T>
VSQ_INLINE void joinSources(const HmmModel<T>& model, const T* current, int block, int from, int to,
                            Vector<T>* targets) {
    for (int i = from; i < to; ++i) {
        const T* row = model.trans + static_cast<long>(i) * model.stride + block;
        const Vector<T> source = splat<T, lanes>(current[i]);
        for (int v = first; v < last; ++v)
            targets[v] = Rule::join(targets[v], Rule::along(source, at(row + v * lanes)));
    }
}

// The same for the sources on the diagonal of a triangle: those of vector `diagonal` reach the targets from
// themselves on.
template <class Rule, int diagonal, int last, class T>
VSQ_INLINE void joinDiagonal(const HmmModel<T>& model, const T* current, int block, Vector<T>* targets) {
    const int from = block + diagonal * lanes;
    const int to = from + lanes < model.nStates ? from + lanes : model.nStates;
    for (int i = from; i < to; ++i) {
        const T* row = model.trans + static_cast<long>(i) * model.stride + block;
        const Vector<T> source = splat<T, lanes>(current[i]);
        const Vector<T> onDiagonal =
            select(lanesFrom<T>(i - from), Rule::along(source, at(row + diagonal * lanes)), Rule::none());
        targets[diagonal] = Rule::join(targets[diagonal], onDiagonal);
        for (int v = diagonal + 1; v < last; ++v)
            targets[v] = Rule::join(targets[v], Rule::along(source, at(row + v * lanes)));
    }
    if constexpr (diagonal + 1 < last) joinDiagonal<Rule, diagonal + 1, last>(model, current, block, targets);
}

template <class Rule, int count, class T, class Finish>
VSQ_INLINE void advanceBlock(const HmmModel<T>& model, const T* current, int block, const Finish& finish) {
    Vector<T> targets[count];
    for (int v = 0; v < count; ++v)
        targets[v] = Rule::none();
    if (model.topology == HmmTopology::triangular) {
        joinSources<Rule, 0, count>(model, current, block, 0, block, targets);
        joinDiagonal<Rule, 0, count>(model, current, block, targets);
    } else {
        joinSources<Rule, 0, count>(model, current, block, 0, model.nStates, targets);
    }
    for (int v = 0; v < count; ++v)
        finish(block + v * lanes, targets[v]);
}

template <class Rule, class T, class Finish>
VSQ_INLINE void advanceMatrix(const HmmModel<T>& model, const T* current, const Finish& finish) {
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

template <class Rule, class T, class Finish>
VSQ_INLINE void advanceBand(const HmmModel<T>& model, const T* current, const Finish& finish) {
    Vector<T> below = splat<T, lanes>(T(0));
    for (int j = 0; j < model.stride; j += lanes) {
        const Vector<T> here = at(current + j);
        Vector<T> fromOne = Rule::along(movedUp<1>(below, here), at(model.trans + model.stride + j));
        Vector<T> fromTwo = Rule::along(movedUp<2>(below, here), at(model.trans + 2 * model.stride + j));
        if (j == 0) { // the first two states have no such sources
            fromOne = select(lanesFrom<T>(1), fromOne, Rule::none());
            fromTwo = select(lanesFrom<T>(2), fromTwo, Rule::none());
        }
        const Vector<T> stay = Rule::along(here, at(model.trans + j));
        finish(j, Rule::join(Rule::join(stay, fromOne), fromTwo));
        below = here;
    }
}

template <class Rule, class T, class Finish>
VSQ_INLINE void advanceFrame(const HmmModel<T>& model, const T* current, const Finish& finish) {
    if (model.topology == HmmTopology::banded)
        advanceBand<Rule>(model, current, finish);
    else
        advanceMatrix<Rule>(model, current, finish);
}

// ---- forward ----

VSQ_INLINE int exponentField(double value) {
    std::uint64_t pattern;
    std::memcpy(&pattern, &value, sizeof pattern);
    return static_cast<int>(pattern >> 52) & 0x7FF;
}

// 2^(0x3FF - field), built from its exponent field; field is from 0x2FF to 0x7FD.
VSQ_INLINE double powerFor(int field) {
    const std::uint64_t pattern = static_cast<std::uint64_t>(0x7FE - field) << 52;
    double power;
    std::memcpy(&power, &pattern, sizeof power);
    return power;
}

constexpr int lowestField = 0x37F, highestField = 0x47F; // 2^-128 and 2^128
constexpr int clampedField = 0x2FF;                      // one step multiplies by 2^256 at the most
constexpr int overflowField = 0x7FE;

// Keeps the frame's sum in range. Reached when it has left it, and on the last frame.
__attribute__((noinline)) void rescale(const HmmModel<double>& model, double* values, HmmForward* state) {
    int field = exponentField(state->sum);
    if (!(state->sum >= 0.0) || field == 0 || field >= overflowField) {
        state->failed = true;
        return;
    }
    if (field < clampedField) field = clampedField;
    const double power = powerFor(field);
    for (int j = 0; j < model.stride; ++j)
        values[j] *= power;
    state->sum *= power;
    state->exponent += 0x3FF - field;
}

template <class T>
VSQ_INLINE void forward(const HmmModel<double>& model, const T* const* rows, int nFrames, bool rescaleLast,
                        HmmForward* state) {
    const auto lastLanes = lanesFrom<double>(model.nStates - (model.stride - lanes));
    for (int t = 0; t < nFrames; ++t) {
        const T* outputs = rows[t];
        double* next = state->other;
        Vector<double> sums = splat<double, lanes>(0.0);
        advanceFrame<Forward>(model, state->current, [&](int j, const Vector<double>& reached) VSQ_LAMBDA {
            Vector<double> values = reached * convert<double>(load<T, lanes>(outputs + j));
            if (j + lanes == model.stride) // what lies behind the last state's output is no state's
                values = select(lastLanes, splat<double, lanes>(0.0), values);
            store(next + j, values);
            sums = sums + values;
        });
        state->other = state->current;
        state->current = next;
        state->sum = sumLanes(sums);
        const int field = exponentField(state->sum);
        if (!(state->sum >= 0.0) || field < lowestField || field > highestField ||
            (rescaleLast && t == nFrames - 1)) {
            rescale(model, next, state);
            if (state->failed) return;
        }
    }
}

void forwardFloat(const HmmModel<double>& model, const float* const* rows, int nFrames, bool rescaleLast,
                  HmmForward* state) {
    forward(model, rows, nFrames, rescaleLast, state);
}

void forwardDouble(const HmmModel<double>& model, const double* const* rows, int nFrames, bool rescaleLast,
                   HmmForward* state) {
    forward(model, rows, nFrames, rescaleLast, state);
}

// ---- best path ----

template <class T>
VSQ_INLINE void bestPath(const HmmModel<T>& model, const T* const* rows, int nFrames, HmmPath<T>* state) {
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

void pathFloat(const HmmModel<float>& model, const float* const* rows, int nFrames, HmmPath<float>* state) {
    bestPath(model, rows, nFrames, state);
}

void pathInt(const HmmModel<int>& model, const int* const* rows, int nFrames, HmmPath<int>* state) {
    bestPath(model, rows, nFrames, state);
}

} // namespace

extern const HmmKernels hmmKernels{forwardFloat, forwardDouble, pathFloat, pathInt};

} // namespace vsq::VSQ_LEVEL
