// What every fuzz target does around its reader.
#pragma once

#include "ktlp6.h"

#include <cstddef>
#include <cstdint>
#include <cstdio>

namespace fuzz {

// Runs `use(stream)` on the input as a stream, with reports silenced and the status cleared.
template <class Use>
int onStream(const std::uint8_t* data, std::size_t size, Use use) {
    if (size == 0) return 0;
    KTSetErrMode(KT_ErrorModeParent);
    KTRedirectError(KTNulDevReport);
    KTSetStatus(KT_StsOk);
    FILE* stream = fmemopen(const_cast<std::uint8_t*>(data), size, "rb");
    if (stream == nullptr) return 0;
    use(stream);
    std::fclose(stream);
    return 0;
}

// A stream that takes everything and keeps nothing.
inline FILE* sink() {
    static FILE* const stream = std::fopen("/dev/null", "wb");
    return stream;
}

} // namespace fuzz
