// The loops of tree codebooks: which of two seeds is nearer, and which pair of points is the
// farthest.
//
// Everything here works on points: float copies of the vectors, scaled by a power of two and
// relative to one centre, `stride` floats each (a multiple of 16, filled up with zeros). Results
// are sound, not exact: where float arithmetic cannot tell what the distances themselves would say,
// the answer is "in doubt", and the caller asks the distances. So every decision is the one of the
// distances, whatever the order of summation here.
#pragma once

#include "levels/levelrecord.h"

namespace vsq {

// The plane halfway between two seeds L and R. For a point p of length at most `reach`, the value
//     v = |p - R|^2 - |p - L|^2 = p . normal + offset
// is computed with an error below margin = base + reach * (slope + reach * curve), which also
// covers the rounding of the two distances themselves. v < -margin: R is nearer. v > margin + lead
// + leadSlope * reach: L is nearer, by a whole unit where distances are truncated to integers.
// Anything else, NaNs included, is in doubt.
struct Plane {
    float offset;
    float base, slope, curve;
    float lead, leadSlope;
};

// A tree of planes. Node k has the normal normals[k * stride], the plane planes[k], and its
// children are children[k] (left) and children[k] + 1 (right). A leaf is its own left child, and
// its plane always says left.
struct PlaneTree {
    int stride;
    const float* normals;
    const Plane* planes;
    const int* children;
    int parking; // a leaf where points in doubt are left standing
};

// Working room for the descents of n points together; its contents mean nothing between calls. Each
// list has n + descentSlack elements.
constexpr int descentSlack = 16;
struct DescentRoom {
    struct List {
        int* places; // of a point: its first float, in units of 16 floats
        float* reaches;
    };
    struct Pending {
        int node, begin; // where its points begin in the first list
    };
    List lists[2];
    Pending* pending; // n elements: each has a point of its own
};

// Points for the farthest pair, transposed in blocks of 16: coordinate k of point i is
// coordinates[(i / 16) * 16 * nDim + k * 16 + i % 16].
constexpr int pointBlock = 16;

// Boxes around groups of points, in blocks of 16: for each coordinate k the 16 lower bounds at
// block[32 * k] and the 16 upper ones after them, and at block[32 * nDim] twice the largest
// squared length of a group's points, seen from a mirror: a point in space that the caller has
// chosen. An empty group has minus infinity there.
constexpr int boxBlock = 16;
constexpr int boxBlockSize(int nDim) {
    return boxBlock * (2 * nDim + 1);
}

struct TreeKernels {
    // Writes n points, one after the other: p[k] = row[k] * factor - centre[k] for k < nDim (the
    // factor of shorts is 1), zeros up to stride. squares[i] is the sum of point i's squares.
    void (*pointsFloat)(const float* const* rows, int n, float factor, const float* centre,
                        int nDim, float* points, int stride, float* squares);
    void (*pointsFixed)(const short* const* rows, int n, const float* centre, int nDim,
                        float* points, int stride, float* squares);

    // sums[k] += src[k]
    void (*addFloat)(const float* src, double* sums, int nDim);
    void (*addFixed)(const short* src, double* sums, int nDim);

    // For the n points points[members[i] * stride]: labels[i] becomes 'L', 'R', or '?' in doubt.
    void (*sides)(const float* points, const float* reach, int stride, const int* members, int n,
                  const float* normal, const Plane* plane, char* labels);

    // Takes 8 points, one after the other with their reaches, from nodes[i] down to a leaf; a point
    // in doubt at node k ends as ~k.
    void (*descend)(const PlaneTree* tree, const float* points, const float* reach, int* nodes);

    // Takes n points, one after the other, from the root down to a leaf, all that are at a node
    // together. Their reaches stand in the first list. nodes[i * stride / 16] becomes the leaf of
    // point i, or ~k where it is in doubt at node k.
    void (*descendTogether)(const PlaneTree* tree, const float* points, int n,
                            const DescentRoom* room, int* nodes);

    // squares[i] = squared distance of points[members[i] * stride] from the point `from`.
    void (*squaresFrom)(const float* points, int stride, const int* members, int n,
                        const float* from, float* squares);

    // Writes one block, transposed, of points[members[i] * stride] for 16 members.
    void (*transposeBlock)(const float* points, int stride, const int* members, int nDim,
                           float* block);

    // The first block from `block` on, below `end`, with a point whose squared distance from p is
    // not below `limit`; `end` if there is none. masks[0] has a bit for each such point of the
    // block, masks[1] one for each whose squared distance is not below `above` either.
    int (*nextFar)(const float* p, const float* coordinates, int nDim, int block, int end,
                   float limit, float above, unsigned* masks);

    // Which of 16 boxes may hold a point whose squared distance from p is not below `limit`
    // (masks[0]), and not below `above` (masks[1]). The distance is bounded by the far corner, and
    // by the parallelogram law:
    //     |p - q|^2 = 2 |p - m|^2 + 2 |q - m|^2 - |mirrored - q|^2,    mirrored = 2 m - p
    // for the mirror m, which says more of points on a sphere. `twice` is the first term.
    void (*farBoxes)(const float* p, const float* mirrored, float twice, const float* block,
                     int nDim, float limit, float above, unsigned* masks);
};
VSQ_DECLARE_LEVELS(TreeKernels, treeKernels)

constexpr int descendGroup = 8; // points that `descend` takes at a time

} // namespace vsq
