// What training counts whatever the flavour of the outputs: occupancies and transitions.
#include "KT_HTRN.h"

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
    const double ofInitials =
        greatestChange(floats(current->initials), floats(next->initials), std::size_t(current->nStates), 0.0);
    const TransitionMap map = TransitionMap::of(*current);
    // the second copy of a band's last transition is set from the first and tells nothing of its own
    const std::size_t own = map.topology == Topology::banded ? map.size() - 1 : map.size();
    return greatestChange(transitionsOf(current), transitionsOf(next), own, ofInitials);
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
           gammaTrans.allocate(stride, 1) && gammaOut.allocate(stride, 1) && piNum.allocate(stride, 1) &&
           gammaSeq.allocate(stride, 1) && xiNum.allocate(TransitionMap::of(*model).size(), 1) &&
           xiSeq.allocate(n, perRow) && unpacked.allocate(unpackedRows, stride);
}

void Counts::begin(const HMMServer* current) {
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
    return {alphaBeta.get(), alphaBeta.get() + half, scales.get(), static_cast<std::ptrdiff_t>(stride),
            nFrames};
}

TransitionRow Counts::row(const HMMServer* model, int source, std::size_t stored) const {
    const int behind = nStates - source;
    const auto i = std::size_t(source);
    switch (topologyOf(model->status)) {
    case Topology::banded:
        return {behind < 3 ? behind : 3, stored, 3 * i};
    case Topology::triangular:
        return {behind, stored, i * stride + i};
    default:
        return {nStates, stored, i * stride};
    }
}

void Counts::add(const HMMServer* current, const vsq::HmmOutputs& outputs, int nFrames, double weight) {
    const vsq::HmmLattice sequence = lattice(nFrames);
    vsq::kernels().hmmtrain->occupancies(sequence, gammaSeq.get());
    vsq::kernels().hmmtrain->transitions(storedModel(current), outputs, sequence, xiSeq.get());
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
    const float* stored = transitionsOf(current);
    std::size_t k = 0;
    for (int i = 0; i < nStates; ++i) {
        const TransitionRow from = row(current, i, k);
        for (int j = 0; j < from.count; ++j, ++k)
            xiNum[k] += xiSeq[from.summed + std::size_t(j)] * weight * double(stored[k]);
    }
}

// The copied values stand where there is nothing to divide by.
void Counts::finish(const HMMServer* current, HMMServer* next) const {
    float* initials = floats(next->initials);
    for (std::size_t i = 0; gammaTotal >= smallestDenominator && i < std::size_t(nStates); ++i) {
        initials[i] = static_cast<float>(piNum[i] / gammaTotal);
        if (double(initials[i]) < smallestProbability) initials[i] = 0.0f;
    }
    float* transitions = transitionsOf(next);
    std::size_t k = 0;
    for (int i = 0; i < nStates; ++i) {
        const std::size_t end = k + std::size_t(row(current, i, k).count);
        const double denominator = gammaTrans[std::size_t(i)];
        for (; k < end; ++k) {
            if (!(denominator >= smallestDenominator)) continue;
            const double value = xiNum[k] / denominator;
            transitions[k] = value < smallestProbability ? 0.0f : static_cast<float>(value);
        }
    }
    // a band keeps the last state's transition to itself twice
    if (topologyOf(next->status) == Topology::banded && k > 0 && k < TransitionMap::of(*next).size())
        transitions[k] = transitions[k - 1];
}

} // namespace hmm
