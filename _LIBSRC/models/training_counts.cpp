// What training counts whatever the output kind: occupancies of states and transitions, and from
// them the new start values and transitions.
#include "models/training.h"

#include <algorithm>
#include <cmath>

namespace hmm {

namespace {

float* transitionsOf(const HMMServer* model) {
    return floats(model->transitions);
}

} // namespace

bool OwnModel::copyOf(const HMMServer* source) {
    const OwnStatus ownStatus;
    model = HeldHMMServer(KTFindHMMServer(KTCopyHMMServer(source->id)));
    return model.get() != nullptr;
}

double greatestChange(const float* a, const float* b, std::size_t count, double atLeast) {
    double greatest = atLeast;
    for (std::size_t k = 0; k < count; ++k)
        greatest = std::max(greatest, std::fabs(double(a[k]) - double(b[k])));
    return greatest;
}

double modelChange(const HMMServer* current, const HMMServer* next) {
    const double ofInitials = greatestChange(floats(current->initials), floats(next->initials),
                                             std::size_t(current->nStates), 0.0);
    const TransitionMap map = sourceMap(current);
    // a band's second copy of its last transition is left out: a file may bring one that differs
    const std::size_t size = map.size(), second = std::min(map.duplicate(), size);
    const std::size_t after = std::min(second + 1, size);
    const double before =
        greatestChange(transitionsOf(current), transitionsOf(next), second, ofInitials);
    return greatestChange(transitionsOf(current) + after, transitionsOf(next) + after, size - after,
                          before);
}

bool Counts::allocate(const HMMServer* model, int longest) {
    nStates = model->nStates;
    const auto n = std::size_t(nStates);
    stride = (n + vsq::hmmTrainLanes - 1) / vsq::hmmTrainLanes * vsq::hmmTrainLanes;
    const auto frames = std::size_t(longest);
    const Topology topology = topologyOf(model->status);
    const std::size_t perRow = topology == Topology::banded ? 3 : stride;
    const std::size_t unpackedRows = topology == Topology::full ? 2 * n + 1 : 0;
    return alphaBeta.allocate(2 * frames, stride) && scales.allocate(frames, 1) &&
           gammaTrans.allocate(stride, 1) && gammaOut.allocate(stride, 1) &&
           piNum.allocate(stride, 1) && gammaSeq.allocate(stride, 1) &&
           xiNum.allocate(sourceMap(model).size(), 1) && xiSeq.allocate(n, perRow) &&
           unpacked.allocate(unpackedRows, stride);
}

void Counts::startIteration(const HMMServer* current) {
    gammaTotal = 0.0;
    for (Numbers* numbers : {&gammaTrans, &gammaOut, &piNum, &xiNum})
        numbers->clear();
    if (topologyOf(current->status) != Topology::full) return;
    const float* stored = transitionsOf(current);
    const auto n = std::size_t(nStates);
    for (std::size_t i = 0; i < n; ++i)
        for (std::size_t j = 0; j < n; ++j)
            unpacked[i * stride + j] = unpacked[(n + j) * stride + i] = double(stored[i * n + j]);
}

vsq::HmmUnpacked Counts::unpackedModel(const HMMServer* current) const {
    if (topologyOf(current->status) != Topology::full) return {};
    const std::size_t matrix = std::size_t(nStates) * stride;
    return {unpacked.get(), unpacked.get() + matrix, unpacked.get() + 2 * matrix};
}

vsq::HmmLattice Counts::lattice(int nFrames) const {
    const std::size_t half = std::size_t(nFrames) * stride;
    return {alphaBeta.get(), alphaBeta.get() + half, scales.get(),
            static_cast<std::ptrdiff_t>(stride), nFrames};
}

TransitionRow Counts::row(const HMMServer* model, int source) const {
    const TransitionMap map = sourceMap(model);
    const int first = firstTarget(map.topology, source);
    const std::size_t summed = map.topology == Topology::banded
                                   ? 3 * std::size_t(source)
                                   : std::size_t(source) * stride + std::size_t(first);
    return {endTarget(map.topology, nStates, source) - first, map.position(source, first), summed};
}

void Counts::add(const HMMServer* current, const vsq::HmmOutputs& outputs, int nFrames,
                 double weight) {
    const vsq::HmmLattice sequence = lattice(nFrames);
    holdsOccupancies = careful || !isBackwardFinite(sequence, nStates);
    if (holdsOccupancies) {
        occupanciesFromForward(current, sequence, weight, xiNum.get());
        for (std::ptrdiff_t t = 0; t < nFrames; ++t)
            std::fill_n(sequence.alpha + t * sequence.stride, nStates, 1.0 / weight);
    } else
        addTransitions(current, outputs, nFrames, weight);
    vsq::kernels().hmmtrain->occupancies(sequence, gammaSeq.get());
    const std::size_t last = std::size_t(nFrames - 1) * stride;
    double first = 0.0;
    for (std::size_t i = 0; i < std::size_t(nStates); ++i) {
        const double atStart = sequence.alpha[i] * sequence.beta[i];
        first += atStart;
        piNum[i] += weight * atStart;
        gammaTrans[i] += weight * gammaSeq[i];
        gammaOut[i] += weight * (gammaSeq[i] + sequence.alpha[last + i] * sequence.beta[last + i]);
    }
    gammaTotal += weight * first;
}

void Counts::addTransitions(const HMMServer* current, const vsq::HmmOutputs& outputs, int nFrames,
                            double weight) {
    vsq::kernels().hmmtrain->transitions(storedModel(current), outputs, lattice(nFrames),
                                         xiSeq.get());
    const float* stored = transitionsOf(current);
    for (int i = 0; i < nStates; ++i) {
        const TransitionRow from = row(current, i);
        for (std::size_t k = from.stored, s = from.summed;
             k < from.stored + std::size_t(from.count); ++k, ++s)
            xiNum[k] += xiSeq[s] * weight * double(stored[k]);
    }
}

void Counts::formArrivals(const HMMServer* current, const vsq::HmmOutputs& outputs, int nFrames,
                          double weight) const {
    const vsq::HmmLattice sequence = lattice(nFrames);
    if (!holdsOccupancies) {
        vsq::kernels().hmmtrain->arrivals(storedModel(current), sequence, weight);
        return;
    }
    for (std::ptrdiff_t t = 0; t < nFrames; ++t)
        for (int i = 0; i < nStates; ++i) {
            double& occupancy = sequence.beta[t * sequence.stride + i];
            if (occupancy != 0.0) occupancy /= double(outputs.values[t * outputs.stride + i]);
        }
}

// Denominators that are not finite become 0, by which nothing is divided; false when there were
// any.
bool Counts::dropInfinite() {
    bool isFinite = true;
    const auto check = [&](double& occupancy) {
        if (std::isfinite(occupancy)) return;
        occupancy = 0.0;
        isFinite = false;
    };
    check(gammaTotal);
    for (std::size_t i = 0; i < std::size_t(nStates); ++i) {
        check(gammaTrans[i]);
        check(gammaOut[i]);
    }
    return isFinite;
}

// The copied values stay where there is nothing to divide by.
bool Counts::finish(const HMMServer* current, HMMServer* next) {
    bool isFinite = dropInfinite();
    float* initials = floats(next->initials);
    for (std::size_t i = 0; gammaTotal >= smallestDenominator && i < std::size_t(nStates); ++i) {
        const auto value = static_cast<float>(piNum[i] / gammaTotal);
        if (!replace(initials[i], double(value) < smallestProbability ? 0.0f : value))
            isFinite = false;
    }
    return finishTransitions(current, next) && isFinite;
}

bool Counts::finishTransitions(const HMMServer* current, HMMServer* next) const {
    const TransitionMap map = sourceMap(next);
    float* transitions = transitionsOf(next);
    bool isFinite = true;
    for (int i = 0; i < nStates; ++i) {
        const TransitionRow from = row(current, i);
        const double denominator = gammaTrans[std::size_t(i)];
        const std::size_t end = from.stored + std::size_t(from.count);
        for (std::size_t k = from.stored; denominator >= smallestDenominator && k < end; ++k) {
            const double value = xiNum[k] / denominator;
            if (!replace(transitions[k],
                         value < smallestProbability ? 0.0f : static_cast<float>(value)))
                isFinite = false;
        }
    }
    // a band keeps the last state's transition to itself twice
    if (map.duplicate() < map.size())
        transitions[map.duplicate()] = transitions[map.position(nStates - 1, nStates - 1)];
    return isFinite;
}

} // namespace hmm
