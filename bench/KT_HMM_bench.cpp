// Evaluation of discrete hidden Markov models over 1000 frames: 5 and 30 states left to right (banded), 30
// states with all transitions to the right (triangular), 30 states full; a class of models against a loop over them; registering and releasing many.
#include "ktlp6.h"
#include "plain_hmm.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cmath>
#include <string>
#include <vector>

namespace {

constexpr int nSymbols = 64, nFrames = 1000;

template <class T>
using Rows = std::vector<std::vector<T>>;

template <class T>
std::vector<const T*> pointers(const Rows<T>& rows) {
    std::vector<const T*> result;
    for (const auto& row : rows)
        result.push_back(row.data());
    return result;
}

struct Shape {
    const char* name;
    int nStates;
    int band; // the farthest target above a source; -1: full
};
constexpr Shape shapes[] = {
    {"5-left-right", 5, 2}, {"30-left-right", 30, 2}, {"30-triangular", 30, 29}, {"30-full", 30, -1}};

class Random {
public:
    float uniform() {
        state = state * 1664525u + 1013904223u;
        return float(state >> 8) / 16777216.0f + 0.01f;
    }
    int below(int n) { return int(uniform() * 1000) % n; }

private:
    unsigned state = 1;
};

// A model in all the forms that the benchmarks take.
struct Job {
    int n, band;
    Rows<float> trans, out, costs, outCosts;
    Rows<short> words, outWords;
    std::vector<float> initial, initialCosts;
    std::vector<short> initialWords;
    std::vector<int> symbols;
    std::vector<float> dense, denseCosts;
    std::vector<double> denseDouble;
    Rows<float> bySymbol, costsBySymbol;
    Rows<double> doublesBySymbol;

    explicit Job(const Shape& shape, int seed = 0) : n(shape.nStates), band(shape.band) {
        Random random;
        for (int skip = 0; skip < seed; ++skip)
            random.uniform();
        for (int i = 0; i < n; ++i) {
            std::vector<float> row, output;
            for (int j = 0; j < n; ++j)
                row.push_back(band < 0 || (j >= i && j <= i + band) ? random.uniform() : 0);
            for (int k = 0; k < nSymbols; ++k)
                output.push_back(random.uniform());
            trans.push_back(normalised(row));
            out.push_back(normalised(output));
            initial.push_back(random.uniform());
        }
        initial = normalised(initial);
        for (int t = 0; t < nFrames; ++t)
            symbols.push_back(random.below(nSymbols));
        derive();
    }

