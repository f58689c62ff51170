// The loops that the mixtures are compared with: in double as a textbook writes them, and in float
// as a user in a hurry would, with as many mixtures side by side as a register holds.
#pragma once

#include <vector>

namespace plain {

// Sum over mixtures of weight * exp(-q / 2), q over full symmetric matrices: matrices[k][i][j].
double fullMixture(const float* x, const float* const* means, const float* const* const* matrices,
                   const float* weights, int nDim, int nMix);

// Diagonal mixtures in lanes: element i of all mixtures, then element i + 1. The number of mixtures
// is padded to whole registers with mixtures of weight 0.
class LaneMixture {
public:
    LaneMixture(const float* const* means, const float* const* inverses, const float* weights,
                int nDim, int nMix);
    float likelihood(const float* x);
    // The same with the forms in memory, as the compiler vectorises it.
    float likelihoodByLoop(const float* x);
    // -log10 of the product of the likelihoods of several frames, four frames in one pass over the
    // mixtures.
    double cost(const float* const* frames, int nFrames);

private:
    int nDim, nPadded;
    std::vector<float> means, inverses, weights, forms;
};

// log of the sum over k of exp(values[k]).
float logSumExp(const float* values, int n);

} // namespace plain
