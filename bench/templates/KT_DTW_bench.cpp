// Time warping: 50 patterns of 60 frames against a test of 60 frames, 13 dimensions, Euclidean,
// fixed ends; against loops in float over the same band with transposed patterns, and with a
// threshold at the best distance.
#include "bench/support/bench.h"
#include "bench/templates/plain_warp.h"
#include "ktlp6.h"

#include <algorithm>
#include <cmath>
#include <vector>

namespace {

constexpr int nPatterns = 50, nFrames = 60, nDim = 13;

// Slow trajectories, as speech features are; the test is a disturbed copy of pattern 17.
struct Job {
    std::vector<std::vector<float>> frames;
    std::vector<std::vector<float*>> patterns;
    std::vector<float*> test;
    std::vector<int> handles;

    Job() {
        unsigned state = 1;
        auto noise = [&] {
            state = state * 1664525u + 1013904223u;
            return float(state >> 8) / 16777216.0f - 0.5f;
        };
        frames.reserve((nPatterns + 1) * nFrames);
        for (int p = 0; p <= nPatterns; ++p) {
            std::vector<float*> rows;
            for (int i = 0; i < nFrames; ++i) {
                std::vector<float> frame;
                const int source = p == nPatterns ? 17 : p;
                for (int k = 0; k < nDim; ++k)
                    frame.push_back(
                        10 * std::sin(float(i) * 0.02f * float(1 + (source * 7 + k * 3) % 11) +
                                      float(source)) +
                        (p == nPatterns ? 4 * noise() : noise()));
                frames.push_back(frame);
                rows.push_back(frames.back().data());
            }
            if (p == nPatterns)
                test = rows;
            else
                patterns.push_back(rows);
        }
        for (auto& pattern : patterns)
            handles.push_back(KTsPatternIni(pattern.data(), nFrames, nDim));
    }
    ~Job() { KTsPatternFreeAll(); }

    Job(const Job&) = delete;
    Job& operator=(const Job&) = delete;

    double evaluate(int flags, double threshold) {
        KTsEvalDTW(handles.data(), nPatterns, test.data(), nFrames, nDim, flags, threshold, 0,
                   distances.data());
        return *std::min_element(distances.begin(), distances.end());
    }

    bench::Values distances = bench::Values(nPatterns);
    bench::Values results() const { return distances; }
};

struct Ours : Job {
    void run() { benchmark::DoNotOptimize(evaluate(KT_DTW_FIXED_ENDS, 0)); }
};

// As a program would call it that knows what it hopes for: just above the best distance.
struct OursAtThreshold : Job {
    double best = evaluate(KT_DTW_FIXED_ENDS, 0);
    double threshold = std::nextafter(float(best), 1e9f);
    void run() { found = evaluate(KT_DTW_FIXED_ENDS | KT_DTW_USE_THRESHOLD, threshold); }
    double found = 0;
    bench::Values results() const { return {found}; }
};

// The same search without the threshold; the best distance is the same.
struct WithoutThreshold : Job {
    void run() { found = evaluate(KT_DTW_FIXED_ENDS, 0); }
    double found = 0;
    bench::Values results() const { return {found}; }
};

using Warp = float (plain::Pattern::*)(const float* const*, int);

struct Transposed : Job {
    std::vector<plain::Pattern> stored;
    Warp warp;
    explicit Transposed(Warp how) : warp(how) {
        for (const auto& pattern : patterns)
            stored.emplace_back(pattern.data(), nFrames, nDim);
    }
    void run() {
        for (std::size_t p = 0; p < stored.size(); ++p)
            distances[p] = double((stored[p].*warp)(test.data(), nFrames));
    }
};

const int registered = [] {
    bench::Row("warp/50x60x13", [] {
        return Ours();
    }).peer("transposed", 1e-5, [] {
          return Transposed(&plain::Pattern::warp);
      }).peer("lanes", 1e-5, [] { return Transposed(&plain::Pattern::warpLanes); });
    bench::Row("warpAtThreshold/50x60x13", [] {
        return OursAtThreshold();
    }).peer("withoutThreshold", 0, [] { return WithoutThreshold(); });
    return 0;
}();

} // namespace
