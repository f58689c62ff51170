#include "vectors/vsqdotp_level.h"
#include "vectors/dot_product.h"

namespace vsq::VSQ_LEVEL {

extern const DotProductKernels dotProductKernels{dotProduct};

} // namespace vsq::VSQ_LEVEL
