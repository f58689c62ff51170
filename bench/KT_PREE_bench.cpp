// Pre-emphasis of a frame beside memcpy of it.
#include "ktlp6.h"
#include "plain_conversions.h"

#include <benchmark/benchmark.h>

#include <cstring>
#include <string>

namespace {

constexpr int count = 400;
alignas(64) float floats[count], otherFloats[count];
alignas(64) short shorts[count], otherShorts[count];

template <class Function>
void add(const char* operation, const char* who, Function function) {
    benchmark::RegisterBenchmark((std::string(operation) + "/" + std::to_string(count) + "/" + who).c_str(),
                                 [=](benchmark::State& state) {
                                     for (int i = 0; i < count; ++i) {
                                         floats[i] = float(i % 77) * 97.0f;
                                         shorts[i] = short(i * 77);
                                     }
                                     for (auto _ : state) {
                                         benchmark::ClobberMemory();
                                         function();
                                         benchmark::ClobberMemory();
                                     }
                                 });
}

template <class T>
void copy(T* to, const T* from) {
    std::memcpy(to, from, sizeof(T) * count);
    benchmark::DoNotOptimize(to);
    benchmark::ClobberMemory();
}

const int registered = [] {
    // alpha 0 keeps the frame as it is from one round to the next, at the same cost
    add("floatPreemphasis", "ours", [] { KTsPreemphasize(floats, 0.0f, count); });
    add("floatPreemphasis", "memcpy", [] { copy(otherFloats, floats); });
    add("floatPreemphasis", "plain", [] { plain::preemphasize(floats, 0.0f, count); });
    add("fixedPreemphasis", "ours", [] { KTwPreemphasize(shorts, 0.0f, count, KT_Saturate, nullptr); });
    add("fixedPreemphasis", "memcpy", [] { copy(otherShorts, shorts); });
    add("fixedPreemphasisNoScale", "ours", [] { KTwPreemphasize(shorts, 0.0f, count, KT_NoScale, nullptr); });
    add("fixedPreemphasisNoScale", "memcpy", [] { copy(otherShorts, shorts); });
    return 0;
}();

} // namespace
