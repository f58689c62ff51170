// Tree codebooks: training, quantising, release.
//
// Fixed form: distances are the kernels' integer norms (64-bit sums, the root truncated,
// saturated at 0x7FFFFFFF), so close vectors tie, and ties go right. A centroid is the mean in
// double, truncated toward zero; it never leaves the range of its members, so nothing saturates or
// wraps.
#include "quantisers/Kt_cdbk.h"

#include "frame/KT_ERROR.h"
#include "frame/numeric.h"
#include "quantisers/descent.h"
#include "quantisers/points.h"
#include "vsq.h"

#include <algorithm>
#include <limits>
#include <type_traits>

namespace {

using namespace ktl::codebook;

constexpr ktl::Module module{"..\\_LIBSRC\\Kt_cdbk"};
constexpr const char* notConstructed = "codebook of given size can not be constructed";

// --- what the two numeric forms do differently ---

struct FloatTree : ktl::FloatForm {
    static constexpr int training = 1;
    static constexpr double unit = 0;

    static double distance(const float* a, const float* b, int nDim) {
        return vsqsNorm(a, b, nDim, VSQ_NormRoot);
    }
    static void addTo(double* sums, const float* row, int nDim) {
        vsq::kernels().tree->addFloat(row, sums, nDim);
    }
    // The mean of no members is 0 / 0, NaN: no vector is at a distance from it that
    // compares.
    static float mean(double sum, int count) {
        if (count == 0) return std::numeric_limits<float>::quiet_NaN();
        return static_cast<float>(sum) / static_cast<float>(count);
    }
    static void setSpread(KTCluster& cluster, double spread) { cluster.spread.wide = spread; }
    static double spreadOf(const KTCluster& cluster) { return cluster.spread.wide; }
};

struct FixedTree : ktl::FixedForm {
    static constexpr int training = 2;
    static constexpr double unit = 1;

    static int distance(const short* a, const short* b, int nDim) {
        return vsqwNormExt(a, b, nDim, VSQ_NormRoot, 0, nullptr);
    }
    static void addTo(double* sums, const short* row, int nDim) {
        vsq::kernels().tree->addFixed(row, sums, nDim);
    }
    // The mean of no members is 0.
    static short mean(double sum, int count) {
        return count == 0 ? short(0) : static_cast<short>(sum / count);
    }
    static void setSpread(KTCluster& cluster, double spread) {
        cluster.spread.halves[0] = static_cast<int>(spread);
    }
    static double spreadOf(const KTCluster& cluster) { return cluster.spread.halves[0]; }
};

template <class Tree>
double distanceOfRows(const Vectors& vectors, int first, int second) {
    const auto* const* rows = static_cast<const typename Tree::Element* const*>(vectors.ppVectors);
    return Tree::distance(rows[first], rows[second], vectors.nDim);
}

// --- records ---

void freeCluster(KTCluster* cluster) {
    std::free(cluster->pCentroid);
    std::free(cluster->pMembers);
    std::free(cluster);
}

// A new leaf, which belongs to the codebook at once; null when memory ran out.
template <class Sample>
KTCluster* addCluster(KTCodebook& codebook) {
    auto* cluster = ktl::zeroed<KTCluster>();
    if (cluster == nullptr) return nullptr;
    cluster->isLeaf = 1;
    cluster->pOlder = codebook.pNewest;
    codebook.pNewest = cluster;
    cluster->pCentroid = ktl::allocPlain<Sample>(codebook.nDim);
    return cluster->pCentroid != nullptr ? cluster : nullptr;
}

// --- training ---

template <class Tree>
class Training {
public:
    using Sample = typename Tree::Element;

    Training(Sample** ppVectors, int nVectors, int nDim)
        : rows(ppVectors), set{ppVectors, nVectors, nDim, distanceOfRows<Tree>, Tree::unit} {}

    // The codebook with its root, which holds all vectors; null when memory ran out.
    KTCodebook* start(int nSize) {
        codebook = ktl::zeroed<KTCodebook>();
        if (codebook == nullptr) return nullptr;
        codebook->nSize = nSize;
        codebook->nDim = set.nDim;
        codebook->flags = Tree::training;
        codebook->ppCentroids = ktl::allocPlain<void*>(nSize > 1 ? nSize : 1);
        codebook->pRoot = addCluster<Sample>(*codebook);
        sums = ktl::Scratch<double>(2 * std::int64_t(set.nDim));
        if (codebook->ppCentroids == nullptr || codebook->pRoot == nullptr || !sums ||
            !fillRoot()) {
            KT_FreeCodebook(codebook);
            return nullptr;
        }
        return codebook;
    }

