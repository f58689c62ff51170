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

namespace {

// Fewer rows go down in small groups: working room would cost more than it gains.
constexpr int fewestTogether = 32;
// The points of a call are to stay in the cache, with the rest of its room.
constexpr int floatsTogether = 1 << 16;

} // namespace

template <class Sample>
Descents<Sample>::Descents(const KTCodebook& codebook, const KTDescent* descent, int wanted)
    : descent_(descent), root_(codebook.pRoot) {
    if (descent == nullptr || wanted < fewestTogether) return;
    const int size = std::min(wanted, floatsTogether / descent->tree.stride);
    isTogether_ = allocate(size);
    if (isTogether_) size_ = size;
}

template <class Sample>
bool Descents<Sample>::allocate(int size) {
    points_ = AlignedScratch<float>(std::ptrdiff_t(size) * descent_->tree.stride);
    reaches_ = Scratch<float>(2 * (size + vsq::descentSlack));
    places_ = Scratch<int>(2 * (size + vsq::descentSlack));
    nodes_ = Scratch<int>(size * (descent_->tree.stride / 16));
    pending_ = Scratch<vsq::DescentRoom::Pending>(size);
    return points_ && reaches_ && places_ && nodes_ && pending_;
}

template <class Sample>
void Descents<Sample>::take(const Sample* const* rows, int count) {
    if (isTogether_)
        takeTogether(rows, count);
    else if (descent_ != nullptr)
        takeGroup(rows, count);
}

template <class Sample>
void Descents<Sample>::takeTogether(const Sample* const* rows, int count) {
    const Frame frame{descent_->centre, descent_->factor};
    const int nDim = descent_->nDim, length = size_ + vsq::descentSlack;
    makePoints(rows, count, frame, nDim, points_.get(), descent_->tree.stride, reaches_.get());
    toReaches(reaches_.get(), count, nDim);
    const vsq::DescentRoom room{
        {{places_.get(), reaches_.get()}, {places_.get() + length, reaches_.get() + length}},
        pending_.get()};
    vsq::kernels().tree->descendTogether(&descent_->tree, points_.get(), count, &room,
                                         nodes_.get());
}

// The group is always whole: the last row stands in for what is missing.
template <class Sample>
void Descents<Sample>::takeGroup(const Sample* const* rows, int count) {
    constexpr int group = vsq::descendGroup;
    alignas(64) float points[group * roundUp(longestOfDescent, 16)];
    float reach[group];
    const Frame frame{descent_->centre, descent_->factor};
    const int nDim = descent_->nDim, stride = descent_->tree.stride;
    for (int i = 0; i < group; ++i) {
        const Sample* const row = rows[i < count ? i : count - 1];
        reach[i] = reachOf(makePoint(row, frame, nDim, points + i * stride, stride), nDim);
        group_[i] = 0;
    }
    vsq::kernels().tree->descend(&descent_->tree, points, reach, group_);
}

template <class Sample>
const KTCluster* Descents<Sample>::nodeOf(int i) const {
    if (descent_ == nullptr) return root_;
    const int node = isTogether_ ? nodes_[i * (descent_->tree.stride / 16)] : group_[i];
    return descent_->clusters[node < 0 ? ~node : node];
}

template class Descents<float>;
template class Descents<short>;

} // namespace ktl::codebook
