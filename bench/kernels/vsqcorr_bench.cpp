// Autocorrelation. The plain loops sum in float, ours in double.
#include "bench/kernels/plain_vectors.h"
#include "bench/support/bench.h"
#include "vsq.h"

#include <string>

namespace {

template <class Function>
struct Side {
    Function function;
    std::vector<float> signal, lags;
    Side(Function f, int n, int nLags) : function(f), lags(std::size_t(nLags)) {
        for (int i = 0; i < n; ++i)
            signal.push_back(float((i * 7919) % 2003) - 1000);
    }
    void run() { function(signal.data(), int(signal.size()), lags.data(), int(lags.size())); }
    bench::Values results() const { return bench::Values(lags.begin(), lags.end()); }
};

void ours(const float* src, int n, float* dst, int nLags) {
    vsqsAutoCorr(src, n, dst, nLags, 0);
}

const int registered = [] {
    const int shapes[][2] = {{240, 11}, {400, 13},  {400, 17},
                             {512, 25}, {4096, 64}, {16384, 16384}};
    for (const auto& [n, nLags] : shapes) {
        const auto make = [n = n, nLags = nLags](auto function) {
            return [=] { return Side(function, n, nLags); };
        };
        bench::Row row("autoCorr/" + std::to_string(n) + "x" + std::to_string(nLags), make(ours));
        row.peer("plain", 1e-4, make(plain::autoCorr));
        if (nLags <= plain::mostLags && n <= plain::mostSamples)
            row.peer("lanes", 1e-4, make(plain::autoCorrLanes));
    }
    return 0;
}();

} // namespace