    // Splits until there are nSize leaves; the status of the first split that could not be made.
    int grow(int flags) {
        for (int leaves = 1; leaves < codebook->nSize; ++leaves) {
            KTCluster** const selected = leaves == 1 ? selectRoot(flags) : select(flags);
            const int status = selected != nullptr ? split(selected) : KT_StsBadArg;
            if (status != KT_StsOk) return status;
        }
        return KT_StsOk;
    }

    // Numbers the leaves from left to right, and then, when nothing can fail any more, writes each
    // vector's cell.
    int finish(int* pLabels) {
        int cell = 0;
        for (KTCluster* leaf = firstLeaf; leaf != nullptr; leaf = leaf->pNextLeaf) {
            leaf->cell = ++cell;
            codebook->ppCentroids[cell - 1] = leaf->pCentroid;
            codebook->depth = leaf->level > codebook->depth ? leaf->level : codebook->depth;
        }
        if (hasDescent(set.nDim)) {
            codebook->pDescent = makeDescent<Sample>(*codebook, points.common(), Tree::unit);
            if (codebook->pDescent == nullptr) return KT_StsNoMem;
        }
        if (pLabels != nullptr) writeLabels(pLabels);
        codebook->flags |= KT_CB_EUCLID;
        return KT_StsOk;
    }

private:
    bool fillRoot() {
        KTCluster* const root = codebook->pRoot;
        root->pMembers = ktl::allocPlain<int>(set.nVectors);
        if (root->pMembers == nullptr) return false;
        root->node = root->level = 1;
        root->nMembers = set.nVectors;
        for (int i = 0; i < set.nVectors; ++i)
            root->pMembers[i] = i;
        firstLeaf = root;
        centroidsOfSides(root, nullptr, centroidOf(root));
        if (!points.take(set, rows)) return false;
        measure(root, false);
        return true;
    }

    void writeLabels(int* pLabels) const {
        for (const KTCluster* leaf = firstLeaf; leaf != nullptr; leaf = leaf->pNextLeaf)
            for (int i = 0; i < leaf->nMembers; ++i)
                pLabels[leaf->pMembers[i]] = leaf->cell;
    }

    static bool isLargest(int flags) { return (flags & KT_CB_SPLIT_LARGEST) != 0; }
    static bool isWidest(int flags) {
        return !isLargest(flags) && (flags & KT_CB_SPLIT_WIDEST) != 0;
    }

    // The root is what stays selected when no rule selects a leaf; but one without any spread is
    // not split for width.
    KTCluster** selectRoot(int flags) { return isWidest(flags) ? select(flags) : &firstLeaf; }

    // The link to the leaf to split next, the leftmost of equals. Null when there is none, or no
    // flag that chooses: a cluster that has been split is not split again.
    KTCluster** select(int flags) {
        KTCluster** best = nullptr;
        double most = 0;
        for (KTCluster** link = &firstLeaf; *link != nullptr; link = &(*link)->pNextLeaf) {
            const KTCluster& leaf = **link;
            const double size = isLargest(flags)  ? leaf.nMembers
                                : isWidest(flags) ? Tree::spreadOf(leaf)
                                                  : 0.0;
            if (size > most) {
                most = size;
                best = link;
            }
        }
        return best;
    }

    int split(KTCluster** link) {
        KTCluster* const cluster = *link;
        KTCluster* const left = addCluster<Sample>(*codebook);
        KTCluster* const right = left != nullptr ? addCluster<Sample>(*codebook) : nullptr;
        if (right == nullptr) return KT_StsNoMem;
        const bool isDone = cluster->pEmptySibling != nullptr
                                ? repeatParentsSplit(cluster, left, right)
                                : divide(cluster, left, right);
        if (!isDone) return KT_StsNoMem;
        adopt(link, left, right);
        return KT_StsOk;
    }

    bool divide(KTCluster* cluster, KTCluster* left, KTCluster* right) {
        const int n = cluster->nMembers;
        if (n > 0) {
            points.select(cluster->pMembers, n, cluster->hasOwnFrame);
            label(cluster, rows[cluster->pMembers[cluster->iFar1]],
                  rows[cluster->pMembers[cluster->iFar2]]);
        }
        centroidsOfSides(cluster, centroidOf(left), centroidOf(right));
        label(cluster, centroidOf(left), centroidOf(right));
        if (!listMembers(cluster, 'L', left) || !listMembers(cluster, 'R', right)) return false;
        // A child keeps the mean of the first partition, though its members are those of the
        // second.
        for (KTCluster* child : {left, right}) {
            if (n > 0 && child->nMembers == n) {
                child->pEmptySibling = child == left ? right : left;
                copyMeasures(cluster, child);
            } else {
                measure(child, cluster->hasOwnFrame);
            }
        }
        return true;
    }

