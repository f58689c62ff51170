// One Gaussian from data: built in one pass, or an estimate merged with a further batch. The
// matrices are covariances.
#include "frame/scratch.h"
#include "mixtures/mixture_block.h"

#include "levels/levels.h"

#include <algorithm>

namespace ktl::gauss {
namespace {

// What differs between the numeric forms of the input: the kernels that sum it.
template <class T>
struct Sums;
template <>
struct Sums<float> {
    static void values(const float* const* rows, int count, int n, float* sums) {
        vsq::kernels().gauss->sumsFloat(rows, count, n, sums);
    }
    static void squares(const float* const* rows, int count, int n, float* sums) {
        vsq::kernels().gauss->squaresFloat(rows, count, n, sums);
    }
    static void products(const float* const* rows, int count, int n, float* const* sums) {
        vsq::kernels().gauss->productsFloat(rows, count, n, sums);
    }
};
template <>
struct Sums<short> {
    static void values(const short* const* rows, int count, int n, float* sums) {
        vsq::kernels().gauss->sumsFixed(rows, count, n, sums);
    }
    static void squares(const short* const* rows, int count, int n, float* sums) {
        vsq::kernels().gauss->squaresFixed(rows, count, n, sums);
    }
    static void products(const short* const* rows, int count, int n, float* const* sums) {
        vsq::kernels().gauss->productsFixed(rows, count, n, sums);
    }
};

template <class T>
void estimateMean(T** ppVectors, int nVectors, float* mean, int n) {
    const float invN = 1.0f / float(nVectors);
    Sums<T>::values(ppVectors, nVectors, n, mean);
    for (int i = 0; i < n; ++i)
        mean[i] *= invN;
}

// Each sum begins with -n * m * m, so that the squares come down on it one by one.
template <class T>
void estimateDiagonal(T** ppVectors, int nVectors, const float* mean, float* variance, int n) {
    const float invN1 = 1.0f / float(nVectors - 1);
    for (int i = 0; i < n; ++i)
        variance[i] = -float(nVectors) * mean[i] * mean[i];
    Sums<T>::squares(ppVectors, nVectors, n, variance);
    for (int i = 0; i < n; ++i)
        variance[i] *= invN1;
}

template <class T>
void estimateFull(T** ppVectors, int nVectors, const float* mean, float** rows, int n) {
    const float invN1 = 1.0f / float(nVectors - 1);
    for (int i = 0; i < n; ++i)
        for (int j = 0; j <= i; ++j)
            rows[i][j] = -float(nVectors) * mean[i] * mean[j];
    Sums<T>::products(ppVectors, nVectors, n, rows);
    for (int i = 0; i < n; ++i)
        for (int j = 0; j <= i; ++j)
            rows[j][i] = rows[i][j] = rows[i][j] * invN1;
}

template <class T>
GaussMixServer* build(T** ppVectors, int nVectors, int nDim, int flags, const char* funcName) {
    const bool full = (flags & KT_GAUSS_FULL) != 0;
    nVectors = std::max(nVectors, 0);
    GaussMixServer* server = createOrReport<float>({nDim, 1, full}, funcName);
    if (server == nullptr) return nullptr;
    float* mean = means<float>(server)[0];
    estimateMean(ppVectors, nVectors, mean, nDim);
    if (full)
        estimateFull(ppVectors, nVectors, mean, matrices<float>(server)[0], nDim);
    else
        estimateDiagonal(ppVectors, nVectors, mean, diagonals<float>(server)[0], nDim);
    weights<float>(server)[0] = 1.0f;
    server->pNormWeights[0] = 1.0f;
    server->flags |= KT_GAUSS_RAW;
    server->nObservations = nVectors;
    return server;
}

// The factors of the pooled estimate of two batches, all in float: r = 1/N, s = 1/(N-1).
struct Pooling {
    float wOld, wNew;     // of the means
    float fOld, fNew;     // of the covariances
    float gOld, gNew, gM; // of the products of the old, the new and the merged mean

