// A finished tree as quantising walks it: planes in the place of pairs of distances, the nodes
// level by level in arrays, and many vectors at once. A vector stops where a plane leaves a doubt,
// and the distances themselves take it on from there.
#include "quantisers/descent.h"

#include <algorithm>

// Arrays by node, in the order of a walk level by level; each is freed with the record. One node
// more, a leaf, stands at the end: there points wait that are in doubt.
struct KTDescent {
    int nDim;
    vsq::PlaneTree tree;
    const KTCluster** clusters;
    vsq::Plane* planes;
    int* children;
    float* normals;
    float* centre; // of the frame
    float factor;
};

namespace ktl::codebook {
namespace {

bool allocate(KTDescent& descent, int nodes) {
    const std::int64_t all = std::int64_t(nodes) + 1;
    descent.clusters = allocPlain<const KTCluster*>(all);
    descent.planes = allocPlain<vsq::Plane>(all);
    descent.children = allocPlain<int>(all);
    descent.normals = allocPlain<float>(all * descent.tree.stride);
    descent.centre = allocPlain<float>(descent.nDim);
    return descent.clusters != nullptr && descent.planes != nullptr &&
           descent.children != nullptr && descent.normals != nullptr && descent.centre != nullptr;
}

void fillLeaf(KTDescent& descent, int node) {
    float* const normal = descent.normals + std::ptrdiff_t(node) * descent.tree.stride;
    std::fill(normal, normal + descent.tree.stride, 0.0f);
    descent.planes[node] = planeOfLeaf();
    descent.children[node] = node;
}

template <class Sample>
void fillNodes(KTDescent& descent, const KTCluster* root, double unit) {
    const Frame frame{descent.centre, descent.factor};
    int known = 1;
    descent.clusters[0] = root;
    for (int node = 0; node < known; ++node) {
        const KTCluster* const cluster = descent.clusters[node];
        if (cluster->isLeaf != 0) {
            fillLeaf(descent, node);
            continue;
        }
        descent.planes[node] = planeBetween(
            static_cast<const Sample*>(cluster->pLeft->pCentroid),
            static_cast<const Sample*>(cluster->pRight->pCentroid), frame, descent.nDim, unit,
            descent.normals + std::ptrdiff_t(node) * descent.tree.stride);
        descent.children[node] = known;
        descent.clusters[known++] = cluster->pLeft;
        descent.clusters[known++] = cluster->pRight;
    }
    fillLeaf(descent, known);
    descent.clusters[known] = nullptr;
    descent.tree.parking = known;
}

int clustersOf(const KTCodebook& codebook) {
    int count = 0;
    for (const KTCluster* cluster = codebook.pNewest; cluster != nullptr; cluster = cluster->pOlder)
        ++count;
    return count;
}

} // namespace

template <class Sample>
KTDescent* makeDescent(const KTCodebook& codebook, const Frame& frame, double unit) {
    auto* const descent = zeroed<KTDescent>();
    if (descent == nullptr) return nullptr;
    descent->nDim = codebook.nDim;
    descent->tree.stride = strideFor(codebook.nDim);
    if (!allocate(*descent, clustersOf(codebook))) {
        freeDescent(descent);
        return nullptr;
    }
    std::copy(frame.centre, frame.centre + codebook.nDim, descent->centre);
    descent->factor = frame.factor;
    fillNodes<Sample>(*descent, codebook.pRoot, unit);
    descent->tree.normals = descent->normals;
    descent->tree.planes = descent->planes;
    descent->tree.children = descent->children;
    return descent;
}

template KTDescent* makeDescent<float>(const KTCodebook&, const Frame&, double);
template KTDescent* makeDescent<short>(const KTCodebook&, const Frame&, double);

void freeDescent(KTDescent* descent) {
    if (descent == nullptr) return;
    std::free(descent->clusters);
    std::free(descent->planes);
    std::free(descent->children);
    std::free(descent->normals);
    std::free(descent->centre);
    std::free(descent);
}

template <class Sample>
void descendWhileSure(const KTDescent& descent, const Sample* const* rows, int count,
                      const KTCluster** nodes) {
    constexpr int group = vsq::descendGroup;
    alignas(64) float points[group * roundUp(longestOfDescent, 16)];
    float reach[group];
    int reached[group];
    const Frame frame{descent.centre, descent.factor};
    const int stride = descent.tree.stride;
    for (int i = 0; i < group; ++i) {
        const Sample* const row = rows[i < count ? i : count - 1];
        reach[i] =
            reachOf(makePoint(row, frame, descent.nDim, points + i * stride, stride), descent.nDim);
        reached[i] = 0;
    }
    vsq::kernels().tree->descend(&descent.tree, points, reach, reached);
    for (int i = 0; i < count; ++i)
        nodes[i] = descent.clusters[reached[i] < 0 ? ~reached[i] : reached[i]];
}

template void descendWhileSure(const KTDescent&, const float* const*, int, const KTCluster**);
template void descendWhileSure(const KTDescent&, const short* const*, int, const KTCluster**);

} // namespace ktl::codebook