    // A cluster that holds all of its parent's members splits as its parent did: the same list
    // gives the same pair, the same means and the same sides. Vectors that are all equal, or none
    // of which compares (NaN in a mean), would otherwise cost a whole split for each
    // empty cell.
    bool repeatParentsSplit(KTCluster* cluster, KTCluster* left, KTCluster* right) {
        const bool isRight = (cluster->node & 1) != 0;
        KTCluster *const all = isRight ? right : left, *const none = isRight ? left : right;
        none->pMembers = ktl::allocPlain<int>(0);
        if (none->pMembers == nullptr) return false;
        all->pMembers = cluster->pMembers;
        cluster->pMembers = nullptr;
        all->nMembers = cluster->nMembers;
        all->pEmptySibling = none;
        copyMeasures(cluster, all);
        std::copy_n(centroidOf(cluster), set.nDim, centroidOf(all));
        std::copy_n(static_cast<const Sample*>(cluster->pEmptySibling->pCentroid), set.nDim,
                    centroidOf(none));
        return true;
    }

    static void copyMeasures(const KTCluster* from, KTCluster* to) {
        to->iFar1 = from->iFar1;
        to->iFar2 = from->iFar2;
        to->spread = from->spread;
        to->hasOwnFrame = from->hasOwnFrame;
    }

    void adopt(KTCluster** link, KTCluster* left, KTCluster* right) {
        KTCluster* const parent = *link;
        left->node = static_cast<int>(2u * static_cast<unsigned>(parent->node));
        right->node = left->node + 1;
        left->level = right->level = parent->level + 1;
        parent->isLeaf = 0;
        parent->pLeft = left;
        parent->pRight = right;
        std::free(parent->pMembers);
        parent->pMembers = nullptr;
        right->pNextLeaf = parent->pNextLeaf;
        left->pNextLeaf = right;
        *link = left;
    }

    // labels()[i] becomes 'R' for the members that are no farther from the right seed than from the
    // left one, 'L' for the others, as the distances say.
    void label(KTCluster* cluster, const Sample* left, const Sample* right) {
        const int* const members = cluster->pMembers;
        const int nDim = set.nDim;
        points.label(members, cluster->nMembers,
                     planeBetween(left, right, points.frame(), nDim, Tree::unit, points.normal()));
        char* const labels = points.labels();
        for (int i = 0; i < cluster->nMembers; ++i) {
            if (labels[i] != '?') continue;
            const Sample* const row = rows[members[i]];
            labels[i] =
                Tree::distance(row, right, nDim) <= Tree::distance(row, left, nDim) ? 'R' : 'L';
        }
    }

    // The means of the members labelled 'L' and of the others; with left null, of all members.
    void centroidsOfSides(const KTCluster* cluster, Sample* left, Sample* right) {
        const int nDim = set.nDim;
        double* const sumsOf[2] = {sums.get(), sums.get() + nDim};
        int counts[2] = {0, 0};
        std::fill_n(sums.get(), 2 * static_cast<std::size_t>(nDim), 0.0);
        for (int i = 0; i < cluster->nMembers; ++i) {
            const int side = left == nullptr || points.labels()[i] != 'L';
            Tree::addTo(sumsOf[side], rows[cluster->pMembers[i]], nDim);
            ++counts[side];
        }
        for (int k = 0; k < nDim; ++k) {
            if (left != nullptr) left[k] = Tree::mean(sumsOf[0][k], counts[0]);
            right[k] = Tree::mean(sumsOf[1][k], counts[1]);
        }
    }

    bool listMembers(const KTCluster* cluster, char side, KTCluster* child) {
        const char* const labels = points.labels();
        int count = 0;
        for (int i = 0; i < cluster->nMembers; ++i)
            count += labels[i] == side;
        child->pMembers = ktl::allocPlain<int>(count);
        if (child->pMembers == nullptr) return false;
        for (int i = 0; i < cluster->nMembers; ++i)
            if (labels[i] == side) child->pMembers[child->nMembers++] = cluster->pMembers[i];
        return true;
    }

