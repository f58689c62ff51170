// Mixtures as the tests hold them, and the calls that make servers of them.
#pragma once

#include "mixtures/KT_GAUSS.h"
#include "oracle/gauss_oracle.h"

#include <memory>
#include <random>
#include <type_traits>
#include <vector>

namespace mixtures {

struct FreeServer {
    void operator()(GaussMixServer* server) const { KTsFreeGaussMixServer(server); }
};
using Server = std::unique_ptr<GaussMixServer, FreeServer>;

template <class T>
using Rows = std::vector<std::vector<T>>;

// Row pointers to the rows of a table.
template <class T>
std::vector<T*> pointers(Rows<T>& rows) {
    std::vector<T*> result;
    for (auto& row : rows)
        result.push_back(row.data());
    return result;
}

template <class T>
struct Mixture {
    int nDim = 0, nMix = 0;
    std::vector<T> weights;
    Rows<T> means;
    Rows<T> diagonals;             // of a diagonal mixture
    std::vector<Rows<T>> matrices; // of a full one

    bool full() const { return !matrices.empty(); }

    Server server(int flags = 0, int scale = 0) {
        auto meanRows = pointers(means);
        auto diagonalRows = pointers(diagonals);
        std::vector<std::vector<T*>> matrixRows;
        std::vector<T**> matrixTables;
        for (auto& matrix : matrices)
            matrixRows.push_back(pointers(matrix));
        for (auto& rows : matrixRows)
            matrixTables.push_back(rows.data());
        T*** pppInverse = full() ? matrixTables.data() : nullptr;
        T** ppInverse = full() ? nullptr : diagonalRows.data();
        if constexpr (std::is_same_v<T, float>)
            return Server(KTsInitGaussMixServer(weights.data(), meanRows.data(), pppInverse,
                                                ppInverse, nDim, nMix, flags));
        else
            return Server(KTwInitGaussMixServer(weights.data(), meanRows.data(), pppInverse,
                                                ppInverse, nDim, nMix, flags, scale));
    }
};

inline oracle::Vector wide(const float* p, int n) {
    return oracle::Vector(p, p + n);
}
template <class T>
oracle::Vector wide(const std::vector<T>& v) {
    return oracle::Vector(v.begin(), v.end());
}
template <class T>
oracle::Matrix wide(const Rows<T>& rows) {
    oracle::Matrix result;
    for (const auto& row : rows)
        result.push_back(wide(row));
    return result;
}

// A symmetric positive definite matrix: a random one times its transpose, and something on the
// diagonal.
inline Rows<float> covarianceLike(std::mt19937& random, int n) {
    std::uniform_real_distribution<float> uniform(-1, 1);
    const auto size = static_cast<std::size_t>(n);
    Rows<float> a(size, std::vector<float>(size)), c = a;
    for (auto& row : a)
        for (float& v : row)
            v = uniform(random);
    for (std::size_t i = 0; i < a.size(); ++i)
        for (std::size_t j = 0; j <= i; ++j) {
            float sum = i == j ? 0.5f : 0.0f;
            for (std::size_t k = 0; k < a.size(); ++k)
                sum += a[i][k] * a[j][k];
            c[i][j] = c[j][i] = sum;
        }
    return c;
}

inline Mixture<float> randomMixture(std::mt19937& random, int nDim, int nMix, bool full) {
    std::uniform_real_distribution<float> uniform(-2, 2), positive(0.25f, 2);
    Mixture<float> m;
    m.nDim = nDim;
    m.nMix = nMix;
    for (int k = 0; k < nMix; ++k) {
        m.weights.push_back(positive(random) / float(nMix));
        m.means.emplace_back();
        for (int i = 0; i < nDim; ++i)
            m.means.back().push_back(uniform(random));
        if (full) {
            m.matrices.push_back(covarianceLike(random, nDim));
            continue;
        }
        m.diagonals.emplace_back();
        for (int i = 0; i < nDim; ++i)
            m.diagonals.back().push_back(positive(random));
    }
    return m;
}

// Integers small enough that no 32-bit form wraps in 39 dimensions.
inline Mixture<short> randomFixedMixture(std::mt19937& random, int nDim, int nMix, bool full) {
    std::uniform_int_distribution<int> mean(-1000, 1000), positive(1, 10), weight(1, 32767 / nMix),
        cross(-2, 2);
    Mixture<short> m;
    m.nDim = nDim;
    m.nMix = nMix;
    for (int k = 0; k < nMix; ++k) {
        m.weights.push_back(short(weight(random)));
        m.means.emplace_back();
        for (int i = 0; i < nDim; ++i)
            m.means.back().push_back(short(mean(random)));
        Rows<short> c(m.means[0].size(), std::vector<short>(m.means[0].size(), 0));
        for (std::size_t i = 0; i < c.size(); ++i)
            for (std::size_t j = 0; j <= i; ++j)
                c[i][j] = c[j][i] = short(i == j ? positive(random) : cross(random));
        if (full) {
            m.matrices.push_back(c);
            continue;
        }
        m.diagonals.emplace_back();
        for (std::size_t i = 0; i < c.size(); ++i)
            m.diagonals.back().push_back(c[i][i]);
    }
    return m;
}

inline std::vector<float> randomVector(std::mt19937& random, int n, float range = 2) {
    std::uniform_real_distribution<float> uniform(-range, range);
    std::vector<float> x(static_cast<std::size_t>(n));
    for (float& v : x)
        v = uniform(random);
    return x;
}

inline std::vector<short> randomWords(std::mt19937& random, int n, int range = 1000) {
    std::uniform_int_distribution<int> uniform(-range, range);
    std::vector<short> x(static_cast<std::size_t>(n));
    for (short& v : x)
        v = short(uniform(random));
    return x;
}

} // namespace mixtures
