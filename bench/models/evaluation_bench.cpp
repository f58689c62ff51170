// Evaluation of discrete hidden Markov models over 1000 frames: 5 and 30 states left to right
// (banded), 30 states with all transitions to the right (triangular), 30 states full; a class of
// models against a loop over them.
#include "bench/models/plain_recursions.h"
#include "bench/support/bench.h"
#include "ktlp6.h"
#include "models/models.h"

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
    Rows<float> bySymbol, costsBySymbol;

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
        std::vector<int> alphabet(nSymbols);
        std::iota(alphabet.begin(), alphabet.end(), 0);
        bySymbol = models::outputsOf(probabilities.out, alphabet);
        costsBySymbol = models::outputsOf(costs.out, alphabet);
    }

    ~Job() { KTHMMFreeAll(); }
    Job(const Job&) = delete;
    Job& operator=(const Job&) = delete;

    double cost = 0;
    bench::Values results() const { return {cost}; }

    int exponential() const { return probabilities.discrete(KT_HMM_EXPONENTIAL); }
    int logarithmic() const { return costs.discrete(KT_HMM_LOGARITHMIC); }
    int fixed() const { return words.discrete(KT_HMM_LOGARITHMIC); }

private:
    static int bandOf(const Case& which) {
        if (which.shape == models::Shape::full) return -1;
        return which.shape == models::Shape::banded ? 2 : which.nStates - 1;
    }
};

struct OursForward : Job {
    int id = exponential();
    using Job::Job;
    void run() { cost = double(KTsEvalHMMForward(id, symbols.data(), nFrames, nullptr)); }
};

struct OursViterbi : Job {
    int id = logarithmic();
    using Job::Job;
    void run() { cost = double(KTsEvalHMMViterbi(id, symbols.data(), nFrames, nullptr)); }
};

struct OursViterbiFixed : Job {
    int id = fixed();
    using Job::Job;
    void run() {
        cost = KTwEvalHMMViterbi(id, symbols.data(), nFrames, nullptr, 0, nullptr) / 256.0;
    }
};

struct PlainForward : Job {
    std::vector<const float*> rows = pointers(bySymbol);
    std::vector<float> alpha = std::vector<float>(std::size_t(2 * n));
    using Job::Job;
    void run() {
        cost = double(plain::forward(dense.data(), rows.data(), probabilities.initial.data(), n,
                                     band, symbols.data(), nFrames, alpha.data()));
    }
};

struct PlainViterbi : Job {
    std::vector<const float*> rows = pointers(costsBySymbol);
    std::vector<float> delta = std::vector<float>(std::size_t(2 * n));
    using Job::Job;
    void run() {
        cost = double(plain::viterbi(denseCosts.data(), rows.data(), costs.initial.data(), n, band,
                                     symbols.data(), nFrames, delta.data()));
    }
};

struct LanesForward : Job {
    std::vector<const float*> rows = pointers(bySymbol);
    plain::LaneModel model{dense.data(), rows.data(), nSymbols, probabilities.initial.data(), n,
                           band == 2,    0.0f};
    using Job::Job;
    void run() { cost = double(model.forward(symbols.data(), nFrames)); }
};

struct LanesViterbi : Job {
    std::vector<const float*> rows = pointers(costsBySymbol);
    plain::LaneModel model{denseCosts.data(), rows.data(), nSymbols, costs.initial.data(), n,
                           band == 2,         1e30f};
    using Job::Job;
    void run() { cost = double(model.viterbi(symbols.data(), nFrames)); }
};

// 1000 models of ten states and 60 frames: one call for the class, or a call for each model.
struct Group {
    static constexpr int count = 1000, frames = 60;
    bool isForward, isOneCall;
    int classId = KTCreateHMMClass(), best = 0;
    std::vector<int> ids, symbols;
    Group(bool forward, bool oneCall) : isForward(forward), isOneCall(oneCall) {
        std::mt19937 random(1);
        for (int k = 0; k < count; ++k) {
            const auto model = models::randomModel(random, 10, nSymbols, models::Shape::banded);
            ids.push_back(forward ? model.discrete(KT_HMM_EXPONENTIAL)
                                  : models::costsOf(model).discrete(KT_HMM_LOGARITHMIC));
            KTAddHMMToClass(classId, ids.back());
        }
        symbols = models::randomSymbols(random, frames, nSymbols);
    }
    Group(const Group&) = delete;
    Group& operator=(const Group&) = delete;
    ~Group() { KTHMMFreeAll(); }

    float evaluate(int hmm, int* pBest) {
        return isForward ? KTsEvalHMMForward(hmm, symbols.data(), frames, pBest)
                         : KTsEvalHMMViterbi(hmm, symbols.data(), frames, pBest);
    }
    void run() {
        if (isOneCall) {
            evaluate(-classId, &best);
            return;
        }
        float least = 3e38f;
        for (const int id : ids) {
            int whose;
            const float cost = evaluate(id, &whose);
            if (cost < least) {
                least = cost;
                best = id;
            }
        }
    }
    bench::Values results() const { return {double(best)}; }
};

void addCase(const Case& which) {
    const std::string name = which.name;
    bench::Row("forward/" + name, [=] {
        return OursForward(which);
    }).peer("plain", 1e-5, [=] {
          return PlainForward(which);
      }).peer("lanes", 1e-5, [=] { return LanesForward(which); });
    bench::Row("viterbi/" + name, [=] {
        return OursViterbi(which);
    }).peer("plain", 1e-5, [=] {
          return PlainViterbi(which);
      }).peer("lanes", 1e-5, [=] { return LanesViterbi(which); });
    bench::Row("viterbiFixed/" + name, [=] {
        return OursViterbiFixed(which);
    }).peer("float", 1e-3, [=] { return OursViterbi(which); });
}

const int registered = [] {
    for (const Case& which : cases)
        addCase(which);
    for (const bool forward : {false, true})
        bench::Row(forward ? "forward/1000-models" : "viterbi/1000-models", [=] {
            return Group(forward, true);
        }).peer("loop", 0, [=] { return Group(forward, false); });
    return 0;
}();

} // namespace
