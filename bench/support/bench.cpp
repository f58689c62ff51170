#include "bench/support/bench.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

#if KTL_HAVE_FFTW
#include <fftw3.h>
#endif

namespace bench {

double deviation(const Values& ours, const Values& peers) {
    if (ours.size() != peers.size() || ours.empty()) return HUGE_VAL;
    double greatest = 0, difference = 0;
    for (std::size_t i = 0; i < ours.size(); ++i) {
        greatest = std::max(greatest, std::fabs(ours[i]));
        const double d = std::fabs(ours[i] - peers[i]);
        if (!(d <= difference)) difference = std::isnan(d) ? HUGE_VAL : d;
    }
    return difference == 0 ? 0 : difference / greatest;
}

bool agree(benchmark::State& state, const Values& ours, const Values& peers, double tolerance,
           std::string& finding) {
    const double found = deviation(ours, peers);
    char text[96];
    if (found <= tolerance) {
        std::snprintf(text, sizeof text, found == 0 ? "equal" : "within %.1e of ours", found);
        finding = text;
        return true;
    }
    std::snprintf(text, sizeof text, "deviates from ours by %.2g, more than %.2g", found,
                  tolerance);
    state.SkipWithError(text);
    return false;
}

} // namespace bench

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    benchmark::AddCustomContext("peers", KTL_PEER_VERSIONS);
    benchmark::AddCustomContext("plain", KTL_PLAIN_FLAGS);
#if KTL_HAVE_FFTW
    benchmark::AddCustomContext("fftw", fftwf_version);
#endif
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
}
