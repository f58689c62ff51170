// Which instruction sets the processor has.
#include "platform.h"

namespace platform {

bool anyProcessor() {
    return true;
}

#if defined(__x86_64__)

bool processorHasAvx2() {
    __builtin_cpu_init();
    return __builtin_cpu_supports("avx2") && __builtin_cpu_supports("bmi") &&
           __builtin_cpu_supports("bmi2") && __builtin_cpu_supports("fma");
}

bool processorHasAvx512() {
    return processorHasAvx2() && __builtin_cpu_supports("avx512f") &&
           __builtin_cpu_supports("avx512bw") && __builtin_cpu_supports("avx512dq") &&
           __builtin_cpu_supports("avx512vl");
}

#else

bool processorHasAvx2() {
    return false;
}

bool processorHasAvx512() {
    return false;
}

#endif

} // namespace platform
