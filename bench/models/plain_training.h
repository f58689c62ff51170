// One Baum-Welch iteration in plain double loops, scaled frame by frame as textbooks do it.
#pragma once

#include <vector>

namespace plain {

struct Chain {
    int n;
    // a state leads to itself and the next width - 1 states; n: to all states
    int width;
    std::vector<double> pi; // n
    std::vector<double> a;  // n rows of n
};

struct Discrete {
    Chain chain;
    int nSymbols;
    std::vector<double> b; // n rows of nSymbols
};

// Diagonal mixtures, nMix components for each state.
struct Continuous {
    Chain chain;
    int nMix, nDim;
    std::vector<double> weights;  // n rows of nMix
    std::vector<double> means;    // n * nMix rows of nDim
    std::vector<double> inverses; // the same
};

// All return the greatest change of a parameter.
double trainDiscrete(Discrete& model, const int* const* sequences, const int* lengths, int count);
double trainContinuous(Continuous& model, const float* const* const* sequences, const int* lengths,
                       int count);

// The same for full models of up to 12 states, whose sums stay in registers.
double trainDiscreteLanes(Discrete& model, const int* const* sequences, const int* lengths,
                          int count);

} // namespace plain
