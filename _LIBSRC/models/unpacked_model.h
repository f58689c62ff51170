// A model's stored transitions in the padded shape that the kernels read fastest: rows by source,
// or the three diagonals of a band.
#pragma once

#include "models/layout.h"

#include "levels/levels.h"

#include <algorithm>
#include <cstring>

namespace hmm {

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

} // namespace hmm
