// Twiddle tables of the LP spectrum's direct method.
#pragma once

#include "frame/types.h"

// Cosines and negated sines for `limit` coefficients at N frequencies, N a power of two, in the
// layout of the kernel layer's vsqlpc_level.h; 16-bit values are truncated products with 2^14. The
// result is a block to free; the table begins at its first address that is a multiple of 32. Null
// after a report (-4) when memory ran out.
void* KTsCalcLPTwiddle(int limit, int N);
void* KTwCalcLPTwiddle(int limit, int N);
