// Elementwise products: argument checks in front of the kernels.
#include "context/vsqcontext.h"
#include "levels/levels.h"

namespace {

constexpr vsq::Module module{"vsqarith"};

}

void vsqsbMpy1(float val, float* dst, int n) {
    if (module.refuses(n <= 0, "n<=0") || module.refuses(dst == nullptr, "dst==0")) return;
    vsq::kernels().arith->scale(val, dst, n);
}

void vsqsbMpy2(const float* src, float* dst, int n) {
    if (module.refuses(n <= 0, "n<=0") || module.refuses(src == nullptr, "src==0") ||
        module.refuses(dst == nullptr, "dst==0"))
        return;
    vsq::kernels().arith->multiply(src, dst, n);
}
