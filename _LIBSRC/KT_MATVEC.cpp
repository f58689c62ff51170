#include "KT_MATVEC.h"

#include "levels.h"

void ownsMatVec(float* pDest, const float* const* ppRows, const float* pX, int nRows, int nCols) {
    for (int r = 0; r < nRows; ++r)
        pDest[r] = static_cast<float>(vsq::kernels().dotp->dot(ppRows[r], pX, nCols));
}
