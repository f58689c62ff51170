// Small random models, the calls that make servers of them, and plain references: the recursions as
// a textbook writes them, and the sum or the minimum over every single path. Tests and benchmarks
// share them.
#pragma once

#include "ktlp6.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <random>
#include <type_traits>
#include <utility>
#include <vector>

namespace models {

template <class T>
using Rows = std::vector<std::vector<T>>;

template <class T>
std::vector<const T*> pointers(const Rows<T>& rows) {
    std::vector<const T*> result;
    for (const auto& row : rows)
        result.push_back(row.data());
    return result;
}

enum class Shape { full, triangular, banded };
inline constexpr Shape allShapes[] = {Shape::full, Shape::triangular, Shape::banded};

inline bool allows(Shape shape, int i, int j) {
    return shape == Shape::full || (j >= i && (shape == Shape::triangular || j <= i + 2));
}

inline std::size_t at(int i) {
    return static_cast<std::size_t>(i);
}

template <class T>
struct Model {
    int n = 0, m = 0;
    Shape shape = Shape::full;
    Rows<T> trans, out;
    std::vector<T> initial;

    static constexpr bool isFloat = std::is_same_v<T, float>;

    int discrete(int flags) const {
        const auto a = pointers(trans), b = pointers(out);
        if constexpr (isFloat)
            return KTsInitHMMServer(a.data(), b.data(), initial.data(), n, m, flags);
        else
            return KTwInitHMMServer(a.data(), b.data(), initial.data(), n, m, flags);
    }
    int semicont(int nQuant, int flags, int scale = 0) const {
        const auto a = pointers(trans), b = pointers(out);
        if constexpr (isFloat) {
            static_cast<void>(scale);
            return KTsInitSemicontHMMServer(a.data(), b.data(), initial.data(), n, m, nQuant,
                                            flags);
        } else {
            return KTwInitSemicontHMMServer(a.data(), b.data(), initial.data(), n, m, nQuant, flags,
                                            scale);
        }
    }
    int continuous(GaussMixServer** mixtures, int nQuant, int flags, int scale = 0) const {
        const auto a = pointers(trans);
        if constexpr (isFloat) {
            static_cast<void>(scale);
            return KTsInitContHMMServer(a.data(), initial.data(), mixtures, n, nQuant, flags);
        } else {
            return KTwInitContHMMServer(a.data(), initial.data(), mixtures, n, nQuant, flags,
                                        scale);
        }
    }
};

// What stands in a server's block, whose values begin at the next multiple of the alignment.
template <class T>
std::vector<T> storedAt(const void* block, std::size_t count, std::uintptr_t alignment) {
    const auto address = reinterpret_cast<std::uintptr_t>(block);
    const auto* first =
        reinterpret_cast<const T*>((address + alignment - 1) / alignment * alignment);
    return std::vector<T>(first, first + count);
}

// A model of one state: initial and transition value as given, outputs of the symbols.
template <class T>
Model<T> oneState(T initial, T stay, std::vector<T> outputs) {
    const int m = int(outputs.size());
    return {1, m, Shape::full, {{stay}}, {std::move(outputs)}, {initial}};
}

inline void normalise(std::vector<float>& row) {
    float sum = 0;
    for (const float v : row)
        sum += v;
    for (float& v : row)
        v /= sum;
}

// A model of probabilities; transitions that the shape leaves out are 0, all others are above it.
inline Model<float> randomModel(std::mt19937& random, int n, int m, Shape shape) {
    std::uniform_real_distribution<float> uniform(0.05f, 1.0f);
    Model<float> model{n, m, shape, {}, {}, {}};
    for (int i = 0; i < n; ++i) {
        std::vector<float> row, out;
        for (int j = 0; j < n; ++j)
            row.push_back(allows(shape, i, j) ? uniform(random) : 0.0f);
        for (int k = 0; k < m; ++k)
            out.push_back(uniform(random));
        normalise(row);
        normalise(out);
        model.trans.push_back(row);
        model.out.push_back(out);
        model.initial.push_back(uniform(random));
    }
    normalise(model.initial);
    return model;
}

template <class To, class Convert>
Model<To> converted(const Model<float>& model, Convert convert) {
    Model<To> result{model.n, model.m, model.shape, {}, {}, {}};
    const auto row = [&](const std::vector<float>& values) {
        std::vector<To> target;
        for (const float v : values)
            target.push_back(convert(v));
        return target;
    };
    for (const auto& values : model.trans)
        result.trans.push_back(row(values));
    for (const auto& values : model.out)
        result.out.push_back(row(values));
    result.initial = row(model.initial);
    return result;
}

inline Model<float> costsOf(const Model<float>& model) {
    return converted<float>(model, [](float p) { return p > 0 ? -std::log10(p) : 60.0f; });
}

// Costs times 256.
inline Model<short> fixedOf(const Model<float>& model) {
    return converted<short>(model, [](float p) {
        return p > 0 ? short(std::lround(-256 * std::log10(p))) : short(0x7FFF);
    });
}

// What a logarithmic fixed server makes of an input.
inline int widened(short v) {
    return v >= 0x7FFE ? HMM_LOG_ZERO : v;
}
inline Rows<int> widened(const Rows<short>& rows) {
    Rows<int> result;
    for (const auto& row : rows) {
        result.emplace_back();
        for (const short v : row)
            result.back().push_back(widened(v));
    }
    return result;
}

inline std::vector<int> randomSymbols(std::mt19937& random, int n, int m) {
    std::uniform_int_distribution<int> uniform(0, m - 1);
    std::vector<int> symbols;
    for (int t = 0; t < n; ++t)
        symbols.push_back(uniform(random));
    return symbols;
}

// The outputs of a discrete model: result[t][i].
template <class T>
Rows<T> outputsOf(const Rows<T>& out, const std::vector<int>& symbols) {
    Rows<T> result;
    for (const int symbol : symbols) {
        result.emplace_back();
        for (const auto& row : out)
            result.back().push_back(row[at(symbol)]);
    }
    return result;
}

inline float sum(float a, float b) {
    return a + b;
}
inline double sum(double a, double b) {
    return a + b;
}
inline int sum(int a, int b) { // wraps
    return static_cast<int>(static_cast<std::uint32_t>(a) + static_cast<std::uint32_t>(b));
}

// The cost of the best path, state by state.
template <class T>
T bestPath(const Rows<T>& trans, const std::vector<T>& initial, const Rows<T>& outputs,
           Shape shape) {
    const int n = static_cast<int>(initial.size());
    std::vector<T> now;
    for (int i = 0; i < n; ++i)
        now.push_back(sum(initial[at(i)], outputs[0][at(i)]));
    for (std::size_t t = 1; t < outputs.size(); ++t) {
        std::vector<T> next;
        for (int j = 0; j < n; ++j) {
            bool first = true;
            T best{};
            for (int i = 0; i < n; ++i) {
                if (!allows(shape, i, j)) continue;
                const T cost = sum(now[at(i)], trans[at(i)][at(j)]);
                if (first || cost < best) best = cost;
                first = false;
            }
            next.push_back(sum(best, outputs[t][at(j)]));
        }
        now = next;
    }
    return *std::min_element(now.begin(), now.end());
}

// Calls visit(path) for every sequence of states that the shape allows.
template <class Visit>
void everyPath(int n, int frames, Shape shape, Visit visit) {
    std::vector<int> path(at(frames), 0);
    for (;;) {
        bool allowed = true;
        for (std::size_t t = 1; t < path.size(); ++t)
            allowed = allowed && allows(shape, path[t - 1], path[t]);
        if (allowed) visit(path);
        std::size_t t = 0;
        while (t < path.size() && ++path[t] == n)
            path[t++] = 0;
        if (t == path.size()) return;
    }
}

// The smallest sum over all paths. Sums grow alike along a path and in the recursion, and rounding
// keeps order, so the two agree bit for bit.
template <class T>
T bestOfAllPaths(const Rows<T>& trans, const std::vector<T>& initial, const Rows<T>& outputs,
                 Shape shape) {
    bool first = true;
    T best{};
    everyPath(static_cast<int>(initial.size()), static_cast<int>(outputs.size()), shape,
              [&](const auto& path) {
                  T cost = sum(initial[at(path[0])], outputs[0][at(path[0])]);
                  for (std::size_t t = 1; t < path.size(); ++t)
                      cost = sum(outputs[t][at(path[t])],
                                 sum(cost, trans[at(path[t - 1])][at(path[t])]));
                  if (first || cost < best) best = cost;
                  first = false;
              });
    return best;
}

// -log10 of the sum of the probabilities of all paths.
inline double costOfAllPaths(const Rows<float>& trans, const std::vector<float>& initial,
                             const Rows<double>& outputs, Shape shape) {
    long double total = 0;
    everyPath(static_cast<int>(initial.size()), static_cast<int>(outputs.size()), shape,
              [&](const auto& path) {
                  long double p =
                      static_cast<long double>(initial[at(path[0])]) * outputs[0][at(path[0])];
                  for (std::size_t t = 1; t < path.size(); ++t)
                      p *= static_cast<long double>(trans[at(path[t - 1])][at(path[t])]) *
                           outputs[t][at(path[t])];
                  total += p;
              });
    return static_cast<double>(-std::log10(total));
}

// The same by the recursion, each frame's vector brought to the sum 1 and the logarithms added.
inline double forwardCost(const Rows<float>& trans, const std::vector<float>& initial,
                          const Rows<double>& outputs, Shape shape) {
    const int n = static_cast<int>(initial.size());
    std::vector<double> now;
    long double cost = 0;
    for (std::size_t t = 0; t < outputs.size(); ++t) {
        std::vector<double> next;
        double total = 0;
        for (int j = 0; j < n; ++j) {
            double reached = t == 0 ? static_cast<double>(initial[at(j)]) : 0.0;
            for (int i = 0; t > 0 && i < n; ++i)
                if (allows(shape, i, j))
                    reached += now[at(i)] * static_cast<double>(trans[at(i)][at(j)]);
            next.push_back(reached * outputs[t][at(j)]);
            total += next.back();
        }
        for (double& v : next)
            v /= total;
        cost -= std::log10(static_cast<long double>(total));
        now = next;
    }
    return static_cast<double>(cost);
}

inline Rows<double> wide(const Rows<float>& rows) {
    Rows<double> result;
    for (const auto& row : rows)
        result.emplace_back(row.begin(), row.end());
    return result;
}

} // namespace models
