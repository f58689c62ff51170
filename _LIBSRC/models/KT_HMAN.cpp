// Makes, copies and releases models.
#include "frame/KT_ERROR.h"
#include "mixtures/KT_GAUSS.h"
#include "models/layout.h"
#include "quantisers/density_codebook.h"

#include <cstdlib>
#include <cstring>

namespace {

constexpr ktl::Module module{"..\\_LIBSRC\\KT_HMAN"};

// --- domain flags ---

bool refusesFixed(int flags, const char* funcName) {
    if ((static_cast<unsigned>(flags) & KT_HMM_EXPONENTIAL) == 0) return false;
    module.report(KT_StsBadArg, "flags&KT_HMM_EXPONENTIAL", funcName);
    return true;
}

bool refusesFloat(int flags, const char* funcName) {
    if ((static_cast<unsigned>(flags) & hmmDomainBits) != hmmDomainBits) return false;
    module.report(
        KT_StsBadArg,
        "(flags&(KT_HMM_EXPONENTIAL+ KT_HMM_LOGARITHMIC))==(KT_HMM_EXPONENTIAL+KT_HMM_LOGARITHMIC)",
        funcName);
    return true;
}

unsigned fixedDomain(int flags) {
    return static_cast<unsigned>(flags) & hmmDomainBits;
}

unsigned floatDomain(int flags) {
    const unsigned domain = static_cast<unsigned>(flags) & hmmDomainBits;
    return domain != 0 ? domain : KT_HMM_LOGARITHMIC;
}

// --- the codebook that a semicontinuous model scores with ---

struct CodebookTexts {
    const char* empty;
    const char* wrongCount;
    const char* wrongLength;
};
constexpr CodebookTexts floatTexts{"_sSemicontCodebook->status==0",
                                   "_sSemicontCodebook->nSymbols!=nSymbols",
                                   "_sSemicontCodebook->nQuant!=nQuant"};
constexpr CodebookTexts fixedTexts{"_wSemicontCodebook->status==0",
                                   "_wSemicontCodebook->nSymbols!=nSymbols",
                                   "_wSemicontCodebook->nQuant!=nQuant"};

// 0, or the Init's failure value after its report; -1 where there is not even a registry.
int checkCodebook(bool isFixed, int nSymbols, int nQuant, const char* funcName) {
    if (!hasHMMRegistry()) return -1;
    const SemicontCodebook* codebook =
        isFixed ? KTGetContext()->wSemicont : KTGetContext()->sSemicont;
    const CodebookTexts& texts = isFixed ? fixedTexts : floatTexts;
    const char* text = nullptr;
    int result = 0;
    if (codebook->status == 0) {
        text = texts.empty;
        result = -2;
    } else if (codebook->nSymbols != nSymbols) {
        text = texts.wrongCount;
        result = -3;
    } else if (codebook->nQuant != nQuant) {
        text = texts.wrongLength;
        result = -4;
    }
    if (text != nullptr) module.report(KT_StsBadArg, text, funcName);
    return result;
}

// --- mixtures ---

// A server's own copy of a mixture. What a mixture's flags bring along (normalisation) is done
// anew.
GaussMixServer* ownMixture(const GaussMixServer* source, int flags) {
    using namespace ktl::gauss;
    if (source == nullptr) return nullptr;
    if (isFloat(source))
        return KTsInitGaussMixServer(weights<float>(source), means<float>(source),
                                     matrices<float>(source), diagonals<float>(source),
                                     source->nDim, source->nMix, flags);
    return KTwInitGaussMixServer(weights<short>(source), means<short>(source),
                                 matrices<short>(source), diagonals<short>(source), source->nDim,
                                 source->nMix, flags, source->scale);
}

// --- creation ---

// What an Init was asked for; arrays are of the form that `kind` says.
struct Request {
    const void* trans;
    const void* out;
    const void* initial;
    GaussMixServer* const* mixtures;
    int nStates;
    int nSymbols; // -1 for a continuous model
    int nQuant;
    int scale;
    unsigned kind; // form, flavour and domain bits
};

// A model without states, or a discrete one without symbols, is refused: no reader accepts its
// file. A semicontinuous one has as many densities as its codebook, which may be none.
bool refusesSizes(const Request& request, const char* funcName) {
    const char* refusal = nullptr;
    if (request.nStates < 1)
        refusal = "nStates<1";
    else if ((request.kind & HMM_SERVER_DISCRETE) != 0 && request.nSymbols < 1)
        refusal = "nSymbols<1";
    if (refusal != nullptr) module.report(KT_StsBadArg, refusal, funcName);
    return refusal != nullptr;
}

// False when memory ran out for the mixtures. After a report of the setter's the request's arrays
// and mixtures may be gone, as the server may.
bool takeOver(HMMServer* server, const Request& request) {
    const bool isSet =
        KTSetHMMServerParm(server->id, 0, request.trans, request.out, request.initial,
                           request.nStates, request.nSymbols, static_cast<int>(request.kind));
    if (!isSet || (request.kind & HMM_SERVER_CONT) == 0) return true;
    const auto make = [](const GaussMixServer* source) {
        return source != nullptr ? ownMixture(source, source->flags | KT_GAUSS_BLOCK) : nullptr;
    };
    if (request.mixtures == nullptr ||
        !ownFillMixtures(server, request.nStates, [&](int i) { return make(request.mixtures[i]); }))
        return false;
    // where memory ran out for an array the status was not committed
    server->holdsMixtures = (server->status & HMM_SERVER_CONT) == 0;
    return true;
}

int create(const Request& request, const char* funcName) {
    if (!startHMMRegistry() || refusesSizes(request, funcName)) return -1;
    HMMServer* server = ownNewHMMRecord();
    if (server == nullptr) return -1;
    server->nQuant = request.nQuant;
    server->scale = request.scale;
    const int id = KTRegisterHMMServer(server);
    if (id < 0) {
        std::free(server);
        return -1;
    }
    const HeldHMMServer held(server);
    const bool complete = takeOver(server, request);
    if (held.get() == nullptr) return -1; // a report's handler has released it
    if (complete && KTGetStatus() >= 0) return id;
    KTFreeHMMServer(id);
    return -1;
}

// --- release and copy ---

// A copy of the elements behind the aligned start; the source may be missing, as after a failed
// allocation.
bool copyArray(void* source, void*& target, std::size_t count, std::size_t elementSize,
               std::size_t alignment) {
    if (source == nullptr) return true;
    target = hmm::allocateArray(count, elementSize);
    if (target == nullptr) return false;
    std::memcpy(hmm::aligned<char>(target, alignment), hmm::aligned<char>(source, alignment),
                count * elementSize);
    return true;
}

bool copyOutputs(const HMMServer* source, HMMServer* target) {
    if (source->outputs == nullptr) return true;
    const hmm::OutputShape shape =
        hmm::OutputShape::of(source->status, source->nStates, source->nSymbols);
    target->outputs = hmm::allocateOutputs(shape, hmm::alignmentOf(source->status));
    if (target->outputs == nullptr) return false;
    if (shape.rows > 0)
        std::memcpy(hmm::outputRows<void>(target->outputs)[0],
                    hmm::outputRows<void>(source->outputs)[0],
                    shape.elements() * shape.elementSize);
    return true;
}

bool copyMixtures(const HMMServer* source, HMMServer* target) {
    if ((source->status & HMM_SERVER_CONT) == 0 || source->mixtures == nullptr) return true;
    const bool owns = ownsMixtures(source);
    target->holdsMixtures = source->holdsMixtures;
    return ownFillMixtures(target, source->nStates, [=](int i) {
        return owns ? ownCopyMixture(source->mixtures[i]) : source->mixtures[i];
    });
}

bool copyStateWords(const HMMServer* source, HMMServer* target) {
    if (source->stateWords == nullptr) return true;
    const std::size_t bytes = std::size_t(source->nStates) * sizeof(int);
    target->stateWords = static_cast<int*>(std::malloc(bytes + sizeof(int)));
    if (target->stateWords == nullptr) return false;
    std::memcpy(target->stateWords, source->stateWords, bytes);
    return true;
}

bool copyContents(const HMMServer* source, HMMServer* target) {
    target->status = source->status;
    target->nStates = source->nStates;
    target->nSymbols = source->nSymbols;
    target->nQuant = source->nQuant;
    target->scale = source->scale;
    target->reserved1 = source->reserved1;
    const std::size_t alignment = hmm::alignmentOf(source->status);
    const auto initials = std::size_t(hmm::initialsLength(source->status, source->nStates));
    return copyArray(source->initials, target->initials, initials, sizeof(int), alignment) &&
           copyArray(source->transitions, target->transitions,
                     hmm::TransitionMap::of(*source).size(), sizeof(int), alignment) &&
           copyOutputs(source, target) && copyMixtures(source, target) &&
           copyStateWords(source, target);
}

} // namespace

