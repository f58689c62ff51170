#include "frame/row_products.h"

#include "levels/levels.h"

void ownsMatVec(float* pDest, const float* const* ppRows, const float* pX, int nRows, int nCols) {
    vsq::kernels().matvec->rowsS(pDest, ppRows, 0, pX, nRows, nCols);
}
