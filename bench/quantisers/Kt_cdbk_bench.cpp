// Tree codebooks: training and quantising of vectors of 13 elements, as cepstra are. Peers train by
// k-means, and search through all cells where we descend a tree: remarks name the distortion of
// both sides, the mean distance of a vector from its cell.
#include "bench/quantisers/plain_search.h"
#include "bench/support/bench.h"
#include "ktlp6.h"
#include "quantisers/Kt_cdbk.h"

#include <cmath>
#include <cstdio>
#include <random>
#include <string>
#include <vector>

#ifdef KTL_HAVE_FAISS
#include <faiss/Clustering.h>
#include <faiss/IndexFlat.h>
#include <omp.h>
#endif

namespace {

constexpr int nDim = 13, nSize = 256;

std::string distortionNote(const char* search, double distortion) {
    char text[80];
    std::snprintf(text, sizeof text, "%sdistortion %.3f", search, distortion);
    return text;
}

// Vectors of 40 clouds; the same ones, rounded, for the fixed form.
struct Set {
    explicit Set(int n)
        : count(n), floats(static_cast<std::size_t>(n * nDim)), words(floats.size()) {
        std::mt19937 random(7);
        std::normal_distribution<float> normal;
        std::vector<float> centres(40 * nDim);
        for (float& value : centres)
            value = 3 * normal(random);
        for (int i = 0; i < n; ++i) {
            const std::size_t cloud = random() % 40;
            for (std::size_t k = 0; k < nDim; ++k) {
                const std::size_t at = std::size_t(i) * nDim + k;
                floats[at] = centres[cloud * nDim + k] + normal(random);
                words[at] = short(300 * floats[at]);
            }
            floatRows.push_back(&floats[std::size_t(i) * nDim]);
            wordRows.push_back(&words[std::size_t(i) * nDim]);
        }
    }
    Set(const Set&) = delete;
    Set& operator=(const Set&) = delete;

    KTCodebook* train(int flags) {
        return KTsMakeCodebook(floatRows.data(), nullptr, count, nDim, nSize, flags | KT_CB_EUCLID);
    }
    KTCodebook* trainFixed(int flags) {
        return KTwMakeCodebook(wordRows.data(), nullptr, count, nDim, nSize, flags | KT_CB_EUCLID);
    }

