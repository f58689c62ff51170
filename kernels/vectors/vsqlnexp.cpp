// Natural logarithm and exponential in place: argument checks in front of the kernels.
#include "context/vsqcontext.h"
#include "levels/levels.h"

namespace {

constexpr vsq::Module module{"vsqlnexp"};

}

void vsqsbLn1(float* vec, int len) {
    if (module.refuses(len <= 0, "len<=0") || module.refuses(vec == nullptr, "vec==0")) return;
    vsq::kernels().lnexp->ln(vec, len);
}

void vsqsbExp1(float* vec, int len) {
    if (module.refuses(len <= 0, "len<=0") || module.refuses(vec == nullptr, "vec==0")) return;
    vsq::kernels().lnexp->exp(vec, len);
}
