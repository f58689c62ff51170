// Plain loops for hidden Markov models, as an application would write them: dense row-major transitions, one
// output row for each symbol.
#pragma once

namespace plain {

// -log10 of the likelihood, with a rescale by the sum in every frame. `band` is the farthest target above a
// source (0 .. nStates - 1) for left-to-right models, -1 for a full matrix. `alpha` has 2 * nStates elements.
float forward(const float* trans, const float* const* outputs, const float* initial, int nStates, int band,
              const int* symbols, int nFrames, float* alpha);
double forward(const double* trans, const double* const* outputs, const double* initial, int nStates,
               int band, const int* symbols, int nFrames, double* alpha);

// The cost of the best path; everything in costs.
float viterbi(const float* trans, const float* const* outputs, const float* initial, int nStates, int band,
              const int* symbols, int nFrames, float* delta);

} // namespace plain
