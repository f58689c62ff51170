// What all three trainers share: Baum-Welch re-estimation of start values and transitions,
// iteration by iteration on fresh copies of the model. How outputs are scored and re-estimated
// differs by output kind; the kind's estimator does that. L. E. Baum, T. Petrie, G. Soules, N.
// Weiss, A Maximization Technique Occurring in the Statistical Analysis of Probabilistic Functions
// of Markov Chains, 1970.
//
// An estimator has
//     Sequence                            one observation sequence as the caller passes it
//     kind                                the status bits of the servers that it trains
//     prepare(model, longest)             storage for a whole call; false when memory ran out
//     startIteration(next)                clears what is counted
//     reportDisagreement(current)         reports before each sequence where the codebook is not
//                                         the model's; a handler may release the models
//     score(current, next, sequence, nFrames, outputs)
//                                         the sequence's output values; false where it cannot be
//                                         used
//     count(current, counts, sequence, nFrames, weight)
//                                         the outputs' numerators, from a sequence's lattice, whose
//                                         beta it may overwrite
//     finish(current, next, counts)       the new outputs; false when one is not finite
//     change(current, next)               the greatest difference between old and new outputs
//     prepareToScore(model)               before a model is the current one; false when memory ran
//                                         out
#pragma once

#include "models/forward_backward.h"
#include "models/outputs.h"

#include <cmath>

namespace hmm {

inline constexpr double smallestDenominator = 2.2250738585072014e-308; // the smallest normal double
inline constexpr double smallestProbability = 1e-20;                   // anything below becomes 0

// A double block of `count` zeros; false when memory ran out or the size is beyond the address
// space.
class Numbers {
public:
    bool allocate(std::size_t rows, std::size_t columns) {
        if (columns != 0 && rows > PTRDIFF_MAX / sizeof(double) / columns) return false;
        count = rows * columns;
        block = ktl::AlignedScratch<double>(static_cast<std::ptrdiff_t>(count));
        clear();
        return bool(block);
    }
    void clear() {
        if (block) std::memset(block.get(), 0, count * sizeof(double));
    }
    double* get() const { return block.get(); }
    double& operator[](std::size_t i) const { return block.get()[i]; }

private:
    ktl::AlignedScratch<double> block;
    std::size_t count = 0;
};

// Replaces the copied value by its re-estimate. One that is not finite is refused: false, and the
// copied value stays.
inline bool replace(float& stored, float value) {
    if (!std::isfinite(value)) return false;
    stored = value;
    return true;
}

// Where a source's transitions stand: in the stored array from `stored` on, in the sums of a
// sequence from `summed` on.
struct TransitionRow {
    int count;
    std::size_t stored;
    std::size_t summed;
};

// What is counted whatever the output kind.
struct Counts {
    int nStates = 0;
    std::size_t stride = 0; // nStates, padded for the kernels
    Numbers alphaBeta, scales;
    double gammaTotal = 0.0;
    Numbers gammaTrans; // per state: occupancy over all frames but the last
    Numbers gammaOut;   // per state: occupancy over all frames
    Numbers piNum;      // per state: occupancy of the first frame
    Numbers xiNum;      // per stored transition
    Numbers xiSeq;      // the same for one sequence, before the factor a(i, j)
    Numbers gammaSeq;   // per state, one sequence: over all frames but the last
    // a full model's transitions in both directions, and a row; otherwise empty
    Numbers unpacked;
    bool careful = false; // slower sums, none of which leaves its range

    bool allocate(const HMMServer* model, int longest);
    void startIteration(const HMMServer* current);
    vsq::HmmLattice lattice(int nFrames) const;
    vsq::HmmUnpacked unpackedModel(const HMMServer* current) const;

    // Adds one sequence, whose lattice is complete, with the weight 1 / likelihood. Where its
    // backward values are not finite, and in careful counting, occupancies come from the forward
    // values alone; alpha is then the likelihood throughout and beta holds them.
    void add(const HMMServer* current, const vsq::HmmOutputs& outputs, int nFrames, double weight);

    // Puts the arrivals of the sequence added last, as the kernel of this name has them, in beta's
    // place.
    void formArrivals(const HMMServer* current, const vsq::HmmOutputs& outputs, int nFrames,
                      double weight) const;

    // The new model's start values and transitions; false when one of them or an occupancy is not
    // finite.
    bool finish(const HMMServer* current, HMMServer* next);

    bool visited(int state) const { return gammaOut[std::size_t(state)] >= smallestDenominator; }

private:
    TransitionRow row(const HMMServer* model, int source) const;
    void addTransitions(const HMMServer* current, const vsq::HmmOutputs& outputs, int nFrames,
                        double weight);
    bool dropInfinite();
    bool finishTransitions(const HMMServer* current, HMMServer* next) const;

    bool holdsOccupancies = false; // whether the lattice of the sequence added last does
};

// The greatest difference between two arrays, or `atLeast`.
double greatestChange(const float* a, const float* b, std::size_t count, double atLeast);

// The same between the start values and transitions of two models.
double modelChange(const HMMServer* current, const HMMServer* next);

// A model made on the way: released unless it is handed over.
class OwnModel {
public:
    OwnModel() = default;
    OwnModel(const OwnModel&) = delete;
    OwnModel& operator=(const OwnModel&) = delete;
    ~OwnModel() { release(); }