    int count;
    std::vector<float> floats;
    std::vector<short> words;
    std::vector<float*> floatRows;
    std::vector<short*> wordRows;
};

struct OursTraining : Set {
    int flags;
    OursTraining(int n, int how) : Set(n), flags(how) {}
    void run() { KT_FreeCodebook(train(flags)); }
    std::string note() {
        KTCodebook* const codebook = train(flags);
        double distortion = 0;
        KTsVQCodebook(codebook, floatRows.data(), nullptr, count, nDim, &distortion);
        KT_FreeCodebook(codebook);
        return distortionNote("", distortion);
    }
};

struct OursTrainingFixed : Set {
    using Set::Set;
    void run() { KT_FreeCodebook(trainFixed(KT_CB_SPLIT_WIDEST)); }
};

struct LanesTraining : Set {
    double distortion = 0;
    using Set::Set;
    void run() { distortion = plain::kMeans(floatRows.data(), count, nDim, nSize, 10); }
    std::string note() const { return distortionNote("10 iterations of k-means, ", distortion); }
};

// A trained codebook and what is found in it.
struct Quantising : Set {
    KTCodebook* codebook = train(KT_CB_SPLIT_LARGEST);
    std::vector<int> index = std::vector<int>(20000);
    double distortion = 0;
    Quantising() : Set(20000) {}
    ~Quantising() { KT_FreeCodebook(codebook); }
    // A descent may miss the nearest cell; how often shows in the distortion.
    bench::Values results() const { return {distortion}; }
};

struct OursQuantising : Quantising {
    void run() {
        KTsVQCodebook(codebook, floatRows.data(), index.data(), count, nDim, &distortion);
    }
    std::string note() const { return distortionNote("descent of a tree, ", distortion); }
};

struct OursQuantisingFixed : Set {
    KTCodebook* codebook = trainFixed(KT_CB_SPLIT_LARGEST);
    std::vector<int> index = std::vector<int>(20000);
    OursQuantisingFixed() : Set(20000) {}
    ~OursQuantisingFixed() { KT_FreeCodebook(codebook); }
    void run() {
        int distortion = 0;
        KTwVQCodebook(codebook, wordRows.data(), index.data(), count, nDim, &distortion, KT_NoScale,
                      nullptr);
    }
};

struct LanesQuantising : Quantising {
    plain::Codes codes{reinterpret_cast<const float* const*>(codebook->ppCentroids), nSize, nDim};
    void run() {
        double sum = 0;
        for (int i = 0; i < count; ++i) {
            float square;
            index[std::size_t(i)] = codes.nearest(floatRows[std::size_t(i)], &square);
            sum += double(std::sqrt(square));
        }
        distortion = sum / count;
    }
    std::string note() const { return distortionNote("exhaustive search, ", distortion); }
};

#ifdef KTL_HAVE_FAISS
using Labels = std::vector<faiss::Index::idx_t>;

double distortionIn(const faiss::IndexFlatL2& cells, const Set& set, std::vector<float>& squares,
                    Labels& labels) {
    squares.resize(std::size_t(set.count));
    labels.resize(squares.size());
    cells.search(set.count, set.floats.data(), 1, squares.data(), labels.data());
    double sum = 0;
    for (const float square : squares)
        sum += double(std::sqrt(square));
    return sum / set.count;
}

struct FaissTraining : Set {
    faiss::IndexFlatL2 cells{nDim};
    explicit FaissTraining(int n) : Set(n) { omp_set_num_threads(1); }
    void run() {
        faiss::ClusteringParameters parameters;
        parameters.niter = 10;
        parameters.max_points_per_centroid = 1 << 20;
        faiss::Clustering clustering(nDim, nSize, parameters);
        cells.reset();
        clustering.train(count, floats.data(), cells);
    }
    std::string note() {
        std::vector<float> squares;
        Labels labels;
        return distortionNote("10 iterations of k-means, ",
                              distortionIn(cells, *this, squares, labels));
    }
};

struct FaissQuantising : Quantising {
    faiss::IndexFlatL2 cells{nDim};
    std::vector<float> squares;
    Labels labels;
    FaissQuantising() {
        omp_set_num_threads(1);
        for (int k = 0; k < nSize; ++k)
            cells.add(1, static_cast<const float*>(codebook->ppCentroids[k]));
    }
    void run() { distortion = distortionIn(cells, *this, squares, labels); }
    std::string note() const { return distortionNote("exhaustive search, ", distortion); }
};
#endif

void addTraining(const std::string& name, int n, int flags) {
    bench::Row row("makeCodebook" + name + "/256x" + std::to_string(n),
                   [=] { return OursTraining(n, flags); });
    row.other("lanes", [=] { return LanesTraining(n); });
#ifdef KTL_HAVE_FAISS
    row.other("faiss", [=] { return FaissTraining(n); });
#endif
}

const int registered = [] {
    for (const int n : {5000, 20000, 80000})
        addTraining("", n, KT_CB_SPLIT_WIDEST);
    addTraining("LargestFirst", 20000, KT_CB_SPLIT_LARGEST);
    bench::Row("makeCodebookFixed/256x20000", [] {
        return OursTrainingFixed(20000);
    }).other("float", [] { return OursTraining(20000, KT_CB_SPLIT_WIDEST); });
    bench::Row quantising("vqCodebook/256x20000", [] { return OursQuantising(); });
    quantising.peer("lanes", 0.1, [] { return LanesQuantising(); });
#ifdef KTL_HAVE_FAISS
    quantising.peer("faiss", 0.1, [] { return FaissQuantising(); });
#endif
    bench::Row("vqCodebookFixed/256x20000", [] {
        return OursQuantisingFixed();
    }).other("float", [] { return OursQuantising(); });
    return 0;
}();

} // namespace
