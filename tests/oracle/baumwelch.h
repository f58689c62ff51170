// Baum-Welch as the textbooks have it: logarithms of probabilities and log-sum-exp, plain double,
// no scaling. Includes nothing of the library.
#pragma once

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <limits>
#include <vector>

namespace oracle {

using Row = std::vector<double>;
using Rows = std::vector<Row>;

inline constexpr double logOfZero = -std::numeric_limits<double>::infinity();

inline double logSum(const Row& terms) {
    const double greatest = *std::max_element(terms.begin(), terms.end());
    if (greatest == logOfZero) return logOfZero;
    double sum = 0;
    for (double term : terms)
        sum += std::exp(term - greatest);
    return greatest + std::log(sum);
}

struct Hmm {
    Row pi;
    Rows a;
    std::size_t size() const { return pi.size(); }
};

// What one sequence tells: occupancies and transition counts, and the logarithm of its likelihood.
struct Expectations {
    double logLikelihood = logOfZero;
    Rows gamma; // by frame and state
    Rows xi;    // by source and target, summed over the frames
};

// logB[t][i]: the logarithm of state i's output value in frame t.
inline Expectations expectations(const Hmm& model, const Rows& logB) {
    const std::size_t n = model.size(), frames = logB.size();
    Rows alpha(frames, Row(n)), beta(frames, Row(n, 0.0));
    for (std::size_t i = 0; i < n; ++i)
        alpha[0][i] = std::log(model.pi[i]) + logB[0][i];
    for (std::size_t t = 1; t < frames; ++t)
        for (std::size_t j = 0; j < n; ++j) {
            Row terms(n);
            for (std::size_t i = 0; i < n; ++i)
                terms[i] = alpha[t - 1][i] + std::log(model.a[i][j]);
            alpha[t][j] = logSum(terms) + logB[t][j];
        }
    for (std::size_t t = frames - 1; t > 0; --t)
        for (std::size_t i = 0; i < n; ++i) {
            Row terms(n);
            for (std::size_t j = 0; j < n; ++j)
                terms[j] = std::log(model.a[i][j]) + logB[t][j] + beta[t][j];
            beta[t - 1][i] = logSum(terms);
        }
    Expectations result;
    result.logLikelihood = logSum(alpha[frames - 1]);
    if (result.logLikelihood == logOfZero) return result;
    result.gamma.assign(frames, Row(n));
    result.xi.assign(n, Row(n, 0.0));
    for (std::size_t t = 0; t < frames; ++t)
        for (std::size_t i = 0; i < n; ++i) {
            result.gamma[t][i] = std::exp(alpha[t][i] + beta[t][i] - result.logLikelihood);
            for (std::size_t j = 0; t > 0 && j < n; ++j)
                result.xi[i][j] += std::exp(alpha[t - 1][i] + std::log(model.a[i][j]) + logB[t][j] +
                                            beta[t][j] - result.logLikelihood);
        }
    return result;
}

inline double floored(double value) {
    return value < 1e-20 ? 0.0 : value;
}

// The sums over sequences that all flavours share, and the new start values and transitions.
// `total` is each state's occupancy over all frames.
struct Sums {
    explicit Sums(std::size_t n)
        : start(n, 0.0), leaving(n, 0.0), total(n, 0.0), moves(n, Row(n, 0.0)) {}

    void add(const Expectations& e) {
        for (std::size_t i = 0; i < start.size(); ++i) {
            start[i] += e.gamma[0][i];
            sequences += e.gamma[0][i];
            for (std::size_t t = 0; t < e.gamma.size(); ++t) {
                total[i] += e.gamma[t][i];
                if (t + 1 < e.gamma.size()) leaving[i] += e.gamma[t][i];
            }
            for (std::size_t j = 0; j < start.size(); ++j)
                moves[i][j] += e.xi[i][j];
        }
    }

    Hmm reestimate(const Hmm& old) const {
        Hmm result = old;
        for (std::size_t i = 0; i < start.size(); ++i) {
            if (sequences > 0) result.pi[i] = floored(start[i] / sequences);
            for (std::size_t j = 0; leaving[i] > 0 && j < start.size(); ++j)
                result.a[i][j] = floored(moves[i][j] / leaving[i]);
        }
        return result;
    }

