// The reader of mixture files; whatever it accepts is written, scored and converted.
#include "fuzz.h"

namespace {

constexpr int mostDimensions = 256;

void use(GaussMixServer* server) {
    static const float frame[mostDimensions] = {0.5f, -1.0f};
    static const short fixedFrame[mostDimensions] = {50, -100};
    KTWriteGaussMixServer(fuzz::sink(), server);
    KTsEvalGaussMix(server, frame, mostDimensions);
    KTwEvalGaussMix(server, fixedFrame, mostDimensions, KT_NoScale, nullptr);
    KTsFreeGaussMixServer(KTswConvertGaussMixServer(server, -14, -10, -10));
    KTsFreeGaussMixServer(KTwsConvertGaussMixServer(server, 14, 10, 10));
    KTSetStatus(KT_StsOk);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    return fuzz::onStream(data, size, [](FILE* stream) {
        while (GaussMixServer* server = KTReadGaussMixServer(stream)) {
            use(server);
            KTsFreeGaussMixServer(server);
        }
        KTFreeGaussTbls();
    });
}
