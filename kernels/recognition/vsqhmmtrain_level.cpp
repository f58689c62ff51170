// Forward and backward variables of a sequence, and the sums over frames that training forms of
// them. Rows that run in the direction of the sums are fastest: models that are used often are
// unpacked into both directions, others are read as they are stored.
#include "recognition/vsqhmmtrain_level.h"
#include "recognition/hmm_steps.h"
#include "recognition/vsqhmm_range.h"

namespace vsq::VSQ_LEVEL {
namespace {

// --- range control ---

// A frame whose sum has left its range, or the last one: the sum comes back scaled, or the
// failure's value.
__attribute__((noinline)) double rescaled(double* row, int n, double sum, double* scale,
                                          int* exponent) {
    switch (bringIntoRange(&sum, scale, exponent)) {
    case RangeFault::vanished:
        return 0.0;
    case RangeFault::beyond:
        return -1.0;
    default:
        break;
    }
    for (int j = 0; j < n; ++j)
        row[j] *= *scale;
    return sum;
}

// --- the two passes over a sequence, one text over the topologies ---

VSQ_INLINE double firstFrame(const HmmStored& model, const float* outputs, double* row) {
    double sum = 0.0;
    for (int i = 0; i < model.nStates; ++i) {
        row[i] = double(outputs[i]) * double(model.initials[i]);
        sum += row[i];
    }
    return sum;
}

template <class Topology>
double forwardPass(const HmmStored& model, const HmmOutputs& outputs, const HmmLattice& lattice,
                   int* exponent) {
    double* row = lattice.alpha;
    double sum = firstFrame(model, outputRow(outputs, 0), row);
    lattice.scales[0] = 1.0;
    if (lattice.nFrames == 1) // a single frame stays as it is
        return sum >= 0.0 ? sum : -1.0;
    for (int t = 1; t < lattice.nFrames; ++t) {
        double* next = row + lattice.stride;
        lattice.scales[t] = 1.0;
        sum = Topology::forward(model, outputRow(outputs, t), row, next);
        if (!isInRange(sum) || t == lattice.nFrames - 1) {
            sum = rescaled(next, model.nStates, sum, lattice.scales + t, exponent);
            if (!(sum > 0.0)) return sum;
        }
        row = next;
    }
    return sum;
}

// False when a row vanished.
template <class Topology>
bool backwardPass(const HmmStored& model, const HmmOutputs& outputs, const HmmLattice& lattice) {
    const int n = model.nStates;
    double* row = lattice.beta + lattice.stride * (lattice.nFrames - 1);
    for (int i = 0; i < n; ++i)
        row[i] = 1.0;
    for (int t = lattice.nFrames - 1; t > 0; --t) {
        double* before = row - lattice.stride;
        const double sum = Topology::backward(model, outputRow(outputs, t), row, before);
        // zero, or so small a denormal that the upper word of its pattern is 0
        if (patternOf(sum) >> 32 == 0) return false;
        if (lattice.scales[t] != 1.0)
            for (int i = 0; i < n; ++i)
                before[i] *= lattice.scales[t];
        row = before;
    }
    return true;
}

template <class Topology>
double bothPasses(const HmmStored& model, const HmmOutputs& outputs, const HmmLattice& lattice,
                  int* exponent) {
    int counted = 0;
    const double sum = forwardPass<Topology>(model, outputs, lattice, &counted);
    if (!(sum > 0.0)) return sum;
    if (!backwardPass<Topology>(model, outputs, lattice)) return 0.0;
    *exponent = counted;
    return sum;
}

VSQ_INLINE double passesOfUnpacked(const HmmStored& model, const HmmOutputs& outputs,
                                   const HmmLattice& lattice, int* exponent) {
    switch ((model.nStates + lanes - 1) / lanes) {
    case 1:
        return bothPasses<Unpacked<1>>(model, outputs, lattice, exponent);
    case 2:
        return bothPasses<Unpacked<2>>(model, outputs, lattice, exponent);
    default:
        return bothPasses<Unpacked<0>>(model, outputs, lattice, exponent);
    }
}

template <bool padded>
VSQ_INLINE double passesOf(const HmmStored& model, const HmmOutputs& outputs,
                           const HmmLattice& lattice, int* exponent) {
    if (model.topology == HmmTopology::banded)
        return bothPasses<Band>(model, outputs, lattice, exponent);
    if (model.topology == HmmTopology::triangular)
        return bothPasses<Matrix<true, padded>>(model, outputs, lattice, exponent);
    if (padded && model.unpacked.bySource != nullptr)
        return passesOfUnpacked(model, outputs, lattice, exponent);
    return bothPasses<Matrix<false, padded>>(model, outputs, lattice, exponent);
}

double forwardBackward(const HmmStored& model, const HmmOutputs& outputs, const HmmLattice& lattice,
                       int* exponent) {
    if (lattice.stride % lanes == 0) return passesOf<true>(model, outputs, lattice, exponent);
    return passesOf<false>(model, outputs, lattice, exponent);
}

// --- occupancies ---

void occupancies(const HmmLattice& lattice, double* sums) {
    for (std::ptrdiff_t i = 0; i < lattice.stride; i += lanes) {
        States sum = none();
        for (int t = 0; t + 1 < lattice.nFrames; ++t) {
            const std::ptrdiff_t at = t * lattice.stride + i;
            sum = sum +
                  load<double, lanes>(lattice.alpha + at) * load<double, lanes>(lattice.beta + at);
        }
        store(sums + i, sum);
    }
}

void symbolOccupancies(const HmmLattice& lattice, const int* symbols, double weight, double* sums) {
    const States factor = splat<double, lanes>(weight);
    const double *alpha = lattice.alpha, *beta = lattice.beta;
    for (int t = 0; t < lattice.nFrames; ++t) {
        double* row = sums + symbols[t] * lattice.stride;
        for (std::ptrdiff_t i = 0; i < lattice.stride; i += lanes, alpha += lanes, beta += lanes)
            store(row + i, load<double, lanes>(row + i) +
                               load<double, lanes>(alpha) * load<double, lanes>(beta) * factor);
    }
}

// --- sums over frames of outer products ---

// sums[r][0 .. 7] = [what is there +] sum over t of left(t)[r] * right(t), `count` rows at a time
// in registers.
template <int count, bool onTop, class Left, class Right>
VSQ_INLINE void outerRows(int frames, const Left& left, const Right& right, double* sums,
                          std::ptrdiff_t sumStride) {
    States rows[count];
    for (int r = 0; r < count; ++r)
        rows[r] = onTop ? load<double, lanes>(sums + r * sumStride) : none();
    for (int t = 0; t < frames; ++t) {
        const double* factors = left(t);
        const States values = right(t);
        for (int r = 0; r < count; ++r)
            rows[r] = rows[r] + splat<double, lanes>(factors[r]) * values;
    }
    for (int r = 0; r < count; ++r)
        store(sums + r * sumStride, rows[r]);
}

// As many rows at once as registers take.
constexpr int rowsAtOnce = registerBytes == 64 ? 8 : 4;

template <bool onTop, class Right>
VSQ_INLINE void outerProducts(int frames, const double* left, std::ptrdiff_t leftStride, int nRows,
                              const Right& right, double* sums, std::ptrdiff_t sumStride) {
    int i = 0;
    const auto from = [&](int t) VSQ_LAMBDA { return left + t * leftStride + i; };
    for (; i + rowsAtOnce <= nRows; i += rowsAtOnce)
        outerRows<rowsAtOnce, onTop>(frames, from, right, sums + i * sumStride, sumStride);
    if (rowsAtOnce > 4 && i + 4 <= nRows) {
        outerRows<4, onTop>(frames, from, right, sums + i * sumStride, sumStride);
        i += 4;
    }
    if (i + 2 <= nRows) {
        outerRows<2, onTop>(frames, from, right, sums + i * sumStride, sumStride);
        i += 2;
    }
    if (i < nRows) outerRows<1, onTop>(frames, from, right, sums + i * sumStride, sumStride);
}

template <bool whole>
VSQ_INLINE void transitionBlock(const HmmStored& model, const HmmOutputs& outputs,
                                const HmmLattice& lattice, int block, double* sums) {
    const int n = model.nStates;
    const int sources =
        model.topology == HmmTopology::triangular && block + lanes < n ? block + lanes : n;
    const auto ahead = [&](int t) VSQ_LAMBDA {
        const States b = widened<whole>(outputRow(outputs, t + 1) + block, n - block);
        const States beta = load<double, lanes>(lattice.beta + (t + 1) * lattice.stride + block);
        return b * beta * splat<double, lanes>(lattice.scales[t + 1]);
    };
    outerProducts<false>(lattice.nFrames - 1, lattice.alpha, lattice.stride, sources, ahead,
                         sums + block, lattice.stride);
}

void transitionBand(const HmmStored& model, const HmmOutputs& outputs, const HmmLattice& lattice,
                    double* sums) {
    const int n = model.nStates;
    for (int k = 0; k < 3 * n; ++k)
        sums[k] = 0.0;
    for (int t = 1; t < lattice.nFrames; ++t) {
        const float* b = outputRow(outputs, t);
        const double* alpha = lattice.alpha + (t - 1) * lattice.stride;
        const double* beta = lattice.beta + t * lattice.stride;
        for (int j = 0; j < n; ++j) {
            const double ahead = double(b[j]) * beta[j] * lattice.scales[t];
            for (int d = 0; d < 3 && d <= j; ++d)
                sums[3 * (j - d) + d] += ahead * alpha[j - d];
        }
    }
}

void transitions(const HmmStored& model, const HmmOutputs& outputs, const HmmLattice& lattice,
                 double* sums) {
    if (model.topology == HmmTopology::banded) {
        transitionBand(model, outputs, lattice, sums);
        return;
    }
    int block = 0;
    for (; block + lanes <= model.nStates; block += lanes)
        transitionBlock<true>(model, outputs, lattice, block, sums);
    if (block < model.nStates) transitionBlock<false>(model, outputs, lattice, block, sums);
}

// --- arrivals ---

template <bool triangular>
VSQ_INLINE void arrivalsOfMatrix(const HmmStored& model, const double* current,
                                 const States& factor, double* beta) {
    int j = 0;
    for (; j + lanes <= model.nStates; j += lanes)
        store(beta + j, reached<triangular, true>(model, current, j) *
                            load<double, lanes>(beta + j) * factor);
    if (j < model.nStates)
        store(beta + j, reached<triangular, false>(model, current, j) *
                            load<double, lanes>(beta + j) * factor);
}

void arrivals(const HmmStored& model, const HmmLattice& lattice, double weight) {
    const int n = model.nStates;
    for (int i = 0; i < n; ++i)
        lattice.beta[i] *= double(model.initials[i]) * (lattice.scales[0] * weight);
    for (int t = 1; t < lattice.nFrames; ++t) {
        const double* current = lattice.alpha + (t - 1) * lattice.stride;
        double* beta = lattice.beta + t * lattice.stride;
        const double factor = lattice.scales[t] * weight;
        if (model.topology == HmmTopology::banded)
            for (int j = 0; j < n; ++j)
                beta[j] *= reachedInBand(model.trans, current, j) * factor;
        else if (model.topology == HmmTopology::triangular)
            arrivalsOfMatrix<true>(model, current, splat<double, lanes>(factor), beta);
        else
            arrivalsOfMatrix<false>(model, current, splat<double, lanes>(factor), beta);
    }
}

// --- shares ---

void componentShares(const HmmLattice& lattice, int nStates, const int* starts, float* const* probs,
                     double* sums) {
    for (int t = 0; t < lattice.nFrames; ++t) {
        const double* arrival = lattice.beta + t * lattice.stride;
        float* row = probs[t];
        for (int i = 0; i < nStates; ++i) {
            int m = starts[i];
            for (; m + 4 <= starts[i + 1]; m += 4) {
                const FourStates share =
                    convert<double>(load<float, 4>(row + m)) * splat<double, 4>(arrival[i]);
                store(sums + m, load<double, 4>(sums + m) + share);
                store(row + m, convert<float>(share));
            }
            for (; m < starts[i + 1]; ++m) {
                const double share = double(row[m]) * arrival[i];
                sums[m] += share;
                row[m] = float(share);
            }
        }
    }
}

void densityShares(const HmmLattice& lattice, int nStates, const float* const* densities, int count,
                   double* sums, std::ptrdiff_t sumStride) {
    for (int k = 0; k < count; k += lanes) {
        const auto frame = [&](int t) VSQ_LAMBDA { return widened<true>(densities[t] + k, lanes); };
        outerProducts<true>(lattice.nFrames, lattice.beta, lattice.stride, nStates, frame, sums + k,
                            sumStride);
    }
}

// As many means at once as leave registers for a frame: one alone would wait for each of its
// additions.
constexpr int meansAtOnce = registerBytes == 64 ? 8 : registerBytes == 32 ? 4 : 2;

// The elements d .. d + 15 of the means of `count` components; the sums stay in registers for all
// frames.
template <int count, bool whole>
VSQ_INLINE void addFrameGroup(const float* const* frames, const float* const* shares, int component,
                              int nFrames, int d, int rest, float* const* means) {
    constexpr int group = 16;
    const auto part = [&](const float* p) VSQ_LAMBDA {
        if constexpr (whole)
            return load<float, group>(p);
        else
            return loadPart<float, group>(p, rest);
    };
    Pack<float, group> sums[count];
    for (int c = 0; c < count; ++c)
        sums[c] = part(means[component + c] + d);
    for (int t = 0; t < nFrames; ++t) {
        const Pack<float, group> frame = part(frames[t] + d);
        for (int c = 0; c < count; ++c)
            sums[c] = sums[c] + splat<float, group>(shares[t][component + c]) * frame;
    }
    for (int c = 0; c < count; ++c)
        if constexpr (whole)
            store(means[component + c] + d, sums[c]);
        else
            storePart(means[component + c] + d, sums[c], rest);
}

template <int count>
VSQ_INLINE void addFramesTo(const float* const* frames, const float* const* shares, int component,
                            int nFrames, int nDim, float* const* means) {
    int d = 0;
    for (; d + 16 <= nDim; d += 16)
        addFrameGroup<count, true>(frames, shares, component, nFrames, d, 16, means);
    if (d < nDim)
        addFrameGroup<count, false>(frames, shares, component, nFrames, d, nDim - d, means);
}

void addFrames(const float* const* frames, const float* const* shares, int nComponents, int nFrames,
               int nDim, float* const* means) {
    int m = 0;
    for (; m + meansAtOnce <= nComponents; m += meansAtOnce)
        addFramesTo<meansAtOnce>(frames, shares, m, nFrames, nDim, means);
    for (; m < nComponents; ++m)
        addFramesTo<1>(frames, shares, m, nFrames, nDim, means);
}

} // namespace

extern const HmmTrainKernels hmmTrainKernels{
    .forwardBackward = forwardBackward,
    .occupancies = occupancies,
    .symbolOccupancies = symbolOccupancies,
    .transitions = transitions,
    .arrivals = arrivals,
    .componentShares = componentShares,
    .densityShares = densityShares,
    .addFrames = addFrames,
};

} // namespace vsq::VSQ_LEVEL