HMMServer* ownNewHMMRecord() {
    return ktl::zeroed<HMMServer>();
}

GaussMixServer* ownCopyMixture(const GaussMixServer* source) {
    if (source == nullptr || !ktl::gauss::isFloat(source))
        return source != nullptr ? ownMixture(source, source->flags) : nullptr;
    GaussMixServer* copy = ownMixture(source, source->flags & ~KT_GAUSS_NORMALIZE);
    if (copy == nullptr) return nullptr;
    std::memcpy(copy->pNormWeights, source->pNormWeights,
                std::size_t(source->nMix) * sizeof(float));
    copy->flags |= source->flags & KT_GAUSS_NORMALIZE;
    return copy;
}

void ownFreeMixtures(GaussMixServer** mixtures) {
    for (int i = 0; mixtures != nullptr && mixtures[i] != nullptr; ++i)
        KTsFreeGaussMixServer(mixtures[i]);
    std::free(mixtures);
}

void ownFreeHMMRecord(HMMServer* server) {
    if (ownsMixtures(server))
        ownFreeMixtures(server->mixtures);
    else
        std::free(server->mixtures);
    std::free(server->transitions);
    std::free(server->outputs);
    std::free(server->initials);
    std::free(server->stateWords);
    if (server->nHolds == 0) std::free(server); // otherwise the last holder does
}

