// Networks as the tests hold them, the calls that make servers of them, and plain references.
#pragma once

#include "perceptrons/KT_PERC.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstddef>
#include <memory>
#include <random>
#include <string>
#include <type_traits>
#include <vector>

namespace perceptrons {

struct FreeServer {
    void operator()(sMLPServer* server) const { KTsFreeMLPServer(server); }
    void operator()(wMLPServer* server) const { KTwFreeMLPServer(server); }
};
template <class T>
using ServerOf = std::conditional_t<std::is_same_v<T, float>, sMLPServer, wMLPServer>;
template <class T>
using Server = std::unique_ptr<ServerOf<T>, FreeServer>;
template <class T>
using Function =
    std::conditional_t<std::is_same_v<T, float>, KTMLPActivationFn, KTMLPFixedActivationFn>;

inline const char module[] = "..\\_LIBSRC\\KT_PERC";

// Net sums as they are; the low 16 bits in the fixed flavour.
inline void identity(const float* in, float* out, int n) {
    for (int i = 0; i < n; ++i)
        out[i] = in[i];
}
inline void wIdentity(const int* in, short* out, int n, int, int) {
    for (int i = 0; i < n; ++i)
        out[i] = short(in[i]);
}
inline void one(const float*, float* out, int n) {
    for (int i = 0; i < n; ++i)
        out[i] = 1.0f;
}
inline Function<float> identityOf(float) {
    return identity;
}
inline Function<short> identityOf(short) {
    return wIdentity;
}

// A network with vectors for everything; weights[l - 1][j][i].
template <class T>
struct Network {
    std::vector<int> counts;
    std::vector<std::vector<std::vector<T>>> weights;
    std::vector<std::vector<std::vector<int>>> connections; // of a sparse network
    int flags = 0;
    int weightScale = -15;
    std::vector<T> thresholds;
    std::vector<Function<T>> activations, derivatives;

    int layers() const { return int(counts.size()); }
    int neurons() const {
        int sum = 0;
        for (std::size_t l = 1; l < counts.size(); ++l)
            sum += counts[l];
        return sum;
    }

    // The same network with its connections written out.
    Network describedAsSparse() const {
        Network sparse = *this;
        sparse.connections.clear();
        for (const auto& layer : weights) {
            sparse.connections.emplace_back();
            for (const auto& row : layer) {
                sparse.connections.back().emplace_back();
                for (std::size_t i = 0; i < row.size(); ++i)
                    sparse.connections.back().back().push_back(int(i));
            }
        }
        return sparse;
    }

    Server<T> server() {
        std::vector<std::vector<T*>> rows;
        std::vector<std::vector<int*>> connectionRows;
        std::vector<std::vector<int>> lengths;
        std::vector<T**> table;
        std::vector<int**> connectionTable;
        std::vector<int*> lengthTable;
        for (auto& layer : weights) {
            rows.emplace_back();
            lengths.emplace_back();
            for (auto& row : layer) {
                rows.back().push_back(row.data());
                lengths.back().push_back(int(row.size()));
            }
        }
        for (auto& layer : connections) {
            connectionRows.emplace_back();
            for (auto& row : layer)
                connectionRows.back().push_back(row.data());
        }
        for (auto& layer : rows)
            table.push_back(layer.data());
        for (auto& layer : connectionRows)
            connectionTable.push_back(layer.data());
        for (auto& layer : lengths)
            lengthTable.push_back(layer.data());
        const bool sparse = !connections.empty();
        int*** pppConnections = sparse ? connectionTable.data() : nullptr;
        int** ppConnCounts = sparse ? lengthTable.data() : nullptr;
        const Function<T>* pActivation = activations.empty() ? nullptr : activations.data();
        const Function<T>* pDerivative = derivatives.empty() ? nullptr : derivatives.data();
        const T* pThresholds = thresholds.empty() ? nullptr : thresholds.data();
        if constexpr (std::is_same_v<T, float>)
            return Server<T>(KTsInitMLPServer(table.data(), pppConnections, ppConnCounts,
                                              counts.data(), pActivation, pDerivative, layers(),
                                              flags, pThresholds));
        else
            return Server<T>(KTwInitMLPServer(table.data(), pppConnections, ppConnCounts,
                                              counts.data(), pActivation, pDerivative, layers(),
                                              flags, weightScale, pThresholds));
    }
};

// Random weights between -range and range; with functions of its own that pass sums on.
template <class T>
Network<T> randomNetwork(std::mt19937& random, std::vector<int> counts, double range,
                         bool passOn = false) {
    Network<T> network;
    network.counts = std::move(counts);
    network.flags = passOn ? 0 : KT_MLP_SIGMOID;
    std::uniform_real_distribution<double> uniform(-range, range);
    for (int l = 1; l < network.layers(); ++l) {
        network.weights.emplace_back();
        for (int j = 0; j < network.counts[std::size_t(l)]; ++j) {
            network.weights.back().emplace_back();
            for (int i = 0; i < network.counts[std::size_t(l) - 1]; ++i)
                network.weights.back().back().push_back(T(uniform(random)));
        }
        if (passOn) {
            network.activations.push_back(identityOf(T()));
            network.derivatives.push_back(identityOf(T()));
        }
    }
    return network;
}

template <class T>
std::vector<T> randomVector(std::mt19937& random, int n, double range) {
    std::uniform_real_distribution<double> uniform(-range, range);
    std::vector<T> v;
    for (int i = 0; i < n; ++i)
        v.push_back(T(uniform(random)));
    return v;
}

// The weights of a float server, row after row.
inline std::vector<float> weightsOf(sMLPServer* server) {
    std::vector<float> all;
    for (int l = 1; l < server->nLayers; ++l)
        for (int j = 0; j < server->playerNeuronCounts[l]; ++j) {
            std::vector<float> row(std::size_t(server->playerNeuronCounts[l - 1]));
            sMLPGetWeights(server, l, j, row.data());
            all.insert(all.end(), row.begin(), row.end());
        }
    return all;
}

inline double sigmoid(double x) {
    return 1.0 / (1.0 + std::exp(-x));
}

} // namespace perceptrons
