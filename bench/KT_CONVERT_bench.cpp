// Conversions between the flavours and orders of arrays, beside VOLK, memcpy and a sum of the same bytes.
#include "ktlp6.h"
#include "plain_conversions.h"

#include <benchmark/benchmark.h>
#ifdef KTL_HAVE_VOLK
#include <volk/volk.h>
#endif

#include <cstring>
#include <string>

namespace {

constexpr int count = 4096;
alignas(64) float floats[count];
alignas(64) short shorts[count];
alignas(64) char bytes[count * 6];

template <class Function>
void add(const char* operation, const char* who, Function function) {
    benchmark::RegisterBenchmark((std::string(operation) + "/" + std::to_string(count) + "/" + who).c_str(),
                                 [=](benchmark::State& state) {
                                     for (int i = 0; i < count; ++i) {
                                         floats[i] = float(i % 777) * 97.0f - 36000.0f;
                                         shorts[i] = short(i * 77);
                                     }
                                     for (auto _ : state) {
                                         benchmark::ClobberMemory();
                                         function();
                                         benchmark::ClobberMemory();
                                     }
                                 });
}

void copyTraffic() {
    std::memcpy(bytes + count * 3, bytes, count * 3);
} // as many bytes read and written in all

const int registered = [] {
    add("convertDown", "ours", [] { KTswbConvertDown(floats, shorts, count, KT_Saturate, nullptr); });
#ifdef KTL_HAVE_VOLK
    add("convertDown", "volk", [] { volk_32f_s32f_convert_16i(shorts, floats, 1.0f, count); });
#endif
    add("convertDown", "plain", [] { plain::clampToShorts(floats, shorts, count); });
    add("convertDown", "memcpy", copyTraffic);
    add("convertDownAuto", "ours", [] { KTswbConvertDown(floats, shorts, count, KT_AutoScale, nullptr); });
    add("convertDownAuto", "memcpy", copyTraffic);

    add("convertUp", "ours", [] { KTwsbConvertUp(shorts, floats, count, 15); });
#ifdef KTL_HAVE_VOLK
    add("convertUp", "volk", [] { volk_16i_s32f_convert_32f(floats, shorts, 32768.0f, count); });
#endif
    add("convertUp", "plain", [] { plain::toFloats(shorts, floats, count, 1.0f / 32768.0f); });
    add("convertUp", "memcpy", copyTraffic);

    add("floatOrder", "ours", [] { benchmark::DoNotOptimize(KTsMaxOrder(floats, count)); });
    add("floatOrder", "sum",
        [] { benchmark::DoNotOptimize(plain::sum(reinterpret_cast<const unsigned*>(floats), count)); });
    add("shortOrder", "ours", [] { benchmark::DoNotOptimize(KTwMaxOrder(shorts, count)); });
    add("shortOrder", "sum",
        [] { benchmark::DoNotOptimize(plain::sum(reinterpret_cast<const unsigned*>(shorts), count / 2)); });
    return 0;
}();

} // namespace
