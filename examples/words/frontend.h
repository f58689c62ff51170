// From samples to feature vectors, in float and in 16-bit fixed point: the front end, and the
// program's policy about it.
#pragma once

#include "audio.h"
#include "library.h"
#include "matrix.h"

namespace words {

/// What can be left out, to see what it is good for.
struct FrontEnd {
    bool trim = true;              ///< cut off silence at both ends
    bool deltas = true;            ///< add how the cepstra move, and how that changes
    bool normaliseMean = true;     ///< take each feature's mean over the utterance away
    bool normaliseVariance = true; ///< bring each feature to a deviation of 1 over the utterance

    bool operator==(const FrontEnd&) const = default;
};

inline constexpr int nCepstra = 13;
inline constexpr int nFilters = 24;
inline constexpr int lowFrequency = 100; // of the filters, Hz
inline constexpr int highFrequency = 3800;
inline constexpr int featureLimit = 6;  // normalised features end at six deviations
inline constexpr int featureScale = -7; // fixed-point features are stored * 2^-7

class FeatureExtractor {
public:
    explicit FeatureExtractor(const FrontEnd& frontEnd);

    int dimensions() const { return frontEnd.deltas ? 3 * nCepstra : nCepstra; }

    // / What the features are computed of: the samples without silence at both ends, brought to
    // full level.
    Samples speech(const Samples& samples) const;

    /// One row for every 10 ms. Throws Failure for an utterance shorter than one frame.
    Matrix<float> real(const Samples& samples) const;
    Matrix<short> fixed(const Samples& samples) const;

    // / For pictures: the logarithms of the mel filters' outputs, and the cepstra before
    // normalisation.
    Matrix<float> melEnergies(const Samples& samples) const;
    Matrix<float> cepstra(const Samples& samples, int nCoefficients = nCepstra) const;

private:
    FrontEnd frontEnd;
    Filters filters;
    std::vector<float> window;
    std::vector<short> fixedWindow;
};

} // namespace words
