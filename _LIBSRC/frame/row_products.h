// Row-by-row inner products, for the layers of a perceptron and the weights of semicontinuous
// models.
#pragma once

// pDest[r] = the sum over c below nCols of ppRows[r][c] * pX[c], in floats: 16 lanes that a tree
// adds, the same bits on every level. Nothing to do for nRows below 1, zeros for nCols below 1.
namespace ktl {
void rowProducts(float* pDest, const float* const* ppRows, const float* pX, int nRows, int nCols);
}