    int exponential() const {
        return KTsInitHMMServer(pointers(trans).data(), pointers(out).data(), initial.data(), n, nSymbols,
                                KT_HMM_EXPONENTIAL);
    }
    int logarithmic() const {
        return KTsInitHMMServer(pointers(costs).data(), pointers(outCosts).data(), initialCosts.data(), n,
                                nSymbols, KT_HMM_LOGARITHMIC);
    }
    int fixed() const {
        return KTwInitHMMServer(pointers(words).data(), pointers(outWords).data(), initialWords.data(), n,
                                nSymbols, KT_HMM_LOGARITHMIC);
    }

private:
    static std::vector<float> normalised(std::vector<float> row) {
        float sum = 0;
        for (const float v : row)
            sum += v;
        for (float& v : row)
            v /= sum;
        return row;
    }
    static std::vector<float> toCosts(std::vector<float> row) {
        for (float& v : row)
            v = v > 0 ? -std::log10(v) : 60.0f;
        return row;
    }
    static std::vector<short> toWords(const std::vector<float>& row) {
        std::vector<short> result;
        for (const float v : row)
            result.push_back(v > 0 ? short(std::lround(-256 * std::log10(v))) : short(0x7FFF));
        return result;
    }
    void derive() {
        for (const auto& row : trans) {
            costs.push_back(toCosts(row));
            words.push_back(toWords(row));
            dense.insert(dense.end(), row.begin(), row.end());
            denseCosts.insert(denseCosts.end(), costs.back().begin(), costs.back().end());
        }
        denseDouble.assign(dense.begin(), dense.end());
        for (const auto& row : out) {
            outCosts.push_back(toCosts(row));
            outWords.push_back(toWords(row));
        }
        initialCosts = toCosts(initial);
        initialWords = toWords(initial);
        for (int k = 0; k < nSymbols; ++k) {
            bySymbol.emplace_back();
            costsBySymbol.emplace_back();
            for (int i = 0; i < n; ++i) {
                bySymbol.back().push_back(out[std::size_t(i)][std::size_t(k)]);
                costsBySymbol.back().push_back(outCosts[std::size_t(i)][std::size_t(k)]);
            }
            doublesBySymbol.emplace_back(bySymbol.back().begin(), bySymbol.back().end());
        }
    }
};

void forwardOurs(benchmark::State& state, const Shape& shape) {
    const Job job(shape);
    const int id = job.exponential();
    for (auto _ : state)
        benchmark::DoNotOptimize(KTsEvalHMMForward(id, job.symbols.data(), nFrames, nullptr));
    KTHMMFreeAll();
}

void forwardPlain(benchmark::State& state, const Shape& shape) {
    const Job job(shape);
    const auto rows = pointers(job.bySymbol);
    std::vector<float> alpha(std::size_t(2 * job.n));
    for (auto _ : state)
        benchmark::DoNotOptimize(plain::forward(job.dense.data(), rows.data(), job.initial.data(), job.n,
                                                job.band, job.symbols.data(), nFrames, alpha.data()));
}

void forwardPlainDouble(benchmark::State& state, const Shape& shape) {
    const Job job(shape);
    const auto rows = pointers(job.doublesBySymbol);
    const std::vector<double> initial(job.initial.begin(), job.initial.end());
    std::vector<double> alpha(std::size_t(2 * job.n));
    for (auto _ : state)
        benchmark::DoNotOptimize(plain::forward(job.denseDouble.data(), rows.data(), initial.data(), job.n,
                                                job.band, job.symbols.data(), nFrames, alpha.data()));
}

void viterbiOurs(benchmark::State& state, const Shape& shape) {
    const Job job(shape);
    const int id = job.logarithmic();
    for (auto _ : state)
        benchmark::DoNotOptimize(KTsEvalHMMViterbi(id, job.symbols.data(), nFrames, nullptr));
    KTHMMFreeAll();
}

void viterbiFixedOurs(benchmark::State& state, const Shape& shape) {
    const Job job(shape);
    const int id = job.fixed();
    for (auto _ : state)
        benchmark::DoNotOptimize(KTwEvalHMMViterbi(id, job.symbols.data(), nFrames, nullptr, 0, nullptr));
    KTHMMFreeAll();
}

void viterbiPlain(benchmark::State& state, const Shape& shape) {
    const Job job(shape);
    const auto rows = pointers(job.costsBySymbol);
    std::vector<float> delta(std::size_t(2 * job.n));
    for (auto _ : state)
        benchmark::DoNotOptimize(plain::viterbi(job.denseCosts.data(), rows.data(), job.initialCosts.data(),
                                                job.n, job.band, job.symbols.data(), nFrames, delta.data()));
}

// 1000 models of ten states and 60 frames: one call for the class, against a call for each model.
void group(benchmark::State& state, bool wholeClass, bool forward) {
    const int classId = KTCreateHMMClass();
    std::vector<int> ids;
    std::vector<int> symbols;
    for (int k = 0; k < 1000; ++k) {
        const Job job({"", 10, 2}, k);
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
    for (const Shape& shape : shapes) {
        const auto name = [&](const char* operation, const char* whose) {
            return std::string(operation) + "/" + shape.name + "/" + whose;
        };
        const auto add = [&](const char* operation, const char* whose, auto run) {
            RegisterBenchmark(name(operation, whose).c_str(),
                              [run, &shape](benchmark::State& state) { run(state, shape); });
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
