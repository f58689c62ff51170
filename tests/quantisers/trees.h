// Sets of vectors, the calls of both numeric forms under one name, and the plain form of tree
// codebooks: all pairs, all distances.
#pragma once

#include "quantisers/Kt_cdbk.h"
#include "quantisers/points.h"
#include "vsq.h"

#include <algorithm>
#include <cmath>
#include <functional>
#include <limits>
#include <memory>
#include <random>
#include <vector>

namespace trees {

// --- both numeric forms under one name ---

template <class T>
constexpr bool isFloat = std::is_same_v<T, float>;

inline double distanceOf(const float* a, const float* b, int n) {
    return vsqsNorm(a, b, n, VSQ_NormRoot);
}
inline int distanceOf(const short* a, const short* b, int n) {
    return vsqwNormExt(a, b, n, VSQ_NormRoot, 0, nullptr);
}

inline KTCodebook* make(float** rows, int* labels, int n, int nDim, int nSize, int flags) {
    return KTsMakeCodebook(rows, labels, n, nDim, nSize, flags);
}
inline KTCodebook* make(short** rows, int* labels, int n, int nDim, int nSize, int flags) {
    return KTwMakeCodebook(rows, labels, n, nDim, nSize, flags);
}

inline double quantise(KTCodebook* codebook, float** rows, int* index, int n, int nDim) {
    double distortion = -1;
    KTsVQCodebook(codebook, rows, index, n, nDim, &distortion);
    return distortion;
}
inline double quantise(KTCodebook* codebook, short** rows, int* index, int n, int nDim) {
    int distortion = -1;
    KTwVQCodebook(codebook, rows, index, n, nDim, &distortion, KT_NoScale, nullptr);
    return distortion;
}

inline double spreadOf(const KTCluster& cluster, float) {
    return cluster.spread.wide;
}
inline double spreadOf(const KTCluster& cluster, short) {
    return cluster.spread.halves[0];
}

struct Freed {
    void operator()(KTCodebook* codebook) const { KT_FreeCodebook(codebook); }
};
using Codebook = std::unique_ptr<KTCodebook, Freed>;

template <class T>
struct Rows {
    Rows() = default;
    Rows(std::initializer_list<std::vector<T>> values)
        : Rows(std::vector<std::vector<T>>(values)) {}
    explicit Rows(std::vector<std::vector<T>> values) : rows(std::move(values)) {
        for (auto& row : rows)
            pointers.push_back(row.data());
    }
    int count() const { return int(rows.size()); }
    int nDim() const { return int(rows.front().size()); }
    T** get() { return pointers.data(); }

    std::vector<std::vector<T>> rows;
    std::vector<T*> pointers;
};

template <class T>
Codebook train(Rows<T>& set, int nSize, int flags, int* labels = nullptr) {
    return Codebook(make(set.get(), labels, set.count(), set.nDim(), nSize, flags));
}

// --- the plain form of it all ---

template <class T>
struct Leaf {
    std::vector<int> members;
    std::vector<T> centroid;
    double spread = 0;
    int far1 = 0, far2 = 0, cell = 0, count = 0, level = 1;
    unsigned node = 1;
    std::unique_ptr<Leaf> left, right;
};

template <class T>
struct Reference {
    using Node = Leaf<T>;
    Rows<T>& set;
    int nDim;
    Node root;
    int depth = 0, status = 0;
    std::vector<int> labels;
    std::vector<const Node*> cells;

    explicit Reference(Rows<T>& rows) : set(rows), nDim(rows.nDim()) {}

    double between(const T* a, const T* b) const { return distanceOf(a, b, nDim); }

    void farthest(Node& node) const {
        node.count = int(node.members.size());
        double best = 0;
        for (int a = 0; a < node.count; ++a)
            for (int b = a + 1; b < node.count; ++b) {
                const double d = between(set.pointers[std::size_t(node.members[std::size_t(a)])],
                                         set.pointers[std::size_t(node.members[std::size_t(b)])]);
                if (d > best) {
                    best = d;
                    node.far1 = a;
                    node.far2 = b;
                }
            }
        node.spread = best;
    }

