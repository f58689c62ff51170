// Writes the seed corpora: make_seeds DIRECTORY puts a few small valid files of every kind into
// DIRECTORY/hmm, mixture, dtw and mlp. The same files on every run.
#include "models/stored_models.h"

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>

namespace {

using namespace models;
namespace fs = std::filesystem;

// Files 0, 1, 2, ... of one corpus.
class Corpus {
public:
    Corpus(const fs::path& root, const char* kind) : folder(root / kind) {
        fs::create_directories(folder);
    }

    template <class Write>
    void add(Write write) {
        FILE* stream = std::fopen((folder / std::to_string(count++)).string().c_str(), "wb");
        if (stream == nullptr) std::exit(1);
        write(stream);
        std::fclose(stream);
    }

private:
    fs::path folder;
    int count = 0;
};

template <class T>
void addModels(Corpus& corpus, std::mt19937& random, unsigned otherDomain) {
    Codebook<T> codebook(random, 4, 2);
    for (const OutputKind kind : allKinds)
        for (const Shape shape : allShapes)
            for (const unsigned domain : {1u, otherDomain}) {
                auto model = randomModel<T>(random, kind, shape, 4 + int(shape), domain, 4, 2);
                const int id = model.create();
                corpus.add([=](FILE* stream) { KTWriteHMMServer(stream, id, "seed"); });
            }
    corpus.add([](FILE* stream) { // two on one stream
        KTWriteHMMServer(stream, 1, "first");
        KTWriteHMMServer(stream, 2, "second");
    });
    KTHMMFreeAll();
}

template <class T>
void addMixtures(Corpus& corpus, std::mt19937& random) {
    for (const bool full : {false, true})
        for (int nMix = 1; nMix <= 3; ++nMix) {
            const Server server = randomMixture<T>(random, 2 * nMix - 1, nMix, full);
            corpus.add([&](FILE* stream) { KTWriteGaussMixServer(stream, server.get()); });
        }
}

void addPatterns(Corpus& corpus) {
    float a[] = {1, 2, 3}, b[] = {-1, 0.5f, 7};
    float* rows[] = {a, b, a};
    short c[] = {1, 2, 3}, d[] = {-4, 5, 6};
    short* fixedRows[] = {c, d, c};
    for (int nVectors = 1; nVectors <= 3; ++nVectors) {
        const int handle = KTsPatternIni(rows, nVectors, 3),
                  fixed = KTwPatternIni(fixedRows, nVectors, 3, -4);
        corpus.add([=](FILE* stream) { KTsWriteDTWPattern(stream, handle); });
        corpus.add([=](FILE* stream) { KTwWriteDTWPattern(stream, fixed); });
    }
    KTsPatternFreeAll();
    KTwPatternFreeAll();
}

void addNetworks(Corpus& corpus) {
    const int counts[] = {3, 4, 2};
    for (int nLayers = 2; nLayers <= 3; ++nLayers) {
        float*** weights = KTsSetWeightsStr(counts, nLayers, 0.5f);
        short*** fixedWeights = KTwSetWeightsStr(counts, nLayers, 77);
        sMLPServer* server = KTsInitMLPServer(weights, nullptr, nullptr, counts, nullptr, nullptr,
                                              nLayers, KT_MLP_SIGMOID, nullptr);
        wMLPServer* fixed = KTwInitMLPServer(fixedWeights, nullptr, nullptr, counts, nullptr,
                                             nullptr, nLayers, KT_MLP_SIGMOID, -8, nullptr);
        corpus.add([=](FILE* stream) { KTsWriteMLPServer(stream, server); });
        corpus.add([=](FILE* stream) { KTwWriteMLPServer(stream, fixed); });
        KTsFreeMLPServer(server);
        KTwFreeMLPServer(fixed);
        KTsFreeWeightsStr(weights);
        KTwFreeWeightsStr(fixedWeights);
    }
}

} // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: make_seeds DIRECTORY\n");
        return 2;
    }
    std::mt19937 random(1);
    Corpus models(argv[1], "hmm"), mixtures(argv[1], "mixture"), patterns(argv[1], "dtw"),
        networks(argv[1], "mlp");
    addModels<float>(models, random, 2);
    addModels<short>(models, random, 0);
    addMixtures<float>(mixtures, random);
    addMixtures<short>(mixtures, random);
    addPatterns(patterns);
    addNetworks(networks);
}
