// The readers of pattern files, float and fixed; what they accept is looked up, written and
// released.
#include "fuzz.h"

namespace {

// Whether a pattern has come; a handle may be anything.
template <class Read>
bool reads(const Read& read, int (*number)()) {
    const int before = number();
    read();
    return number() > before;
}

void useFloat(FILE* stream) {
    for (int handle = 0; reads([&] { handle = KTsReadDTWPattern(stream); }, KTsPatternsNumber);) {
        float** rows;
        int nVectors, nDim;
        KTsPatternGet(handle, &rows, &nVectors, &nDim);
        KTsWriteDTWPattern(fuzz::sink(), handle);
    }
    KTsPatternFreeAll();
}

void useFixed(FILE* stream) {
    for (int handle = 0; reads([&] { handle = KTwReadDTWPattern(stream); }, KTwPatternsNumber);) {
        short** rows;
        int nVectors, nDim, scale;
        KTwPatternGet(handle, &rows, &nVectors, &nDim, &scale);
        KTwWriteDTWPattern(fuzz::sink(), handle);
    }
    KTwPatternFreeAll();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    fuzz::onStream(data, size, useFloat);
    return fuzz::onStream(data, size, useFixed);
}
