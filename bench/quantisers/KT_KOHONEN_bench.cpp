// The Kohonen search over 256 codes.
#include "bench/quantisers/plain_search.h"
#include "bench/support/bench.h"
#include "ktlp6.h"

#include <algorithm>
#include <cmath>
#include <numeric>
#include <random>
#include <string>
#include <vector>

#ifdef KTL_HAVE_FAISS
#include <faiss/utils/distances.h>
#endif

namespace {

constexpr int nCodes = 256;

template <class T, class Distance>
struct Map {
    int nDim, nBest;
    std::vector<T> codes, vector;
    std::vector<T*> rows;
    std::vector<Distance> distances = std::vector<Distance>(nCodes);
    std::vector<int> indices = std::vector<int>(nCodes);

    Map(int n, int best)
        : nDim(n), nBest(best), codes(static_cast<std::size_t>(nCodes * n)),
          vector(static_cast<std::size_t>(n)) {
        std::mt19937 random(3);
        std::normal_distribution<float> normal;
        for (T& value : codes)
            value = T(100 * normal(random));
        for (T& value : vector)
            value = T(100 * normal(random));
        for (std::size_t c = 0; c < nCodes; ++c)
            rows.push_back(&codes[c * std::size_t(n)]);
    }
    Map(const Map&) = delete;
    Map& operator=(const Map&) = delete;
    // The best codes in their order.
    bench::Values results() const { return bench::valuesOf(indices.data(), nBest); }
};

struct Ours : Map<float, float> {
    bool isRooted;
    Ours(int n, int best, bool rooted) : Map(n, best), isRooted(rooted) {}
    void run() {
        KTsVQKohonen(vector.data(), rows.data(), distances.data(), nDim, nCodes, indices.data(),
                     nBest, isRooted);
    }
};

struct OursFixed : Map<short, int> {
    int scaleMode, scale = 0;
    OursFixed(int n, int mode) : Map(n, 1), scaleMode(mode) {}
    void run() {
        KTwVQKohonen(vector.data(), rows.data(), distances.data(), nDim, nCodes, indices.data(), 1,
                     1, scaleMode, &scale);
    }
};

struct Lanes : Map<float, float> {
    plain::Codes stored{rows.data(), nCodes, nDim};
    using Map::Map;
    void run() { indices[0] = stored.nearest(vector.data(), distances.data()); }
};

struct LanesRanked : Lanes {
    std::vector<float> squares = std::vector<float>(nCodes);
    using Lanes::Lanes;
    void run() {
        stored.squares(vector.data(), squares.data());
        std::iota(indices.begin(), indices.end(), 0);
        std::partial_sort(
            indices.begin(), indices.begin() + nBest, indices.end(),
            [&](int a, int b) { return squares[std::size_t(a)] < squares[std::size_t(b)]; });
        for (int k = 0; k < nBest; ++k)
            distances[std::size_t(k)] = std::sqrt(squares[std::size_t(indices[std::size_t(k)])]);
    }
};

struct PlainWords : Map<short, int> {
    explicit PlainWords(int n) : Map(n, 1) {}
    void run() {
        int square;
        indices[0] = plain::nearestWords(vector.data(), rows.data(), nCodes, nDim, &square);
        distances[0] = int(std::sqrt(double(square)));
    }
};

#ifdef KTL_HAVE_FAISS
struct Faiss : Map<float, float> {
    using Map::Map;
    void run() {
        indices[0] = int(faiss::fvec_L2sqr_ny_nearest(distances.data(), vector.data(), codes.data(),
                                                      std::size_t(nDim), nCodes));
    }
};
#endif

const int registered = [] {
    for (const int n : {13, 39}) {
        bench::Row row("kohonenWinner/256x" + std::to_string(n), [=] { return Ours(n, 1, false); });
        row.peer("lanes", 0, [=] { return Lanes(n, 1); });
#ifdef KTL_HAVE_FAISS
        row.peer("faiss", 0, [=] { return Faiss(n, 1); });
#endif
    }
    bench::Row("kohonenTenBestRooted/256x13", [] {
        return Ours(13, 10, true);
    }).peer("lanes", 0, [] { return LanesRanked(13, 10); });
    bench::Row("kohonenFixed/256x13", [] {
        return OursFixed(13, KT_NoScale);
    }).peer("plain", 0, [] { return PlainWords(13); });
    bench::Row("kohonenFixedScaled/256x13", [] {
        return OursFixed(13, KT_AutoScale);
    }).peer("plain", 0, [] { return PlainWords(13); });
    return 0;
}();

} // namespace