    std::vector<T> mean(const std::vector<int>& members) const {
        std::vector<T> result;
        for (int k = 0; k < nDim; ++k) {
            double sum = 0;
            for (int m : members)
                sum += set.rows[std::size_t(m)][std::size_t(k)];
            if constexpr (isFloat<T>)
                result.push_back(float(sum) / float(members.size()));
            else
                result.push_back(members.empty() ? short(0)
                                                 : short(int(sum / double(members.size()))));
        }
        return result;
    }

    void divide(const Node& node, const T* leftSeed, const T* rightSeed, std::vector<int>& left,
                std::vector<int>& right) const {
        left.clear();
        right.clear();
        for (int m : node.members) {
            const T* row = set.pointers[std::size_t(m)];
            const double dL = between(row, leftSeed), dR = between(row, rightSeed);
            (dR <= dL ? right : left).push_back(m);
        }
    }

    void split(Node& node) const {
        node.left = std::make_unique<Node>();
        node.right = std::make_unique<Node>();
        Node &l = *node.left, &r = *node.right;
        const T* a = set.pointers[std::size_t(node.members[std::size_t(node.far1)])];
        const T* b = set.pointers[std::size_t(node.members[std::size_t(node.far2)])];
        divide(node, a, b, l.members, r.members);
        l.centroid = mean(l.members);
        r.centroid = mean(r.members);
        divide(node, l.centroid.data(), r.centroid.data(), l.members, r.members);
        farthest(l);
        farthest(r);
        node.members.clear();
        l.level = r.level = node.level + 1;
        l.node = 2 * node.node;
        r.node = l.node + 1;
    }

    template <class Visit>
    static void eachLeaf(Node& node, const Visit& visit) {
        if (!node.left) return visit(node);
        eachLeaf(*node.left, visit);
        eachLeaf(*node.right, visit);
    }

    void train(int nSize, int flags) {
        for (int i = 0; i < set.count(); ++i)
            root.members.push_back(i);
        farthest(root);
        root.centroid = mean(root.members);
        for (int i = 1; i < nSize; ++i) {
            Node* best = nullptr;
            double most = 0;
            eachLeaf(root, [&](Node& leaf) {
                const double size = flags & KT_CB_SPLIT_LARGEST ? leaf.count : leaf.spread;
                if (size > most) {
                    most = size;
                    best = &leaf;
                }
            });
            if (best == nullptr) {
                status = KT_StsBadArg;
                return;
            }
            split(*best);
        }
        labels.assign(set.rows.size(), 0);
        eachLeaf(root, [&](Node& leaf) {
            cells.push_back(&leaf);
            leaf.cell = int(cells.size());
            depth = std::max(depth, leaf.level);
            for (int m : leaf.members)
                labels[std::size_t(m)] = leaf.cell;
        });
    }

