#include "bench/models/plain_training.h"

#include "bench/support/lanes.h"

#include <algorithm>
#include <cmath>
#include <cstddef>

namespace plain {
namespace {

using Values = std::vector<double>;

int lastTarget(const Chain& chain, int i) {
    return std::min(chain.n, chain.width == chain.n ? chain.n : i + chain.width);
}
int firstTarget(const Chain& chain, int i) {
    return chain.width == chain.n ? 0 : i;
}

struct Pass {
    Values b, alpha, beta, scale;

    // b holds n output values for each frame.
    void run(const Chain& chain, int frames) {
        const int n = chain.n;
        alpha.assign(std::size_t(frames * n), 0.0);
        beta.assign(std::size_t(frames * n), 1.0);
        scale.assign(std::size_t(frames), 1.0);
        for (int i = 0; i < n; ++i)
            alpha[i] = chain.pi[i] * b[i];
        normalise(n, 0);
        for (int t = 1; t < frames; ++t) {
            forward(chain, &alpha[(t - 1) * n], &b[t * n], &alpha[t * n]);
            normalise(n, t);
        }
        Values weighted(static_cast<std::size_t>(n));
        for (int t = frames - 1; t > 0; --t) {
            for (int j = 0; j < n; ++j)
                weighted[j] = b[t * n + j] * beta[t * n + j] * scale[t];
            backward(chain, weighted.data(), &beta[(t - 1) * n]);
        }
    }

    static void forward(const Chain& chain, const double* __restrict now,
                        const double* __restrict outputs, double* __restrict next) {
        const double* const __restrict a = chain.a.data();
        for (int i = 0; i < chain.n; ++i)
            for (int j = firstTarget(chain, i); j < lastTarget(chain, i); ++j)
                next[j] += now[i] * a[i * chain.n + j];
        for (int j = 0; j < chain.n; ++j)
            next[j] *= outputs[j];
    }

    static void backward(const Chain& chain, const double* __restrict weighted,
                         double* __restrict before) {
        const double* const __restrict a = chain.a.data();
        for (int i = 0; i < chain.n; ++i) {
            double sum = 0;
            for (int j = firstTarget(chain, i); j < lastTarget(chain, i); ++j)
                sum += a[i * chain.n + j] * weighted[j];
            before[i] = sum;
        }
    }

    void normalise(int n, int t) {
        double sum = 0;
        for (int j = 0; j < n; ++j)
            sum += alpha[t * n + j];
        scale[t] = 1 / sum;
        for (int j = 0; j < n; ++j)
            alpha[t * n + j] *= scale[t];
    }
};

struct Sums {
    explicit Sums(int n) : start(n), leaving(n), total(n), moves(n * n) {}

    void add(const Chain& chain, const Pass& p, int frames) {
        const int n = chain.n;
        for (int t = 0; t < frames; ++t)
            for (int i = 0; i < n; ++i) {
                const double gamma = p.alpha[t * n + i] * p.beta[t * n + i];
                if (t == 0) start[i] += gamma;
                if (t + 1 < frames) leaving[i] += gamma;
                total[i] += gamma;
            }
        Values weighted(static_cast<std::size_t>(n));
        for (int t = 1; t < frames; ++t) {
            for (int j = 0; j < n; ++j)
                weighted[j] = p.b[t * n + j] * p.beta[t * n + j] * p.scale[t];
            addMoves(chain, &p.alpha[(t - 1) * n], weighted.data(), moves.data());
        }
    }

    static void addMoves(const Chain& chain, const double* __restrict before,
                         const double* __restrict weighted, double* __restrict sums) {
        const double* const __restrict a = chain.a.data();
        for (int i = 0; i < chain.n; ++i)
            for (int j = firstTarget(chain, i); j < lastTarget(chain, i); ++j)
                sums[i * chain.n + j] += before[i] * a[i * chain.n + j] * weighted[j];
    }

    double finish(Chain& chain, int count) const {
        double change = 0;
        for (int i = 0; i < chain.n; ++i) {
            change = std::max(change, std::fabs(start[i] / count - chain.pi[i]));
            chain.pi[i] = start[i] / count;
            for (int j = firstTarget(chain, i); j < lastTarget(chain, i); ++j) {
                const double value = moves[i * chain.n + j] / leaving[i];
                change = std::max(change, std::fabs(value - chain.a[i * chain.n + j]));
                chain.a[i * chain.n + j] = value;
            }
        }
        return change;
    }