    // false when memory ran out; the model before is forgotten
    bool copyOf(const HMMServer* source);
    void moveFrom(OwnModel& other) {
        release();
        model = std::move(other.model);
    }
    void release() {
        const HeldHMMServer released = std::move(model);
        if (released.get() != nullptr) KTFreeHMMServer(released.get()->id);
    }
    int handOver() { return HeldHMMServer(std::move(model)).get()->id; }
    HMMServer* get() const { return model.get(); }

private:
    HeldHMMServer model; // a report's handler may release it
};

// Copies and views are made under a status of their own: an older failure of the thread does not
// end a training, and a success leaves the status as it was.
class OwnStatus {
public:
    OwnStatus() : before(KTGetStatus()) { KTSetStatus(KT_StsOk); }
    OwnStatus(const OwnStatus&) = delete;
    OwnStatus& operator=(const OwnStatus&) = delete;
    ~OwnStatus() {
        if (KTGetStatus() >= 0) KTSetStatus(before);
    }

private:
    int before;
};

// The observations of a call.
template <class Sequence>
struct Sequences {
    const Sequence* all;
    const int* pFrames;
    int count;

    int longest() const {
        int frames = 0;
        for (int q = 0; q < count; ++q)
            frames = pFrames[q] > frames ? pFrames[q] : frames;
        return frames;
    }
};

struct StopRule {
    int iterations;
    double goal;

    StopRule(int maxIterations, const float* pTolerance)
        : iterations(maxIterations < 1 ? 1000 : maxIterations),
          goal(double(pTolerance != nullptr && *pTolerance > 0.0f ? *pTolerance : 1e-6f)) {}

    bool stops(double change) { return change < goal || --iterations < 1; }
};

// One iteration's pass over all sequences. Sequences that the model cannot produce have no
// influence. False once a report's handler has released one of the models.
template <class Estimator>
bool countAll(Estimator& estimator, const HMMServer* current, const HMMServer* next,
              const Sequences<typename Estimator::Sequence>& sequences, Counts& counts) {
    const HeldHMMServer heldCurrent(current), heldNext(next);
    counts.startIteration(current);
    const vsq::HmmUnpacked unpacked = counts.unpackedModel(current);
    for (int q = 0; q < sequences.count; ++q) {
        const int nFrames = sequences.pFrames[q];
        if (nFrames < 1) continue;
        if (!counts.careful) estimator.reportDisagreement(current); // not twice
        if (heldCurrent.get() == nullptr || heldNext.get() == nullptr) return false;
        vsq::HmmOutputs outputs;
        if (!estimator.score(current, next, sequences.all[q], nFrames, &outputs)) continue;
        int exponent;
        const double likelihood =
            forwardBackward(current, outputs, counts.lattice(nFrames), &exponent, unpacked);
        if (!(likelihood >= smallestDenominator) || !std::isfinite(likelihood)) continue;
        counts.add(current, outputs, nFrames, 1.0 / likelihood);
        estimator.count(current, counts, sequences.all[q], nFrames, 1.0 / likelihood);
    }
    return true;
}

// A new model from the current one; false when memory ran out or a report's handler has released
// one of them. Products of extreme values can leave the doubles, and sums of frames the floats:
// what comes out so is counted once more, carefully.
template <class Estimator>
bool reestimate(Estimator& estimator, const HMMServer* current, OwnModel& newest,
                const Sequences<typename Estimator::Sequence>& sequences, Counts& counts) {
    for (counts.careful = false;; counts.careful = true) {
        newest.release();
        if (!newest.copyOf(current)) return false;
        HMMServer* next = newest.get();
        estimator.startIteration(next);
        if (!countAll(estimator, current, next, sequences, counts)) return false;
        const bool isFinite = counts.finish(current, next);
        if ((estimator.finish(current, next, counts) && isFinite) || counts.careful) return true;
    }
}

// Trains copies of `model` until the rule stops; the new server's id, or -1 with everything
// released.
template <class Estimator>
int iterate(Estimator& estimator, const HMMServer* model,
            const Sequences<typename Estimator::Sequence>& sequences, Counts& counts, StopRule rule,
            float* pTolerance) {
    OwnModel before, newest;
    for (const HMMServer* current = model;; current = before.get()) {
        if (!reestimate(estimator, current, newest, sequences, counts)) return -1;
        const HMMServer* next = newest.get();
        const double atLeast = modelChange(current, next),
                     outputChange = estimator.change(current, next);
        const double change = outputChange > atLeast ? outputChange : atLeast;
        if (rule.stops(change)) {
            if (pTolerance != nullptr) *pTolerance = static_cast<float>(change);
            return newest.handOver();
        }
        before.moveFrom(newest);
        if (!estimator.prepareToScore(before.get())) return -1;
    }
}

template <class Estimator>
int train(Estimator& estimator, const HMMServer* model,
          const Sequences<typename Estimator::Sequence>& sequences, int maxIterations,
          float* pTolerance) {
    if (!evaluable(model, Estimator::kind)) return -1;
    const int longest = sequences.longest();
    Counts counts;
    if (!counts.allocate(model, longest) || !estimator.prepare(model, longest)) return -1;
    return iterate(estimator, model, sequences, counts, StopRule(maxIterations, pTolerance),
                   pTolerance);
}

} // namespace hmm
