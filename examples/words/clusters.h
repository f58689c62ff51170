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

// / Groups frames around n means: the cells of a tree codebook, refined by rounds of k-means / (S.
// P. Lloyd, Least Squares Quantization in PCM, 1982). There are fewer clusters if there are fewer
// frames.
Clusters cluster(const Frames& frames, int nDimensions, int n);

/// Training frames evenly picked from all utterances, at most `limit` of them.
Frames someFrames(const TrainingSet& training, int limit);

// / The frames of a word's utterances by state, each utterance being cut into equal parts. Where
// all of them are shorter than / there are states, a state without frames shares those of the state
// before.
std::vector<Frames> framesByState(const TrainingSet& training, int word, int nStates);

// / Inverse variances of the frames around their clusters, one per dimension for all Gaussians. / /
// `flattening` widens all variances. A Gaussian's likelihood falls with the square of the distance,
// and over a few dozen / dimensions so fast that most of them leave the range of 16 bits, and many
// that of floats. A wider Gaussian is a root of the / narrow one: what is more likely stays so, and
// more of it can be told apart.
std::vector<float> sharedInverseVariances(const std::vector<Frames>& groups,
                                          const std::vector<Clusters>& clusters, int nDimensions,
                                          float flattening);

// / The finest scale for these inverse variances in fixed point: they have to fit in 16 bits, and
// the quadratic form of a / frame and a mean, which have `meanScale`, in 31. The largest form is
// taken to be that of two frames at opposite ends of / what the training has seen.
int inverseVarianceScale(const TrainingSet& training, const std::vector<float>& inverseVariances,
                         int meanScale);

} // namespace words
