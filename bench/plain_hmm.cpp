#include "plain_hmm.h"

#include <cmath>

namespace plain {
namespace {

int lastTarget(int i, int band, int n) {
    return band >= 0 && i + band < n - 1 ? i + band : n - 1;
}

template <class T>
T forwardCost(const T* trans, const T* const* outputs, const T* initial, int n, int band, const int* symbols,
              int nFrames, T* alpha) {
    T *now = alpha, *next = alpha + n;
    double cost = 0;
    for (int t = 0; t < nFrames; ++t) {
        const T* b = outputs[symbols[t]];
        T sum = 0;
        for (int j = 0; j < n; ++j)
            next[j] = t == 0 ? initial[j] : T(0);
        for (int i = 0; t > 0 && i < n; ++i)
            for (int j = band >= 0 ? i : 0; j <= lastTarget(i, band, n); ++j)
                next[j] += now[i] * trans[i * n + j];
        for (int j = 0; j < n; ++j) {
            next[j] *= b[j];
            sum += next[j];
        }
        const T factor = T(1) / sum;
        for (int j = 0; j < n; ++j)
            next[j] *= factor;
        cost -= std::log10(double(sum));
        T* const previous = now;
        now = next;
        next = previous;
    }
    return T(cost);
}

} // namespace

float forward(const float* trans, const float* const* outputs, const float* initial, int nStates, int band,
              const int* symbols, int nFrames, float* alpha) {
    return forwardCost(trans, outputs, initial, nStates, band, symbols, nFrames, alpha);
}

double forward(const double* trans, const double* const* outputs, const double* initial, int nStates,
               int band, const int* symbols, int nFrames, double* alpha) {
    return forwardCost(trans, outputs, initial, nStates, band, symbols, nFrames, alpha);
}

float viterbi(const float* trans, const float* const* outputs, const float* initial, int n, int band,
              const int* symbols, int nFrames, float* delta) {
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
        float* const previous = now;
        now = next;
        next = previous;
    }
    float best = now[0];
    for (int j = 1; j < n; ++j)
        best = now[j] < best ? now[j] : best;
    return best;
}

} // namespace plain
