// The tree as quantising runs over it: one plane a node, children side by side. It decides as the
// distances do, or says where they have to.
#pragma once

#include "quantisers/Kt_cdbk.h"
#include "quantisers/points.h"

namespace ktl::codebook {

// Long vectors do without: their distances are quick beside the steps around them, and points of
// theirs would need scratch of their own.
constexpr int longestOfDescent = 64;
constexpr bool hasDescent(int nDim) {
    return nDim <= longestOfDescent;
}

// The planes of a codebook whose tree stands, in the given frame, which is copied; null when memory
// ran out.
template <class Sample>
KTDescent* makeDescent(const KTCodebook& codebook, const Frame& frame, double unit);
void freeDescent(KTDescent* descent); // null is allowed

// Takes rows down from the root: many of them together, a few in a small group, and so, too, where
// memory for more ran out.
template <class Sample>
class Descents {
public:
    // What a call that quantises `wanted` rows needs. Without a descent every row stays at the
    // root.
    Descents(const KTCodebook& codebook, const KTDescent* descent, int wanted);

    int size() const { return size_; } // the rows that can be taken at a time

    // Takes `count` rows, at most size().
    void take(const Sample* const* rows, int count);

    // Row i has reached a leaf, or the node where the distances must decide.
    const KTCluster* nodeOf(int i) const;

private:
    bool allocate(int size);
    void takeGroup(const Sample* const* rows, int count);
    void takeTogether(const Sample* const* rows, int count);

    const KTDescent* descent_;
    const KTCluster* root_;
    int size_ = vsq::descendGroup;
    bool isTogether_ = false;
    int group_[vsq::descendGroup];
    AlignedScratch<float> points_;
    Scratch<float> reaches_;
    Scratch<int> places_, nodes_;
    Scratch<vsq::DescentRoom::Pending> pending_;
};

} // namespace ktl::codebook
