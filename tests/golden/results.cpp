// What tests/golden/everywhere.txt holds is computed here, family by family, in both numeric forms.
#include "golden/results.h"

#include <cstdio>

namespace golden {
namespace {

std::string named(const char* name, int a) {
    return std::string(name) + '.' + std::to_string(a);
}
std::string named(const char* name, int a, int b) {
    return named(named(name, a).c_str(), b);
}

// The bytes that `write` puts on a stream.
template <class Write>
std::vector<unsigned char> bytesOf(Write write) {
    std::vector<unsigned char> bytes;
    FILE* stream = std::tmpfile();
    if (stream == nullptr) return bytes;
    write(stream);
    std::rewind(stream);
    for (int c; (c = std::fgetc(stream)) != EOF;)
        bytes.push_back(static_cast<unsigned char>(c));
    std::fclose(stream);
    return bytes;
}

// `write` to a stream, then `read` from it.
template <class Write, class Read>
auto throughFile(Write write, Read read) {
    FILE* stream = std::tmpfile();
    write(stream);
    std::rewind(stream);
    auto result = read(stream);
    std::fclose(stream);
    return result;
}

// A row of probabilities: whole sixteenths that add up to 1.
std::vector<float> probabilities(Numbers& numbers, int n, int first, int last) {
    std::vector<float> row(std::size_t(n), 0.0f);
    for (int k = 0; k < 64; ++k)
        row[std::size_t(numbers.integer(first, last))] += 1.0f / 64.0f;
    return row;
}

// Transitions of a model; reach is how far to the right a state leads (negative: anywhere).
Rows<float> transitions(Numbers& numbers, int n, int reach) {
    Rows<float> rows;
    for (int i = 0; i < n; ++i) {
        const int last = reach < 0 || i + reach > n - 1 ? n - 1 : i + reach;
        rows.push_back(probabilities(numbers, n, reach < 0 ? 0 : i, last));
    }
    return rows;
}

struct Mixtures {
    Mixtures(Numbers& numbers, int count, int nDim, int nMix, bool full) {
        for (int k = 0; k < count; ++k)
            servers.push_back(make(numbers, nDim, nMix, full));
    }
    ~Mixtures() {
        for (GaussMixServer* server : servers)
            KTsFreeGaussMixServer(server);
    }
    Mixtures(const Mixtures&) = delete;
    Mixtures& operator=(const Mixtures&) = delete;

    static GaussMixServer* make(Numbers& numbers, int nDim, int nMix, bool full) {
        auto weights = vectorOf<float>(numbers, nMix, 1, 2);
        auto means = rowsOf<float>(numbers, nMix, nDim, -3, 3);
        auto diagonals = rowsOf<float>(numbers, nMix, nDim, 1, 3);
        std::vector<Rows<float>> matrices;
        std::vector<std::vector<float*>> rows;
        std::vector<float**> tables;
        for (int k = 0; k < nMix; ++k) {
            Rows<float> matrix = rowsOf<float>(numbers, nDim, nDim, 0, 0);
            for (int i = 0; i < nDim; ++i) {
                matrix[std::size_t(i)][std::size_t(i)] = diagonals[std::size_t(k)][std::size_t(i)];
                if (i > 0) {
                    matrix[std::size_t(i)][std::size_t(i - 1)] = 0.125f;
                    matrix[std::size_t(i - 1)][std::size_t(i)] = 0.125f;
                }
            }
            matrices.push_back(matrix);
        }
        for (auto& matrix : matrices)
            rows.push_back(pointersOf(matrix));
        for (auto& table : rows)
            tables.push_back(table.data());
        auto meanRows = pointersOf(means), diagonalRows = pointersOf(diagonals);
        return KTsInitGaussMixServer(
            weights.data(), meanRows.data(), full ? tables.data() : nullptr,
            full ? nullptr : diagonalRows.data(), nDim, nMix, KT_GAUSS_NORMALIZE);
    }

