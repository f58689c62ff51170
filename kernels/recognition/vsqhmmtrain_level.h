// What re-estimating a hidden Markov model does once per frame: the forward and backward variables
// of a whole observation sequence, and the sums over frames that are formed from them. Everything
// is double precision; a sum over states or frames has one fixed order.
#pragma once

#include "levels/levelrecord.h"
#include "recognition/vsqhmm_level.h"

#include <cstddef>

namespace vsq {

// Rows of states are padded to whole groups of this many elements.
inline constexpr int hmmTrainLanes = 8;

// A full model's transitions as doubles in both directions, in rows padded to hmmTrainLanes:
// bySource[i * stride + j], byTarget[j * stride + i]. Both passes then run along rows, which is the
// fastest way for models that are used often; null pointers where nobody has prepared them. `ahead`
// is a padded row that the backward pass writes.
struct HmmUnpacked {
    const double* bySource;
    const double* byTarget;
    double* ahead;
};

// A model as it is stored, by source state.
//   full: trans[i * nStates + j]
//   triangular: row after row a(i,i) .. a(i,nStates-1)
//   banded: trans[3 * i + j - i] for j up to i + 2
// A register's length after the arrays is readable.
struct HmmStored {
    HmmTopology topology;
    int nStates;
    const float* trans;
    const float* initials;
    HmmUnpacked unpacked;
};

// The output values of all states in all frames: rows[symbols[t]] where there are symbols,
// otherwise values + t * stride. A row holds nStates values; nothing is read beyond them.
struct HmmOutputs {
    const float* const* rows;
    const int* symbols;
    const float* values;
    std::ptrdiff_t stride;
};

// Forward and backward variables, nFrames rows each. A row takes `stride` elements: exactly
// nStates, or those padded to hmmTrainLanes, with a padding that was 0 at first and stays so.
struct HmmLattice {
    double* alpha;
    double* beta;
    // nFrames factors, powers of two, that have been applied to alpha at their frame
    double* scales;
    std::ptrdiff_t stride;
    int nFrames;
};

struct HmmTrainKernels {
    // Fills the lattice and returns the likelihood times 2^exponent, which is above 0. Otherwise
    // the exponent is left alone and the result says what stopped the recursion: 0.0 when a sum
    // over states vanished, -1.0 when it was negative or beyond the doubles.
    double (*forwardBackward)(const HmmStored& model, const HmmOutputs& outputs,
                              const HmmLattice& lattice, int* exponent);

    // The functions below need padded lattices.

    // sums[i] = sum over all frames but the last of alpha(t, i) * beta(t, i), for a padded row.
    void (*occupancies)(const HmmLattice& lattice, double* sums);

    // sums[symbols[t] * stride + i] += alpha(t, i) * beta(t, i) * weight, for padded rows.
    void (*symbolOccupancies)(const HmmLattice& lattice, const int* symbols, double weight,
                              double* sums);

    // sums(i, j) = sum over t from 1 of alpha(t-1, i) * b_j(t) * beta(t, j) * scales[t], in rows of
    // the lattice's stride for full and triangular models (below the diagonal of a triangle:
    // anything), at 3 * i + j - i for banded ones.
    void (*transitions)(const HmmStored& model, const HmmOutputs& outputs,
                        const HmmLattice& lattice, double* sums);

    // Puts in beta's place what each state's output at each frame is to be multiplied with to give
    // the state's occupancy: scales[t] * weight * beta(t, j) times the sum over i of alpha(t-1, i)
    // * a(i, j), or times the initial value in frame 0.
    void (*arrivals)(const HmmStored& model, const HmmLattice& lattice, double weight);

    // Both with arrivals in the lattice's beta. Components: probs[t][m] becomes its product with
    // the arrival of the state that m belongs to (starts[i] .. starts[i + 1] - 1 are those of state
    // i), which is also added to sums[m].
    void (*componentShares)(const HmmLattice& lattice, int nStates, const int* starts,
                            float* const* probs, double* sums);
    // sums[i * sumStride + k] += arrival(t, i) * densities[t][k] over all frames; rows and
    // sumStride are padded to hmmTrainLanes, densities are readable so far.
    void (*densityShares)(const HmmLattice& lattice, int nStates, const float* const* densities,
                          int count, double* sums, std::ptrdiff_t sumStride);

    // means[m][d] += shares[t][m] * frames[t][d] over all frames, one after the other in float;
    // nothing is read or written beyond nDim elements.
    void (*addFrames)(const float* const* frames, const float* const* shares, int nComponents,
                      int nFrames, int nDim, float* const* means);
};
VSQ_DECLARE_LEVELS(HmmTrainKernels, hmmTrainKernels)

} // namespace vsq
