// Rows times a vector through the kernels' table. One function, so that perceptrons and
// semicontinuous models sum in the same order and give the same bits.
#include "frame/row_products.h"

#include "levels/levels.h"

void ktl::rowProducts(float* pDest, const float* const* ppRows, const float* pX, int nRows,
                      int nCols) {
    vsq::kernels().matvec->rowsFloat(pDest, ppRows, 0, pX, nRows, nCols);
}
