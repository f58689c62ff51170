// Pre-emphasis, y[i] = x[i] - alpha * x[i-1], in place and block by block: no state crosses from
// one call to the next.
#include "frame/KT_ERROR.h"
#include "frame/numeric.h"
#include "frame/scratch.h"

#include "levels/levels.h"

#include <algorithm>
#include <cstdlib>

namespace {

constexpr ktl::Module module{"..\\_LIBSRC\\KT_PREE"};

constexpr int fractionBits = 14; // of the fixed-point coefficient

// The integer path holds coefficients from 0 to 1 and scales that leave its 32-bit accumulator a
// shift of 0 to 28.
bool fitsIntegers(float alpha, int scaleMode, int scale) {
    const bool holdsAlpha = alpha >= 0.0f && alpha <= 1.0f;
    const bool holdsScale =
        scaleMode != KT_FixedScale || (scale >= -fractionBits && scale <= fractionBits);
    return holdsAlpha && scaleMode != KT_AutoScale && holdsScale;
}

// Arithmetic shift, to the left for a negative scale, of which 16 bits are kept. Beyond the word's
// width nothing but the sign, or nothing at all, is left.
short rescaled(short value, int scale) {
    if (scale >= 0) return static_cast<short>(value >> std::min(scale, 15));
    return scale > -16 ? static_cast<short>(static_cast<unsigned>(value) << -scale) : short(0);
}

void filterIntegers(short* vec, float alpha, int n, int scaleMode, int& scale) {
    int coefficientScale = -fractionBits;
    const int alphaQ = KTswConvertDown(alpha, KT_FixedScale, &coefficientScale);
    const vsq::PreeKernels& kernels = *vsq::kernels().pree;
    if (scaleMode == KT_Saturate) {
        kernels.saturateFixed(vec, n, alphaQ);
        scale = 0;
    } else if (scaleMode == KT_NoScale) {
        kernels.shiftFixed(vec, n, alphaQ, fractionBits);
        scale = 0;
    } else {
        // KT_FixedScale; any mode beyond the four rescales only the first sample, and keeps the
        // scale as well.
        kernels.shiftFixed(vec, n, alphaQ, fractionBits + (scaleMode == KT_FixedScale ? scale : 0));
        vec[0] = rescaled(vec[0], scale);
    }
}

void filterThroughFloats(short* vec, float alpha, int n, int scaleMode, int* pScale) {
    KTContext* context = KTGetContext();
    if (!ktl::growBuffer<float>(context->buff, context->buffLen, n)) {
        module.report(KT_StsNoMem, "insufficiency of memory for pointer  buff", "KTwPreemphasize");
        return;
    }
    KTwsbConvertUp(vec, context->buff, n, 0);
    KTsPreemphasize(context->buff, alpha, n);
    KTswbConvertDown(context->buff, vec, n, scaleMode, pScale);
}

} // namespace

void KTsPreemphasize(float* pVec, float alpha, int n) {
    vsq::kernels().pree->filterFloat(pVec, n, alpha);
}

// Integer path: a 32-bit accumulator in Q14 that cannot overflow; the shift rounds toward minus
// infinity; KT_Saturate saturates, the other modes keep the low 16 bits. Float path: truncation
// toward zero.
void KTwPreemphasize(short* pVec, float alpha, int n, int scaleMode, int* pScale) {
    if (n <= 0) return;
    const ktl::CallScale scale(pScale);
    if (fitsIntegers(alpha, scaleMode, *scale))
        filterIntegers(pVec, alpha, n, scaleMode, *scale);
    else
        filterThroughFloats(pVec, alpha, n, scaleMode, scale.get());
}

void KTFreePreemphasizeTbls(void) {
    KTContext* context = KTGetContext();
    std::free(context->buff);
    context->buff = nullptr;
    context->buffLen = 0;
}
