// Where each element of a model stands in its stored arrays.
//
// The transition array is laid out in the order in which the loop that reads it walks: the forward
// recursion of the exponential domain goes by source state, the Viterbi recursion of the
// logarithmic domain by target state, from the last one to the first. Every setter, query,
// conversion and file goes through the one map given here.
#pragma once

#include "frame/blocks.h"
#include "models/model.h"

#include <cstddef>
#include <cstdint>

namespace hmm {

enum class Topology { full, triangular, banded };

enum class Order {
    bySource, // float, exponential
    byTarget, // float, logarithmic
    tiled,    // float, logarithmic: targets in tiles of four, the highest first
    fixed     // fixed point, whatever its domain
};

// The most states or symbols that a model can have: padded lengths and three times as many are
// still ints.
inline constexpr int mostCount = 0x1FFFFFFF;

constexpr int even(int n) {
    return ktl::roundUp(n, 2);
}
constexpr int multipleOf4(int n) {
    return ktl::roundUp(n, 4);
}

inline Topology topologyOf(unsigned status) {
    if ((status & HMM_SERVER_BANDED) != 0) return Topology::banded;
    return (status & HMM_SERVER_TRIANGULAR) != 0 ? Topology::triangular : Topology::full;
}

inline Order orderOf(unsigned status) {
    if ((status & HMM_SERVER_SHORT) != 0) return Order::fixed;
    if ((status & KT_HMM_LOGARITHMIC) == 0)
        return Order::bySource; // costs alone are tiled, whatever a file says
    return (status & HMM_SERVER_TILED) != 0 ? Order::tiled : Order::byTarget;
}

// Whether a topology stores the transition from i to j.
constexpr bool stores(Topology topology, int i, int j) {
    return topology == Topology::full ||
           (j >= i && (topology == Topology::triangular || j <= i + 2));
}

// The targets that a topology stores of source i are firstTarget .. endTarget - 1.
constexpr int firstTarget(Topology topology, int i) {
    return topology == Topology::full ? 0 : i;
}
constexpr int endTarget(Topology topology, int n, int i) {
    return topology == Topology::banded && n - i > 3 ? i + 3 : n;
}

// The map of one model's transition array: 4-byte elements, floats or widened integers.
struct TransitionMap {
    Topology topology;
    Order order;
    int n; // states

    static TransitionMap of(const HMMServer& server) {
        return {topologyOf(server.status), orderOf(server.status), server.nStates};
    }

    std::size_t size() const;
    std::size_t position(int i, int j) const; // of a stored transition

    // Banded float arrays hold a(n-1,n-1) twice; this is where the second one stands (elsewhere:
    // size()).
    std::size_t duplicate() const;
};

using ktl::aligned;
using ktl::allocateArray;
using ktl::fixedAlignment;
using ktl::floatAlignment;
using ktl::floats;

inline std::size_t alignmentOf(unsigned status) {
    return (status & HMM_SERVER_SHORT) != 0 ? fixedAlignment : floatAlignment;
}

inline int* ints(void* block) {
    return aligned<int>(block, fixedAlignment);
}

// The stored lengths of a model's vectors and rows.
inline int initialsLength(unsigned status, int nStates) {
    return (status & HMM_SERVER_SHORT) != 0 ? even(nStates) : multipleOf4(nStates);
}

// The output table: a pointer table, then the rows, in one block.
struct OutputShape {
    int rows;    // discrete: one per symbol; semicontinuous: one per state
    int columns; // elements that mean something
    int stride;  // row length with padding
    int slots;   // length of the pointer table
    std::size_t elementSize;

    static OutputShape of(unsigned status, int nStates, int nSymbols);
    bool operator==(const OutputShape&) const = default;
    std::size_t elements() const { return std::size_t(rows) * std::size_t(stride); }
};

// Allocates the block, fills its pointer table and returns it; the rows are zero. Null when memory
// ran out.
void* allocateOutputs(const OutputShape& shape, std::size_t alignment);

template <class T>
T** outputRows(void* outputs) {
    return static_cast<T**>(outputs);
}

// The whole of a model's stored transitions in another order, each as convert(element), into an
// array of to.size() elements that is already filled with what absent elements hold.
template <class From, class To, class Convert>
void rewriteTransitions(const TransitionMap& from, const From* source, const TransitionMap& to,
                        To* target, Convert convert) {
    for (int i = 0; i < from.n; ++i)
        for (int j = firstTarget(from.topology, i); j < endTarget(from.topology, from.n, i); ++j)
            target[to.position(i, j)] = convert(source[from.position(i, j)]);
    if (to.duplicate() < to.size())
        target[to.duplicate()] = target[to.position(to.n - 1, to.n - 1)];
}

template <class T>
void rewriteTransitions(const TransitionMap& from, const T* source, const TransitionMap& to,
                        T* target) {
    rewriteTransitions(from, source, to, target, [](T element) { return element; });
}

// The cost of what does not exist, and what fills padding: the largest float.
inline constexpr float absentCost = 3.40282346638528859811704183484516925e+38f;

} // namespace hmm

// Brings the transitions of a logarithmic float server into tiles and back. `pPlain` and the result
// are arrays from hmm::allocateArray; null when memory ran out, the source array is left as it is.
void* KTTileHMMTrans(void* pPlain, unsigned status, int nStates);
void* KTUntileHMMTrans(void* pTiled, unsigned status, int nStates);

// Puts a record's plain costs into tiles; false when memory ran out, and they are as they were.
bool ownTile(HMMServer* server);

// Tiles a record's transitions where they are plain costs and the thread's mode wants them tiled;
// false when memory ran out.
bool ownTileIfWanted(HMMServer* server);