    Values start, leaving, total, moves;
};

} // namespace

double trainDiscrete(Discrete& model, const int* const* sequences, const int* lengths, int count) {
    const int n = model.chain.n, symbols = model.nSymbols;
    Sums sums(n);
    Values outputs(model.b.size());
    Pass pass;
    for (int q = 0; q < count; ++q) {
        pass.b.resize(std::size_t(lengths[q] * n));
        for (int t = 0; t < lengths[q]; ++t)
            for (int i = 0; i < n; ++i)
                pass.b[t * n + i] = model.b[i * symbols + sequences[q][t]];
        pass.run(model.chain, lengths[q]);
        sums.add(model.chain, pass, lengths[q]);
        for (int t = 0; t < lengths[q]; ++t)
            for (int i = 0; i < n; ++i)
                outputs[i * symbols + sequences[q][t]] +=
                    pass.alpha[t * n + i] * pass.beta[t * n + i];
    }
    double change = sums.finish(model.chain, count);
    for (int i = 0; i < n; ++i)
        for (int k = 0; k < symbols; ++k) {
            const double value = outputs[i * symbols + k] / sums.total[i];
            change = std::max(change, std::fabs(value - model.b[i * symbols + k]));
            model.b[i * symbols + k] = value;
        }
    return change;
}

double trainContinuous(Continuous& model, const float* const* const* sequences, const int* lengths,
                       int count) {
    const int n = model.chain.n, mixes = model.nMix, dims = model.nDim;
    Sums sums(n);
    Values counts(model.weights.size()), means(model.means.size()), parts;
    Pass pass;
    for (int q = 0; q < count; ++q) {
        const int frames = lengths[q];
        pass.b.assign(std::size_t(frames * n), 0.0);
        parts.resize(std::size_t(frames * n * mixes));
        for (int t = 0; t < frames; ++t)
            for (int c = 0; c < n * mixes; ++c) {
                double form = 0;
                for (int d = 0; d < dims; ++d) {
                    const double x = double(sequences[q][t][d]) - model.means[c * dims + d];
                    form += model.inverses[c * dims + d] * x * x;
                }
                parts[t * n * mixes + c] = model.weights[c] * std::exp(-0.5 * form);
                pass.b[t * n + c / mixes] += parts[t * n * mixes + c];
            }
        pass.run(model.chain, frames);
        sums.add(model.chain, pass, frames);
        for (int t = 0; t < frames; ++t)
            for (int c = 0; c < n * mixes; ++c) {
                const int at = t * n + c / mixes;
                const double part =
                    pass.alpha[at] * pass.beta[at] * parts[t * n * mixes + c] / pass.b[at];
                counts[c] += part;
                for (int d = 0; d < dims; ++d)
                    means[c * dims + d] += part * double(sequences[q][t][d]);
            }
    }
    double change = sums.finish(model.chain, count);
    for (int c = 0; c < n * mixes; ++c) {
        model.weights[c] = counts[c] / sums.total[c / mixes];
        for (int d = 0; d < dims; ++d) {
            const double value = means[c * dims + d] / counts[c];
            change = std::max(change, std::fabs(value - model.means[c * dims + d]));
            model.means[c * dims + d] = value;
        }
    }
    return change;
}

namespace {

constexpr int width = 12; // states, padded with states that nothing reaches

// A row of twelve values in three registers.
struct Twelve {
    Doubles a = {}, b = {}, c = {};
    static Twelve of(const double* from) { return {load(from), load(from + 4), load(from + 8)}; }
    void to(double* out) const {
        store(out, a);
        store(out + 4, b);
        store(out + 8, c);
    }
    void add(double factor, const Twelve& row) {
        a += factor * row.a;
        b += factor * row.b;
        c += factor * row.c;
    }
    void add(const Twelve& row) {
        a += row.a;
        b += row.b;
        c += row.c;
    }
    Twelve operator*(const Twelve& o) const { return {a * o.a, b * o.b, c * o.c}; }
    Twelve operator*(double f) const { return {a * f, b * f, c * f}; }
    double sum() const {
        const Doubles all = a + b + c;
        return (all[0] + all[1]) + (all[2] + all[3]);
    }
};

struct LaneSums {
    int n, symbols;
    Values a, transposed, b, pi;                  // the model, padded; b by symbol
    Values start, leaving, total, moves, outputs; // the sums, padded
    Values alpha, weighted, scale, sequenceMoves; // of one sequence
    explicit LaneSums(const Discrete& model)
        : n(model.chain.n), symbols(model.nSymbols), a(width * width), transposed(width * width),
          b(std::size_t(symbols * width)), pi(width), start(width), leaving(width), total(width),
          moves(width * width), outputs(b.size()), sequenceMoves(width * width) {
        std::copy(model.chain.pi.begin(), model.chain.pi.end(), pi.begin());
        for (int i = 0; i < n; ++i) {
            for (int j = 0; j < n; ++j)
                a[i * width + j] = transposed[j * width + i] = model.chain.a[i * n + j];
            for (int k = 0; k < symbols; ++k)
                b[k * width + i] = model.b[i * symbols + k];
        }
    }

