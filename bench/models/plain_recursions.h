// Recursions of hidden Markov models in float, as an application would write them; one output row
// for each symbol.
#pragma once

#include <vector>

namespace plain {

// Dense row-major transitions. -log10 of the likelihood, with a rescale by the sum where it has
// become small. `band` is the farthest target above a source (0 .. nStates - 1) for left-to-right
// models, -1 for a full matrix. `alpha` has 2 * nStates elements.
float forward(const float* trans, const float* const* outputs, const float* initial, int nStates,
              int band, const int* symbols, int nFrames, float* alpha);

// The cost of the best path; everything in costs.
float viterbi(const float* trans, const float* const* outputs, const float* initial, int nStates,
              int band, const int* symbols, int nFrames, float* delta);

// The same with the states in registers, up to 32 of them: diagonals for models whose states lead
// to themselves and the next two, rows for all others.
class LaneModel {
public:
    // The domain decides what stands where there is nothing: 0 among probabilities, `nothing` among
    // costs.
    LaneModel(const float* trans, const float* const* outputs, int nSymbols, const float* initial,
              int nStates, bool isBanded, float nothing);
    float forward(const int* symbols, int nFrames) const;
    float viterbi(const int* symbols, int nFrames) const;

private:
    static constexpr int width = 32;
    bool isBanded, isNarrow;
    int nStates;
    float nothing;
    std::vector<float> rows;    // one row of `width` a source; banded: one a diagonal, by target
    std::vector<float> outputs; // one a symbol
    std::vector<float> initial;
};

} // namespace plain