    // `hasOwnFrame` tells of the points as they stand: as the parent's left them.
    void measure(KTCluster* cluster, bool hasOwnFrame) {
        const FarPair pair = points.farthest(cluster->pMembers, cluster->nMembers, hasOwnFrame);
        cluster->iFar1 = pair.first;
        cluster->iFar2 = pair.second;
        cluster->hasOwnFrame = pair.hasOwnFrame;
        Tree::setSpread(*cluster, pair.spread);
    }

    static Sample* centroidOf(KTCluster* cluster) {
        return static_cast<Sample*>(cluster->pCentroid);
    }

    Sample** rows;
    Vectors set;
    KTCodebook* codebook = nullptr;
    KTCluster* firstLeaf = nullptr;
    Points<Sample> points;
    ktl::Scratch<double> sums;
};

template <class Tree>
KTCodebook* make(typename Tree::Element** ppVectors, int* pLabels, int nVectors, int nDim,
                 int nSize, int flags, const char* funcName) {
    if ((flags & KT_CB_EUCLID) == 0) {
        module.report(KT_StsBadArg, "No distance is choosen in input flags.", funcName);
        return nullptr;
    }
    if (nDim <= 0) { // there are no distances between vectors of no elements
        module.report(KT_StsBadArg, notConstructed, funcName);
        return nullptr;
    }
    Training<Tree> training(ppVectors, nVectors > 0 ? nVectors : 0, nDim);
    KTCodebook* const codebook = training.start(nSize);
    if (codebook == nullptr) {
        module.report(KT_StsNoMem, "insufficiency of memory for pointer  codebook", funcName);
        return nullptr;
    }
    int status = training.grow(flags);
    if (status == KT_StsOk) status = training.finish(pLabels);
    if (status == KT_StsOk) return codebook;
    KT_FreeCodebook(codebook);
    module.report(status, notConstructed, funcName);
    return nullptr;
}

// --- quantising ---

// A walk down the tree by the distances alone: the leaf, or null when there is none within `depth`
// steps.
template <class Sample, class Distance>
const KTCluster* walk(const KTCodebook& codebook, const KTCluster* node, const Sample* row,
                      int nDim, const Distance& distance) {
    while (node->level <= codebook.depth) {
        if (node->isLeaf != 0) return node;
        const auto dL = distance(row, static_cast<const Sample*>(node->pLeft->pCentroid), nDim);
        const auto dR = distance(row, static_cast<const Sample*>(node->pRight->pCentroid), nDim);
        node = dR <= dL ? node->pRight : node->pLeft;
    }
    return nullptr;
}

// One call of quantising: what it is asked and how far it got.
struct Quantising {
    const KTCodebook* codebook;
    int* pIndex;
    int nVectors;
    int nDim;
    bool wantsTotal;
    bool hasAll = true; // whether every vector has reached a leaf
};

bool canQuantise(const KTCodebook* codebook, int completeFlags, int nDim) {
    return codebook != nullptr && codebook->flags == completeFlags && nDim > 0;
}

// The distances of vectors from their cells' centroids, added up in the order of the vectors.
template <class Sample, class Distance>
class Distortion {
public:
    Distortion(int length, const Distance& distance) : length_(length), distance_(distance) {}

    void add(const Sample* row, const Sample* centroid) {
        if (known_ == most) flush();
        rows_[known_] = row;
        centroids_[known_++] = centroid;
    }

    double total() {
        flush();
        return total_;
    }

private:
    void flush() {
        double distances[most];
        if constexpr (std::is_same_v<Sample, float>)
            vsq::kernels().norm->distancesFloat(rows_, centroids_, known_, length_, distances);
        else
            for (int i = 0; i < known_; ++i)
                distances[i] = distance_(rows_[i], centroids_[i], length_);
        for (int i = 0; i < known_; ++i)
            total_ += distances[i];
        known_ = 0;
    }

