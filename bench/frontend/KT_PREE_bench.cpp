// Pre-emphasis of a frame beside memcpy of it. Each run filters a fresh copy of the frame.
#include "bench/frontend/plain_frontend.h"
#include "bench/support/bench.h"
#include "ktlp6.h"

#include <cstring>

namespace {

constexpr int count = 400;

template <class T, class Function>
struct Side {
    alignas(64) T in[count], out[count];
    Function function;
    explicit Side(Function f) : function(f) {
        for (int i = 0; i < count; ++i)
            in[i] = T(i * 77);
    }
    void run() {
        std::memcpy(out, in, sizeof in);
        benchmark::DoNotOptimize(out);
        function(out);
    }
    bench::Values results() const { return bench::valuesOf(out, count); }
};

template <class T, class Function>
auto make(Function function) {
    return [=] { return Side<T, Function>(function); };
}

const int registered = [] {
    const auto nothing = [](auto*) {};
    bench::Row("floatPreemphasis/400",
               make<float>([](float* frame) { KTsPreemphasize(frame, 0.97f, count); }))
        .peer("plain", 1e-6,
              make<float>([](float* frame) { plain::preemphasize(frame, 0.97f, count); }))
        .other("memcpy", make<float>(nothing));
    bench::Row("fixedPreemphasis/400", make<short>([](short* frame) {
                   KTwPreemphasize(frame, 0.97f, count, KT_Saturate, nullptr);
               }))
        .other("memcpy", make<short>(nothing));
    bench::Row("fixedPreemphasisNoScale/400", make<short>([](short* frame) {
                   KTwPreemphasize(frame, 0.97f, count, KT_NoScale, nullptr);
               }))
        .other("memcpy", make<short>(nothing));
    return 0;
}();

} // namespace
