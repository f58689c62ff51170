// The thread's two semicontinuous codebooks: made from labelled vectors or from given densities,
// copied, released.
#include "quantisers/density_codebook.h"

#include "frame/KT_ERROR.h"
#include "frame/numeric.h"
#include "frame/scratch.h"
#include "mixtures/KT_GAUSS.h"

#include "levels/levels.h"

#include <algorithm>
#include <cstdlib>

namespace {

constexpr ktl::Module module{"..\\_LIBSRC\\Kt_cdbk"};

using ktl::gauss::diagonals;
using ktl::gauss::matrices;
using ktl::gauss::means;
using ktl::gauss::weights;

// The two numeric forms: where the thread keeps the codebook, and how its densities are made.
struct FloatCodebook : ktl::FloatForm {
    static constexpr int bit = HMM_SERVER_FLOAT;
    static SemicontCodebook* codebook(const KTContext* context) { return context->sSemicont; }
    static bool matches(const GaussMixServer* server) { return ktl::gauss::isFloat(server); }
    static bool prepare(SemicontCodebook* codebook) { return ownsPreparePdfs(codebook); }
    static float weightOf(const GaussMixServer* server) { return server->pNormWeights[0]; }
    static GaussMixServer* copy(const GaussMixServer* s) {
        return KTsInitGaussMixServer(weights<float>(s), means<float>(s), matrices<float>(s),
                                     diagonals<float>(s), s->nDim, s->nMix,
                                     s->flags | KT_GAUSS_BLOCK);
    }
};

struct FixedCodebook : ktl::FixedForm {
    static constexpr int bit = HMM_SERVER_SHORT;
    static SemicontCodebook* codebook(const KTContext* context) { return context->wSemicont; }
    static bool matches(const GaussMixServer* server) { return !ktl::gauss::isFloat(server); }
    static bool prepare(SemicontCodebook*) { return true; }
    static short weightOf(const GaussMixServer* server) { return weights<short>(server)[0]; }
    static GaussMixServer* copy(const GaussMixServer* s) {
        return KTwInitGaussMixServer(weights<short>(s), means<short>(s), matrices<short>(s),
                                     diagonals<short>(s), s->nDim, s->nMix,
                                     s->flags | KT_GAUSS_BLOCK, s->scale);
    }
};

// The thread's codebook of a form, with the registry made where there is none; null on exhaustion.
template <class Form>
SemicontCodebook* startedCodebook() {
    return startHMMRegistry() ? Form::codebook(KTGetContext()) : nullptr;
}

void freeServers(GaussMixServer** servers, int n) {
    for (int k = 0; servers != nullptr && k < n; ++k)
        KTsFreeGaussMixServer(servers[k]);
    std::free(servers);
}

// A zeroed table of server pointers; never empty, so that null means that memory ran out.
GaussMixServer** newServerTable(int n) {
    if (n < 0) return nullptr;
    return ktl::zeroed<GaussMixServer*>(std::size_t(n) + 1);
}

// Empties a codebook, complete or half built with n densities.
void empty(SemicontCodebook* codebook, int n) {
    freeServers(codebook->ccgPdfs, n);
    std::free(codebook->pWeights);
    std::free(codebook->pFurther);
    std::free(codebook->pPanel);
    *codebook = SemicontCodebook{};
}

// Fills an empty codebook with n densities made by `make(k)` and weights by `weight(made, k)`. On
// success, 1; 1 also when a density's maker has reported, with the codebook empty; -1 when memory
// ran out elsewhere. A report's handler may release the thread's codebooks or set up its own, so
// they are not touched before all is there.
template <class Form, class Make, class Weight>
int fill(SemicontCodebook* codebook, int n, int nQuant, Make make, Weight weight) {
    SemicontCodebook made{};
    made.ccgPdfs = newServerTable(n);
    if (made.ccgPdfs == nullptr) return -1;
    bool failed = KTGetStatus() < 0; // a status that was negative before counts, too
    for (int k = 0; k < n && !failed; ++k) {
        made.ccgPdfs[k] = make(k);
        failed = made.ccgPdfs[k] == nullptr || KTGetStatus() < 0;
    }
    if (failed) {
        empty(&made, n);
        return 1;
    }
    made.pWeights = ktl::allocateArray(std::size_t(n), sizeof(typename Form::Element));
    made.nSymbols = n;
    made.nQuant = nQuant;
    if (made.pWeights == nullptr || !Form::prepare(&made)) {
        empty(&made, n);
        return -1;
    }
    auto* first = ktl::aligned<typename Form::Element>(made.pWeights, Form::alignment);
    for (int k = 0; k < n; ++k)
        first[k] = weight(made, k);
    made.status = SEMICONT_OWNS_PDFS | Form::bit;
    *codebook = made;
    return 1;
}

template <class Form>
int initialise(GaussMixServer** ppServers, int nSymbols, int nQuant) {
    SemicontCodebook* codebook = startedCodebook<Form>();
    if (codebook == nullptr || codebook->status != 0 || nSymbols < 0) return -1;
    // a density that evaluation would read beyond is refused here, where it costs one look
    for (int k = 0; k < nSymbols; ++k)
        if (ppServers[k] == nullptr || !Form::matches(ppServers[k]) || ppServers[k]->nDim < nQuant)
            return -1;
    return fill<Form>(
        codebook, nSymbols, nQuant, [=](int k) { return Form::copy(ppServers[k]); },
        [](const SemicontCodebook& made, int k) { return Form::weightOf(made.ccgPdfs[k]); });
}

template <class Form>
int release() {
    const KTContext* context = KTGetContext();
    if (!hasHMMRegistry(context)) return -1;
    SemicontCodebook* codebook = Form::codebook(context);
    if (codebook->status == 0) return -1;
    if ((codebook->status & SEMICONT_OWNS_PDFS) == 0) {
        std::free(codebook->ccgPdfs);
        codebook->ccgPdfs = nullptr;
    }
    empty(codebook, codebook->nSymbols);
    return KTGetStatus() < 0 ? -1 : 1;
}

// The source has to be empty: one that holds densities is refused. What comes out is a target
// without densities.
template <class Source, class Target, class Convert, class Weight>
int convertCodebook(Convert convert, Weight weight) {
    SemicontCodebook* target = startedCodebook<Target>();
    if (target == nullptr) return -1;
    const SemicontCodebook* source = Source::codebook(KTGetContext());
    if (source->status != 0) return -1;
    if (target->status != 0) release<Target>();
    return fill<Target>(
        target, source->nSymbols, source->nQuant,
        [=](int k) { return convert(source->ccgPdfs[k]); },
        [=](const SemicontCodebook&, int k) { return weight(source, k); });
}

// --- making from labelled vectors ---

// The vectors of one label, in their order; an empty guard when memory ran out.
template <class T>
ktl::Scratch<T*> membersOf(int label, T** ppVectors, const int* pLabels, int nVectors,
                           int* pCount) {
    int count = 0;
    for (int i = 0; i < nVectors; ++i)
        count += pLabels[i] == label;
    ktl::Scratch<T*> members(count);
    if (members) {
        for (int i = 0, next = 0; next < count; ++i)
            if (pLabels[i] == label) members[next++] = ppVectors[i];
    }
    *pCount = count;
    return members;
}

GaussMixServer* built(float** ppVectors, int n, int nDim, int flags) {
    return KTsBuildGaussMixServer(ppVectors, n, nDim, flags);
}
GaussMixServer* built(short** ppVectors, int n, int nDim, int flags) {
    return KTwBuildGaussMixServer(ppVectors, n, nDim, flags);
}

// The inverse of what build gives, ready to evaluate; null after a report or for a singular
// covariance. Takes `raw` over.
GaussMixServer* inverted(GaussMixServer* raw, int flags) {
    bool released = false;
    GaussMixServer* server = ktl::gauss::invert(raw, flags, &released);
    if (!released) KTsFreeGaussMixServer(raw);
    return server;
}

// A covariance of fewer than two vectors is NaN. As a diagonal it is kept; a full one has
// no pivot, and the missing density would go unnoticed.
bool cannotBeInverted(int count, int nDim, int flags) {
    return count < 2 && nDim > 1 && (flags & KT_GAUSS_FULL) != 0;
}

template <class T, class Finish, class Init>
void make(T** ppVectors, const int* pLabels, int nVectors, int nDim, int nSymbols, int flags,
          const char* funcName, Finish finish, Init init) {
    GaussMixServer** servers = newServerTable(nSymbols);
    if (servers == nullptr) {
        module.report(KT_StsNoMem, "insufficiency of memory for pointer  GMSSet", funcName);
        return;
    }
    for (int q = 0; q < nSymbols; ++q) {
        int count = 0;
        const ktl::Scratch<T*> members = membersOf(q, ppVectors, pLabels, nVectors, &count);
        if (!members) {
            freeServers(servers, nSymbols);
            module.report(KT_StsNoMem, "insufficiency of memory for pointer  clusters", funcName);
            return;
        }
        if (cannotBeInverted(count, nDim, flags)) {
            freeServers(servers, nSymbols);
            module.report(KT_StsBadArg, "a class has too few vectors for a full covariance",
                          funcName);
            return;
        }
        servers[q] = finish(inverted(built(members.get(), count, nDim, flags), flags));
        // memory ran out, which has been reported, or the covariance is singular
        if (servers[q] == nullptr) {
            freeServers(servers, nSymbols);
            return;
        }
    }
    init(servers, nSymbols, nDim, flags);
    freeServers(servers, nSymbols);
}

} // namespace

