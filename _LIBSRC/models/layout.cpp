// The map of stored transitions, order by order and topology by topology, and the blocks that hold
// a model's arrays.
#include "models/layout.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

namespace hmm {
namespace {

// Sums of row lengths; all arguments are counts of states, so the products fit 64 bits.
constexpr std::size_t triangle(std::size_t n) {
    return n * (n + 1) / 2;
}

// Elements in the rows of the targets above j, n - 1 first, of triangular arrays.
std::size_t aboveByTarget(int n, int j) {
    return triangle(std::size_t(n)) - triangle(std::size_t(j) + 1);
}

// The fixed form adds a filler to the rows of even targets.
std::size_t aboveFixed(int n, int j) {
    const std::size_t evenTargets = (std::size_t(n) + 1) / 2 - (std::size_t(j) / 2 + 1);
    return aboveByTarget(n, j) + evenTargets;
}

// A tile of the triangle holds the sources up to its highest target.
std::size_t aboveTiled(int n, int j) {
    const std::size_t tiles = std::size_t(multipleOf4(n)) / 4, tile = std::size_t(j) / 4;
    return 8 * (tiles * (tiles + 1) - (tile + 1) * (tile + 2));
}

std::size_t fullPosition(Order order, int n, int i, int j) {
    const auto count = std::size_t(n), source = std::size_t(i), target = std::size_t(j);
    switch (order) {
    case Order::bySource:
        return source * count + target;
    case Order::byTarget:
        return (count - 1 - target) * count + source;
    case Order::tiled:
        return ((std::size_t(multipleOf4(n)) / 4 - 1 - target / 4) * count + source) * 4 +
               target % 4;
    default:
        return (count - 1 - target) * std::size_t(even(n)) + source;
    }
}

std::size_t triangularPosition(Order order, int n, int i, int j) {
    const auto source = std::size_t(i), target = std::size_t(j);
    switch (order) {
    case Order::bySource:
        return triangle(std::size_t(n)) - triangle(std::size_t(n - i)) + (target - source);
    case Order::byTarget:
        return aboveByTarget(n, j) + source;
    case Order::tiled:
        return aboveTiled(n, j) + source * 4 + target % 4;
    default:
        return aboveFixed(n, j) + source;
    }
}

std::size_t bandedPosition(Order order, int n, int i, int j) {
    const auto count = std::size_t(n), source = std::size_t(i), target = std::size_t(j),
               diagonal = target - source;
    switch (order) {
    case Order::bySource:
        return 3 * source + diagonal;
    // the diagonals one after the other; each is one shorter than the one before
    case Order::byTarget:
        return diagonal * count - (diagonal == 2 ? 1 : 0) + source;
    case Order::tiled:
        return diagonal * std::size_t(multipleOf4(n)) + target;
    default:
        return diagonal * std::size_t(even(n)) + target;
    }
}

std::size_t fullSize(Order order, int n) {
    const std::size_t row = order == Order::tiled   ? std::size_t(multipleOf4(n))
                            : order == Order::fixed ? std::size_t(even(n))
                                                    : std::size_t(n);
    return std::size_t(n) * row;
}

std::size_t triangularSize(Order order, int n) {
    const auto count = std::size_t(n);
    switch (order) {
    case Order::tiled:
        return (std::size_t(multipleOf4(n)) + 4) * std::size_t(multipleOf4(n)) / 2;
    case Order::fixed:
        return (count + 1) * (count + 1) / 2;
    default:
        return triangle(count);
    }
}

std::size_t bandedSize(Order order, int n) {
    switch (order) {
    case Order::tiled:
        return 3 * std::size_t(multipleOf4(n));
    case Order::fixed:
        return 3 * std::size_t(even(n));
    default:
        return 3 * std::size_t(n) - 2;
    }
}

} // namespace

std::size_t TransitionMap::size() const {
    switch (topology) {
    case Topology::full:
        return fullSize(order, n);
    case Topology::triangular:
        return triangularSize(order, n);
    default:
        return bandedSize(order, n);
    }
}

std::size_t TransitionMap::position(int i, int j) const {
    switch (topology) {
    case Topology::full:
        return fullPosition(order, n, i, j);
    case Topology::triangular:
        return triangularPosition(order, n, i, j);
    default:
        return bandedPosition(order, n, i, j);
    }
}

std::size_t TransitionMap::duplicate() const {
    if (topology != Topology::banded) return size();
    if (order == Order::bySource) return 3 * std::size_t(n) - 4;
    return order == Order::byTarget ? 3 * std::size_t(n) - 3 : size();
}

OutputShape OutputShape::of(unsigned status, int nStates, int nSymbols) {
    const bool fixed = (status & HMM_SERVER_SHORT) != 0;
    if ((status & HMM_SERVER_DISCRETE) != 0)
        return {nSymbols, nStates, fixed ? even(nStates) : multipleOf4(nStates),
                fixed ? even(nSymbols) : multipleOf4(nSymbols), 4};
    return {nStates, nSymbols, multipleOf4(nSymbols), fixed ? even(nStates) : multipleOf4(nStates),
            fixed ? sizeof(short) : sizeof(float)};
}

void* allocateOutputs(const OutputShape& shape, std::size_t alignment) {
    const std::size_t table = std::size_t(shape.slots) * sizeof(void*),
                      row = std::size_t(shape.stride) * shape.elementSize;
    const std::size_t room = PTRDIFF_MAX / 2;
    if (std::size_t(shape.rows) > room / std::max<std::size_t>(row, 1)) return nullptr;
    void* block = allocateArray(table + std::size_t(shape.rows) * row, 1);
    if (block == nullptr) return nullptr;
    char* first = aligned<char>(static_cast<char*>(block) + table, alignment);
    for (int i = 0; i < shape.rows; ++i) {
        const void* address = first + std::size_t(i) * row;
        std::memcpy(static_cast<char*>(block) + std::size_t(i) * sizeof address, &address,
                    sizeof address);
    }
    return block;
}

} // namespace hmm

namespace {

void* rewritten(void* source, unsigned status, int nStates, hmm::Order from, hmm::Order to,
                float filler) {
    const hmm::TransitionMap fromMap{hmm::topologyOf(status), from, nStates};
    const hmm::TransitionMap toMap{hmm::topologyOf(status), to, nStates};
    void* block = hmm::allocateArray(toMap.size(), sizeof(float));
    if (block == nullptr) return nullptr;
    std::fill_n(hmm::floats(block), toMap.size(), filler);
    hmm::rewriteTransitions(fromMap, hmm::floats(source), toMap, hmm::floats(block));
    return block;
}

} // namespace

void* KTTileHMMTrans(void* pPlain, unsigned status, int nStates) {
    return rewritten(pPlain, status, nStates, hmm::Order::byTarget, hmm::Order::tiled,
                     hmm::absentCost);
}

void* KTUntileHMMTrans(void* pTiled, unsigned status, int nStates) {
    return rewritten(pTiled, status, nStates, hmm::Order::tiled, hmm::Order::byTarget,
                     hmm::absentCost);
}

bool ownTileIfWanted(HMMServer* server) {
    const bool wanted = (KTGetContext()->hmmMode & HMM_MODE_TILED) != 0 &&
                        server->transitions != nullptr &&
                        hmm::orderOf(server->status) == hmm::Order::byTarget;
    return !wanted || ownTile(server);
}

bool ownTile(HMMServer* server) {
    void* tiled = KTTileHMMTrans(server->transitions, server->status, server->nStates);
    if (tiled == nullptr) return false;
    std::free(server->transitions);
    server->transitions = tiled;
    server->status |= HMM_SERVER_TILED;
    return true;
}
