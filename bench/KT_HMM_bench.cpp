// Evaluation of discrete hidden Markov models over 1000 frames: 5 and 30 states left to right (banded), 30
// states with all transitions to the right (triangular), 30 states full; a class of models against a loop over them; registering and releasing many.
#include "ktlp6.h"
#include "models/models.h"
#include "plain_hmm.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <numeric>
#include <random>
#include <string>
#include <vector>

namespace {

constexpr int nSymbols = 64, nFrames = 1000;

using models::pointers;
using models::Rows;

struct Case {
    const char* name;
    int nStates;
    models::Shape shape;
};
constexpr Case cases[] = {{"5-left-right", 5, models::Shape::banded},
                          {"30-left-right", 30, models::Shape::banded},
                          {"30-triangular", 30, models::Shape::triangular},
                          {"30-full", 30, models::Shape::full}};

// A model in all the forms that the benchmarks take.
struct Job {
    int n;
    int band; // the farthest target above a source; -1: full
    models::Model<float> probabilities, costs;
    models::Model<short> words;
    std::vector<int> symbols;
    std::vector<float> dense, denseCosts;
    std::vector<double> denseDouble;
    Rows<float> bySymbol, costsBySymbol;
    Rows<double> doublesBySymbol;

    explicit Job(const Case& which, unsigned seed = 1) : n(which.nStates), band(bandOf(which)) {
        std::mt19937 random(seed);
        probabilities = models::randomModel(random, n, nSymbols, which.shape);
        costs = models::costsOf(probabilities);
        words = models::fixedOf(probabilities);
        symbols = models::randomSymbols(random, nFrames, nSymbols);
        for (const auto& row : probabilities.trans)
            dense.insert(dense.end(), row.begin(), row.end());
        for (const auto& row : costs.trans)
            denseCosts.insert(denseCosts.end(), row.begin(), row.end());
        denseDouble.assign(dense.begin(), dense.end());
        std::vector<int> alphabet(nSymbols);
        std::iota(alphabet.begin(), alphabet.end(), 0);
        bySymbol = models::outputsOf(probabilities.out, alphabet);
        costsBySymbol = models::outputsOf(costs.out, alphabet);
        doublesBySymbol = models::wide(bySymbol);
    }