bool ownsPreparePdfs(SemicontCodebook* codebook) {
    const int n = codebook->nSymbols, length = std::max(codebook->nQuant, 0);
    GaussMixServer* const* density = codebook->ccgPdfs;
    codebook->nFull = static_cast<int>(std::count_if(density, density + n, ktl::gauss::isFull));
    if (codebook->nFull == n) return true;
    const ktl::Scratch<const float*> rows(2 * std::size_t(n));
    codebook->pPanel = ktl::allocateArray(vsq::panelSize(n, length), sizeof(double));
    if (!rows || codebook->pPanel == nullptr) return false;
    const float** mean = rows.get();
    const float** diagonal = mean + n;
    for (int k = 0; k < n; ++k) {
        const bool full = ktl::gauss::isFull(density[k]);
        mean[k] = full ? nullptr : means<float>(density[k])[0];
        diagonal[k] = full ? nullptr : diagonals<float>(density[k])[0];
    }
    vsq::kernels().mahal->fillPanel(mean, diagonal, n, length,
                                    ktl::aligned<double>(codebook->pPanel, 64));
    return true;
}

const double* ownsSemicontPanel(const SemicontCodebook* codebook) {
    return ktl::aligned<const double>(codebook->pPanel, 64);
}

const float* ownsSemicontWeights(const SemicontCodebook* codebook) {
    return ktl::floats(codebook->pWeights);
}

