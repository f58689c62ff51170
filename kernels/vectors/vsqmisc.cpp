// Roots, thresholds, reciprocals, magnitudes.
#include "context/vsqcontext.h"
#include "context/vsqfpu.h"
#include "levels/levels.h"

namespace {

constexpr vsq::Module module{"vsqmisc"};

void blockRoot(const float* src, float* dst, int len, const char* funcName = __builtin_FUNCTION()) {
    if (module.refuses(len <= 0, "len<=0", funcName) ||
        module.refuses(src == nullptr, "src==0", funcName) ||
        module.refuses(dst == nullptr, "dst==0", funcName))
        return;
    bool hasNegative = false;
    {
        const vsq::MaskedExceptions masked;
        hasNegative = vsq::kernels().misc->root(src, dst, len);
    }
    module.refuses(hasNegative, "Element of input vector is negative", funcName);
}

} // namespace

void vsqsbSqrt2(const float* src, float* dst, int len) {
    blockRoot(src, dst, len);
}

void vsqsbSqrt1(const float* src, float* dst, int len) {
    blockRoot(src, dst, len);
}

void vsqsbThresh1(float* vec, int len, float thresh, int relOp) {
    if (module.refuses(len <= 0, "len<=0") || module.refuses(vec == nullptr, "vec==0")) return;
    const vsq::MiscKernels& kernels = *vsq::kernels().misc;
    (relOp == 0 ? kernels.raiseTo : kernels.lowerTo)(vec, len, thresh);
}

void vsqsbInvThresh1(float* vec, int len, float thresh) {
    if (module.refuses(len <= 0, "len<=0") || module.refuses(vec == nullptr, "vec==0") ||
        module.refuses(thresh < 0.0f, "thresh<0.0f"))
        return;
    bool hasZero = false;
    {
        const vsq::MaskedExceptions masked;
        hasZero = vsq::kernels().misc->reciprocal(vec, len, thresh);
    }
    module.refuses(hasZero, "zero element and zero thresh");
}

// Power spectrum and root run as one block; the squares' sums are never negative, so that nothing
// can be refused.
void vsqcbMag(const float* src, float* mag, int length) {
    if (module.refuses(length <= 0, "length<=0") || module.refuses(mag == nullptr, "mag==0") ||
        module.refuses(src == nullptr, "src==0"))
        return;
    vsq::kernels().misc->magnitude(src, mag, length);
}

void vsqcbPowerSpectr(const float* src, float* spectr, int length) {
    if (module.refuses(length <= 0, "length<=0") ||
        module.refuses(spectr == nullptr, "spectr==0") || module.refuses(src == nullptr, "src==0"))
        return;
    vsq::kernels().misc->power(src, spectr, length);
}
