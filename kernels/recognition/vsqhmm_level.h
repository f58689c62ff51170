// The recursions over the frames of an observation sequence: forward probabilities and best-path
// costs of a hidden Markov model. The caller brings a small model into the shape given here, once
// for a whole sequence, or has it read as it is stored, and feeds in the output values of the
// states in runs of frames. The results are the same bits.
#pragma once

#include "levels/levelrecord.h"

namespace vsq {

// Vectors over states are padded to whole groups of this many lanes.
inline constexpr int hmmLanes = 16;
constexpr int hmmStride(int nStates) {
    return (nStates + hmmLanes - 1) / hmmLanes * hmmLanes;
}

enum class HmmTopology { full, triangular, banded };

// A model as the recursions walk it. T is double (forward), float or int (best path).
//   full, triangular: trans[i * stride + j] is the transition from i to j; what lies below a
//   triangle's
//   diagonal is 0 banded: three rows by target: trans[j] from j, trans[stride + j] from j - 1,
//   trans[2 *
//   stride + j] from j - 2
// The padding of rows is 0 and takes no part in any result.
template <class T>
struct HmmModel {
    HmmTopology topology;
    int nStates;
    int stride; // hmmStride(nStates)
    const T* trans;
};

// Full and triangular models as their owner stores them. What lies a vector of hmmLanes after the
// last element is readable.
//   probabilities: for each source i = 0, 1, ... the targets 0 .. n - 1, or i .. n - 1 of a
//   triangle
//   costs: for each target j = n - 1, n - 2, ... the sources 0 .. n - 1, or 0 .. j of a triangle,
//   in rows whose
//   lengths are rounded up to a multiple of `unit`, a power of two
struct HmmBySource {
    HmmTopology topology;
    int nStates;
    int stride; // hmmStride(nStates), of the vectors
    const float* trans;
};
template <class T>
struct HmmByTarget {
    HmmTopology topology;
    int nStates;
    int unit;
    const T* trans;
};

// Where a recursion stands after some frames. `current` and `other` are vectors of `stride`
// elements; each frame reads the first and writes the second, and then they change places.
struct HmmForward {
    double* current;
    double* other;
    double sum;   // of the current vector
    int exponent; // the current vector is scaled by 2^exponent
    bool failed;  // the sum left the range of doubles, or is zero, negative or denormal
};

template <class T>
struct HmmPath {
    T* current;
    T* other;
};

struct HmmKernels {
    // Advances by nFrames frames; rows[t] holds at least nStates output values of frame t, and what
    // follows them within hmmStride is readable. The vector is brought into range by an exact power
    // of two whenever its sum leaves [2^-128, 2^129), and after the last of these frames when
    // rescaleLast is set. Stops at the first failing frame.
    void (*forwardFloat)(const HmmModel<double>& model, const float* const* rows, int nFrames,
                         bool rescaleLast, HmmForward* state);
    void (*forwardDouble)(const HmmModel<double>& model, const double* const* rows, int nFrames,
                          bool rescaleLast, HmmForward* state);
    // Costs: next(j) = rows[t][j] + min over the sources i of (current(i) + trans(i, j)). Integer
    // sums wrap.
    void (*pathFloat)(const HmmModel<float>& model, const float* const* rows, int nFrames,
                      HmmPath<float>* state);
    void (*pathFixed)(const HmmModel<int>& model, const int* const* rows, int nFrames,
                      HmmPath<int>* state);

    // The same on models as they are stored.
    void (*storedForwardFloat)(const HmmBySource& model, const float* const* rows, int nFrames,
                               bool rescaleLast, HmmForward* state);
    void (*storedForwardDouble)(const HmmBySource& model, const double* const* rows, int nFrames,
                                bool rescaleLast, HmmForward* state);
    void (*storedPathFloat)(const HmmByTarget<float>& model, const float* const* rows, int nFrames,
                            HmmPath<float>* state);
    void (*storedPathFixed)(const HmmByTarget<int>& model, const int* const* rows, int nFrames,
                            HmmPath<int>* state);
};
VSQ_DECLARE_LEVELS(HmmKernels, hmmKernels)

} // namespace vsq
