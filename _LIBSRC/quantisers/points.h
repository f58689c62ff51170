// What speeds tree codebooks up without changing a decision: float copies of the vectors relative
// to a centre, bounds on their distances, and the search for the farthest pair. Wherever a bound
// cannot decide, the distance itself does.
//
// Bounds are worth something only where the copies keep what tells the vectors apart. So the centre
// is one that stray vectors do not move, magnitudes far from 1 are scaled, a list of vectors that
// the common frame does not suit gets a frame of its own, and vectors that are not finite are set
// aside.
#pragma once

#include "frame/scratch.h"

#include "levels/levels.h"

namespace ktl::codebook {

// The vectors as rows of either numeric form, and their distance; integer distances are exact in a
// double.
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
    // whether the search has left the members' points in a frame of their own
    bool hasOwnFrame = false;
};

// A coordinate of a point is element * factor - centre. The factor is a power of two; it is 1 in
// the fixed form.
struct Frame {
    const float* centre; // nDim floats
    float factor;
};

int strideFor(int nDim); // the floats of a point: nDim rounded up to whole groups of 16

// Writes the point of a row and returns the sum of its squares.
float makePoint(const float* row, const Frame& frame, int nDim, float* point, int stride);
float makePoint(const short* row, const Frame& frame, int nDim, float* point, int stride);

// The same for n rows, whose points stand one after the other.
void makePoints(const float* const* rows, int n, const Frame& frame, int nDim, float* points,
                int stride, float* squares);
void makePoints(const short* const* rows, int n, const Frame& frame, int nDim, float* points,
                int stride, float* squares);

// A bound on the length of a point from the sum of its squares; infinite when the bounds do not
// hold so far out.
float reachOf(float squares, int nDim);
void toReaches(float* squares, int n, int nDim); // each in place

// The plane between two seeds, in the coordinates of the frame; normal gets `stride` floats.
template <class Sample>
vsq::Plane planeBetween(const Sample* left, const Sample* right, const Frame& frame, int nDim,
                        double unit, float* normal);

// The plane of a leaf: every point is to its left.
vsq::Plane planeOfLeaf();

// The scratch of one training, sized to the training set.
template <class Sample>
class Points {
public:
    bool take(const Vectors& set, const Sample* const* rows); // false when memory ran out

    Frame common() const { return {centres_.get(), factors_[0]}; }
    // the selected one
    Frame frame() const { return isOwn_ ? Frame{ownCentre(), factors_[1]} : common(); }
    float* normal() { return normal_.get(); }
    char* labels() { return labels_.get(); }

    // Selects the frame that the members' points stand in. A frame of their own is set up again,
    // points included; one at a time is remembered.
    void select(const int* members, int n, bool hasOwnFrame);

    // labels()[i] becomes 'L' or 'R', or '?' where the distances have to decide, for the n members.
    void label(const int* members, int n, const vsq::Plane& plane);

    // The first pair, in the order of the plain double loop over the list, among those at the
    // largest distance above 0; (0, 0) without one. The spread is that of the pair. `hasOwnFrame`
    // tells whether the members' points stand in another frame than the common one.
    FarPair farthest(const int* members, int n, bool hasOwnFrame = false);

private:
    // missing: an element is NaN
    enum Kind : unsigned char { finite, infinite, missing };
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
    struct Pattern { // which elements are infinite; elements 64 apart share a bit
        std::uint64_t positive, negative;
        int place;
    };
    class Search;

    const float* pointOf(int member) const {
        return points_.get() + std::ptrdiff_t(member) * stride_;
    }
    float* ownCentre() const { return centres_.get() + stride_; }
    bool allocate(std::uint64_t n);
    bool sortOut();
    void chooseCommonFrame();
    void chooseOwnFrame(const int* members, int n);
    void makePoints(const int* members, int n);
    FarPair search(const int* members, int n);
    FarPair searchFinite(const int* members, int n);
    FarPair firstInfinitePair(const int* members, int n);
    FarPair firstPairOfPatterns(const int* members, int n);
    bool isInfinite(const int* members, int i, int j) const;
    Pattern patternOf(int member, int place) const;

    Vectors set_{};
    const Sample* const* rows_ = nullptr;
    int stride_ = 0;
    bool isOwn_ = false, hasStrange_ = false;
    float factors_[2] = {1, 1}; // of the common frame and of the own one, as the centres
    Scratch<float> points_, centres_, normal_, reach_, squares_, blocks_;
    Scratch<double> sums_;
    Scratch<Candidate> candidates_;
    Scratch<int> slots_;    // candidates in the order of blocks_
    Scratch<int> order_;    // the smallest place of each block
    Scratch<float> boxes_;  // around blocks, and after them around whole blocks of those boxes
    Scratch<int> boxOrder_; // the smallest place of each of the latter
    Scratch<char> labels_;
    Scratch<Kind> kinds_;
    // Where there are vectors that are not finite: those of a list that are, and their places.
    Scratch<int> kept_;
    Scratch<Pattern> patterns_;
};

} // namespace ktl::codebook
