#include "plain_mixtures.h"

#include <cmath>

double plain::fullMixture(const float* x, const float* const* means, const float* const* const* matrices,
                          const float* weights, int nDim, int nMix) {
    double likelihood = 0;
    for (int k = 0; k < nMix; ++k) {
        double q = 0;
        for (int i = 0; i < nDim; ++i) {
            double row = 0;
            for (int j = 0; j < nDim; ++j)
                row += double(matrices[k][i][j]) * (double(x[j]) - double(means[k][j]));
            q += row * (double(x[i]) - double(means[k][i]));
        }
        likelihood += double(weights[k]) * std::exp(-q / 2);
    }
    return likelihood;
}
