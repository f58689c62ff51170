// The per-thread record: everything that survives from one call to the next and is not the
// caller's.
#pragma once

#include "frame/types.h"

#include "platform.h"

// Fields stay in this order. On 32-bit builds the record is exactly 220 bytes; pointers are natural
// elsewhere. Each group has an owner, the one module that reads and writes it, and a capacity goes
// with each buffer: a request beyond it frees the block, zeroes pointer and capacity, allocates,
// and stores both only on success. Buffers outlive the thread unless the owner's KTFree...Tbls was
// called on it.
struct KTContext {
    // KT_ERROR
    int status;
    int errMode;
    KTErrorHandler errHandler; // the one field that starts non-zero: KTWinError
    // KT_PREE
    int buffLen; // capacity of buff, in floats
    float* buff;
    // KT_LPRED, KT_LPSPE
    struct {
        void* wLPTwiddle; // raw blocks of the twiddle tables
        void* sLPTwiddle;
        int wTwiddleOrder; // FFT order and number of coefficients for which a table was built
        int wTwiddleLen;
        int sTwiddleOrder;
        int sTwiddleLen;
        void* wLPBuffer; // FFT work buffers and the orders for which they were sized
        void* sLPBuffer;
        int wBufferOrder;
        int sBufferOrder;
        void* spare0;
        void* spare1;
        int nAutocorr; // row lengths of the two tables
        float** arrAutocorr;
        int nCovariance;
        float** arrCovariance;
    } LP;
    // KT_CEPS: aligned blocks
    struct {
        float* filterOutput;
        float* fftOut;
        void* spare0;
        void* spare1;
        float* tempVect;
        float* tempCeps;
        float* filterDctInput;
        float* filterDctOutput;
        void* spare2;
        void* spare3;
        void* spare4;
        float melMul; // mel scale; 0 means the default
        float melDiv;
        int fftLen; // capacities: FFT length, filters, coefficients
        int nFilters;
        int nCeps;
    } Ceps;
    // KT_HINT and the HMM modules
    unsigned hmmMode;
    int nHMMClasses;
    int nHMMServers;
    struct HMMClass* hmmClassList;   // sentinel of the class list
    struct HMMServer* hmmServerList; // sentinel of the server list
    struct HMMServer* hmmServerCursor;
    struct SemicontCodebook* sSemicont;
    struct SemicontCodebook* wSemicont;
    int* hmmScalesBuffer;
    int hmmScalesLen;
    // KT_DTW
    int nFixedPatterns;
    struct wPattern* wPatternList;
    int nFloatPatterns;
    struct sPattern* sPatternList;
    // KT_GAUSS
    int gaussBufferLen;
    void* gaussBuffer;
    int trainBufferLen;
    void* trainBuffer;
};

static_assert(sizeof(void*) != 4 || sizeof(KTContext) == 220, "the record of a 32-bit build");

// Makes the record of a thread that has none yet; on exhaustion the process ends, since there is
// nowhere to report to.
KTContext* ktlFirstContext();

// The calling thread's record, made at its first call when the thread's start was not seen; never
// null. Nearly every function begins with it, so the normal path is one read of the thread's slot.
inline KTContext* KTGetContext() {
    void* record = platform::threadRecord();
    if (record == nullptr) [[unlikely]]
        return ktlFirstContext();
    return static_cast<KTContext*>(record);
}

// The bit of hmmMode that tells that the thread's registry of models exists, and with it the two
// codebooks of densities, which are always there or missing together.
inline constexpr unsigned HMM_MODE_READY = 0x01000000u;

// Creates the registry where there is none. On exhaustion HMM_MODE_READY stays clear, and nothing
// is reported. The codebooks start it as well as the models do.
void KTInitHMMRegistry();

inline bool hasHMMRegistry(const KTContext* context = KTGetContext()) {
    return (context->hmmMode & HMM_MODE_READY) != 0;
}

// The same, with the registry made where there is none; false when memory ran out.
inline bool startHMMRegistry() {
    KTInitHMMRegistry();
    return hasHMMRegistry();
}