    Pooling(int nOld, int nNew) {
        // a count from a file may be anything
        const int total = int(unsigned(nOld) + unsigned(nNew));
        const float r = 1.0f / float(total), s = 1.0f / float(int(unsigned(total) - 1u));
        const float n1 = float(nOld), n2 = float(nNew);
        wOld = r * n1;
        wNew = r * n2;
        fNew = s * n2 - s;
        fOld = s * n1 - s;
        gNew = s * n2;
        gOld = s * n1;
        gM = gNew + gOld;
    }
};

// New means and variances over the batch's own; the order of the terms is fixed for its rounding.
void mergeDiagonal(const Pooling& p, const float* a, const float* A, float* b, float* B, int n) {
    for (int i = 0; i < n; ++i) {
        const float c = a[i] * p.wOld + b[i] * p.wNew;
        B[i] = A[i] * p.fOld + p.gOld * a[i] * a[i] + p.gNew * b[i] * b[i] + B[i] * p.fNew -
               p.gM * c * c;
        b[i] = c;
    }
}

void mergeFull(const Pooling& p, const float* a, float** A, float* b, float** B, float* c, int n) {
    for (int i = 0; i < n; ++i)
        c[i] = a[i] * p.wOld + b[i] * p.wNew;
    for (int i = 0; i < n; ++i)
        for (int j = 0; j <= i; ++j)
            B[j][i] = B[i][j] = A[i][j] * p.fOld + B[i][j] * p.fNew + p.gOld * a[i] * a[j] +
                                p.gNew * b[i] * b[j] - p.gM * c[i] * c[j];
    std::copy_n(c, n, b);
}

bool merge(const GaussMixServer* old, GaussMixServer* fresh, int n) {
    const Pooling pooling(old->nObservations, fresh->nObservations);
    const float* a = means<float>(old)[0];
    float* b = means<float>(fresh)[0];
    if (isFull(fresh)) {
        KTContext* context = KTGetContext();
        if (!growBuffer<float>(context->trainBuffer, context->trainBufferLen, n)) return false;
        mergeFull(pooling, a, matrices<float>(old)[0], b, matrices<float>(fresh)[0],
                  static_cast<float*>(context->trainBuffer), n);
    } else {
        mergeDiagonal(pooling, a, diagonals<float>(old)[0], b, diagonals<float>(fresh)[0], n);
    }
    fresh->nObservations = int(unsigned(old->nObservations) + unsigned(fresh->nObservations));
    return true;
}

template <class T>
GaussMixServer* train(GaussMixServer* pOld, T** ppVectors, int nVectors, int nDim,
                      const char* buildName, const char* funcName) {
    if (pOld == nullptr || !isFloat(pOld) || nDim > pOld->nDim) return nullptr;
    GaussMixServer* server =
        build(ppVectors, nVectors, nDim, isFull(pOld) ? KT_GAUSS_FULL : 0, buildName);
    if (KTGetStatus() < 0) { // also when an earlier failure left it so
        std::free(server);
        return nullptr;
    }
    if (server == nullptr) return nullptr;
    if (!merge(pOld, server, nDim)) {
        module.report(KT_StsNoMem, noBlock, funcName);
        std::free(server);
        return nullptr;
    }
    return server;
}

} // namespace
} // namespace ktl::gauss

using namespace ktl::gauss;

GaussMixServer* KTsBuildGaussMixServer(float** ppVectors, int nVectors, int nDim, int flags) {
    return build(ppVectors, nVectors, nDim, flags, "KTsBuildGaussMixServer");
}

GaussMixServer* KTwBuildGaussMixServer(short** ppVectors, int nVectors, int nDim, int flags) {
    return build(ppVectors, nVectors, nDim, flags, "KTwBuildGaussMixServer");
}

GaussMixServer* KTsTrainGaussMixServer(GaussMixServer* pOld, float** ppVectors, int nVectors,
                                       int nDim) {
    return train(pOld, ppVectors, nVectors, nDim, "KTsBuildGaussMixServer",
                 "KTsTrainGaussMixServer");
}

GaussMixServer* KTwTrainGaussMixServer(GaussMixServer* pOld, short** ppVectors, int nVectors,
                                       int nDim) {
    return train(pOld, ppVectors, nVectors, nDim, "KTwBuildGaussMixServer",
                 "KTwTrainGaussMixServer");
}
