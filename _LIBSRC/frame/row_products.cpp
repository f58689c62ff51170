#include "frame/row_products.h"

#include "levels/levels.h"

void ownsMatVec(float* pDest, const float* const* ppRows, const float* pX, int nRows, int nCols) {
    vsq::kernels().matvec->rowsFloat(pDest, ppRows, 0, pX, nRows, nCols);
}
