// What the evaluations of hidden Markov models share: the walk over one server or a class, scratch
// that grows, the codebook check and the table of frame densities, and models and outputs in the
// shape that the recursions take.
#pragma once

#include "frame/KT_ERROR.h"
#include "frame/scratch.h"
#include "mixtures/KT_GAUSS.h"
#include "models/layout.h"
#include "quantisers/density_codebook.h"

#include "levels/levels.h"

#include <algorithm>
#include <cstring>

namespace hmm {

// The servers that an evaluation goes through: the one of a positive id, the members of a negated
// class id by ascending id, none for 0.
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

// Room for one evaluation, allocated once and only enlarged when a later server of a class needs
// more.
class GrowingScratch {
public:
    // The room as `count` elements of T, not cleared; null when memory ran out.
    template <class T>
    T* reserve(std::size_t count) {
        if (count > PTRDIFF_MAX / sizeof(T)) return nullptr; // 32 bits may not do for it
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

// Whether a server is of the flavour and form that an operation serves, with nothing missing that
// it reads.
inline bool evaluable(const HMMServer* server, unsigned kind) {
    return (server->status & kind) == kind && server->nStates > 0 &&
           server->transitions != nullptr && server->initials != nullptr &&
           (server->outputs != nullptr || server->mixtures != nullptr);
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

// Elements of a server's transitions in the kernels' shape.
inline std::size_t modelSize(const HMMServer* server) {
    const bool banded = topologyOf(server->status) == Topology::banded;
    return (banded ? 3 : std::size_t(server->nStates)) *
           std::size_t(vsq::hmmStride(server->nStates));
}

// The columns of the targets first .. end - 1, at most hmmLanes, from their stored rows.
template <class T, class Stored>
void unpackTargets(const TransitionMap& map, const Stored* stored, int first, int end, int stride,
                   T* room) {
    const bool isTriangle = map.topology == Topology::triangular;
    const std::ptrdiff_t step = map.order == Order::tiled ? 4 : 1;
    const Stored* rows[vsq::hmmLanes];
    for (int j = first; j < end; ++j)
        rows[j - first] = stored + map.position(0, j);
    for (int i = 0; i < (isTriangle ? end : map.n); ++i) {
        T* target = room + std::ptrdiff_t(i) * stride;
        for (int j = isTriangle && i > first ? i : first; j < end; ++j)
            target[j] = rows[j - first][i * step];
    }
}

// Brings a server's stored transitions into the kernels' shape. `room` has modelSize(server)
// elements.
template <class T, class Stored>
vsq::HmmModel<T> unpackModel(const HMMServer* server, const Stored* stored, T* room) {
    const TransitionMap map = TransitionMap::of(*server);
    const int n = server->nStates, stride = vsq::hmmStride(n);
    std::memset(room, 0, modelSize(server) * sizeof(T));
    if (map.topology == Topology::banded) {
        const int step = map.order == Order::bySource ? 3 : 1;
        for (int distance = 0; distance < 3; ++distance) {
            const Stored* diagonal = distance < n ? stored + map.position(0, distance) : stored;
            for (int j = distance; j < n; ++j)
                room[distance * stride + j] = diagonal[std::ptrdiff_t(j - distance) * step];
        }
    } else if (map.order == Order::bySource) {
        for (int i = 0; i < n; ++i) {
            const int first = map.topology == Topology::triangular ? i : 0;
            const Stored* row = stored + map.position(i, first);
            std::copy_n(row, n - first, room + std::ptrdiff_t(i) * stride + first);
        }
    } else {
        for (int j = 0; j < n; j += vsq::hmmLanes)
            unpackTargets(map, stored, j, std::min(j + vsq::hmmLanes, n), stride, room);
    }
    return {kernelTopology(server->status), n, stride, room};
}

// A full or triangular model is unpacked where that pays: for more frames than it costs, and where
// the result stays in the processor's nearest memory. All others are read as they are stored; a
// large one is read faster so, too.
inline constexpr int fewFrames = 16;
inline constexpr std::size_t mostUnpackedBytes = std::size_t(1) << 18;

// Frames are handed to the recursions in runs of this many; where their output values are computed,
// of as many as a small block holds.
inline constexpr int framesPerRun = 64;
inline constexpr int runBytes = 1 << 16;

// What the recursion over one server works with, server after server of a call. Number is the
// recursion's, Element that of the output values.
template <class Number, class Element>
class Room {
public:
    // Two vectors of the server's stride; `run` rows of it for output values that are computed,
    // zero at first.
    Number* vectors = nullptr;
    Element* outputs = nullptr;
    int run = framesPerRun; // frames that are handed to the recursion at once

    // Whether `model` holds the transitions; otherwise they are read as they are stored.
    bool isUnpacked = false;
    vsq::HmmModel<Number> model{};

    // `straight` is the order in which a kernel reads stored transitions. False when memory ran
    // out: for want of room to unpack alone only where nothing else would do.
    template <class Stored>
    bool reserve(const HMMServer* server, const Stored* stored, int nFrames, bool computes,
                 Order straight) {
        const auto stride = std::size_t(vsq::hmmStride(server->nStates));
        const std::size_t mostRows = std::max<std::size_t>(runBytes / sizeof(Number) / stride, 1);
        run = computes ? int(std::min(mostRows, std::size_t(std::min(nFrames, framesPerRun))))
                       : framesPerRun;
        const std::size_t count = stride * (2 + (computes ? std::size_t(run) : 0));
        const std::size_t unpacked = unpackedSize(server, nFrames, straight);
        vectors = scratch.reserve<Number>(count + unpacked);
        isUnpacked = vectors != nullptr && unpacked > 0;
        if (vectors == nullptr && unpacked > 0 && topologyOf(server->status) != Topology::banded)
            vectors = scratch.reserve<Number>(count);
        if (vectors == nullptr) return false;
        outputs = reinterpret_cast<Element*>(vectors + 2 * stride);
        if (computes) std::fill_n(outputs, stride * std::size_t(run), Element(0));
        if (isUnpacked) model = unpackModel(server, stored, vectors + count);
        return true;
    }

private:
    // A band has three elements for each state, and an order that no kernel reads leaves no choice.
    static std::size_t unpackedSize(const HMMServer* server, int nFrames, Order straight) {
        if (nFrames < 2) return 0;
        const std::size_t size = modelSize(server);
        const bool isBand = topologyOf(server->status) == Topology::banded;
        if (isBand || orderOf(server->status) != straight) return size;
        return nFrames > fewFrames && size <= mostUnpackedBytes / sizeof(Number) ? size : 0;
    }

    GrowingScratch scratch;
};

// --- semicontinuous: the thread's codebook and its densities for all frames of a call ---

// The codebook with densities, or null after the report "_sSemicontCodebook->ccgPdfs==0" ("_w" in
// the fixed form).
const SemicontCodebook* codebookWithDensities(const ktl::Module& module, bool isFixed,
                                              const char* funcName);

// Where a server and the float codebook differ. A report's handler may release the server, so both
// answers are known before either is reported.
struct CodebookDisagreement {
    explicit CodebookDisagreement(const HMMServer* server);
    void report(const ktl::Module& module, const char* funcName) const;

    bool inSymbols, inLengths;
};

// Whether a server's counts are the codebook's; reports where they are not.
bool agreesWithCodebook(const ktl::Module& module, const HMMServer* server,
                        const SemicontCodebook* codebook, const char* funcName);

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

// Weighted densities of a codebook: ppOut[t][k] for frame t and density k, nPdfs of them, the rows
// padded to a multiple of 4 elements that come out as 0. A full density decays twice as fast as its
// diagonal twin in the float form; the fixed form has the factor 1/2 in both. Fixed densities have
// 14 fractional bits.
void KTsEvalPdfsFrames(const SemicontCodebook* pCodebook, const float* const* ppFrames,
                       float** ppOut, int nFrames, int nPdfs, int nDim);
void KTwEvalPdfsFrames(const SemicontCodebook* pCodebook, const short* const* ppFrames,
                       short** ppOut, int nFrames, int nPdfs, int nDim);
