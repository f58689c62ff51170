// Conversions between the numeric forms and orders of arrays, beside VOLK, memcpy and a sum of the
// same bytes.
#include "bench/frame/plain_conversions.h"
#include "bench/support/bench.h"
#include "ktlp6.h"

#ifdef KTL_HAVE_VOLK
#include <volk/volk.h>
#endif

#include <cstring>

namespace {

constexpr int count = 4096;

struct Arrays {
    alignas(64) float floats[count];
    alignas(64) short shorts[count];
    alignas(64) char bytes[count * 6] = {};
    bool isUp = false; // the results are the floats
    double order = 0;
    Arrays() {
        for (int i = 0; i < count; ++i) {
            floats[i] = float(i % 777) * 97.3f - 36000.0f;
            shorts[i] = short(i * 77);
        }
    }
    bench::Values results() const {
        if (order != 0) return {order};
        return isUp ? bench::valuesOf(floats, count) : bench::valuesOf(shorts, count);
    }
};

template <class Function>
struct Side : Arrays {
    Function function;
    Side(Function f, bool up) : function(f) { isUp = up; }
    void run() { function(*this); }
};

template <class Function>
auto down(Function function) {
    return [=] { return Side(function, false); };
}
template <class Function>
auto up(Function function) {
    return [=] { return Side(function, true); };
}

// As many bytes read and written in all.
void copyTraffic(Arrays& a) {
    std::memcpy(a.bytes + count * 3, a.bytes, count * 3);
}

void addDown() {
    bench::Row row("convertDown/4096", down([](Arrays& a) {
                       KTswbConvertDown(a.floats, a.shorts, count, KT_Saturate, nullptr);
                   }));
    if (plain::Clamp const clamp = plain::clampByIntrinsics())
        row.peer("intrinsics", 0, down([=](Arrays& a) { clamp(a.floats, a.shorts, count); }));
    row.peer("plain", 0, down([](Arrays& a) { plain::clampToShorts(a.floats, a.shorts, count); }));
#ifdef KTL_HAVE_VOLK
    row.peer("volk", 1.0 / 32768, down([](Arrays& a) { // it rounds where we truncate
                 volk_32f_s32f_convert_16i(a.shorts, a.floats, 1.0f, count);
             }));
#endif
    row.other("memcpy", down(copyTraffic));
    bench::Row("convertDownAuto/4096", down([](Arrays& a) {
                   KTswbConvertDown(a.floats, a.shorts, count, KT_AutoScale, nullptr);
               }))
        .other("memcpy", down(copyTraffic));
}

void addUp() {
    bench::Row row("convertUp/4096",
                   up([](Arrays& a) { KTwsbConvertUp(a.shorts, a.floats, count, 15); }));
    row.peer("plain", 0,
             up([](Arrays& a) { plain::toFloats(a.shorts, a.floats, count, 1.0f / 32768); }));
#ifdef KTL_HAVE_VOLK
    row.peer("volk", 0,
             up([](Arrays& a) { volk_16i_s32f_convert_32f(a.floats, a.shorts, 32768.0f, count); }));
#endif
    row.other("memcpy", up(copyTraffic));
}

// There is no peer for an order: a sum over the same bytes shows the speed of reading them.
void addOrders() {
    bench::Row("floatOrder/4096", down([](Arrays& a) {
                   benchmark::DoNotOptimize(a.order = KTsMaxOrder(a.floats, count));
               }))
        .other("sum", down([](Arrays& a) {
                   benchmark::DoNotOptimize(
                       plain::sum(reinterpret_cast<const unsigned*>(a.floats), count));
               }));
    bench::Row("shortOrder/4096", down([](Arrays& a) {
                   benchmark::DoNotOptimize(a.order = KTwMaxOrder(a.shorts, count));
               }))
        .other("sum", down([](Arrays& a) {
                   benchmark::DoNotOptimize(
                       plain::sum(reinterpret_cast<const unsigned*>(a.shorts), count / 2));
               }));
}

const int registered = (addDown(), addUp(), addOrders(), 0);

} // namespace
