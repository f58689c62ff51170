// Logarithm and exponential function in place. Every run starts from fresh arguments, copied in at
// the same cost for all; VOLK has no natural logarithm, so its base-2 one stands in.
#include "bench/kernels/plain_vectors.h"
#include "bench/support/bench.h"
#include "vsq.h"

#ifdef KTL_HAVE_VOLK
#include <volk/volk.h>
#endif

#include <cmath>
#include <cstring>
#include <string>

namespace {

using Function = void (*)(float*, int);

struct Side {
    Function function;
    int n;
    double factor; // between the results and ours
    alignas(64) float arguments[4096], values[4096];
    Side(Function f, int count, double unit) : function(f), n(count), factor(unit) {
        for (int i = 0; i < n; ++i)
            arguments[i] = 0.01f + 0.02f * float(i % 1000);
    }
    void run() {
        std::memcpy(values, arguments, sizeof(float) * std::size_t(n));
        function(values, n);
    }
    bench::Values results() const {
        bench::Values all = bench::valuesOf(values, n);
        for (double& value : all)
            value *= factor;
        return all;
    }
};

auto make(Function function, int n, double factor = 1) {
    return [=] { return Side(function, n, factor); };
}

const int registered = [] {
    for (const int n : {256, 4096}) {
        bench::Row ln("ln/" + std::to_string(n), make(vsqsbLn1, n));
        bench::Row exp("exp/" + std::to_string(n), make(vsqsbExp1, n));
        ln.peer("libmvec", 1e-6, make(plain::ln, n));
        exp.peer("libmvec", 1e-6, make(plain::exp, n));
#ifdef KTL_HAVE_VOLK
        const auto volkLog2 = [](float* vec, int count) {
            volk_32f_log2_32f(vec, vec, unsigned(count));
        };
        const auto volkExp = [](float* vec, int count) {
            volk_32f_exp_32f(vec, vec, unsigned(count));
        };
        ln.peer("volk_log2", 1e-4, make(volkLog2, n, std::log(2.0)));
        exp.peer("volk", 1e-4, make(volkExp, n));
#endif
    }
    return 0;
}();

} // namespace
