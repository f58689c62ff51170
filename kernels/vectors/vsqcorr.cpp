// Autocorrelation of floats: the checks and the division of the sums. The kernel gives plain sums.
#include "context/vsqcontext.h"
#include "levels/levels.h"

#include <cmath>

namespace {

constexpr vsq::Module module{"vsqcorr"};

enum Type { plain, biased, unbiased }; // undivided, divided by n, divided by the number of products

float finished(double sum, int type, int n, int lag) {
    if (type == plain) return float(sum);
    return float(sum / (type == biased ? n : n - lag));
}

} // namespace

void vsqsAutoCorr(const float* src, int n, float* dst, int nLags, int type) {
    if (module.refuses(src == nullptr, "Null SRC buffer pointer") ||
        module.refuses(dst == nullptr, "Null DST buffer pointer") ||
        module.refuses(n < 1, "Invalid SRC buffer length") ||
        module.refuses(nLags < 1 || nLags > n, "Invalid LAG value") ||
        module.refuses(type < plain || type > unbiased, "Invalid auto-corr type"))
        return;
    constexpr int groupLags = 80; // a multiple of what the kernel takes in one pass
    double sums[groupLags];
    for (int from = 0; from < nLags; from += groupLags) {
        const int count = nLags - from < groupLags ? nLags - from : groupLags;
        vsq::kernels().corr->autoCorr(src, n, from, sums, count);
        for (int k = 0; k < count; ++k)
            dst[from + k] = finished(sums[k], type, n, from + k);
    }
}
