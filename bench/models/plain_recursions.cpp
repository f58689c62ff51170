#include "bench/models/plain_recursions.h"

#include "bench/support/lanes.h"

#include <algorithm>
#include <cmath>

namespace plain {
namespace {

constexpr float small = 1e-15f;

int lastTarget(int i, int band, int n) {
    return band >= 0 && i + band < n - 1 ? i + band : n - 1;
}

} // namespace

float forward(const float* trans, const float* const* outputs, const float* initial, int n,
              int band, const int* symbols, int nFrames, float* alpha) {
    float *now = alpha, *next = alpha + n;
    double cost = 0;
    float sum = 0;
    for (int t = 0; t < nFrames; ++t) {
        const float* b = outputs[symbols[t]];
        for (int j = 0; j < n; ++j)
            next[j] = t == 0 ? initial[j] : 0.0f;
        for (int i = 0; t > 0 && i < n; ++i)
            for (int j = band >= 0 ? i : 0; j <= lastTarget(i, band, n); ++j)
                next[j] += now[i] * trans[i * n + j];
        sum = 0;
        for (int j = 0; j < n; ++j) {
            next[j] *= b[j];
            sum += next[j];
        }
        if (sum < small) {
            const float factor = 1.0f / sum;
            for (int j = 0; j < n; ++j)
                next[j] *= factor;
            cost -= std::log10(double(sum));
            sum = 1;
        }
        std::swap(now, next);
    }
    return float(cost - std::log10(double(sum)));
}

float viterbi(const float* trans, const float* const* outputs, const float* initial, int n,
              int band, const int* symbols, int nFrames, float* delta) {
    float *now = delta, *next = delta + n;
    for (int j = 0; j < n; ++j)
        now[j] = initial[j] + outputs[symbols[0]][j];
    for (int t = 1; t < nFrames; ++t) {
        const float* b = outputs[symbols[t]];
        for (int j = 0; j < n; ++j)
            next[j] = 3e38f;
        for (int i = 0; i < n; ++i)
            for (int j = band >= 0 ? i : 0; j <= lastTarget(i, band, n); ++j) {
                const float cost = now[i] + trans[i * n + j];
                next[j] = cost < next[j] ? cost : next[j];
            }
        for (int j = 0; j < n; ++j)
            next[j] += b[j];
        std::swap(now, next);
    }
    float best = now[0];
    for (int j = 1; j < n; ++j)
        best = now[j] < best ? now[j] : best;
    return best;
}

LaneModel::LaneModel(const float* trans, const float* const* symbolRows, int nSymbols,
                     const float* first, int n, bool banded, float none)
    : isBanded(banded), isNarrow(n <= 16), nStates(n), nothing(none),
      rows(std::size_t((banded ? 3 : n) * width), none),
      outputs(std::size_t(nSymbols * width), none), initial(std::size_t(width), none) {
    std::copy(first, first + n, initial.begin());
    for (int k = 0; k < nSymbols; ++k)
        std::copy(symbolRows[k], symbolRows[k] + n, outputs.begin() + k * width);
    for (int i = 0; i < n; ++i)
        for (int j = 0; j < n; ++j)
            if (!banded)
                rows[std::size_t(i * width + j)] = trans[i * n + j];
            else if (j >= i && j <= i + 2)
                rows[std::size_t((j - i) * width + j)] = trans[i * n + j];
}

namespace {

// The two steps of a recursion: along a transition, and where paths meet.
struct Probabilities {
    static Floats along(Floats from, Floats step) { return from * step; }
    static Floats meet(Floats a, Floats b) { return a + b; }
};
struct Costs {
    static Floats along(Floats from, Floats step) { return from + step; }
    static Floats meet(Floats a, Floats b) { return a < b ? a : b; }
};

// Sixteen states from the ones before; `now` points at the first of them, with two more in front.
template <class Rule>
Floats byDiagonals(const float* now, const float* diagonals, int width) {
    const Floats stay = Rule::along(load(now), load(diagonals));
    const Floats next = Rule::along(load(now - 1), load(diagonals + width));
    return Rule::meet(Rule::meet(stay, next),
                      Rule::along(load(now - 2), load(diagonals + 2 * width)));
}

Floats all(float value) {
    return Floats{} + value;
}

// Sixteen states from all before; two chains hide the latency.
template <class Rule>
Floats byRows(const float* now, const float* rows, int width, int n, float nothing) {
    Floats a = all(nothing), b = all(nothing);
    int i = 0;
    for (; i + 2 <= n; i += 2) {
        a = Rule::meet(a, Rule::along(all(now[i]), load(rows + i * width)));
        b = Rule::meet(b, Rule::along(all(now[i + 1]), load(rows + (i + 1) * width)));
    }
    if (i < n) a = Rule::meet(a, Rule::along(all(now[i]), load(rows + i * width)));
    return Rule::meet(a, b);
}

// A frame's states, with room for the two that are missing in front of the first.
struct States {
    alignas(64) float values[64];
    explicit States(float nothing) { std::fill(values, values + 64, nothing); }
    float* first() { return values + 16; }
};

template <class Rule>
void step(const float* now, const float* rows, const float* b, float* next, int n, bool isBanded,
          bool isNarrow, float nothing, int width) {
    for (int group = 0; group < (isNarrow ? 16 : 32); group += 16) {
        const Floats reached = isBanded ? byDiagonals<Rule>(now + group, rows + group, width)
                                        : byRows<Rule>(now, rows + group, width, n, nothing);
        store(next + group, Rule::along(reached, load(b + group)));
    }
}

float sumOf(const float* values) {
    float sum = 0;
    for (int j = 0; j < 32; ++j)
        sum += values[j];
    return sum;
}

} // namespace

float LaneModel::forward(const int* symbols, int nFrames) const {
    States one(0), other(0);
    float *now = one.first(), *next = other.first();
    double cost = 0;
    float sum = 0;
    for (int t = 0; t < nFrames; ++t) {
        const float* b = outputs.data() + symbols[t] * width;
        if (t == 0)
            for (int j = 0; j < width; ++j)
                next[j] = initial[std::size_t(j)] * b[j];
        else
            step<Probabilities>(now, rows.data(), b, next, nStates, isBanded, isNarrow, 0, width);
        sum = sumOf(next);
        if (sum < small) {
            for (int j = 0; j < width; ++j)
                next[j] /= sum;
            cost -= std::log10(double(sum));
            sum = 1;
        }
        std::swap(now, next);
    }
    return float(cost - std::log10(double(sum)));
}

float LaneModel::viterbi(const int* symbols, int nFrames) const {
    States one(nothing), other(nothing);
    float *now = one.first(), *next = other.first();
    const float* b = outputs.data() + symbols[0] * width;
    for (int j = 0; j < nStates; ++j)
        now[j] = initial[std::size_t(j)] + b[j];
    for (int t = 1; t < nFrames; ++t) {
        b = outputs.data() + symbols[t] * width;
        step<Costs>(now, rows.data(), b, next, nStates, isBanded, isNarrow, nothing, width);
        std::swap(now, next);
    }
    return *std::min_element(now, now + nStates);
}

} // namespace plain
