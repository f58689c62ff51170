// The inner product of floats: argument checks in front of the kernel.
#include "context/vsqcontext.h"
#include "levels/levels.h"

namespace {

constexpr vsq::Module module{"vsqdotp"};

}

double vsqsDotProd(const float* a, const float* b, int n) {
    if (module.refuses(a == nullptr, "a==0") || module.refuses(b == nullptr, "b==0") ||
        module.refuses(n < 0, "n<0"))
        return 0.0;
    return vsq::kernels().dotp->dot(a, b, n);
}
