// The reader of model files; whatever it accepts goes through everything that takes a model.
#include "fuzz.h"

#include <algorithm>

namespace {

// larger ones are only carried: the rest would take too long for a run
constexpr int mostStates = 64;
constexpr int mostDimensions = 256;

void evaluate(int id, int nQuant) {
    static const int symbols[] = {0, 1, 0, 2};
    KTsEvalHMMForward(id, symbols, 4, nullptr);
    KTsEvalHMMViterbi(id, symbols, 4, nullptr);
    KTwEvalHMMViterbi(id, symbols, 4, nullptr, KT_NoScale, nullptr);
    if (nQuant > mostDimensions) return;
    static const float frame[mostDimensions] = {0.5f, -1.0f};
    static const short fixedFrame[mostDimensions] = {50, -100};
    const float* const frames[] = {frame, frame};
    const short* const fixedFrames[] = {fixedFrame, fixedFrame};
    KTsEvalContHMMForward(id, frames, 2, nullptr);
    KTsEvalContHMMViterbi(id, frames, 2, nullptr);
    KTwEvalContHMMViterbi(id, fixedFrames, 2, nullptr, KT_NoScale, nullptr);
}

void queryRows(int id, int nStates) {
    static float initial[mostStates], row[mostStates];
    void* rows[mostStates];
    std::fill_n(rows, nStates, static_cast<void*>(row));
    KTGetHMMProb(id, initial, rows, nullptr, nullptr, nullptr);
}

void use(int id) {
    int nStates = 0, nSymbols = 0, nQuant = 0;
    KTWriteHMMServer(fuzz::sink(), id, "again");
    KTGetHMMParm(id, &nStates, &nSymbols, &nQuant, nullptr, nullptr);
    KTCopyHMMServer(id);
    if (nStates > mostStates) return;
    queryRows(id, nStates);
    evaluate(id, nQuant);
    KTSetStatus(KT_StsOk);
    int order;
    KTGetHMMScales(id, &order, &order, &order, &order);
    KTsExpHMMServer(id);
    KTsLogHMMServer(id);
    KTswConvertHMMServer(id, -8, -14, -10, -10);
    KTSetStatus(KT_StsOk);
    KTwsConvertHMMServer(id, 8, 14, 10, 10);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    return fuzz::onStream(data, size, [](FILE* stream) {
        char name[12];
        KTSetHMMMode(KT_HMM_KEEP);
        for (int id; (id = KTReadHMMServer(stream, name)) > 0;)
            use(id);
        KTHMMFreeAll();
    });
}