    static Twelve product(const double* vector, const double* matrix) {
        Twelve even, odd;
        for (int i = 0; i < width; i += 2) {
            even.add(vector[i], Twelve::of(matrix + i * width));
            odd.add(vector[i + 1], Twelve::of(matrix + (i + 1) * width));
        }
        even.add(odd);
        return even;
    }

    // Rescaled only where the sum has become small. Returns the sum of the last frame.
    double forward(const int* sequence, int frames) {
        alpha.resize(std::size_t(frames * width));
        weighted.resize(alpha.size());
        scale.assign(std::size_t(frames), 1.0);
        Twelve now = Twelve::of(pi.data()) * Twelve::of(b.data() + sequence[0] * width);
        double sum = now.sum();
        now.to(alpha.data());
        for (int t = 1; t < frames; ++t) {
            now = product(alpha.data() + (t - 1) * width, a.data()) *
                  Twelve::of(b.data() + sequence[t] * width);
            sum = now.sum();
            if (sum < 1e-60) {
                scale[t] = 1 / sum;
                now = now * scale[t];
                sum = 1;
            }
            now.to(alpha.data() + t * width);
        }
        return sum;
    }

    void count(int t, const int* sequence, double weight, const Twelve& beta, bool isLast) {
        const Twelve gamma = Twelve::of(alpha.data() + t * width) * beta * weight;
        addTo(outputs.data() + sequence[t] * width, gamma);
        addTo(total.data(), gamma);
        if (!isLast) addTo(leaving.data(), gamma);
        if (t == 0) addTo(start.data(), gamma);
    }
    static void addTo(double* sums, const Twelve& row) {
        Twelve now = Twelve::of(sums);
        now.add(row);
        now.to(sums);
    }

    void add(const int* sequence, int frames) {
        const double weight = 1 / forward(sequence, frames);
        Twelve beta{Doubles{1, 1, 1, 1}, Doubles{1, 1, 1, 1}, Doubles{1, 1, 1, 1}};
        for (int t = frames - 1; t > 0; --t) {
            count(t, sequence, weight, beta, t == frames - 1);
            double* const row = weighted.data() + t * width;
            (Twelve::of(b.data() + sequence[t] * width) * beta * scale[t]).to(row);
            beta = product(row, transposed.data());
        }
        count(0, sequence, weight, beta, frames == 1);
        for (int i = 0; i < width; i += 2)
            addMoves(i, frames, weight);
    }

    // What leads from two states, over all frames.
    void addMoves(int i, int frames, double weight) {
        Twelve first, second;
        for (int t = 1; t < frames; ++t) {
            const Twelve row = Twelve::of(weighted.data() + t * width);
            first.add(alpha[(t - 1) * width + i], row);
            second.add(alpha[(t - 1) * width + i + 1], row);
        }
        addTo(moves.data() + i * width, first * Twelve::of(a.data() + i * width) * weight);
        addTo(moves.data() + (i + 1) * width,
              second * Twelve::of(a.data() + (i + 1) * width) * weight);
    }
};

double replace(double& parameter, double value) {
    const double change = std::fabs(value - parameter);
    parameter = value;
    return change;
}

} // namespace

double trainDiscreteLanes(Discrete& model, const int* const* sequences, const int* lengths,
                          int count) {
    LaneSums sums(model);
    for (int q = 0; q < count; ++q)
        sums.add(sequences[q], lengths[q]);
    const int n = model.chain.n;
    double change = 0;
    for (int i = 0; i < n; ++i) {
        change = std::max(change, replace(model.chain.pi[i], sums.start[i] / count));
        for (int j = 0; j < n; ++j)
            change = std::max(change, replace(model.chain.a[i * n + j],
                                              sums.moves[i * width + j] / sums.leaving[i]));
        for (int k = 0; k < model.nSymbols; ++k)
            change = std::max(change, replace(model.b[i * model.nSymbols + k],
                                              sums.outputs[k * width + i] / sums.total[i]));
    }
    return change;
}

} // namespace plain
