#include "platform.h"

namespace platform {

ProcessorLevel processorLevel() {
#if defined(__x86_64__) && (defined(__GNUC__) || defined(__clang__))
    __builtin_cpu_init();
    const bool avx2 = __builtin_cpu_supports("avx2") && __builtin_cpu_supports("fma") &&
                      __builtin_cpu_supports("bmi") && __builtin_cpu_supports("bmi2");
    const bool avx512 = avx2 && __builtin_cpu_supports("avx512f") && __builtin_cpu_supports("avx512bw") &&
                        __builtin_cpu_supports("avx512dq") && __builtin_cpu_supports("avx512vl");
    if (avx512) return ProcessorLevel::avx512;
    if (avx2) return ProcessorLevel::avx2;
#endif
    return ProcessorLevel::baseline;
}

} // namespace platform