    static constexpr int most = 16;
    int length_, known_ = 0;
    const Distance& distance_;
    double total_ = 0;
    const Sample *rows_[most], *centroids_[most];
};

// Quantises all vectors and returns the sum of the distances from their cells' centroids.
// `isTrainings` says that `distance` is the one of the training, for which the planes of the
// descent stand.
template <class Sample, class Distance>
double quantise(Quantising& call, Sample** ppVectors, bool isTrainings, const Distance& distance) {
    const KTCodebook& codebook = *call.codebook;
    const KTDescent* const descent =
        isTrainings && call.nDim == codebook.nDim ? codebook.pDescent : nullptr;
    const int length = call.nDim < codebook.nDim ? call.nDim : codebook.nDim;
    Descents<Sample> descents(codebook, descent, call.nVectors);
    Distortion<Sample, Distance> distortion(length, distance);
    for (int start = 0, count; start < call.nVectors; start += count) {
        count = std::min(call.nVectors - start, descents.size());
        descents.take(ppVectors + start, count);
        for (int i = 0; i < count; ++i) {
            const Sample* const row = ppVectors[start + i];
            const KTCluster* const leaf = walk(codebook, descents.nodeOf(i), row, length, distance);
            if (call.pIndex != nullptr) call.pIndex[start + i] = leaf != nullptr ? leaf->cell : 0;
            call.hasAll = call.hasAll && leaf != nullptr;
            if (call.wantsTotal && leaf != nullptr)
                distortion.add(row,
                               static_cast<const Sample*>(codebook.ppCentroids[leaf->cell - 1]));
        }
    }
    return distortion.total();
}

void quantiseNone(Quantising& call) {
    for (int i = 0; call.pIndex != nullptr && i < call.nVectors; ++i)
        call.pIndex[i] = 0;
    call.hasAll = call.nVectors <= 0;
}

double meanOf(double total, int count) {
    return count > 0 ? total / count : 0.0;
}

// Both forms report under the float one's name, which logs have always had.
void reportMissing(const Quantising& call) {
    if (!call.hasAll)
        module.report(KT_StsBadArg, "VQ is not performed for some input vectors.", "KTsVQCodebook");
}

} // namespace

KTCodebook* KTsMakeCodebook(float** ppVectors, int* pLabels, int nVectors, int nDim, int nSize,
                            int flags) {
    return make<FloatTree>(ppVectors, pLabels, nVectors, nDim, nSize, flags, "KTsMakeCodebook");
}

KTCodebook* KTwMakeCodebook(short** ppVectors, int* pLabels, int nVectors, int nDim, int nSize,
                            int flags) {
    return make<FixedTree>(ppVectors, pLabels, nVectors, nDim, nSize, flags, "KTwMakeCodebook");
}

void KTsVQCodebook(KTCodebook* pCodebook, float** ppVectors, int* pIndex, int nVectors, int nDim,
                   double* pDistortion) {
    Quantising call{pCodebook, pIndex, nVectors, nDim, pDistortion != nullptr};
    double total = 0;
    if (canQuantise(pCodebook, FloatTree::training | KT_CB_EUCLID, nDim))
        total = quantise(call, ppVectors, true, FloatTree::distance);
    else
        quantiseNone(call);
    if (pDistortion != nullptr) *pDistortion = meanOf(total, nVectors);
    reportMissing(call);
}

// A fixed scale counts twice, in each distance and in the mean. In the other modes distances are
// plain: automatic scaling of the kernels has nothing to shift, since their roots fit, and the mean
// finds its own scale.
void KTwVQCodebook(KTCodebook* pCodebook, short** ppVectors, int* pIndex, int nVectors, int nDim,
                   int* pDistortion, int scaleMode, int* pScale) {
    const ktl::CallScale scale(pScale);
    const bool isPlain = scaleMode != KT_FixedScale || *scale == 0;
    int shift = isPlain ? 0 : *scale;
    const auto distance = [&](const short* a, const short* b, int n) {
        return vsqwNormExt(a, b, n, VSQ_NormRoot, VSQ_FIXED_SCALE, &shift);
    };
    Quantising call{pCodebook, pIndex, nVectors, nDim, pDistortion != nullptr};
    double total = 0;
    if (!canQuantise(pCodebook, FixedTree::training | KT_CB_EUCLID, nDim))
        quantiseNone(call);
    else if (isPlain)
        total = quantise(call, ppVectors, true, FixedTree::distance);
    else
        total = quantise(call, ppVectors, false, distance);
    if (pDistortion != nullptr)
        *pDistortion = KTdiConvertDown(meanOf(total, nVectors), scaleMode, scale.get());
    reportMissing(call);
}

void KT_FreeCodebook(KTCodebook* pCodebook) {
    if (pCodebook == nullptr) return;
    for (KTCluster* cluster = pCodebook->pNewest; cluster != nullptr;) {
        KTCluster* const older = cluster->pOlder;
        freeCluster(cluster);
        cluster = older;
    }
    freeDescent(pCodebook->pDescent);
    std::free(pCodebook->ppCentroids);
    std::free(pCodebook);
}