    std::vector<GaussMixServer*> servers;
};

std::vector<unsigned char> bytesOf(int hmm) {
    return bytesOf([&](FILE* stream) { KTWriteHMMServer(stream, hmm, "golden"); });
}
std::vector<unsigned char> bytesOf(GaussMixServer* server) {
    return bytesOf([&](FILE* stream) { KTWriteGaussMixServer(stream, server); });
}

void addConversions(Results& results) {
    Numbers numbers(1);
    const auto floats = vectorOf<float>(numbers, 1003, -3, 3);
    auto wide = floats;
    for (std::size_t i = 0; i < wide.size(); i += 7)
        wide[i] *= 40000.0f;
    for (int mode = KT_NoScale; mode <= KT_Saturate; ++mode)
        for (int given : {-12, 0, 3}) {
            std::vector<short> words(wide.size());
            std::vector<int> integers(wide.size());
            int wordScale = given, integerScale = given;
            KTswbConvertDown(wide.data(), words.data(), int(wide.size()), mode, &wordScale);
            KTsibConvertDown(wide.data(), integers.data(), int(wide.size()), mode, &integerScale);
            std::vector<float> back(wide.size());
            KTwsbConvertUp(words.data(), back.data(), int(wide.size()), -wordScale);
            results.add(named("conversions", mode, given), words, integers, wordScale, integerScale,
                        back);
        }
    const auto words = vectorOf<short>(numbers, 1003, -9000, 9000);
    results.add("conversions.orders", KTsMaxOrder(wide.data(), int(wide.size())),
                KTwMaxOrder(words.data(), int(words.size())), KTPower2(-100), KTPower2(9));
}

void addFrontEnd(Results& results) {
    Numbers numbers(2);
    const auto samples = vectorOf<float>(numbers, 512, -1, 1);
    const auto words = vectorOf<short>(numbers, 512, -8000, 8000);
    KTMFCCFilters* floatBank = KTsMFCCInit(9, 26, 100, 7600, 16000, 0, 0);
    KTMFCCFilters* fixedBank = KTwMFCCInit(9, 26, 100, 7600, 16000, 0, 0);
    for (int flags = 0; flags < 32; ++flags) {
        if ((flags & 2) != 0) continue;
        auto frame = samples;
        auto fixedFrame = words;
        for (float& x : frame)
            x = flags & KT_CepsTimeInput ? x : x * x + 0.01f;
        for (short& x : fixedFrame)
            x = flags & KT_CepsTimeInput ? x : short(x / 2 + 5000);
        std::vector<float> cepstra(13);
        std::vector<short> fixedCepstra(13);
        int scale = 0;
        KTsPreemphasize(frame.data(), flags & KT_CepsTimeInput ? 0.97f : 0.0f, 512);
        KTsCepstralMFCC(floatBank, frame.data(), cepstra.data(), 13, 1e-4f,
                        flags | KT_CepsThreshold);
        KTwCepstralMFCC(fixedBank, fixedFrame.data(), fixedCepstra.data(), 13, 4,
                        flags | KT_CepsThreshold, 0, KT_AutoScale, &scale);
        KTsLiftering(cepstra.data(), 13, 22);
        KTwLiftering(fixedCepstra.data(), 13, 22);
        results.add(named("cepstra", flags), cepstra, fixedCepstra, scale);
    }
    KTsFreeMFCCFilters(floatBank);
    KTwFreeMFCCFilters(fixedBank);
    for (int method : {KT_LPAutocorr, KT_LPCovariance})
        for (int order : {2, 10, 13}) {
            std::vector<float> coefficients(std::size_t(order) + 1), spectrum(257);
            std::vector<short> fixedCoefficients(std::size_t(order) + 1), fixedSpectrum(257);
            int scale = -12, outScale = 0;
            const int done = KTsLPredict(samples.data(), 400, coefficients.data(), order, method);
            const int fixedDone = KTwLPredict(words.data(), 400, fixedCoefficients.data(), order,
                                              method, KT_AutoScale, &scale);
            KTsLPSpectrum(coefficients.data(), order, spectrum.data(), 8, 1.5f);
            KTwLPSpectrum(fixedCoefficients.data(), order, fixedSpectrum.data(), 8, 1.5f, scale,
                          KT_AutoScale, &outScale);
            results.add(named("prediction", method, order), coefficients, fixedCoefficients, scale,
                        done, fixedDone);
            results.add(named("spectrum", method, order), spectrum, fixedSpectrum, outScale);
        }
    KTFreeCepsTbls();
    KTFreeLPTbls();
    KTFreePreemphasizeTbls();
}

void addDistances(Results& results) {
    Numbers numbers(3);
    for (int n : {1, 7, 13, 39}) {
        const auto a = vectorOf<float>(numbers, n, -4, 4), b = vectorOf<float>(numbers, n, -4, 4);
        const auto c = vectorOf<float>(numbers, n, 0, 2);
        const auto p = vectorOf<short>(numbers, n, -99, 99),
                   q = vectorOf<short>(numbers, n, -99, 99);
        const auto r = vectorOf<short>(numbers, n, 1, 50);
        int scale = 2;
        results.add(named("mahalanobis", n), KTsMahalanobisD(a.data(), b.data(), c.data(), n, 1),
                    KTwMahalanobisD(p.data(), q.data(), r.data(), n, 0, KT_FixedScale, &scale));
    }
    auto test = rowsOf<float>(numbers, 30, 13, -4, 4);
    auto fixedTest = rowsOf<short>(numbers, 30, 13, -400, 400);
    auto rows = pointersOf(test);
    auto fixedRows = pointersOf(fixedTest);
    std::vector<int> handles, fixedHandles;
    for (int k = 0; k < 6; ++k) {
        auto pattern = rowsOf<float>(numbers, 25 + 3 * k, 13, -4, 4);
        auto fixedPattern = rowsOf<short>(numbers, 25 + 3 * k, 13, -400, 400);
        handles.push_back(KTsPatternIni(pointersOf(pattern).data(), 25 + 3 * k, 13));
        fixedHandles.push_back(KTwPatternIni(pointersOf(fixedPattern).data(), 25 + 3 * k, 13, -6));
    }
    for (int flags : {0, KT_DTW_FIXED_ENDS, KT_DTW_NORM_L1, KT_DTW_FIXED_ENDS | KT_DTW_NORM_L1}) {
        std::vector<double> costs(6);
        std::vector<int> fixedCosts(6);
        int scale = 0;
        const int best =
            KTsEvalDTW(handles.data(), 6, rows.data(), 30, 13, flags, 0, 4, costs.data());
        const int fixedBest = KTwEvalDTW(fixedHandles.data(), 6, fixedRows.data(), 30, 13, -6,
                                         flags, 0, 0, 4, fixedCosts.data(), KT_AutoScale, &scale);
        results.add(named("dtw", flags), costs, fixedCosts, scale, best, fixedBest);
    }
    results.add("dtw.files", bytesOf([&](FILE* stream) { KTsWriteDTWPattern(stream, handles[2]); }),
                bytesOf([&](FILE* stream) { KTwWriteDTWPattern(stream, fixedHandles[2]); }));
    KTsPatternFreeAll();
    KTwPatternFreeAll();
}

void addQuantisers(Results& results) {
    Numbers numbers(4);
    auto vectors = rowsOf<float>(numbers, 500, 5, -8, 8);
    auto words = rowsOf<short>(numbers, 500, 5, -3000, 3000);
    auto rows = pointersOf(vectors);
    auto fixedRows = pointersOf(words);
    for (int flags : {KT_CB_SPLIT_LARGEST, KT_CB_SPLIT_WIDEST}) {
        std::vector<int> labels(500), fixedLabels(500), index(500), fixedIndex(500);
        KTCodebook* book =
            KTsMakeCodebook(rows.data(), labels.data(), 500, 5, 16, KT_CB_EUCLID | flags);
        KTCodebook* fixedBook =
            KTwMakeCodebook(fixedRows.data(), fixedLabels.data(), 500, 5, 16, KT_CB_EUCLID | flags);
        double distortion = 0;
        int fixedDistortion = 0, scale = 0;
        KTsVQCodebook(book, rows.data(), index.data(), 500, 5, &distortion);
        KTwVQCodebook(fixedBook, fixedRows.data(), fixedIndex.data(), 500, 5, &fixedDistortion,
                      KT_NoScale, &scale);
        results.add(named("codebook", flags), labels, index, distortion, fixedLabels, fixedIndex,
                    fixedDistortion);
        KT_FreeCodebook(book);
        KT_FreeCodebook(fixedBook);
    }
    std::vector<float> distances(500);
    std::vector<int> fixedDistances(500), nearest(500), fixedNearest(500);
    int scale = 3;
    KTsVQKohonen(rows[7], rows.data(), distances.data(), 5, 500, nearest.data(), 8, 1);
    KTwVQKohonen(fixedRows[7], fixedRows.data(), fixedDistances.data(), 5, 500, fixedNearest.data(),
                 8, 0, KT_FixedScale, &scale);
    results.add("kohonen", distances, nearest, fixedDistances, fixedNearest);
}

void addMixtures(Results& results) {
    Numbers numbers(5);
    for (int full = 0; full < 2; ++full)
        for (int nMix : {1, 8, 33}) {
            GaussMixServer* server = Mixtures::make(numbers, 13, nMix, full != 0);
            GaussMixServer* fixed = KTswConvertGaussMixServer(server, -15, -9, -9);
            GaussMixServer* back = KTwsConvertGaussMixServer(fixed, 15, 9, 9);
            std::vector<double> values;
            std::vector<int> fixedValues;
            for (int t = 0; t < 20; ++t) {
                const auto x = vectorOf<float>(numbers, 13, -1, 1);
                const auto w = vectorOf<short>(numbers, 13, -300, 300);
                int scale = -10;
                values.push_back(KTsEvalGaussMix(server, x.data(), 13));
                values.push_back(KTsEvalGaussMix(back, x.data(), 13));
                fixedValues.push_back(KTwEvalGaussMix(fixed, w.data(), 13, KT_Saturate, &scale));
            }
            results.add(named("mixture", full, nMix), values, fixedValues);
            results.add(named("mixture.file", full, nMix), bytesOf(server), bytesOf(fixed),
                        bytesOf(back));
            KTsFreeGaussMixServer(server);
            KTsFreeGaussMixServer(back);
            KTwFreeGaussMixServer(fixed);
        }
    auto vectors = rowsOf<float>(numbers, 60, 4, -4, 4);
    auto words = rowsOf<short>(numbers, 60, 4, -400, 400);
    auto rows = pointersOf(vectors);
    auto fixedRows = pointersOf(words);
    for (int flags : {KT_GAUSS_FULL, KT_GAUSS_DIAGONAL}) {
        GaussMixServer* built = KTsBuildGaussMixServer(rows.data(), 40, 4, flags);
        GaussMixServer* trained = KTsTrainGaussMixServer(built, rows.data() + 40, 20, 4);
        GaussMixServer* fixed = KTwBuildGaussMixServer(fixedRows.data(), 40, 4, flags);
        GaussMixServer* inverted = KTsInvertGaussianCovMatrix(trained, 0);
        results.add(named("mixture.built", flags), bytesOf(trained), bytesOf(fixed));
        results.add(named("mixture.inverted", flags), inverted != nullptr ? 1 : 0);
        KTsFreeGaussMixServer(trained);
        KTwFreeGaussMixServer(fixed);
    }
    KTFreeGaussTbls();
}

void addModels(Results& results) {
    Numbers numbers(6);
    const int n = 9, symbols = 16, nDim = 6, frames = 40;
    std::vector<int> observations;
    for (int t = 0; t < frames; ++t)
        observations.push_back(numbers.integer(0, symbols - 1));
    auto vectors = rowsOf<float>(numbers, frames, nDim, -3, 3);
    auto words = rowsOf<short>(numbers, frames, nDim, -500, 500);
    const auto rows = pointersOf(vectors);
    const auto fixedRows = pointersOf(words);
    const Mixtures densities(numbers, symbols, nDim, 1, false),
        mixtures(numbers, n, nDim, 3, false);
    auto densityServers = densities.servers, mixtureServers = mixtures.servers;
    std::vector<GaussMixServer*> fixedServers;
    for (GaussMixServer* server : densityServers)
        fixedServers.push_back(KTswConvertGaussMixServer(server, -15, -9, -9));
    KTSetHMMMode(KT_HMM_KEEP);
    for (int reach : {-1, n, 2}) {
        // KTHMMFreeAll releases it
        KTsInitSemicontCodebook(densityServers.data(), symbols, nDim, 0);
        KTwInitSemicontCodebook(fixedServers.data(), symbols, nDim, 0);
        auto trans = transitions(numbers, n, reach);
        Rows<float> out;
        for (int i = 0; i < n; ++i)
            out.push_back(probabilities(numbers, symbols, 0, symbols - 1));
        const auto initial = probabilities(numbers, n, 0, n - 1);
        const auto transRows = pointersOf(trans), outRows = pointersOf(out);
        const int discrete = KTsInitHMMServer(transRows.data(), outRows.data(), initial.data(), n,
                                              symbols, KT_HMM_EXPONENTIAL);
        const int continuous = KTsInitContHMMServer(
            transRows.data(), initial.data(), mixtureServers.data(), n, nDim, KT_HMM_EXPONENTIAL);
        const int semicontinuous = KTsInitSemicontHMMServer(
            transRows.data(), outRows.data(), initial.data(), n, symbols, nDim, KT_HMM_EXPONENTIAL);
        results.add(named("forward", reach),
                    KTsEvalHMMForward(discrete, observations.data(), frames, nullptr),
                    KTsEvalContHMMForward(continuous, rows.data(), frames, nullptr),
                    KTsEvalSemicontHMMForward(semicontinuous, rows.data(), frames, nullptr));
        const int discreteCosts = KTsLogHMMServer(discrete),
                  continuousCosts = KTsLogHMMServer(continuous),
                  semicontinuousCosts = KTsLogHMMServer(semicontinuous);
        results.add(named("viterbi", reach),
                    KTsEvalHMMViterbi(discreteCosts, observations.data(), frames, nullptr),
                    KTsEvalContHMMViterbi(continuousCosts, rows.data(), frames, nullptr),
                    KTsEvalSemicontHMMViterbi(semicontinuousCosts, rows.data(), frames, nullptr));
        const int discreteFixed = KTswConvertHMMServer(discreteCosts, -8, 0, 0, 0),
                  continuousFixed = KTswConvertHMMServer(continuousCosts, -8, -15, -9, -9),
                  semicontinuousFixed = KTswConvertHMMServer(semicontinuousCosts, -8, -15, -9, -9);
        int a = 0, b = 0, c = 0;
        results.add(
            named("viterbi.fixed", reach),
            KTwEvalHMMViterbi(discreteFixed, observations.data(), frames, nullptr, KT_NoScale, &a),
            KTwEvalContHMMViterbi(continuousFixed, fixedRows.data(), frames, nullptr, KT_NoScale,
                                  &b),
            KTwEvalSemicontHMMViterbi(semicontinuousFixed, fixedRows.data(), frames, nullptr,
                                      KT_NoScale, &c),
            a, b, c);
        results.add(named("model.file", reach), bytesOf(discrete), bytesOf(discreteCosts),
                    bytesOf(discreteFixed), bytesOf(semicontinuous), bytesOf(semicontinuousCosts),
                    bytesOf(semicontinuousFixed));
        results.add(named("model.file.continuous", reach), bytesOf(continuous),
                    bytesOf(continuousCosts), bytesOf(continuousFixed));
        const int readBack =
            throughFile([&](FILE* stream) { KTWriteHMMServer(stream, discrete, "golden"); },
                        [](FILE* stream) {
                            char name[12];
                            return KTReadHMMServer(stream, name);
                        });
        int order[4] = {};
        KTGetHMMScales(semicontinuousCosts, order, order + 1, order + 2, order + 3);
        results.add(named("model.queries", reach), bytesOf(readBack), order[0], order[1], order[2],
                    order[3]);
        KTHMMFreeAll();
    }
    for (GaussMixServer* server : fixedServers)
        KTwFreeGaussMixServer(server);
}

void addTraining(Results& results) {
    Numbers numbers(7);
    const int n = 5, symbols = 8, nDim = 4, sequences = 4, frames = 30;
    const Mixtures densities(numbers, symbols, nDim, 1, false),
        mixtures(numbers, n, nDim, 2, false);
    auto densityServers = densities.servers, mixtureServers = mixtures.servers;
    std::vector<std::vector<int>> observations;
    std::vector<Rows<float>> vectors;
    for (int s = 0; s < sequences; ++s) {
        observations.emplace_back();
        for (int t = 0; t < frames; ++t)
            observations.back().push_back(numbers.integer(0, symbols - 1));
        vectors.push_back(rowsOf<float>(numbers, frames, nDim, -3, 3));
    }
    std::vector<const int*> observationRows;
    std::vector<std::vector<const float*>> vectorRows;
    std::vector<const float* const*> vectorTables;
    const std::vector<int> counts(sequences, frames);
    for (int s = 0; s < sequences; ++s) {
        observationRows.push_back(observations[std::size_t(s)].data());
        vectorRows.emplace_back();
        for (const auto& row : vectors[std::size_t(s)])
            vectorRows.back().push_back(row.data());
    }
    for (const auto& rows : vectorRows)
        vectorTables.push_back(rows.data());
    KTSetHMMMode(KT_HMM_KEEP);
    for (int reach : {-1, n, 2}) {
        KTsInitSemicontCodebook(densityServers.data(), symbols, nDim, 0);
        auto trans = transitions(numbers, n, reach);
        Rows<float> out;
        for (int i = 0; i < n; ++i)
            out.push_back(probabilities(numbers, symbols, 0, symbols - 1));
        const std::vector<float> initial(std::size_t(n), 0.125f);
        const auto transRows = pointersOf(trans), outRows = pointersOf(out);
        float tolerance[3] = {1e-6f, 1e-6f, 1e-6f};
        const int discrete = KTsTrainHMMBaumWelch(
            KTsInitHMMServer(transRows.data(), outRows.data(), initial.data(), n, symbols,
                             KT_HMM_EXPONENTIAL),
            observationRows.data(), counts.data(), sequences, 4, &tolerance[0]);
        const int continuous = KTsTrainContHMMBaumWelch(
            KTsInitContHMMServer(transRows.data(), initial.data(), mixtureServers.data(), n, nDim,
                                 KT_HMM_EXPONENTIAL),
            vectorTables.data(), counts.data(), sequences, 4, &tolerance[1]);
        const int semicontinuous = KTsTrainSemicontHMMBaumWelch(
            KTsInitSemicontHMMServer(transRows.data(), outRows.data(), initial.data(), n, symbols,
                                     nDim, KT_HMM_EXPONENTIAL),
            vectorTables.data(), counts.data(), sequences, 4, &tolerance[2]);
        results.add(named("training", reach), bytesOf(discrete), bytesOf(continuous),
                    bytesOf(semicontinuous), tolerance[0], tolerance[1], tolerance[2]);
        KTHMMFreeAll();
    }
}

void addPerceptrons(Results& results) {
    Numbers numbers(8);
    const int counts[] = {13, 17, 5};
    for (int flags : {KT_MLP_SIGMOID, KT_MLP_ABS, KT_MLP_SIGMOID | KT_MLP_THRESHOLD}) {
        float*** weights = KTsSetWeightsStr(counts, 3, 0.0f);
        short*** fixedWeights = KTwSetWeightsStr(counts, 3, 0);
        for (int layer = 1; layer < 3; ++layer)
            for (int j = 0; j < counts[layer]; ++j)
                for (int i = 0; i < counts[layer - 1]; ++i) {
                    weights[layer - 1][j][i] = numbers.real(-1, 1);
                    fixedWeights[layer - 1][j][i] = short(numbers.integer(-9000, 9000));
                }
        const auto thresholds = vectorOf<float>(numbers, 22, -1, 1);
        const auto fixedThresholds = vectorOf<short>(numbers, 22, -900, 900);
        sMLPServer* network = KTsInitMLPServer(weights, nullptr, nullptr, counts, nullptr, nullptr,
                                               3, flags, thresholds.data());
        wMLPServer* fixedNetwork = KTwInitMLPServer(fixedWeights, nullptr, nullptr, counts, nullptr,
                                                    nullptr, 3, flags, -14, fixedThresholds.data());
        auto inputs = rowsOf<float>(numbers, 12, 13, -2, 2),
             targets = rowsOf<float>(numbers, 12, 5, 0, 1);
        std::vector<const float*> inputRows, targetRows;
        for (int k = 0; k < 12; ++k) {
            inputRows.push_back(inputs[std::size_t(k)].data());
            targetRows.push_back(targets[std::size_t(k)].data());
        }
        std::vector<float> before(5), after(5);
        KTsEvalMLPFeedForward(network, inputRows[0], 13, before.data(), 5);
        int epochs = 0;
        KTsTrainMLPBackPropagation(network, inputRows.data(), 12, 13, targetRows.data(), 5, 0.25f,
                                   6, 1e-9f, 0.5f, &epochs);
        KTsEvalMLPFeedForward(network, inputRows[0], 13, after.data(), 5);
        const auto words = vectorOf<short>(numbers, 13, -9000, 9000);
        std::vector<short> outputs(5);
        int scale = -12;
        KTwEvalMLPFeedForward(fixedNetwork, words.data(), 13, outputs.data(), 5, KT_FixedScale,
                              &scale, -14);
        results.add(named("perceptron", flags), before, after, epochs, outputs, scale);
        results.add(named("perceptron.file", flags),
                    bytesOf([&](FILE* stream) { KTsWriteMLPServer(stream, network); }),
                    bytesOf([&](FILE* stream) { KTwWriteMLPServer(stream, fixedNetwork); }));
        KTsFreeMLPServer(network);
        KTwFreeMLPServer(fixedNetwork);
        KTsFreeWeightsStr(weights);
        KTwFreeWeightsStr(fixedWeights);
    }
    const auto sums = vectorOf<float>(numbers, 301, -20, 20);
    std::vector<float> sigmoid(301), slope(301), absolute(301);
    KTsSigmoidActivation(sums.data(), sigmoid.data(), 301);
    KTsSigmoidDerivative(sums.data(), slope.data(), 301);
    KTsAbsActivation(sums.data(), absolute.data(), 301);
    std::vector<int> integers;
    for (int i = 0; i < 301; ++i)
        integers.push_back(numbers.integer(-90000, 90000));
    std::vector<short> fixedSigmoid(301), fixedAbsolute(301);
    KTwSigmoidActivation(integers.data(), fixedSigmoid.data(), 301, -14, -14);
    KTwAbsActivation(integers.data(), fixedAbsolute.data(), 301, -14, -14);
    results.add("activation", sigmoid, slope, absolute, fixedSigmoid, fixedAbsolute);
}

} // namespace

Results everything() {
    Results results;
    KTSetErrMode(KT_ErrorModeSilent);
    addConversions(results);
    addFrontEnd(results);
    addDistances(results);
    addQuantisers(results);
    addMixtures(results);
    addModels(results);
    addTraining(results);
    addPerceptrons(results);
    KTSetErrMode(KT_ErrorModeParent);
    return results;
}

} // namespace golden
