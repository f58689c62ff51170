// The output values of a model's states, run of frames by run of frames, as the recursions of both
// evaluations take them: an array of row pointers, one for each frame, with values that follow each
// row readable up to a kernel's stride.
#pragma once

#include "frame/row_products.h"
#include "models/evaluation.h"

#include <array>

namespace hmm {

template <class T>
using RowRun = std::array<const T*, framesPerRun>;

// Discrete models: the stored row of the observed symbol, read in place. False for a symbol outside
// the alphabet.
template <class T>
bool discreteRows(const HMMServer* server, const int* symbols, int count, RowRun<T>& rows) {
    const T* const* stored = outputRows<const T>(server->outputs);
    for (int t = 0; t < count; ++t) {
        if (symbols[t] < 0 || symbols[t] >= server->nSymbols) return false;
        rows[std::size_t(t)] = stored[symbols[t]];
    }
    return true;
}

// Rows of a block of framesPerRun * hmmStride(n) elements.
template <class T>
void pointAtRows(T* block, int nStates, int count, RowRun<T>& rows) {
    for (int t = 0; t < count; ++t)
        rows[std::size_t(t)] = block + std::ptrdiff_t(t) * vsq::hmmStride(nStates);
}

// Continuous models, float: every state's mixture on the frame. T is double for likelihoods in the
// forward recursion, float for what becomes costs.
template <class T>
void mixtureRow(const HMMServer* server, const float* frame, T* row) {
    for (int i = 0; i < server->nStates; ++i)
        row[i] = static_cast<T>(KTsEvalGaussMix(server->mixtures[i], frame, server->nQuant));
}

// Semicontinuous models, float: every state's weights on the frame's densities.
inline void weightedRow(const HMMServer* server, const float* densities, float* row) {
    ktl::rowProducts(row, outputRows<const float>(server->outputs), densities, server->nStates,
                     server->nSymbols);
}

} // namespace hmm
