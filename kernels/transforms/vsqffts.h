// What the fixed-point transform and the cosine transform share with the float one.
#pragma once

#include "context/vsqcontext.h"
#include "transforms/vsqtwd.h"

namespace vsq {

// Whether the direction or packing flags are wrong; if so that has been reported.
bool refusesFftFlags(const Module& module, int flags, const char* funcName);

// The transform without checks: order 0 to 31, valid flags, the tables of 2^(order - 1) points
// (null for order 0). False when scratch could not be had.
bool realFft(const float* in, float* out, int order, int flags, const FftTables* tables);

} // namespace vsq
