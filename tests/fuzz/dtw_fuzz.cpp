// The readers of pattern files, float and fixed; what they accept is looked up, written and released.
#include "fuzz.h"

namespace {

void useFloat(FILE* stream) {
    for (int handle; (handle = KTsReadDTWPattern(stream)) > 0;) {
        float** rows;
        int nVectors, nDim;
        KTsPatternGet(handle, &rows, &nVectors, &nDim);
        KTsWriteDTWPattern(fuzz::sink(), handle);
    }
    KTsPatternFreeAll();
}

void useFixed(FILE* stream) {
    for (int handle; (handle = KTwReadDTWPattern(stream)) > 0;) {
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
