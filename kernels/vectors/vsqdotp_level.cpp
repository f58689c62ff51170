// The inner product of floats; dot_product.h holds it, since other kernels take it inline.
#include "vectors/vsqdotp_level.h"
#include "vectors/dot_product.h"

namespace vsq::VSQ_LEVEL {
namespace {

double dot(const float* a, const float* b, int n) {
    return dotProduct(a, b, n);
}

} // namespace

extern const DotProductKernels dotProductKernels{.dot = dot};

} // namespace vsq::VSQ_LEVEL
