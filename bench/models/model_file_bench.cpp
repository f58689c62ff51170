// Model files: 10,000 models on one stream, written and read back one by one, beside the same
// number of bytes moved through the disk cache in large blocks without any processing.
#include "bench/support/bench.h"
#include "ktlp6.h"

#include <cstdio>
#include <vector>

namespace {

constexpr int nModels = 10000, nStates = 5, nSymbols = 64;
constexpr std::size_t blockBytes = 1 << 16;

// A discrete left-to-right word model in the cost domain: about 2 KB on file.
int makeModel() {
    std::vector<std::vector<float>> trans(nStates, std::vector<float>(nStates, 35.0f));
    std::vector<std::vector<float>> out(nStates, std::vector<float>(nSymbols, 1.5f));
    std::vector<float> initial(nStates, 0.7f);
    std::vector<const float*> transRows, outRows;
    for (int i = 0; i < nStates; ++i) {
        for (int j = i; j < nStates && j < i + 3; ++j)
            trans[std::size_t(i)][std::size_t(j)] = 0.5f;
        transRows.push_back(trans[std::size_t(i)].data());
        outRows.push_back(out[std::size_t(i)].data());
    }
    return KTsInitHMMServer(transRows.data(), outRows.data(), initial.data(), nStates, nSymbols,
                            int(KT_HMM_LOGARITHMIC));
}

void writeAll(FILE* stream, int id) {
    std::rewind(stream);
    for (int i = 0; i < nModels; ++i)
        KTWriteHMMServer(stream, id, "word");
    std::fflush(stream);
}

// The bytes that all models take, in a stream that holds them.
long filledStream(FILE* stream) {
    const int id = makeModel();
    writeAll(stream, id);
    KTFreeHMMServer(id);
    return std::ftell(stream);
}

void writeOurs(benchmark::State& state) {
    FILE* stream = std::tmpfile();
    const long size = filledStream(stream);
    const int id = makeModel();
    for (auto _ : state)
        writeAll(stream, id);
    state.SetBytesProcessed(state.iterations() * size);
    KTFreeHMMServer(id);
    std::fclose(stream);
}
BENCHMARK(writeOurs)->Name("writeHMM/10000/ours")->Unit(benchmark::kMillisecond);

void writeCache(benchmark::State& state) {
    FILE* stream = std::tmpfile();
    const long size = filledStream(stream);
    const std::vector<char> block(blockBytes, 'x');
    std::setvbuf(stream, nullptr, _IONBF, 0);
    for (auto _ : state) {
        std::rewind(stream);
        for (long left = size; left > 0; left -= long(blockBytes))
            std::fwrite(block.data(), 1, blockBytes, stream);
    }
    state.SetBytesProcessed(state.iterations() * size);
    std::fclose(stream);
}
BENCHMARK(writeCache)->Name("writeHMM/10000/cache")->Unit(benchmark::kMillisecond);

void readOurs(benchmark::State& state) {
    FILE* stream = std::tmpfile();
    const long size = filledStream(stream);
    for (auto _ : state) {
        std::rewind(stream);
        for (int id; (id = KTReadHMMServer(stream, nullptr)) > 0;)
            KTFreeHMMServer(id);
    }
    state.SetBytesProcessed(state.iterations() * size);
    std::fclose(stream);
}
BENCHMARK(readOurs)->Name("readHMM/10000/ours")->Unit(benchmark::kMillisecond);

void readCache(benchmark::State& state) {
    FILE* stream = std::tmpfile();
    const long size = filledStream(stream);
    std::vector<char> block(blockBytes);
    std::setvbuf(stream, nullptr, _IONBF, 0);
    for (auto _ : state) {
        std::rewind(stream);
        for (long left = size; left > 0; left -= long(blockBytes))
            benchmark::DoNotOptimize(std::fread(block.data(), 1, blockBytes, stream));
    }
    state.SetBytesProcessed(state.iterations() * size);
    std::fclose(stream);
}
BENCHMARK(readCache)->Name("readHMM/10000/cache")->Unit(benchmark::kMillisecond);

} // namespace
