// Loops of the tree codebook over float points: sides of planes, descents through a tree of planes,
// and bounds for the farthest pair. What rounding leaves in doubt is said, not guessed; so sums may
// have any order here.
#include "recognition/vsqtree_level.h"
#include "simd/shuffle.h"

namespace vsq::VSQ_LEVEL {
namespace {

constexpr int lanes = 16;
using Floats = Pack<float, lanes>;

// --- points ---

struct FloatRow {
    const float* elements;
    Floats factor;
    VSQ_INLINE Floats at(int k) const { return load<float, lanes>(elements + k) * factor; }
    VSQ_INLINE Floats at(int k, int count) const {
        return loadPart<float, lanes>(elements + k, count) * factor;
    }
};

struct ShortRow {
    const short* elements;
    VSQ_INLINE static Floats floats(const Pack<std::int16_t, lanes>& words) {
        return convert<float>(convert<std::int32_t>(words));
    }
    VSQ_INLINE Floats at(int k) const { return floats(load<std::int16_t, lanes>(elements + k)); }
    VSQ_INLINE Floats at(int k, int count) const {
        if constexpr (registerBytes > 16) {
            return floats(loadPart<std::int16_t, lanes>(elements + k, count));
        } else { // a part of so few bytes takes longer than its elements one by one
            float copy[lanes] = {};
            for (int i = 0; i < count; ++i)
                copy[i] = float(elements[k + i]);
            return load<float, lanes>(copy);
        }
    }
};

template <class Source>
VSQ_INLINE float writePoint(const Source& row, const float* centre, int nDim, float* p) {
    Floats total = splat<float, lanes>(0);
    int k = 0;
    for (; k + lanes <= nDim; k += lanes) {
        const Floats part = row.at(k) - load<float, lanes>(centre + k);
        store(p + k, part);
        total = total + part * part;
    }
    if (k < nDim) {
        const Floats part = row.at(k, nDim - k) - loadPart<float, lanes>(centre + k, nDim - k);
        store(p + k, part);
        total = total + part * part;
    }
    return sumLanes(total);
}

void pointsFloat(const float* const* rows, int n, float factor, const float* centre, int nDim,
                 float* points, int stride, float* squares) {
    for (int i = 0; i < n; ++i)
        squares[i] = writePoint(FloatRow{rows[i], splat<float, lanes>(factor)}, centre, nDim,
                                points + std::ptrdiff_t(i) * stride);
}

void pointsFixed(const short* const* rows, int n, const float* centre, int nDim, float* points,
                 int stride, float* squares) {
    for (int i = 0; i < n; ++i)
        squares[i] =
            writePoint(ShortRow{rows[i]}, centre, nDim, points + std::ptrdiff_t(i) * stride);
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

// --- descents together ---

constexpr int rowsAtOnce = registerBytes / int(sizeof(float));
using Row = Pack<float, rowsAtOnce>; // a part of one point, or a value of each of several points
using Places = Pack<std::int32_t, rowsAtOnce>;

// Lane i of a where i has the bit `width` clear, of b where it is set; and lane i ^ width there.
template <int width>
constexpr int ownLane(int i, int n) {
    return (i & width) != 0 ? n + i : i;
}
template <int width>
constexpr int partnerLane(int i, int n) {
    return ownLane<width>(i, n) ^ width;
}

// Lane i of the result is the sum of the lanes of rows[i].
template <int width = rowsAtOnce / 2>
VSQ_INLINE Row sumsOf(Row* rows) {
    for (int i = 0; i < width; ++i) {
        const Row a = rows[i], b = rows[i + width];
        rows[i] = pick<ownLane<width>>(a, b) + pick<partnerLane<width>>(a, b);
    }
    if constexpr (width == 1)
        return rows[0];
    else
        return sumsOf<width / 2>(rows);
}

// One call of descendTogether. The room's first list holds the points that are on their way, each
// node's side by side.
struct Together {
    const PlaneTree& tree;
    const float* points;
    const DescentRoom& room;
    int* nodes;

    void start(int n) const {
        for (int i = 0; i < n; ++i)
            room.lists[0].places[i] = i * (tree.stride / lanes);
        // Whole registers are worked on. What lies after a list is any point, and is not looked at.
        for (int i = 0; i < descentSlack; ++i) {
            room.lists[0].places[n + i] = 0;
            room.lists[0].reaches[n + i] = 0;
        }
        for (int i = 0; i < n + descentSlack; ++i) {
            room.lists[1].places[i] = 0;
            room.lists[1].reaches[i] = 0;
        }
    }

    VSQ_INLINE Row products(const int* places, const float* normal) const {
        Row rows[rowsAtOnce];
        for (int i = 0; i < rowsAtOnce; ++i)
            rows[i] = load<float, rowsAtOnce>(points + std::ptrdiff_t(places[i]) * lanes) *
                      load<float, rowsAtOnce>(normal);
        for (int k = rowsAtOnce; k < tree.stride; k += rowsAtOnce)
            for (int i = 0; i < rowsAtOnce; ++i)
                rows[i] = rows[i] +
                          load<float, rowsAtOnce>(points + std::ptrdiff_t(places[i]) * lanes + k) *
                              load<float, rowsAtOnce>(normal + k);
        return sumsOf(rows);
    }

    void park(const int* places, unsigned doubts, int node) const {
        for (; doubts != 0; doubts &= doubts - 1)
            nodes[places[__builtin_ctz(doubts)]] = ~node;
    }

    void settle(int begin, int end, int node) const {
        for (int i = begin; i < end; ++i)
            nodes[room.lists[0].places[i]] = node;
    }

    // Leaves the points to the left from `begin` on, and those to the right in the second list.
    VSQ_INLINE void part(int node, int begin, int end, int& nLeft, int& nRight) const {
        const DescentRoom::List &list = room.lists[0], &right = room.lists[1];
        const Plane& plane = tree.planes[node];
        const float* const normal = tree.normals + std::ptrdiff_t(node) * tree.stride;
        const auto all = [](float value) VSQ_LAMBDA { return splat<float, rowsAtOnce>(value); };
        for (int i = begin; i < end; i += rowsAtOnce) {
            const unsigned live =
                end - i >= rowsAtOnce ? ~0u >> (32 - rowsAtOnce) : (1u << (end - i)) - 1;
            const Places places = load<std::int32_t, rowsAtOnce>(list.places + i);
            const Row reach = load<float, rowsAtOnce>(list.reaches + i);
            const Row value = products(list.places + i, normal) + all(plane.offset);
            const Row margin =
                all(plane.base) + reach * (all(plane.slope) + reach * all(plane.curve));
            const Row leftMargin = margin + (all(plane.lead) + reach * all(plane.leadSlope));
            const unsigned isLeft = laneBits(leftMargin < value) & live;
            const unsigned isRight = laneBits(value < all(0) - margin) & live;
            if (const unsigned doubts = live & ~(isLeft | isRight); doubts != 0)
                park(list.places + i, doubts, node);
            storeChosen(right.places + nRight, places, isRight);
            nRight += storeChosen(right.reaches + nRight, reach, isRight);
            storeChosen(list.places + begin + nLeft, places, isLeft);
            nLeft += storeChosen(list.reaches + begin + nLeft, reach, isLeft);
        }
    }

    // The second list's points after those of the first, which end at `end`.
    void append(int end, int count) const {
        const DescentRoom::List &list = room.lists[0], &right = room.lists[1];
        for (int i = 0; i < count; i += rowsAtOnce) {
            store(list.places + end + i, load<std::int32_t, rowsAtOnce>(right.places + i));
            store(list.reaches + end + i, load<float, rowsAtOnce>(right.reaches + i));
        }
    }
};

// Depth first, the children to the right first: the list ends with the points of the node at hand,
// and what is written after them spoils nothing.
void descendTogether(const PlaneTree* tree, const float* points, int n, const DescentRoom* room,
                     int* nodes) {
    const Together all{*tree, points, *room, nodes};
    all.start(n);
    DescentRoom::Pending* const pending = room->pending;
    pending[0] = {0, 0};
    for (int nPending = 1, end = n; nPending > 0;) {
        const auto [node, begin] = pending[--nPending];
        const int child = tree->children[node];
        int nLeft = 0, nRight = 0;
        if (child == node)
            all.settle(begin, end, node);
        else
            all.part(node, begin, end, nLeft, nRight);
        end = begin + nLeft;
        if (nLeft > 0) pending[nPending++] = {child, begin};
        if (nRight > 0) {
            all.append(end, nRight);
            pending[nPending++] = {child + 1, end};
            end += nRight;
        }
    }
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
    .pointsFloat = pointsFloat,
    .pointsFixed = pointsFixed,
    .addFloat = addFloat,
    .addFixed = addFixed,
    .sides = sides,
    .descend = descend,
    .descendTogether = descendTogether,
    .squaresFrom = squaresFrom,
    .transposeBlock = transposeBlock,
    .nextFar = nextFar,
    .farBoxes = farBoxes,
};

} // namespace vsq::VSQ_LEVEL