int ownRegisterComplete(HMMServer* server, int tag) {
    const int id = KTRegisterHMMServer(server);
    if (id < 0) {
        ownFreeHMMRecord(server);
        return -1;
    }
    const HeldHMMServer held(server);
    KTSetHMMServerParm(id, tag, nullptr, nullptr, nullptr, -1, -1, -1);
    if (held.get() != nullptr && KTGetStatus() < 0) KTFreeHMMServer(id);
    return held.get() != nullptr || KTFindHMMServer(id) == nullptr ? id : -1;
}

int KTwInitHMMServer(const short* const* trans, const short* const* out, const short* initial,
                     int nStates, int nSymbols, int flags) {
    if (refusesFixed(flags, "KTwInitHMMServer")) return -1;
    return create({trans, out, initial, nullptr, nStates, nSymbols, 0, 0,
                   HMM_SERVER_DISCRETE | HMM_SERVER_SHORT | fixedDomain(flags)},
                  "KTwInitHMMServer");
}

int KTsInitHMMServer(const float* const* trans, const float* const* out, const float* initial,
                     int nStates, int nSymbols, int flags) {
    // the fixed twin's name has always stood in this report; logs are read by it
    if (refusesFloat(flags, "KTwInitHMMServer")) return -1;
    return create({trans, out, initial, nullptr, nStates, nSymbols, 0, 0,
                   HMM_SERVER_DISCRETE | HMM_SERVER_FLOAT | floatDomain(flags)},
                  "KTsInitHMMServer");
}

