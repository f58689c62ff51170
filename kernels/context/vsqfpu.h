// The floating-point exception masks.
#pragma once

#include <cfenv>
#if defined(__SSE2__)
#include <immintrin.h>
#endif

namespace vsq {

// For its lifetime no floating-point exception traps, whatever the application has unmasked; masks and sticky
// flags are then as they were. Where arithmetic is SSE only its control register is touched, which costs a
// few cycles instead of the hundred of the whole environment.
class MaskedExceptions {
public:
#if defined(__SSE2__)
    MaskedExceptions() : saved(_mm_getcsr()) {
        _mm_setcsr(saved | allMasks);
    }
    ~MaskedExceptions() {
        _mm_setcsr(saved);
    }
#else
    MaskedExceptions() {
        std::feholdexcept(&saved);
    }
    ~MaskedExceptions() {
        std::fesetenv(&saved);
    }
#endif
    MaskedExceptions(const MaskedExceptions&) = delete;
    MaskedExceptions& operator=(const MaskedExceptions&) = delete;

private:
#if defined(__SSE2__)
    static constexpr unsigned allMasks = _MM_MASK_MASK;
    unsigned saved;
#else
    std::fenv_t saved;
#endif
};

} // namespace vsq
