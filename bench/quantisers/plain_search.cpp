#include "bench/quantisers/plain_search.h"

#include "bench/support/lanes.h"

#include <algorithm>
#include <cmath>

namespace plain {

Codes::Codes(const float* const* rows, int count, int n)
    : nCodes(count), nDim(n), values(std::size_t(nCodes * nDim)), distances(std::size_t(nCodes)) {
    for (int k = 0; k < nCodes; ++k)
        for (int i = 0; i < nDim; ++i)
            values[std::size_t(i * nCodes + k)] = rows[k][i];
}

void Codes::squares(const float* vector, float* out) const {
    for (int k = 0; k < nCodes; k += 64) {
        Floats a = {}, b = {}, c = {}, d = {};
        const float* row = values.data() + k;
        for (int i = 0; i < nDim; ++i, row += nCodes) {
            const Floats da = load(row) - vector[i], db = load(row + 16) - vector[i];
            const Floats dc = load(row + 32) - vector[i], dd = load(row + 48) - vector[i];
            a += da * da;
            b += db * db;
            c += dc * dc;
            d += dd * dd;
        }
        store(out + k, a);
        store(out + k + 16, b);
        store(out + k + 32, c);
        store(out + k + 48, d);
    }
}

int Codes::nearest(const float* vector, float* square) {
    squares(vector, distances.data());
    float least = distances[0];
    for (int k = 1; k < nCodes; ++k)
        least = std::min(least, distances[std::size_t(k)]);
    *square = least;
    return int(std::find(distances.begin(), distances.end(), least) - distances.begin());
}

double kMeans(const float* const* vectors, int nVectors, int nDim, int nCodes, int nIterations) {
    std::vector<float> centres, sums;
    std::vector<const float*> rows;
    std::vector<int> members;
    for (int k = 0; k < nCodes; ++k)
        centres.insert(centres.end(), vectors[k], vectors[k] + nDim);
    for (int k = 0; k < nCodes; ++k)
        rows.push_back(centres.data() + k * nDim);
    double distortion = 0;
    for (int iteration = 0; iteration < nIterations; ++iteration) {
        Codes codes(rows.data(), nCodes, nDim);
        sums.assign(centres.size(), 0.0f);
        members.assign(std::size_t(nCodes), 0);
        distortion = 0;
        for (int v = 0; v < nVectors; ++v) {
            float square;
            const int k = codes.nearest(vectors[v], &square);
            distortion += std::sqrt(square);
            ++members[std::size_t(k)];
            for (int i = 0; i < nDim; ++i)
                sums[std::size_t(k * nDim + i)] += vectors[v][i];
        }
        for (int k = 0; k < nCodes; ++k)
            for (int i = 0; members[std::size_t(k)] > 0 && i < nDim; ++i)
                centres[std::size_t(k * nDim + i)] =
                    sums[std::size_t(k * nDim + i)] / float(members[std::size_t(k)]);
    }
    return distortion / nVectors;
}

int nearestWords(const short* vector, const short* const* rows, int nCodes, int nDim, int* square) {
    int best = 0, least = 0x7FFFFFFF;
    for (int k = 0; k < nCodes; ++k) {
        int sum = 0;
        for (int i = 0; i < nDim; ++i)
            sum += (vector[i] - rows[k][i]) * (vector[i] - rows[k][i]);
        if (sum < least) {
            least = sum;
            best = k;
        }
    }
    *square = least;
    return best;
}

} // namespace plain
