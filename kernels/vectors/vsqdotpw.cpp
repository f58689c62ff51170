// The inner product of 16-bit values: argument checks and the shift of the result.
#include "context/vsqcontext.h"
#include "levels/levels.h"

namespace {

constexpr vsq::Module module{"vsqdotpw"};

// value * 2^-bits in 32 bits: to the right arithmetically, to the left with the upper bits lost.
int shifted(int value, int bits) {
    if (bits >= 0) return value >> (bits < 31 ? bits : 31);
    return bits > -32 ? int(unsigned(value) << -bits) : 0;
}

} // namespace

// Accumulator: 32 bits, which wrap silently; nothing saturates.
int vsqwDotProdExt(const short* a, const short* b, int n, int scaleMode, int* scaleFactor) {
    if (module.refuses(a == nullptr, "a==0") || module.refuses(b == nullptr, "b==0") ||
        module.refuses(n < 0, "n<0") ||
        module.refuses(scaleMode == VSQ_AUTO_SCALE && scaleFactor == nullptr,
                       "scaleMode & VSQ_AUTO_SCALE && scaleFactor==NULL"))
        return 0;
    const int sum = vsq::kernels().dotpw->dot(a, b, n);
    if (scaleMode == VSQ_AUTO_SCALE) *scaleFactor = 0;
    if (scaleMode == VSQ_FIXED_SCALE && scaleFactor != nullptr) return shifted(sum, *scaleFactor);
    return sum;
}