    double sequences = 0.0;
    Row start, leaving, total;
    Rows moves;
};

inline double greatestDifference(const Row& a, const Row& b) {
    double greatest = 0;
    for (std::size_t i = 0; i < a.size(); ++i)
        greatest = std::max(greatest, std::fabs(a[i] - b[i]));
    return greatest;
}
inline double greatestDifference(const Rows& a, const Rows& b) {
    double greatest = 0;
    for (std::size_t i = 0; i < a.size(); ++i)
        greatest = std::max(greatest, greatestDifference(a[i], b[i]));
    return greatest;
}

// --- discrete: b[i][k] ---

struct DiscreteHmm {
    Hmm chain;
    Rows b;
};

inline Rows logOutputs(const DiscreteHmm& model, const std::vector<int>& symbols) {
    Rows logB;
    for (int symbol : symbols) {
        Row row;
        for (const Row& outputs : model.b)
            row.push_back(std::log(outputs[std::size_t(symbol)]));
        logB.push_back(row);
    }
    return logB;
}

// One iteration; returns the greatest change of a parameter.
inline double iterate(DiscreteHmm& model, const std::vector<std::vector<int>>& sequences) {
    const DiscreteHmm old = model;
    const std::size_t n = old.chain.size(), symbols = old.b[0].size();
    Sums sums(n);
    Rows counts(n, Row(symbols, 0.0));
    for (const auto& sequence : sequences) {
        if (sequence.empty()) continue;
        const Expectations e = expectations(old.chain, logOutputs(old, sequence));
        if (e.logLikelihood == logOfZero) continue;
        sums.add(e);
        for (std::size_t t = 0; t < sequence.size(); ++t)
            for (std::size_t i = 0; i < n; ++i)
                counts[i][std::size_t(sequence[t])] += e.gamma[t][i];
    }
    model.chain = sums.reestimate(old.chain);
    for (std::size_t i = 0; i < n; ++i)
        for (std::size_t k = 0; sums.total[i] > 0 && k < symbols; ++k)
            model.b[i][k] = floored(counts[i][k] / sums.total[i]);
    return std::max({greatestDifference(old.chain.pi, model.chain.pi),
                     greatestDifference(old.chain.a, model.chain.a),
                     greatestDifference(old.b, model.b)});
}

// --- mixtures: state i has components with weights[i][m], means[i][m], and densities exp(-factor *
// form) ---

struct Components {
    Row weights;
    Rows means;
    std::vector<Rows> inverses; // full matrices; a diagonal one where `isDiagonal`
    bool isDiagonal = true;     // a diagonal form counts half
};

struct ContinuousHmm {
    Hmm chain;
    std::vector<Components> states;
};

inline double logDensity(const Row& x, const Row& mean, const Rows& inverse, bool isDiagonal) {
    double form = 0;
    for (std::size_t i = 0; i < x.size(); ++i)
        for (std::size_t j = 0; j < x.size(); ++j)
            form += inverse[i][j] * (x[i] - mean[i]) * (x[j] - mean[j]);
    return -std::fabs(form) * (isDiagonal ? 0.5 : 1.0);
}

// By frame, state and component: logarithms of weighted densities.
inline std::vector<Rows> logComponents(const ContinuousHmm& model, const Rows& frames) {
    std::vector<Rows> result;
    for (const Row& x : frames) {
        Rows states;
        for (const Components& c : model.states) {
            Row terms;
            for (std::size_t m = 0; m < c.weights.size(); ++m)
                terms.push_back(std::log(c.weights[m]) +
                                logDensity(x, c.means[m], c.inverses[m], c.isDiagonal));
            states.push_back(terms);
        }
        result.push_back(states);
    }
    return result;
}

inline Rows logOutputs(const std::vector<Rows>& components) {
    Rows logB;
    for (const Rows& states : components) {
        Row row;
        for (const Row& terms : states)
            row.push_back(logSum(terms));
        logB.push_back(row);
    }
    return logB;
}

// Each component's share of its state's occupancy in a frame.
inline double share(double gamma, double logComponent, double logOutput) {
    return gamma == 0.0 ? 0.0 : gamma * std::exp(logComponent - logOutput);
}

// Weights do not enter the change; a component that received nothing gets a mean of zeros, a weight
// of zero stays zero.
inline double iterate(ContinuousHmm& model, const std::vector<Rows>& sequences) {
    const ContinuousHmm old = model;
    const std::size_t n = old.chain.size();
    Sums sums(n);
    std::vector<Row> counts(n);
    std::vector<Rows> means(n);
    for (std::size_t i = 0; i < n; ++i) {
        counts[i].assign(old.states[i].weights.size(), 0.0);
        means[i].assign(counts[i].size(), Row(old.states[i].means[0].size(), 0.0));
    }
    for (const Rows& frames : sequences) {
        const std::vector<Rows> components = logComponents(old, frames);
        const Rows logB = logOutputs(components);
        const Expectations e = expectations(old.chain, logB);
        if (e.logLikelihood == logOfZero) continue;
        sums.add(e);
        for (std::size_t t = 0; t < frames.size(); ++t)
            for (std::size_t i = 0; i < n; ++i)
                for (std::size_t m = 0; m < counts[i].size(); ++m) {
                    const double part = share(e.gamma[t][i], components[t][i][m], logB[t][i]);
                    counts[i][m] += part;
                    for (std::size_t d = 0; d < frames[t].size(); ++d)
                        means[i][m][d] += part * frames[t][d];
                }
    }
    model.chain = sums.reestimate(old.chain);
    double change = std::max(greatestDifference(old.chain.pi, model.chain.pi),
                             greatestDifference(old.chain.a, model.chain.a));
    for (std::size_t i = 0; i < n; ++i)
        for (std::size_t m = 0; m < counts[i].size(); ++m) {
            if (sums.total[i] > 0)
                model.states[i].weights[m] =
                    old.states[i].weights[m] == 0.0 ? 0.0 : counts[i][m] / sums.total[i];
            for (std::size_t d = 0; d < means[i][m].size(); ++d)
                model.states[i].means[m][d] =
                    counts[i][m] > 0 ? means[i][m][d] / counts[i][m] : 0.0;
            change = std::max(change,
                              greatestDifference(old.states[i].means[m], model.states[i].means[m]));
        }
    return change;
}

// --- semicontinuous: weights[i][k] over shared densities, given by their logarithms for each frame
// ---

struct SemicontinuousHmm {
    Hmm chain;
    Rows weights;
};

inline std::vector<Rows> logComponents(const SemicontinuousHmm& model, const Rows& logDensities) {
    std::vector<Rows> result;
    for (const Row& densities : logDensities) {
        Rows states;
        for (const Row& weights : model.weights) {
            Row terms;
            for (std::size_t k = 0; k < weights.size(); ++k)
                terms.push_back(std::log(weights[k]) + densities[k]);
            states.push_back(terms);
        }
        result.push_back(states);
    }
    return result;
}

inline double iterate(SemicontinuousHmm& model, const std::vector<Rows>& sequencesOfLogDensities) {
    const SemicontinuousHmm old = model;
    const std::size_t n = old.chain.size();
    Sums sums(n);
    Rows counts(n, Row(old.weights[0].size(), 0.0));
    for (const Rows& densities : sequencesOfLogDensities) {
        const std::vector<Rows> components = logComponents(old, densities);
        const Rows logB = logOutputs(components);
        const Expectations e = expectations(old.chain, logB);
        if (e.logLikelihood == logOfZero) continue;
        sums.add(e);
        for (std::size_t t = 0; t < densities.size(); ++t)
            for (std::size_t i = 0; i < n; ++i)
                for (std::size_t k = 0; k < counts[i].size(); ++k)
                    counts[i][k] += share(e.gamma[t][i], components[t][i][k], logB[t][i]);
    }
    model.chain = sums.reestimate(old.chain);
    for (std::size_t i = 0; i < n; ++i)
        for (std::size_t k = 0; sums.total[i] > 0 && k < counts[i].size(); ++k)
            model.weights[i][k] = floored(counts[i][k] / sums.total[i]);
    return std::max({greatestDifference(old.chain.pi, model.chain.pi),
                     greatestDifference(old.chain.a, model.chain.a),
                     greatestDifference(old.weights, model.weights)});
}

} // namespace oracle
