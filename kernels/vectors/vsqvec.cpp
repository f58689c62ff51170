// Fills and copies. Zero and copy are the C library's, which knows the processor as well as we do.
#include "context/vsqcontext.h"
#include "levels/levels.h"

#include <cstring>

namespace {

constexpr vsq::Module module{"vsqvec"};

bool isRefused(const void* dst, int n, const char* funcName = __builtin_FUNCTION()) {
    return module.refuses(n <= 0, "n<=0", funcName) ||
           module.refuses(dst == nullptr, "dst==0", funcName);
}

bool isRefused(const void* src, const void* dst, int n,
               const char* funcName = __builtin_FUNCTION()) {
    return module.refuses(n <= 0, "n<=0", funcName) ||
           module.refuses(src == nullptr, "src==0", funcName) ||
           module.refuses(dst == nullptr, "dst==0", funcName);
}

} // namespace

void vsqsbZero(float* dst, int n) {
    if (!isRefused(dst, n)) std::memset(dst, 0, std::size_t(n) * sizeof *dst);
}

void vsqwbZero(short* dst, int n) {
    if (!isRefused(dst, n)) std::memset(dst, 0, std::size_t(n) * sizeof *dst);
}

void vsqsbSet(float val, float* dst, int n) {
    if (!isRefused(dst, n)) vsq::kernels().arith->setFloat(val, dst, n);
}

void vsqwbSet(short val, short* dst, int n) {
    if (!isRefused(dst, n)) vsq::kernels().arith->setFixed(val, dst, n);
}

void vsqsbCopy(const float* src, float* dst, int n) {
    if (!isRefused(src, dst, n)) std::memmove(dst, src, std::size_t(n) * sizeof *dst);
}

void vsqwbCopy(const short* src, short* dst, int n) {
    if (!isRefused(src, dst, n)) std::memmove(dst, src, std::size_t(n) * sizeof *dst);
}