    int exponential() const { return probabilities.discrete(KT_HMM_EXPONENTIAL); }
    int logarithmic() const { return costs.discrete(KT_HMM_LOGARITHMIC); }
    int fixed() const { return words.discrete(KT_HMM_LOGARITHMIC); }

private:
    static int bandOf(const Case& which) {
        if (which.shape == models::Shape::full) return -1;
        return which.shape == models::Shape::banded ? 2 : which.nStates - 1;
    }
};

void forwardOurs(benchmark::State& state, const Case& which) {
    const Job job(which);
    const int id = job.exponential();
    for (auto _ : state)
        benchmark::DoNotOptimize(KTsEvalHMMForward(id, job.symbols.data(), nFrames, nullptr));
    KTHMMFreeAll();
}

void forwardPlain(benchmark::State& state, const Case& which) {
    const Job job(which);
    const auto rows = pointers(job.bySymbol);
    std::vector<float> alpha(std::size_t(2 * job.n));
    for (auto _ : state)
        benchmark::DoNotOptimize(plain::forward(job.dense.data(), rows.data(),
                                                job.probabilities.initial.data(), job.n, job.band,
                                                job.symbols.data(), nFrames, alpha.data()));
}

void forwardPlainDouble(benchmark::State& state, const Case& which) {
    const Job job(which);
    const auto rows = pointers(job.doublesBySymbol);
    const std::vector<double> initial(job.probabilities.initial.begin(), job.probabilities.initial.end());
    std::vector<double> alpha(std::size_t(2 * job.n));
    for (auto _ : state)
        benchmark::DoNotOptimize(plain::forward(job.denseDouble.data(), rows.data(), initial.data(), job.n,
                                                job.band, job.symbols.data(), nFrames, alpha.data()));
}

void viterbiOurs(benchmark::State& state, const Case& which) {
    const Job job(which);
    const int id = job.logarithmic();
    for (auto _ : state)
        benchmark::DoNotOptimize(KTsEvalHMMViterbi(id, job.symbols.data(), nFrames, nullptr));
    KTHMMFreeAll();
}

void viterbiFixedOurs(benchmark::State& state, const Case& which) {
    const Job job(which);
    const int id = job.fixed();
    for (auto _ : state)
        benchmark::DoNotOptimize(KTwEvalHMMViterbi(id, job.symbols.data(), nFrames, nullptr, 0, nullptr));
    KTHMMFreeAll();
}

void viterbiPlain(benchmark::State& state, const Case& which) {
    const Job job(which);
    const auto rows = pointers(job.costsBySymbol);
    std::vector<float> delta(std::size_t(2 * job.n));
    for (auto _ : state)
        benchmark::DoNotOptimize(plain::viterbi(job.denseCosts.data(), rows.data(), job.costs.initial.data(),
                                                job.n, job.band, job.symbols.data(), nFrames, delta.data()));
}

// 1000 models of ten states and 60 frames: one call for the class, against a call for each model.
void group(benchmark::State& state, bool wholeClass, bool forward) {
    const int classId = KTCreateHMMClass();
    std::vector<int> ids;
    std::vector<int> symbols;
    for (unsigned k = 0; k < 1000; ++k) {
        const Job job({"", 10, models::Shape::banded}, k);
        ids.push_back(forward ? job.exponential() : job.logarithmic());
        KTAddHMMToClass(classId, ids.back());
        symbols = job.symbols;
    }
    const auto evaluate = [&](int hmm, int* pBest) {
        return forward ? KTsEvalHMMForward(hmm, symbols.data(), 60, pBest)
                       : KTsEvalHMMViterbi(hmm, symbols.data(), 60, pBest);
    };
    for (auto _ : state) {
        int best = 0;
        if (wholeClass) {
            benchmark::DoNotOptimize(evaluate(-classId, &best));
            continue;
        }
        float bestCost = 3e38f;
        for (const int id : ids)
            bestCost = std::min(bestCost, evaluate(id, &best));
        benchmark::DoNotOptimize(bestCost);
    }
    KTHMMFreeAll();
}

// The time for each server: it has to stay the same whatever their number.
void registry(benchmark::State& state, bool lowestFirst) {
    const int count = int(state.range(0));
    const float zero = 0;
    const float* row = &zero;
    for (auto _ : state) {
        for (int k = 0; k < count; ++k)
            KTsInitHMMServer(&row, &row, &zero, 1, 1, 0);
        for (int k = 1; k <= count; ++k)
            KTFreeHMMServer(lowestFirst ? k : count + 1 - k);
    }
    state.SetItemsProcessed(state.iterations() * count);
    KTHMMFreeAll();
}

const int registered = [] {
    using benchmark::RegisterBenchmark;
    for (const Case& which : cases) {
        const auto name = [&](const char* operation, const char* whose) {
            return std::string(operation) + "/" + which.name + "/" + whose;
        };
        const auto add = [&](const char* operation, const char* whose, auto run) {
            RegisterBenchmark(name(operation, whose).c_str(),
                              [run, &which](benchmark::State& state) { run(state, which); });
        };
        add("forward", "ours", forwardOurs);
        add("forward", "plain", forwardPlain);
        add("forward", "plain-double", forwardPlainDouble);
        add("viterbi", "ours", viterbiOurs);
        add("viterbi", "plain", viterbiPlain);
        add("viterbi-fixed", "ours", viterbiFixedOurs);
        add("viterbi-fixed", "plain-float", viterbiPlain);
    }
    for (const bool forward : {false, true})
        for (const bool wholeClass : {true, false})
            RegisterBenchmark((std::string(forward ? "forward" : "viterbi") + "/1000-models/" +
                               (wholeClass ? "ours" : "loop"))
                                  .c_str(),
                              [=](benchmark::State& state) { group(state, wholeClass, forward); });
    for (const bool lowestFirst : {true, false})
        RegisterBenchmark(lowestFirst ? "registry/lowest-first/ours" : "registry/lowest-last/ours",
                          [=](benchmark::State& state) { registry(state, lowestFirst); })
            ->Arg(10000)
            ->Arg(100000)
            ->Unit(benchmark::kMillisecond);
    return 0;
}();

} // namespace
