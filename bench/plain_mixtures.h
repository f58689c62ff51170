// The loops that the mixtures are compared with, as a user would write them in double.
#pragma once

namespace plain {

// Sum over mixtures of weight * exp(-q / 2), q over full symmetric matrices: matrices[k][i][j].
double fullMixture(const float* x, const float* const* means, const float* const* const* matrices,
                   const float* weights, int nDim, int nMix);

} // namespace plain
