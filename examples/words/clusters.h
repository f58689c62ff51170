// Groups of similar feature vectors: what quantisers and mixtures begin with.
#pragma once

#include "recogniser.h"

namespace words {

using Frames = std::vector<const float*>;

struct Clusters {
    Matrix<float> means;     ///< one row a cluster
    std::vector<int> counts; ///< of frames
    std::vector<int> labels; ///< for each frame its cluster, from 0
};

/// Groups frames around n means: the cells of a tree codebook, refined by rounds of k-means
/// (S. P. Lloyd, Least Squares Quantization in PCM, 1982). There are fewer clusters if there are fewer frames.
Clusters cluster(const Frames& frames, int nDimensions, int n);

/// Training frames evenly picked from all utterances, at most `limit` of them.
Frames someFrames(const TrainingSet& training, int limit);

/// The frames of a word's utterances by state, each utterance being cut into equal parts.
std::vector<Frames> framesByState(const TrainingSet& training, int word, int nStates);

/// A Gaussian's likelihood falls with the square of the distance, and so fast that products over a few dozen dimensions leave
/// the range of 16 bits and then that of floats. Widening all variances by this factor takes a root of all likelihoods:
/// what is more likely stays so.
inline constexpr float flattening = 3.0f;

/// Inverse variances of the frames around their clusters, one per dimension for all Gaussians, flattened.
std::vector<float> sharedInverseVariances(const std::vector<Frames>& groups,
                                          const std::vector<Clusters>& clusters, int nDimensions);

} // namespace words
