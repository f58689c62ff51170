// Forward and backward variables of a sequence, and the sums over frames that training forms of
// them. Rows that run in the direction of the sums are fastest: models that are used often are
// unpacked into both directions, others are read as they are stored.
#include "recognition/vsqhmmtrain_level.h"
#include "recognition/vsqhmm_range.h"
#include "simd/pack.h"

namespace vsq::VSQ_LEVEL {
namespace {

// Eight states at a time at every level, so that sums over states add in the same order everywhere.
constexpr int lanes = hmmTrainLanes;
using States = Pack<double, lanes>;
using FourStates = Pack<double, 4>;

constexpr std::int64_t laneNumbers[lanes] = {0, 1, 2, 3, 4, 5, 6, 7};

VSQ_INLINE States none() {
    return splat<double, lanes>(0.0);
}

// --- reading and writing ---
//
// Rows may end within a group of lanes; nothing after them is touched.

template <bool whole>
VSQ_INLINE States widened(const float* p, int count) {
    if constexpr (whole)
        return convert<double>(load<float, lanes>(p));
    else
        return convert<double>(loadPart<float, lanes>(p, count));
}

template <bool whole>
VSQ_INLINE States doubles(const double* p, int count) {
    if constexpr (whole)
        return load<double, lanes>(p);
    else
        return loadPart<double, lanes>(p, count);
}

template <bool whole, int n>
VSQ_INLINE void keep(double* p, const Pack<double, n>& values, int count) {
    if (whole || count >= n)
        store(p, values);
    else
        storePart(p, values, count);
}

// The lanes from `first` on; the others are 0.
VSQ_INLINE States lanesFrom(int first, const States& values) {
    return select(splat<std::int64_t, lanes>(first) <= load<std::int64_t, lanes>(laneNumbers),
                  values, none());
}

VSQ_INLINE const float* outputRow(const HmmOutputs& outputs, int t) {
    return outputs.symbols != nullptr ? outputs.rows[outputs.symbols[t]]
                                      : outputs.values + t * outputs.stride;
}

// Where element j of a source's row would stand if the row began at j = 0. In a triangle that is
// within the rows before it.
template <bool triangular>
VSQ_INLINE const float* rowOf(const HmmStored& model, int i) {
    const std::ptrdiff_t source = i, n = model.nStates;
    return model.trans + (triangular ? source * (2 * n - source - 1) / 2 : source * n);
}

// --- what all sources bring to the eight targets from `block` on ---

template <bool triangular, bool whole>
VSQ_INLINE States reached(const HmmStored& model, const double* current, int block) {
    const int n = model.nStates, rest = n - block, above = triangular ? block : n;
    States sums[4] = {none(), none(), none(), none()}; // a single one would wait for each addition
    const auto add = [&](States& sum, int i) VSQ_LAMBDA {
        sum = sum + splat<double, lanes>(current[i]) *
                        widened<whole>(rowOf<triangular>(model, i) + block, rest);
    };
    int i = 0;
    for (; i + 4 <= above; i += 4)
        for (int k = 0; k < 4; ++k)
            add(sums[k], i + k);
    if (i < above) add(sums[0], i);
    if (i + 1 < above) add(sums[1], i + 1);
    if (i + 2 < above) add(sums[2], i + 2);
    if constexpr (triangular)
        for (i = block; i < n && i < block + lanes; ++i) {
            const States row =
                lanesFrom(i - block, widened<whole>(rowOf<triangular>(model, i) + block, rest));
            sums[0] = sums[0] + lanesFrom(i - block, splat<double, lanes>(current[i]) * row);
        }
    return (sums[0] + sums[1]) + (sums[2] + sums[3]);
}

// --- forward: one frame, and the sum over its states ---

template <bool triangular, bool padded>
VSQ_INLINE double forwardMatrix(const HmmStored& model, const float* outputs, const double* current,
                                double* next) {
    const int n = model.nStates;
    States sums = none();
    int j = 0;
    for (; j + lanes <= n; j += lanes) {
        const States values =
            reached<triangular, true>(model, current, j) * widened<true>(outputs + j, 0);
        store(next + j, values);
        sums = sums + values;
    }
    if (j < n) {
        const States values =
            reached<triangular, false>(model, current, j) * widened<false>(outputs + j, n - j);
        keep<padded>(next + j, values, n - j);
        sums = sums + values;
    }
    return sumLanes(sums);
}

// What three sources bring to target j of a band.
VSQ_INLINE double reachedInBand(const float* a, const double* p, int j) {
    if (j == 0) return double(a[0]) * p[0];
    if (j == 1) return double(a[3]) * p[1] + double(a[1]) * p[0];
    return double(a[3 * j]) * p[j] + double(a[3 * j - 2]) * p[j - 1] +
           double(a[3 * j - 4]) * p[j - 2];
}

VSQ_INLINE double forwardBand(const HmmStored& model, const float* outputs, const double* current,
                              double* next) {
    double sum = 0.0;
    for (int j = 0; j < model.nStates; ++j) {
        next[j] = reachedInBand(model.trans, current, j) * double(outputs[j]);
        sum += next[j];
    }
    return sum;
}

// --- backward: one frame, from its own values to those of the frame before, and their sum ---

VSQ_INLINE FourStates sumOfEach(const States (&rows)[4]) {
    FourStates half[4];
    for (int k = 0; k < 4; ++k)
        half[k] = low(rows[k]) + high(rows[k]);
    const FourStates first = evenPairs(half[0], half[1]) + oddPairs(half[0], half[1]);
    const FourStates second = evenPairs(half[2], half[3]) + oddPairs(half[2], half[3]);
    return lowHalves(first, second) + highHalves(first, second);
}

// Four sources' rows times the frame's outputs and values; sources after the last one repeat it.
template <bool triangular, bool padded>
VSQ_INLINE FourStates leaving(const HmmStored& model, const float* outputs, const double* values,
                              int source) {
    const int n = model.nStates;
    const float* rows[4];
    for (int k = 0; k < 4; ++k)
        rows[k] = rowOf<triangular>(model, source + k < n ? source + k : n - 1);
    States sums[4] = {none(), none(), none(), none()};
    int j = triangular ? source / lanes * lanes : 0;
    const auto add = [&](auto whole) VSQ_LAMBDA {
        constexpr bool all = decltype(whole)::value;
        const States ahead =
            widened<all>(outputs + j, n - j) * doubles < all || padded > (values + j, n - j);
        for (int k = 0; k < 4; ++k) {
            States terms = widened<all>(rows[k] + j, n - j) * ahead;
            if (triangular && j < source + k) terms = lanesFrom(source + k - j, terms);
            sums[k] = sums[k] + terms;
        }
    };
    for (; j + lanes <= n; j += lanes)
        add(std::true_type());
    if (j < n) add(std::false_type());
    return sumOfEach(sums);
}

template <bool triangular, bool padded>
VSQ_INLINE double backwardMatrix(const HmmStored& model, const float* outputs, const double* values,
                                 double* before) {
    const int n = model.nStates;
    FourStates sums = splat<double, 4>(0.0);
    int i = 0;
    for (; i + 4 <= n; i += 4) {
        const FourStates four = leaving<triangular, padded>(model, outputs, values, i);
        store(before + i, four);
        sums = sums + four;
    }
    if (i < n) {
        const FourStates four =
            select(load<std::int64_t, 4>(laneNumbers) < splat<std::int64_t, 4>(n - i),
                   leaving<triangular, padded>(model, outputs, values, i), splat<double, 4>(0.0));
        keep<padded>(before + i, four, n - i);
        sums = sums + four;
    }
    return sumLanes(sums);
}

VSQ_INLINE double backwardBand(const HmmStored& model, const float* outputs, const double* values,
                               double* before) {
    const int n = model.nStates;
    double sum = 0.0;
    for (int i = 0; i < n; ++i) {
        const int reach = n - i < 3 ? n - i : 3;
        double row = 0.0;
        for (int d = 0; d < reach; ++d)
            row += double(model.trans[3 * i + d]) * (double(outputs[i + d]) * values[i + d]);
        before[i] = row;
        sum += row;
    }
    return sum;
}

// --- full models that are unpacked: both directions run along rows ---

// sums[b] = the sum over i of weights[i] * rows[i][8 b .. 8 b + 7], `count` blocks of eight at
// once. The first products start the four partial sums: a zero in front of them would only lengthen
// the way from one frame to the next.
template <int count>
VSQ_INLINE void weightedSums(const double* rows, std::ptrdiff_t stride, int n,
                             const double* weights, States* sums) {
    States parts[4][count];
    const auto add = [&](int k, int i) VSQ_LAMBDA {
        const States weight = splat<double, lanes>(weights[i]);
        for (int b = 0; b < count; ++b)
            parts[k][b] = parts[k][b] + weight * load<double, lanes>(rows + i * stride + b * lanes);
    };
    for (int k = 0; k < 4; ++k) {
        const States weight = k < n ? splat<double, lanes>(weights[k]) : none();
        for (int b = 0; b < count; ++b)
            parts[k][b] =
                k < n ? weight * load<double, lanes>(rows + k * stride + b * lanes) : none();
    }
    int i = 4;
    for (; i + 4 <= n; i += 4)
        for (int k = 0; k < 4; ++k)
            add(k, i + k);
    if (i < n) add(0, i);
    if (i + 1 < n) add(1, i + 1);
    if (i + 2 < n) add(2, i + 2);
    for (int b = 0; b < count; ++b)
        sums[b] = (parts[0][b] + parts[1][b]) + (parts[2][b] + parts[3][b]);
}

// Two blocks share each weight where registers hold their partial sums.
constexpr int blocksAtOnce = registerBytes == 64 ? 2 : 1;

VSQ_INLINE int paddedTo8(int n) {
    return (n + lanes - 1) / lanes * lanes;
}

// Outputs of eight states; 0 after the last one.
VSQ_INLINE States outputsFrom(const float* outputs, int n, int j) {
    return j + lanes <= n ? widened<true>(outputs + j, 0) : widened<false>(outputs + j, n - j);
}

// finish(j, sums) for every block of eight targets, of which there are `blocks` (0: as many as n
// says); returns the sum of what it gives, block by block.
template <int blocks, class Finish>
VSQ_INLINE double eachBlock(const double* rows, int n, const double* weights,
                            const Finish& finish) {
    const int stride = blocks != 0 ? blocks * lanes : paddedTo8(n);
    States total = none(), sums[blocksAtOnce];
    int j = 0;
    for (; j + blocksAtOnce * lanes <= stride; j += blocksAtOnce * lanes) {
        weightedSums<blocksAtOnce>(rows + j, stride, n, weights, sums);
        for (int b = 0; b < blocksAtOnce; ++b)
            total = total + finish(j + b * lanes, sums[b]);
    }
    if (j < stride) {
        weightedSums<1>(rows + j, stride, n, weights, sums);
        total = total + finish(j, sums[0]);
    }
    return sumLanes(total);
}

template <int blocks>
VSQ_INLINE double forwardUnpacked(const HmmStored& model, const float* outputs,
                                  const double* current, double* next) {
    return eachBlock<blocks>(model.unpacked.bySource, model.nStates, current,
                             [&](int j, const States& reached) VSQ_LAMBDA {
                                 const States values =
                                     reached * outputsFrom(outputs, model.nStates, j);
                                 store(next + j, values);
                                 return values;
                             });
}

template <int blocks>
VSQ_INLINE double backwardUnpacked(const HmmStored& model, const float* outputs,
                                   const double* values, double* before) {
    const int n = model.nStates;
    double* ahead = model.unpacked.ahead;
    const int stride = blocks != 0 ? blocks * lanes : paddedTo8(n);
    for (int j = 0; j < stride; j += lanes)
        store(ahead + j, outputsFrom(outputs, n, j) * load<double, lanes>(values + j));
    return eachBlock<blocks>(model.unpacked.byTarget, n, ahead,
                             [&](int i, const States& reaching) VSQ_LAMBDA {
                                 store(before + i, reaching);
                                 return reaching;
                             });
}

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

struct Band {
    static VSQ_INLINE double forward(const HmmStored& m, const float* b, const double* p,
                                     double* q) {
        return forwardBand(m, b, p, q);
    }
    static VSQ_INLINE double backward(const HmmStored& m, const float* b, const double* q,
                                      double* p) {
        return backwardBand(m, b, q, p);
    }
};
template <bool triangular, bool padded>
struct Matrix {
    static VSQ_INLINE double forward(const HmmStored& m, const float* b, const double* p,
                                     double* q) {
        return forwardMatrix<triangular, padded>(m, b, p, q);
    }
    static VSQ_INLINE double backward(const HmmStored& m, const float* b, const double* q,
                                      double* p) {
        return backwardMatrix<triangular, padded>(m, b, q, p);
    }
};

// `blocks` of eight states, or any number of them when it is 0.
template <int blocks>
struct Unpacked {
    static VSQ_INLINE double forward(const HmmStored& m, const float* b, const double* p,
                                     double* q) {
        return forwardUnpacked<blocks>(m, b, p, q);
    }
    static VSQ_INLINE double backward(const HmmStored& m, const float* b, const double* q,
                                      double* p) {
        return backwardUnpacked<blocks>(m, b, q, p);
    }
};

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
