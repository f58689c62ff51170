// The floating-point exception masks.
//
// While a MaskedExceptions lives, no floating-point exception traps, whatever the application has
// unmasked; masks and sticky flags are then as they were. Where arithmetic is SSE only its control
// register is touched, which costs a few cycles instead of the hundred of the whole environment.
#pragma once

#include <cfenv>
#if defined(__SSE2__)
#include <immintrin.h>
#endif

namespace vsq {

#if defined(__SSE2__)

class MaskedExceptions {
public:
    MaskedExceptions() : saved(_mm_getcsr()) { _mm_setcsr(saved | _MM_MASK_MASK); }
    ~MaskedExceptions() { _mm_setcsr(saved); }
    MaskedExceptions(const MaskedExceptions&) = delete;
    MaskedExceptions& operator=(const MaskedExceptions&) = delete;

private:
    unsigned saved;
};

#else

class MaskedExceptions {
public:
    MaskedExceptions() { std::feholdexcept(&saved); }
    ~MaskedExceptions() { std::fesetenv(&saved); }
    MaskedExceptions(const MaskedExceptions&) = delete;
    MaskedExceptions& operator=(const MaskedExceptions&) = delete;

private:
    std::fenv_t saved;
};

#endif

} // namespace vsq
