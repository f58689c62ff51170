// The inner product of floats; dot_product.h holds it, since other kernels take it inline.
#include "vectors/vsqdotp_level.h"
#include "vectors/dot_product.h"

namespace vsq::VSQ_LEVEL {

extern const DotProductKernels dotProductKernels{.dot = dotProduct};

} // namespace vsq::VSQ_LEVEL
