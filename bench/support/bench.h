// A row of benchmarks: ours and its peers, which do the same work on the same data. A side of a row
// is an object with run(), which is timed, and results(), which shows what it computed. It may have
// `items`, the number of frames or vectors in one run, for times of one of them, and note(), a
// remark.
#pragma once

#include <benchmark/benchmark.h>

#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace bench {

using Values = std::vector<double>;

template <class T>
Values valuesOf(const T* from, int n) {
    return Values(from, from + n);
}

// The greatest deviation as a part of the greatest magnitude of ours; infinite where sizes differ.
double deviation(const Values& ours, const Values& peers);

// Whether a peer's results are ours within the tolerance, and then how near they are. If not, the
// benchmark ends with an error.
bool agree(benchmark::State& state, const Values& ours, const Values& peers, double tolerance,
           std::string& finding);

template <class Side>
void timeSide(benchmark::State& state, Side& side) {
    for (auto _ : state) {
        side.run();
        benchmark::ClobberMemory();
    }
    if constexpr (requires { side.items; })
        state.SetItemsProcessed(state.iterations() * side.items);
}

template <class Side>
std::string noteOf(Side& side) {
    if constexpr (requires { side.note(); }) return side.note();
    return "";
}

inline void addLabel(benchmark::State& state, const std::string& first, const std::string& second) {
    state.SetLabel(first.empty() || second.empty() ? first + second : first + "; " + second);
}

// Each function that is handed in makes a side.
template <class MakeOurs>
class Row {
public:
    Row(std::string row, MakeOurs makeSide) : name(std::move(row)), makeOurs(makeSide) {
        other("ours", makeSide);
    }

    // A peer whose results are compared with ours before it is timed.
    template <class Make>
    Row& peer(const std::string& who, double tolerance, Make make) {
        const auto isChecked = std::make_shared<std::string>();
        const auto run = [=, ours = makeOurs](benchmark::State& state) {
            if (isChecked->empty() && !check(state, ours, make, tolerance, *isChecked)) return;
            auto side = make();
            timeSide(state, side);
            addLabel(state, noteOf(side), *isChecked);
        };
        benchmark::RegisterBenchmark((name + "/" + who).c_str(), run);
        return *this;
    }

    // A peer whose task differs in its details, so that its results cannot be compared.
    template <class Make>
    Row& other(const std::string& who, Make make, const std::string& remark = "") {
        benchmark::RegisterBenchmark((name + "/" + who).c_str(), [=](benchmark::State& state) {
            auto side = make();
            timeSide(state, side);
            addLabel(state, noteOf(side), remark);
        });
        return *this;
    }

private:
    template <class Make>
    static bool check(benchmark::State& state, const MakeOurs& ours, const Make& make,
                      double tolerance, std::string& finding) {
        Values expected;
        {
            auto side = ours();
            side.run();
            expected = side.results();
        }
        auto side = make();
        side.run();
        const Values got = side.results();
        return agree(state, expected, got, tolerance, finding);
    }

    std::string name;
    MakeOurs makeOurs;
};

} // namespace bench
