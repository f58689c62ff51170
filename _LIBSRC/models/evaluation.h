// What the evaluations of hidden Markov models share: the walk over one server or a class, scratch that
// grows, the codebook check and the table of frame densities, and models and outputs in the shape that the
// recursions take.
#pragma once

#include "frame/KT_ERROR.h"
#include "mixtures/KT_GAUSS.h"
#include "models/layout.h"
#include "frame/scratch.h"
#include "quantisers/density_codebook.h"

#include "levels/levels.h"

#include <cstring>

namespace hmm {

// The servers that an evaluation goes through: the one of a positive id, the members of a negated class id by
// ascending id, none for 0.
class ServerWalk {
public:
    explicit ServerWalk(int hmm) : single(hmm > 0 ? KTFindHMMServer(hmm) : nullptr) {
        if (hmm < 0) group = KTFindHMMClass(hmm == INT32_MIN ? 0 : -hmm);
        known = hmm == 0 || single != nullptr || group != nullptr;
        if (group != nullptr) rewindHMMClass(group);
    }
    bool isKnown() const { return known; }
    HMMServer* next() {
        if (group != nullptr) return nextHMMInClass(group);
        HMMServer* server = single;
        single = nullptr;
        return server;
    }

private:
    HMMServer* single;
    HMMClass* group = nullptr;
    bool known;
};

// Room for one evaluation, allocated once and only enlarged when a later server of a class needs more.
class GrowingScratch {
public:
    // The room as `count` elements of T, not cleared; null when memory ran out.
    template <class T>
    T* reserve(std::size_t count) {
        if (count > PTRDIFF_MAX / sizeof(T)) return nullptr; // unpacked, a large triangle may outgrow 32 bits
        const std::size_t bytes = count * sizeof(T);
        if (bytes > capacity) {
            block = ktl::AlignedScratch<char>();
            block = ktl::AlignedScratch<char>(static_cast<std::ptrdiff_t>(bytes));
            capacity = block ? bytes : 0;
        }
        return reinterpret_cast<T*>(block.get());
    }

private:
    ktl::AlignedScratch<char> block;
    std::size_t capacity = 0;
};

// Whether a server is of the flavour and form that an operation serves, with nothing missing that it reads.
inline bool evaluable(const HMMServer* server, unsigned kind) {
    return (server->status & kind) == kind && server->nStates > 0 && server->transitions != nullptr &&
           server->initials != nullptr && (server->outputs != nullptr || server->mixtures != nullptr);
}

inline vsq::HmmTopology kernelTopology(unsigned status) {
    switch (topologyOf(status)) {
    case Topology::banded:
        return vsq::HmmTopology::banded;
    case Topology::triangular:
        return vsq::HmmTopology::triangular;
    default:
        return vsq::HmmTopology::full;
    }
}

inline std::size_t modelSize(const HMMServer* server) {
    const bool banded = topologyOf(server->status) == Topology::banded;
    return (banded ? 3 : std::size_t(server->nStates)) * std::size_t(vsq::hmmStride(server->nStates));
}

// Brings a server's stored transitions into the kernels' shape. `room` has modelSize(server) elements.
template <class T, class Stored>
vsq::HmmModel<T> unpackModel(const HMMServer* server, const Stored* stored, T* room) {
    const TransitionMap map = TransitionMap::of(*server);
    const int n = server->nStates, stride = vsq::hmmStride(n);
    std::memset(room, 0, modelSize(server) * sizeof(T));
    if (map.topology == Topology::banded) {
        for (int distance = 0; distance < 3; ++distance)
            for (int j = distance; j < n; ++j)
                room[distance * stride + j] = stored[map.position(j - distance, j)];
    } else if (map.order == Order::bySource) {
        for (int i = 0; i < n; ++i) {
            const int first = map.topology == Topology::triangular ? i : 0;
            const Stored* row = stored + map.position(i, first);
            T* target = room + std::ptrdiff_t(i) * stride;
            for (int j = first; j < n; ++j)
                target[j] = row[j - first];
        }
    } else {
        for (int j = 0; j < n; ++j) {
            const int sources = map.topology == Topology::triangular ? j + 1 : n;
            const Stored* row = stored + map.position(0, j);
            const int step = map.order == Order::tiled ? 4 : 1;
            for (int i = 0; i < sources; ++i)
                room[std::ptrdiff_t(i) * stride + j] = row[std::ptrdiff_t(i) * step];
        }
    }
    return {kernelTopology(server->status), n, stride, room};
}

// Frames are handed to the recursions in runs of this many.
inline constexpr int framesPerRun = 64;

// --- semicontinuous: the thread's codebook and its densities for all frames of a call ---

// The codebook with densities, or null after the report "_sSemicontCodebook->ccgPdfs==0" ("_w" in the fixed
// form).
const SemicontCodebook* codebookWithDensities(const ktl::Module& module, bool isFixed, const char* funcName);

// Where a server and the float codebook differ. A report's handler may release the server, so both answers are known
// before either is reported.
struct CodebookDisagreement {
    explicit CodebookDisagreement(const HMMServer* server);
    void report(const ktl::Module& module, const char* funcName) const;

    bool inSymbols, inLengths;
};

// Whether a server's counts are the codebook's; reports where they are not.
bool agreesWithCodebook(const ktl::Module& module, const HMMServer* server, const SemicontCodebook* codebook,
                        const char* funcName);

// nFrames rows of nSymbols4 densities; the frames are float or short as the codebook is.
template <class T>
class DensityTable {
public:
    bool evaluate(const SemicontCodebook* codebook, const T* const* frames, int nFrames);
    const T* row(int t) const { return rows[t]; }

private:
    ktl::AlignedScratch<char> block; // row pointers and rows
    T** rows = nullptr;
};

} // namespace hmm

// Weighted densities of a codebook: ppOut[t][k] for frame t and density k, nPdfs of them, the rows padded to
// a multiple of 4 elements that come out as 0. A full density decays twice as fast as its diagonal twin in
// the float form; the fixed form has the factor 1/2 in both. Fixed densities have 14 fractional bits.
void KTsEvalPdfsFrames(const SemicontCodebook* pCodebook, const float* const* ppFrames, float** ppOut,
                       int nFrames, int nPdfs, int nDim);
void KTwEvalPdfsFrames(const SemicontCodebook* pCodebook, const short* const* ppFrames, short** ppOut,
                       int nFrames, int nPdfs, int nDim);