int KTwInitContHMMServer(const short* const* trans, const short* initial, GaussMixServer** mixtures,
                         int nStates, int nQuant, int flags, int scale) {
    if (refusesFixed(flags, "KTwInitContHMMServer")) return -1;
    return create(
        {trans, nullptr, initial, mixtures, nStates, -1, nQuant, scale,
         HMM_SERVER_CONT | HMM_SERVER_OWNS_MIXTURES | HMM_SERVER_SHORT | fixedDomain(flags)},
        "KTwInitContHMMServer");
}

int KTsInitContHMMServer(const float* const* trans, const float* initial, GaussMixServer** mixtures,
                         int nStates, int nQuant, int flags) {
    if (refusesFloat(flags, "KTsInitContHMMServer")) return -1;
    return create(
        {trans, nullptr, initial, mixtures, nStates, -1, nQuant, 0,
         HMM_SERVER_CONT | HMM_SERVER_OWNS_MIXTURES | HMM_SERVER_FLOAT | floatDomain(flags)},
        "KTsInitContHMMServer");
}

int KTwInitSemicontHMMServer(const short* const* trans, const short* const* out,
                             const short* initial, int nStates, int nSymbols, int nQuant, int flags,
                             int scale) {
    if (refusesFixed(flags, "KTwInitSemicontHMMServer")) return -1;
    KTInitHMMRegistry();
    const int refusal = checkCodebook(true, nSymbols, nQuant, "KTwInitSemicontHMMServer");
    if (refusal != 0) return refusal;
    return create({trans, out, initial, nullptr, nStates, nSymbols, nQuant, scale,
                   HMM_SERVER_SEMICONT | HMM_SERVER_SHORT | fixedDomain(flags)},
                  "KTwInitSemicontHMMServer");
}

int KTsInitSemicontHMMServer(const float* const* trans, const float* const* out,
                             const float* initial, int nStates, int nSymbols, int nQuant,
                             int flags) {
    if (refusesFloat(flags, "KTsInitSemicontHMMServer")) return -1;
    KTInitHMMRegistry();
    const int refusal = checkCodebook(false, nSymbols, nQuant, "KTsInitSemicontHMMServer");
    if (refusal != 0) return refusal;
    return create({trans, out, initial, nullptr, nStates, nSymbols, nQuant, 0,
                   HMM_SERVER_SEMICONT | HMM_SERVER_FLOAT | floatDomain(flags)},
                  "KTsInitSemicontHMMServer");
}

void KTFreeHMMServer(int id) {
    HMMServer* server = KTFindHMMServer(id);
    if (server == nullptr) return;
    HMMClass* const classes = KTGetContext()->hmmClassList;
    for (HMMClass* group = classes->next; group != classes; group = group->next)
        removeFromHMMClass(group, id);
    KTUnregisterHMMServer(server);
    ownFreeHMMRecord(server);
}

void KTHMMFreeAll(void) {
    if (!hasHMMRegistry()) return;
    KTContext* context = KTGetContext();
    KTsFreeSemicontCodebook();
    KTwFreeSemicontCodebook();
    KTFreeHMMClasses();
    while (context->hmmServerList->next != context->hmmServerList)
        KTFreeHMMServer(context->hmmServerList->next->id);
    KTFreeHMMRegistry();
    std::free(context->hmmScalesBuffer);
    context->hmmScalesBuffer = nullptr;
    context->hmmScalesLen = 0;
    context->hmmMode = 0;
    context->nHMMClasses = context->nHMMServers = 0;
}

int KTCopyHMMServer(int hmm) {
    const HMMServer* source = KTFindHMMServer(hmm);
    HMMServer* copy = source != nullptr ? ownNewHMMRecord() : nullptr;
    if (copy == nullptr) return -1;
    if (!copyContents(source, copy)) {
        ownFreeHMMRecord(copy);
        return -1;
    }
    return ownRegisterComplete(copy);
}
