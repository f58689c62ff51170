// What speeds tree codebooks up without changing a decision: float copies of the vectors relative to a
// centre, bounds on their distances, and the search for the farthest pair. Wherever a bound cannot decide,
// the distance itself does.
#pragma once

#include "frame/scratch.h"

#include "levels/levels.h"

namespace ktl::codebook {

// The vectors as rows of either flavour, and their distance; integer distances are exact in a double.
struct Vectors {
    const void* ppVectors;
    int nVectors;
    int nDim;
    double (*distance)(const Vectors& vectors, int first, int second);
    double unit; // 1 where distances are truncated to integers, otherwise 0
};

struct FarPair {
    double spread = 0;
    int first = 0, second = 0; // places in the list of members, first < second unless both are 0
};

int strideFor(int nDim); // the floats of a point: nDim rounded up to whole groups of 16

// A bound on the length of a point from the sum of its squares; infinite when the bounds do not hold so far
// out.
float reachOf(float squares, int nDim);

// The plane between two seeds, in coordinates relative to `centre`; normal gets `stride` floats.
template <class Sample>
vsq::Plane planeBetween(const Sample* left, const Sample* right, const float* centre, int nDim, double unit,
                        float* normal);

// The plane of a leaf: every point is to its left.
vsq::Plane planeOfLeaf();

// The scratch of one training, sized to the training set.
class Points {
public:
    // False when memory ran out. `centre` has nDim floats and is copied; elements that are not finite become
    // 0.
    template <class Sample>
    bool take(const Vectors& set, const Sample* const* rows, const Sample* centreOfSet);

    const float* centre() const { return centre_.get(); }
    float* normal() { return normal_.get(); }
    char* labels() { return labels_.get(); }
    int stride() const { return stride_; }

    // labels()[i] becomes 'L' or 'R', or '?' where the distances have to decide, for the n members.
    void label(const int* members, int n, const vsq::Plane& plane);

    // The first pair, in the order of the plain double loop over the list, among those at the largest
    // distance above 0; (0, 0) without one. The spread is that of the pair.
    FarPair farthest(const int* members, int n);

private:
    struct Candidate {
        double radius;
        unsigned hash; // of the point's bits: brings equal points together
        int place;
    };
    struct Cuts {     // what a pair must reach to matter, each with its margin for rounding
        double radii; // sum of the two radii
        float limit;  // squared distance
        float above;  // squared distance that may be a larger distance, not only an equal one
    };
    class Search;

    const float* pointOf(int member) const { return points_.get() + std::ptrdiff_t(member) * stride_; }

    Vectors set_{};
    int stride_ = 0;
    Scratch<float> points_, centre_, normal_, reach_, squares_, blocks_;
    Scratch<double> sums_;
    Scratch<Candidate> candidates_;
    Scratch<int> order_; // members of one block, and the smallest place of each block
    Scratch<char> labels_;
};

} // namespace ktl::codebook
