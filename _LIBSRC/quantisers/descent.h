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

// Takes up to descendGroup rows down from the root: nodes[i] is a leaf, or the node where the
// distances must decide.
template <class Sample>
void descendWhileSure(const KTDescent& descent, const Sample* const* rows, int count,
                      const KTCluster** nodes);

} // namespace ktl::codebook
