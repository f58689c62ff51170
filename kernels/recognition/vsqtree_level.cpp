// Loops of the tree codebook over float points: sides of planes, descents through a tree of planes,
// and bounds for the farthest pair. What rounding leaves in doubt is said, not guessed; so sums may
// have any order here.
#include "recognition/vsqtree_level.h"
#include "simd/pack.h"

namespace vsq::VSQ_LEVEL {
namespace {

constexpr int lanes = 16;
using Floats = Pack<float, lanes>;

// --- points ---

VSQ_INLINE float squaredLength(const float* p, int stride) {
    Floats total = splat<float, lanes>(0);
    for (int k = 0; k < stride; k += lanes) {
        const Floats part = load<float, lanes>(p + k);
        total = total + part * part;
    }
    return sumLanes(total);
}

VSQ_INLINE float finishPoint(int nDim, float* p, int stride) {
    for (int k = nDim; k < stride; ++k)
        p[k] = 0;
    return squaredLength(p, stride);
}

float pointFloat(const float* src, float factor, const float* centre, int nDim, float* p,
                 int stride) {
    for (int k = 0; k < nDim; ++k)
        p[k] = src[k] * factor - centre[k];
    return finishPoint(nDim, p, stride);
}

float pointFixed(const short* src, const float* centre, int nDim, float* p, int stride) {
    for (int k = 0; k < nDim; ++k)
        p[k] = float(src[k]) - centre[k];
    return finishPoint(nDim, p, stride);
}

void addFloat(const float* src, double* sums, int nDim) {
    for (int k = 0; k < nDim; ++k)
        sums[k] += double(src[k]);
}

void addFixed(const short* src, double* sums, int nDim) {
    for (int k = 0; k < nDim; ++k)
        sums[k] += double(src[k]);
}

// --- sides of planes ---

VSQ_INLINE float product(const float* p, const float* normal, int stride) {
    Floats total = load<float, lanes>(p) * load<float, lanes>(normal);
    for (int k = lanes; k < stride; k += lanes)
        total = total + load<float, lanes>(p + k) * load<float, lanes>(normal + k);
    return sumLanes(total);
}

struct Side {
    bool left, right;
};

VSQ_INLINE Side sideOf(const float* p, float reach, const float* normal, const Plane& plane,
                       int stride) {
    const float value = product(p, normal, stride) + plane.offset;
    const float margin = plane.base + reach * (plane.slope + reach * plane.curve);
    return {value > margin + (plane.lead + reach * plane.leadSlope), value < -margin};
}

void sides(const float* points, const float* reach, int stride, const int* members, int n,
           const float* normal, const Plane* plane, char* labels) {
    for (int i = 0; i < n; ++i) {
        const int m = members[i];
        const Side side =
            sideOf(points + std::ptrdiff_t(m) * stride, reach[m], normal, *plane, stride);
        labels[i] = side.right ? 'R' : side.left ? 'L' : '?';
    }
}

// The 8 descents are independent, and a step has no branch that the data decide, so that they
// overlap.
void descend(const PlaneTree* tree, const float* points, const float* reach, int* nodes) {
    const int stride = tree->stride;
    int at[descendGroup];
    for (int i = 0; i < descendGroup; ++i)
        at[i] = nodes[i];
    int moved;
    do {
        moved = 0;
        for (int i = 0; i < descendGroup; ++i) {
            const int node = at[i];
            const Side side =
                sideOf(points + i * stride, reach[i], tree->normals + std::ptrdiff_t(node) * stride,
                       tree->planes[node], stride);
            int next = tree->children[node] + side.right;
            if (__builtin_expect(!(side.left | side.right), 0)) {
                nodes[i] = node == tree->parking ? nodes[i] : ~node; // some are in doubt even there
                next = tree->parking;
            }
            moved |= next ^ node;
            at[i] = next;
        }
    } while (moved);
    for (int i = 0; i < descendGroup; ++i)
        nodes[i] = at[i] == tree->parking ? nodes[i] : at[i];
}

// --- farthest pair ---

void squaresFrom(const float* points, int stride, const int* members, int n, const float* from,
                 float* squares) {
    for (int i = 0; i < n; ++i) {
        const float* p = points + std::ptrdiff_t(members[i]) * stride;
        Floats total = splat<float, lanes>(0);
        for (int k = 0; k < stride; k += lanes) {
            const Floats difference = load<float, lanes>(p + k) - load<float, lanes>(from + k);
            total = total + difference * difference;
        }
        squares[i] = sumLanes(total);
    }
}

void transposeBlock(const float* points, int stride, const int* members, int nDim, float* block) {
    for (int i = 0; i < pointBlock; ++i) {
        const float* p = points + std::ptrdiff_t(members[i]) * stride;
        for (int k = 0; k < nDim; ++k)
            block[k * pointBlock + i] = p[k];
    }
}

int nextFar(const float* p, const float* coordinates, int nDim, int block, int end, float limit,
            float above, unsigned* masks) {
    constexpr unsigned all = (1u << pointBlock) - 1;
    const Floats limits = splat<float, lanes>(limit);
    for (; block < end; ++block) {
        const float* c = coordinates + std::ptrdiff_t(block) * pointBlock * nDim;
        Floats squares = splat<float, lanes>(0);
        for (int k = 0; k < nDim; ++k) {
            const Floats difference =
                splat<float, lanes>(p[k]) - load<float, lanes>(c + k * pointBlock);
            squares = squares + difference * difference;
        }
        masks[0] = laneBits(squares < limits) ^ all;
        if (masks[0] != 0) {
            masks[1] = laneBits(squares < splat<float, lanes>(above)) ^ all;
            return block;
        }
    }
    return end;
}

void farBoxes(const float* p, const float* mirrored, float twice, const float* block, int nDim,
              float limit, float above, unsigned* masks) {
    constexpr unsigned all = (1u << boxBlock) - 1;
    const auto zero = splat<float, lanes>(0);
    Floats corner = zero, gap = zero;
    for (int k = 0; k < nDim; ++k) {
        const Floats low = load<float, lanes>(block + 2 * boxBlock * k);
        const Floats high = load<float, lanes>(block + 2 * boxBlock * k + boxBlock);
        const auto own = splat<float, lanes>(p[k]), other = splat<float, lanes>(mirrored[k]);
        const Floats farther = larger(own - low, high - own);
        const Floats nearer = larger(larger(low - other, other - high), zero);
        corner = corner + farther * farther;
        gap = gap + nearer * nearer;
    }
    const Floats reach = load<float, lanes>(block + 2 * boxBlock * nDim);
    const Floats bound = smaller(corner, splat<float, lanes>(twice) + reach - gap);
    masks[0] = laneBits(bound < splat<float, lanes>(limit)) ^ all;
    masks[1] = laneBits(bound < splat<float, lanes>(above)) ^ all;
}

} // namespace

extern const TreeKernels treeKernels{
    .pointFloat = pointFloat,
    .pointFixed = pointFixed,
    .addFloat = addFloat,
    .addFixed = addFixed,
    .sides = sides,
    .descend = descend,
    .squaresFrom = squaresFrom,
    .transposeBlock = transposeBlock,
    .nextFar = nextFar,
    .farBoxes = farBoxes,
};

} // namespace vsq::VSQ_LEVEL
