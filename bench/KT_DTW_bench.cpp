// Time warping: 50 patterns of 60 frames against a test of 60 frames, 13 dimensions, Euclidean, fixed ends;
// against a plain loop over the same band, and with a threshold at the best distance.
#include "ktlp6.h"
#include "plain_distances.h"

#include <benchmark/benchmark.h>

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
                    frame.push_back(10 * std::sin(float(i) * 0.02f * float(1 + (source * 7 + k * 3) % 11) +
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

    double evaluate(int flags, double threshold, std::vector<double>& results) {
        KTsEvalDTW(handles.data(), nPatterns, test.data(), nFrames, nDim, flags, threshold, 0,
                   results.data());
        return *std::min_element(results.begin(), results.end());
    }
};

void ours(benchmark::State& state) {
    Job job;
    std::vector<double> results(nPatterns);
    for (auto _ : state)
        benchmark::DoNotOptimize(job.evaluate(KT_DTW_FIXED_ENDS, 0, results));
}

// As a program would call it that knows what it hopes for: just above the best distance.
void oursWithThreshold(benchmark::State& state) {
    Job job;
    std::vector<double> results(nPatterns);
    const double best = job.evaluate(KT_DTW_FIXED_ENDS, 0, results);
    const double threshold = std::nextafter(float(best), 1e9f);
    for (auto _ : state)
        benchmark::DoNotOptimize(job.evaluate(KT_DTW_FIXED_ENDS | KT_DTW_USE_THRESHOLD, threshold, results));
    if (job.evaluate(KT_DTW_FIXED_ENDS | KT_DTW_USE_THRESHOLD, threshold, results) != best)
        state.SkipWithError("the threshold cost the best path");
}

void plainLoop(benchmark::State& state) {
    Job job;
    std::vector<float> cost(nFrames + 2);
    std::vector<int> flat(nFrames + 2);
    for (auto _ : state) {
        float best = HUGE_VALF;
        for (auto& pattern : job.patterns)
            best = std::min(best, plain::warp(job.test.data(), nFrames, pattern.data(), nFrames, nDim,
                                              cost.data(), flat.data()));
        benchmark::DoNotOptimize(best);
    }
    std::vector<double> results(nPatterns);
    const double best = job.evaluate(KT_DTW_FIXED_ENDS, 0, results);
    const float plainBest = plain::warp(job.test.data(), nFrames, job.patterns[17].data(), nFrames, nDim,
                                        cost.data(), flat.data());
    if (std::fabs(best - plainBest) > 1e-4 * best) state.SkipWithError("the two do not agree");
}

BENCHMARK(ours)->Name("warp/50x60x13/ours");
BENCHMARK(plainLoop)->Name("warp/50x60x13/plain");
BENCHMARK(oursWithThreshold)->Name("warpAtThreshold/50x60x13/ours");
BENCHMARK(ours)->Name("warpAtThreshold/50x60x13/withoutThreshold");

} // namespace
