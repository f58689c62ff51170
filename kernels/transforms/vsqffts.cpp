// The float real transform: checks, tables, scratch and scaling. Scratch is on the stack as long as
// it is small; when memory runs out, everything cached is released and the call tries once more.
#include "transforms/vsqffts.h"

#include "levels/levels.h"

namespace vsq {
namespace {

constexpr Module module{"vsqffts"};
constexpr const char* noMemory = "No working Twd memory";

// Transforms up to this order find scratch on the stack, 16 KB at most.
constexpr int stackOrder = 12;

void transform(const float* in, float* out, int order, int flags, const FftTables& tables,
               float* scratch) {
    const int shift = (flags & VSQ_RCPack) != 0 ? 1 : 0;
    if ((flags & VSQ_Forw) != 0) {
        kernels().ffts->forward(in, out, shift, tables, scratch);
        return;
    }
    const bool scaled = (flags & VSQ_NoScale) == 0;
    const float scale = scaled ? 1.0f / static_cast<float>(std::ptrdiff_t{1} << order) : 1.0f;
    kernels().ffts->inverse(in, out, shift, scale, tables, scratch);
}

void transformOnStack(const float* in, float* out, int order, int flags, const FftTables& tables) {
    alignas(64) float scratch[1 << stackOrder];
    transform(in, out, order, flags, tables, scratch);
}

bool transformInCache(const float* in, float* out, int order, int flags, const FftTables& tables) {
    const WorkLoan scratch(fftScratch(), std::ptrdiff_t{1} << order);
    if (scratch.get() == nullptr) return false;
    transform(in, out, order, flags, tables, scratch.get());
    return true;
}

// The tables for `order`, once more after a release of all that is cached. Order 0 needs none and
// reads as success.
bool workingTables(int order, const char* funcName, const FftTables** tables) {
    if (order == 0) return true;
    *tables = fftTables(order - 1);
    if (*tables != nullptr) [[likely]]
        return true;
    releaseTransformCaches();
    *tables = fftTables(order - 1);
    if (*tables == nullptr) module.report(stsNoMem, noMemory, funcName);
    return *tables != nullptr;
}

// Everything up to the pointers: whether a transform is to follow.
bool prepared(int order, int flags, const char* funcName, const FftTables** tables) {
    if ((flags & VSQ_Free) != 0) {
        if (order > 0) releaseFftTables(order - 1);
        return false;
    }
    if (module.refuses(order < 0, "order<0", funcName) ||
        module.refuses(order > 31, "order>31", funcName))
        return false;
    return workingTables(order, funcName, tables) && (flags & VSQ_Init) == 0;
}

// Runs the transform; when scratch can't be had, releases all that is cached and tries once more.
void run(const float* in, float* out, int order, int flags, const FftTables* tables,
         const char* funcName) {
    if (realFft(in, out, order, flags, tables)) [[likely]]
        return;
    releaseTransformCaches();
    if (!workingTables(order, funcName, &tables)) return;
    if (!realFft(in, out, order, flags, tables)) module.report(stsNoMem, noMemory, funcName);
}

} // namespace

bool refusesFftFlags(const Module& caller, int flags, const char* funcName) {
    const bool forward = (flags & VSQ_Forw) != 0, inverse = (flags & VSQ_Inv) != 0;
    const bool pack = (flags & VSQ_RCPack) != 0, perm = (flags & VSQ_RCPerm) != 0;
    return caller.refuses(forward && inverse, "(flags & 1) && (flags & 2)", funcName) ||
           caller.refuses(!forward && !inverse, "(flags & 1)==0 && (flags & 2)==0", funcName) ||
           caller.refuses(pack && perm, "(flags & 256) && (flags & 512)", funcName) ||
           caller.refuses(!pack && !perm, "(flags & 256)==0 && (flags & 512)==0", funcName);
}

bool realFft(const float* in, float* out, int order, int flags, const FftTables* tables) {
    if (order == 0) {
        out[0] = in[0];
        return true;
    }
    if (order > stackOrder) return transformInCache(in, out, order, flags, *tables);
    transformOnStack(in, out, order, flags, *tables);
    return true;
}

} // namespace vsq

using namespace vsq;

void vsqsRealFftl(float* samps, int order, int flags) {
    const FftTables* tables = nullptr;
    if (!prepared(order, flags, __func__, &tables)) return;
    if (module.refuses(samps == nullptr, "samps==0") || refusesFftFlags(module, flags, __func__))
        return;
    run(samps, samps, order, flags, tables, __func__);
}

void vsqsRealFftlNip(const float* inSamps, float* outSamps, int order, int flags) {
    const FftTables* tables = nullptr;
    if (!prepared(order, flags, __func__, &tables)) return;
    if (module.refuses(inSamps == nullptr, "inSamps==0") ||
        module.refuses(outSamps == nullptr, "outSamps==0") ||
        refusesFftFlags(module, flags, __func__))
        return;
    run(inSamps, outSamps, order, flags, tables, __func__);
}
