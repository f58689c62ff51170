// One frame of the forward and backward recursions of a training sequence, for each way in which a
// model is stored: full or triangular rows, a band, or unpacked into both directions; for level
// sources. Eight states at a time at every level, so that sums over states add in the same order
// everywhere.
#pragma once

#include "recognition/vsqhmmtrain_level.h"
#include "simd/pack.h"

namespace vsq::VSQ_LEVEL {
namespace {

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
            widened<all>(outputs + j, n - j) * doubles<(all || padded)>(values + j, n - j);
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

// --- the topologies, as the passes over a sequence take them ---

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

} // namespace
} // namespace vsq::VSQ_LEVEL