    const Node& quantise(const T* row) const {
        const Node* node = &root;
        while (node->left) {
            const double dL = between(row, node->left->centroid.data());
            const double dR = between(row, node->right->centroid.data());
            node = dR <= dL ? node->right.get() : node->left.get();
        }
        return *node;
    }
};

// --- sets of vectors ---

using Random = std::mt19937;

template <class T>
Rows<T> fill(int n, int nDim, const std::function<double(int, int)>& value) {
    std::vector<std::vector<T>> rows(static_cast<std::size_t>(n),
                                     std::vector<T>(static_cast<std::size_t>(nDim)));
    for (int i = 0; i < n; ++i)
        for (int k = 0; k < nDim; ++k)
            rows[std::size_t(i)][std::size_t(k)] = static_cast<T>(value(i, k));
    return Rows<T>(std::move(rows));
}

inline constexpr int kinds = 8;

// Kinds of sets, most of them full of equal distances.
template <class T>
Rows<T> someSet(int kind, int n, int nDim, Random& random) {
    std::normal_distribution<double> normal;
    const double unit = isFloat<T> ? 1 : 1000;
    const auto integer = [&](int most) { return double(random() % unsigned(most + 1)); };
    switch (kind) {
    case 0: // a cloud
        return fill<T>(n, nDim, [&](int, int) { return unit * normal(random); });
    case 1: // small integers: a grid
        return fill<T>(n, nDim, [&](int, int) { return integer(3); });
    case 2: // corners of a cube
        return fill<T>(n, nDim, [&](int, int) { return 100 * integer(1); });
    case 3: { // few distinct vectors, each many times
        Rows<T> few = fill<T>(5, nDim, [&](int, int) { return unit * normal(random); });
        std::vector<std::vector<T>> rows;
        for (int i = 0; i < n; ++i)
            rows.push_back(few.rows[random() % 5]);
        return Rows<T>(std::move(rows));
    }
    case 4: // a cloud far from the origin
        return fill<T>(n, nDim, [&](int, int) { return 20 * unit + unit * 0.1 * normal(random); });
    case 5: // clouds in two places and an outlier
        return fill<T>(n, nDim, [&](int i, int) {
            return i == n / 2 ? 30 * unit : unit * (i % 2) * 5 + unit * normal(random);
        });
    case 6: { // on a sphere: radii tell nothing
        Rows<T> rows = fill<T>(n, nDim, [&](int, int) { return 0; });
        for (auto& row : rows.rows) {
            std::vector<double> direction;
            double length = 0;
            for (int k = 0; k < nDim; ++k) {
                direction.push_back(normal(random));
                length += direction.back() * direction.back();
            }
            for (int k = 0; k < nDim; ++k)
                row[std::size_t(k)] =
                    static_cast<T>(10 * unit * direction[std::size_t(k)] / std::sqrt(length));
        }
        return rows;
    }
    default: // extremes
        return fill<T>(n, nDim, [&](int, int) {
            return isFloat<T> ? (integer(1) - 0.5) * 6e38 : integer(1) * 65535 - 32768;
        });
    }
}

inline constexpr float inf = std::numeric_limits<float>::infinity();
inline constexpr float nan = std::numeric_limits<float>::quiet_NaN();

// Sets in which vectors are missing, infinite, far out or of magnitudes of their own.
inline constexpr int oddKinds = 9;
inline Rows<float> oddSet(int kind, int n, int nDim, Random& random) {
    std::normal_distribution<float> normal;
    Rows<float> set = fill<float>(n, nDim, [&](int, int) { return normal(random); });
    const auto some = [&] { return std::size_t(random() % unsigned(n)); };
    const auto element = [&]() -> float& { return set.rows[some()][random() % unsigned(nDim)]; };
    const auto scale = [](std::vector<float>& row, double by) {
        for (float& value : row)
            value = float(value * by);
    };
    switch (kind) {
    case 0: // a few missing elements
        for (int i = 0; i < 3; ++i)
            element() = nan;
        break;
    case 1: // every other vector misses one
        for (std::size_t i = 0; i < set.rows.size(); i += 2)
            set.rows[i][0] = nan;
        break;
    case 2: // infinite and missing elements
        for (int i = 0; i < 4; ++i)
            element() = i == 0 ? nan : i % 2 == 0 ? inf : -inf;
        break;
    case 3: // nothing finite, one infinity common to all
        for (auto& row : set.rows)
            row[0] = inf;
        break;
    // nothing finite, each with infinities of its own; now and then every pair has one in common
    case 4:
        for (auto& row : set.rows)
            for (unsigned k = 0; k < unsigned(nDim) / 2 + random() % 2; ++k)
                row[random() % unsigned(nDim)] = random() % 4 == 0 ? -inf : inf;
        break;
    case 5: // one vector far out
        scale(set.rows[some()], 1e30);
        break;
    case 6: // two magnitudes
        for (std::size_t i = 0; i < set.rows.size(); i += 2)
            scale(set.rows[i], 1e25);
        break;
    case 7: // all magnitudes
        for (auto& row : set.rows)
            scale(row, std::pow(10, int(random() % 80) - 43));
        break;
    default: // corners as far out as floats go, and a tight crowd away from the origin
        for (auto& row : set.rows)
            for (float& value : row)
                value = random() % 2 ? 3e38f : -3e38f;
        for (std::size_t i = 0; i < set.rows.size(); i += 3)
            for (float& value : set.rows[i])
                value = 1000 + 1e-3f * float(random() % 4);
    }
    return Rows<float>(std::move(set.rows));
}

template <class T>
double rowDistance(const ktl::codebook::Vectors& v, int a, int b) {
    const auto* const* rows = static_cast<const T* const*>(v.ppVectors);
    return distanceOf(rows[a], rows[b], v.nDim);
}

} // namespace trees
