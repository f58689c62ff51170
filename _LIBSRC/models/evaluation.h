// The evaluation of a model, or of every model of a class, over a sequence of frames. What it
// computes is a recursion's matter, what the frames are an output kind's:
//
// A recursion (KT_HFOR.cpp, KT_HVIT.cpp) has
//     Number, Stored, storedOrder     element of its vectors; element and order of the stored
//                                     transitions that its kernels read
//     open(server, stored, vectors, nFrames)   before a server's frames; two vectors of its stride
//     start(server, row)              the first frame, of which `row` has the output values
//     advance(model, rows, n, isLast) n more frames on unpacked transitions; isLast: none follow.
//                                     False when the server cannot produce the sequence
//     advanceStored(server, rows, n, isLast)   the same on the transitions as they are stored
//     close(server)                   all frames are done: the server's result against the best
//
// An output kind (outputs.h) has
//     kind, Element, isComputed       status bits of its servers; element of the output values;
//                                     whether they are computed or stand in the server
//     prepare(hmm, nFrames)           what is done once for a call; false when that fails
//     accepts(server)                 false after a report
//     rows(server, first, count, block, rows)  `count` frames from `first` on: a pointer to the
//                                     output values of each, `block` is for those that are computed
#pragma once

#include "frame/scratch.h"
#include "models/unpacked_model.h"

#include <array>

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

// Whether a server is of the output kind and numeric form that an operation serves, with nothing
// missing that it reads.
inline bool evaluable(const HMMServer* server, unsigned kind) {
    return (server->status & kind) == kind && server->nStates > 0 &&
           server->transitions != nullptr && server->initials != nullptr &&
           (server->outputs != nullptr || server->mixtures != nullptr);
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

// The output values of a run: one pointer for each frame. What follows a row is readable up to a
// kernel's stride.
template <class T>
using RowRun = std::array<const T*, framesPerRun>;

// What the recursion over one server works with, server after server of a call. Number is the
// recursion's, Element that of the output values.
template <class Number, class Element>
class Workspace {
public:
    Number* vectors = nullptr;  // two of the server's stride
    Element* outputs = nullptr; // framesAtOnce rows of it for computed output values, zero at first
    int framesAtOnce = framesPerRun;

    // Whether `model` holds the transitions; otherwise they are read as they are stored.
    bool isUnpacked = false;
    vsq::HmmModel<Number> model{};

    // `kernelOrder` is the order in which a kernel reads stored transitions. False when memory ran
    // out; without memory to unpack, a model that can be read as it is stored still is.
    template <class Stored>
    bool reserve(const HMMServer* server, const Stored* stored, int nFrames, bool isComputed,
                 Order kernelOrder) {
        const auto stride = std::size_t(vsq::hmmStride(server->nStates));
        const std::size_t mostRows = std::max<std::size_t>(runBytes / sizeof(Number) / stride, 1);
        framesAtOnce = isComputed
                           ? int(std::min(mostRows, std::size_t(std::min(nFrames, framesPerRun))))
                           : framesPerRun;
        const std::size_t count = stride * (2 + (isComputed ? std::size_t(framesAtOnce) : 0));
        const std::size_t unpacked = unpackedSize(server, nFrames, kernelOrder);
        vectors = scratch.reserve<Number>(count + unpacked);
        isUnpacked = vectors != nullptr && unpacked > 0;
        if (vectors == nullptr && unpacked > 0 && topologyOf(server->status) != Topology::banded)
            vectors = scratch.reserve<Number>(count);
        if (vectors == nullptr) return false;
        outputs = reinterpret_cast<Element*>(vectors + 2 * stride);
        if (isComputed) std::fill_n(outputs, stride * std::size_t(framesAtOnce), Element(0));
        if (isUnpacked) model = unpackModel(server, stored, vectors + count);
        return true;
    }

private:
    // A band has three elements for each state, and an order that no kernel reads leaves no choice.
    static std::size_t unpackedSize(const HMMServer* server, int nFrames, Order kernelOrder) {
        if (nFrames < 2) return 0;
        const std::size_t size = modelSize(server);
        const bool isBand = topologyOf(server->status) == Topology::banded;
        if (isBand || orderOf(server->status) != kernelOrder) return size;
        return nFrames > fewFrames && size <= mostUnpackedBytes / sizeof(Number) ? size : 0;
    }

    GrowingScratch scratch;
};

// One call's work on server after server: feeds the recursion with the frames, run by run.
template <class Recursion, class Outputs>
class Evaluation {
    using Element = typename Outputs::Element;
    using Stored = typename Recursion::Stored;

public:
    Evaluation(Recursion& recursionOfCall, const Outputs& outputsOfCall, int frameCount)
        : recursion(recursionOfCall), outputs(outputsOfCall), nFrames(frameCount) {}

    // False when the server cannot be evaluated, or memory ran out.
    bool run(const HMMServer* server) {
        const Stored* stored =
            aligned<const Stored>(server->transitions, alignmentOf(server->status));
        if (!space.reserve(server, stored, nFrames, Outputs::isComputed, Recursion::storedOrder))
            return false;
        recursion.open(server, stored, space.vectors, nFrames);
        for (int first = 0; first < nFrames; first += space.framesAtOnce)
            if (!runFrom(server, first)) return false;
        recursion.close(server);
        return true;
    }

private:
    bool runFrom(const HMMServer* server, int first) {
        const int count = std::min(space.framesAtOnce, nFrames - first);
        RowRun<Element> rows;
        if (!outputs.rows(server, first, count, space.outputs, rows)) return false;
        const int started = first == 0 ? 1 : 0;
        if (first == 0) recursion.start(server, rows[0]);
        const Element* const* others = rows.data() + started;
        const bool isLast = first + count == nFrames;
        if (count == started) return true;
        return space.isUnpacked ? recursion.advance(space.model, others, count - started, isLast)
                                : recursion.advanceStored(server, others, count - started, isLast);
    }

    Recursion& recursion;
    const Outputs& outputs;
    int nFrames;
    Workspace<typename Recursion::Number, Element> space;
};

// Evaluates all servers of an id. False when the operation is to leave with the plain failure
// value: an unknown server or class, a negative status, a server that cannot be evaluated, no
// memory. No servers are a result.
template <class Recursion, class Outputs>
bool evaluateAll(int hmm, Recursion& recursion, Outputs& outputs, int nFrames) {
    if (!outputs.prepare(hmm, nFrames)) return false;
    ServerWalk walk(hmm);
    if (!walk.isKnown() || nFrames < 1) return false;
    Evaluation<Recursion, Outputs> evaluation(recursion, outputs, nFrames);
    while (const HMMServer* server = walk.next())
        if (KTGetStatus() < 0 || !outputs.accepts(server) || !evaluable(server, Outputs::kind) ||
            !evaluation.run(server))
            return false;
    return true;
}

} // namespace hmm