const short* ownwSemicontWeights(const SemicontCodebook* codebook) {
    return ktl::aligned<short>(codebook->pWeights, ktl::fixedAlignment);
}

void KTsMakeSemicontCodebook(float** ppVectors, const int* pLabels, int nVectors, int nDim,
                             int nSymbols, int flags) {
    make(
        ppVectors, pLabels, nVectors, nDim, nSymbols, flags, "KTsMakeSemicontCodebook",
        [](GaussMixServer* server) { return server; }, KTsInitSemicontCodebook);
}

void KTwMakeSemicontCodebook(short** ppVectors, const int* pLabels, int nVectors, int nDim,
                             int nSymbols, int flags, int meanScale, int invCovScale) {
    const auto toFixed = [=](GaussMixServer* server) {
        GaussMixServer* fixed = server != nullptr
                                    ? KTswConvertGaussMixServer(server, 0, meanScale, invCovScale)
                                    : nullptr;
        KTsFreeGaussMixServer(server);
        return fixed;
    };
    make(ppVectors, pLabels, nVectors, nDim, nSymbols, flags, "KTwMakeSemicontCodebook", toFixed,
         KTwInitSemicontCodebook);
}

int KTsInitSemicontCodebook(GaussMixServer** ppServers, int nSymbols, int nQuant, int) {
    return initialise<FloatCodebook>(ppServers, nSymbols, nQuant);
}

int KTwInitSemicontCodebook(GaussMixServer** ppServers, int nSymbols, int nQuant, int) {
    return initialise<FixedCodebook>(ppServers, nSymbols, nQuant);
}

int KTsFreeSemicontCodebook(void) {
    return release<FloatCodebook>();
}
int KTwFreeSemicontCodebook(void) {
    return release<FixedCodebook>();
}

int KTswConvertSemicontCodebook(int weightScale, int meanScale, int invCovScale) {
    return convertCodebook<FloatCodebook, FixedCodebook>(
        [=](GaussMixServer* server) {
            return KTswConvertGaussMixServer(server, weightScale, meanScale, invCovScale);
        },
        [=](const SemicontCodebook* source, int k) {
            int scale = weightScale;
            return KTswConvertDown(ownsSemicontWeights(source)[k], KT_FixedScale, &scale);
        });
}

int KTwsConvertSemicontCodebook(int weightScale, int meanScale, int invCovScale) {
    return convertCodebook<FixedCodebook, FloatCodebook>(
        [=](GaussMixServer* server) {
            return KTwsConvertGaussMixServer(server, weightScale, meanScale, invCovScale);
        },
        [=](const SemicontCodebook* source, int k) {
            return static_cast<float>(KTwsConvertUp(ownwSemicontWeights(source)[k], weightScale));
        });
}
