// The front end, templates, quantisers and perceptrons under a report's handler that releases what
// they have in use.
#include "support/releasing_handler.h"

#include "frame/KT_ALLOC.h"
#include "perceptrons/perceptrons.h"
#include "support/streams.h"
#include "templates/KT_DTW.h"

#include <cmath>

using support::Manner;
using support::onEveryFailure;
using support::onReport;
using support::Scene;
using support::Stream;

namespace {

// Two handfuls of vectors in a table of the library, which the handler releases as well.
struct Vectors {
    static constexpr int count = 12, dim = 3;
    float** rows = KTsAlloc2(count, dim);
    short** words = KTwAlloc2(count, dim);

    explicit Vectors(Scene& scene) {
        for (int i = 0; i < count; ++i)
            for (int k = 0; k < dim; ++k)
                rows[i][k] = words[i][k] = short((i * 7 + k * 5) % 11 + (i % 2) * 20);
        scene.mine([this] {
            KTFree2(rows);
            KTFree2(words);
        });
    }
    Vectors(const Vectors&) = delete;
    Vectors& operator=(const Vectors&) = delete;
};

template <class Operation>
void runVoid(Scene& scene, Operation operation) {
    scene.run([&] {
        operation();
        return 0;
    });
}

} // namespace

// --- front end ---

TEST(HandlerRelease, PreemphasisWithoutMemory) {
    onEveryFailure([](Scene& scene) {
        short samples[8] = {1, 2, 3, 4, 5, 6, 7, 8};
        int scale = 0;
        runVoid(scene, [&] { KTwPreemphasize(samples, 0.9f, 8, KT_AutoScale, &scale); });
        if (scene.acted()) {
            EXPECT_EQ(samples[7], 8);
        }
    });
}

TEST(HandlerRelease, FilterBankWithoutMemory) {
    for (const auto init : {KTsMFCCInit, KTwMFCCInit})
        onEveryFailure([&](Scene& scene) {
            KTMFCCFilters* bank = scene.run([&] { return init(6, 8, 100, 3900, 8000, 0, 0); });
            EXPECT_EQ(bank == nullptr, scene.allocationFailed);
            KTsFreeMFCCFilters(bank);
        });
}

// The bank and the thread's buffers are gone after the report, whatever the status says.
TEST(HandlerRelease, CepstraWithoutMemory) {
    for (const bool isFixed : {false, true})
        for (const int flags :
             {KT_CepsFilterFirst, KT_CepsTimeInput, KT_CepsTimeInput | KT_CepsFilterFirst})
            onEveryFailure([&](Scene& scene) {
                KTMFCCFilters* bank = KTsMFCCInit(6, 8, 100, 3900, 8000, 0, 0);
                scene.mine([=] { KTsFreeMFCCFilters(bank); });
                float samples[64], cepstra[6] = {9, 9, 9, 9, 9, 9};
                short words[64], fixedCepstra[6] = {9, 9, 9, 9, 9, 9};
                for (int i = 0; i < 64; ++i)
                    samples[i] = words[i] = short(i % 16 + 1);
                int scale = 0;
                const auto compute = [&](int nCeps) {
                    if (isFixed)
                        KTwCepstralMFCC(bank, words, fixedCepstra, nCeps, 1, flags, 0, KT_AutoScale,
                                        &scale);
                    else
                        KTsCepstralMFCC(bank, samples, cepstra, nCeps, 1, flags);
                };
                compute(1); // the kernels' tables; for more coefficients the buffers are made anew
                cepstra[0] = fixedCepstra[0] = 9;
                runVoid(scene, [&] { compute(6); });
                if (scene.acted()) {
                    EXPECT_EQ(cepstra[0], 9.0f);
                    EXPECT_EQ(fixedCepstra[0], 9);
                }
            });
}

// A negative status from before is traced when the cepstra are there; the fixed form traces it
// twice.
TEST(HandlerRelease, CepstraUnderANegativeStatus) {
    for (const bool isFixed : {false, true})
        onReport([&](Scene& scene) {
            KTMFCCFilters* bank = KTsMFCCInit(6, 8, 100, 3900, 8000, 0, 0);
            scene.mine([=] { KTsFreeMFCCFilters(bank); });
            float bins[64], cepstra[6];
            short words[64], fixedCepstra[6] = {9, 9, 9, 9, 9, 9};
            for (int i = 0; i < 64; ++i)
                bins[i] = words[i] = short(i % 16 + 1);
            int scale = 0;
            KTSetStatus(KT_StsUnknownErr);
            runVoid(scene, [&] {
                if (isFixed)
                    KTwCepstralMFCC(bank, words, fixedCepstra, 6, 1, KT_CepsFilterFirst, 0,
                                    KT_AutoScale, &scale);
                else
                    KTsCepstralMFCC(bank, bins, cepstra, 6, 1, KT_CepsFilterFirst);
            });
            EXPECT_EQ(fixedCepstra[0], 9);
        });
}

TEST(HandlerRelease, LinearPredictionWithoutMemory) {
    for (const int method : {1, 2})
        for (const bool isFixed : {false, true})
            onEveryFailure([&](Scene& scene) {
                float samples[20], coefficients[4];
                short words[20], fixedCoefficients[4];
                for (int i = 0; i < 20; ++i)
                    samples[i] = words[i] = short(i * i % 17);
                int scale = 0;
                const int result = scene.run([&] {
                    return isFixed ? KTwLPredict(words, 20, fixedCoefficients, 4, method,
                                                 KT_AutoScale, &scale)
                                   : KTsLPredict(samples, 20, coefficients, 4, method);
                });
                EXPECT_EQ(result, scene.acted() ? 0 : 1);
            });
}

// By the table of twiddles and by the transform.
TEST(HandlerRelease, SpectraWithoutMemory) {
    for (const int order : {3, 5})
        for (const bool isFixed : {false, true})
            onEveryFailure([&](Scene& scene) {
                const float coefficients[14] = {0.5f, -0.25f, 0.125f};
                const short words[14] = {8192, -4096, 2048};
                float spectrum[32];
                short fixedSpectrum[32];
                int scale = 0;
                const int nCoef = order == 3 ? 3 : 14; // 7 and 13 at most go by the table
                const auto compute = [&] {
                    if (isFixed)
                        KTwLPSpectrum(words, nCoef, fixedSpectrum, order, 1.0f, -14, KT_AutoScale,
                                      &scale);
                    else
                        KTsLPSpectrum(coefficients, nCoef, spectrum, order, 1.0f);
                };
                compute(); // the kernels' tables
                auto& lp = KTGetContext()->LP;
                lp.sBufferOrder = lp.wBufferOrder = -1; // too small from now on
                lp.sTwiddleOrder = lp.wTwiddleOrder = -1;
                runVoid(scene, compute);
            });
}

namespace {

// A handler that computes a spectrum of its own at the first report.
int nComputed = 0;
int computeSpectrum(int status, const char*, const char*, const char*, int) {
    if (nComputed++ > 0) return status;
    support::alloc::disarm();
    const float coefficients[3] = {0.5f, -0.25f, 0.125f};
    const short words[3] = {8192, -4096, 2048};
    float spectrum[8];
    short fixedSpectrum[8];
    int scale = 0;
    KTsLPSpectrum(coefficients, 3, spectrum, 3, 1.0f);
    KTwLPSpectrum(words, 3, fixedSpectrum, 3, 1.0f, -14, KT_AutoScale, &scale);
    return status;
}

} // namespace

// What the handler's own call leaves in the thread's record stays as it is.
TEST(HandlerRelease, SpectrumComputedByTheHandler) {
    const KTErrorHandler before = KTRedirectError(computeSpectrum);
    KTSetErrMode(KT_ErrorModeParent);
    const float coefficients[3] = {0.5f, -0.25f, 0.125f};
    const short words[3] = {8192, -4096, 2048};
    for (const bool isFixed : {false, true})
        for (int n = 1; n <= 2; ++n) {
            SCOPED_TRACE(isFixed);
            KTFreeLPTbls();
            nComputed = 0;
            float first[8] = {}, second[8] = {};
            short fixedFirst[8] = {}, fixedSecond[8] = {};
            int scale = 0;
            const auto compute = [&](float* spectrum, short* fixedSpectrum) {
                if (isFixed)
                    KTwLPSpectrum(words, 3, fixedSpectrum, 3, 1.0f, -14, KT_FixedScale, &scale);
                else
                    KTsLPSpectrum(coefficients, 3, spectrum, 3, 1.0f);
            };
            support::alloc::arm(n);
            compute(first, fixedFirst);
            support::alloc::disarm();
            KTSetStatus(KT_StsOk);
            const int atFirst = nComputed;
            compute(second, fixedSecond);
            EXPECT_EQ(nComputed, atFirst); // nothing to report
            EXPECT_TRUE(isFixed || second[0] > 0.0f);
        }
    KTFreeLPTbls();
    KTSetErrMode(KT_ErrorModeLeaf);
    KTRedirectError(before);
}

// --- templates ---

TEST(HandlerRelease, PatternsWithoutMemory) {
    for (const bool isFixed : {false, true})
        onEveryFailure([&](Scene& scene) {
            Vectors vectors(scene);
            const int handle = scene.run([&] {
                return isFixed ? KTwPatternIni(vectors.words, Vectors::count, Vectors::dim, -3)
                               : KTsPatternIni(vectors.rows, Vectors::count, Vectors::dim);
            });
            EXPECT_EQ(handle, scene.allocationFailed ? -1 : 1);
        });
}

TEST(HandlerRelease, PatternsThatAreRefused) {
    onReport([](Scene& scene) {
        Vectors vectors(scene);
        EXPECT_EQ(scene.run([&] { return KTsPatternIni(vectors.rows, 3, 0); }), -1);
    });
    onReport([](Scene& scene) { EXPECT_EQ(scene.run([] { return KTsPatternFree(1); }), -1); });
    onReport([](Scene& scene) {
        EXPECT_EQ(scene.run([] { return KTwPatternGet(4, nullptr, nullptr, nullptr, nullptr); }),
                  0);
    });
    onReport([](Scene& scene) {
        const Stream stream(std::tmpfile());
        runVoid(scene, [&] { KTsWriteDTWPattern(stream.get(), 4); });
    });
}

// A store whose number says that it is empty: no record can be freed, and the handler, which can,
// takes the rest away.
namespace {

int nDamaged = 0;
int repairAndRelease(int status, const char*, const char*, const char*, int) {
    if (nDamaged++ > 0) return status;
    KTGetContext()->nFloatPatterns = KTGetContext()->nFixedPatterns = 3;
    KTsPatternFreeAll();
    KTwPatternFreeAll();
    return status;
}

} // namespace

TEST(HandlerRelease, PatternsFreedWhileAllAreBeingFreed) {
    const KTErrorHandler before = KTRedirectError(repairAndRelease);
    float value = 1;
    short word = 1;
    float* rows[] = {&value};
    short* words[] = {&word};
    for (const bool isFixed : {false, true}) {
        for (int k = 0; k < 3; ++k) {
            KTsPatternIni(rows, 1, 1);
            KTwPatternIni(words, 1, 1, 0);
        }
        KTGetContext()->nFloatPatterns = KTGetContext()->nFixedPatterns = 0;
        nDamaged = 0;
        EXPECT_EQ(isFixed ? KTwPatternFreeAll() : KTsPatternFreeAll(), -1);
        EXPECT_EQ(KTsPatternsNumber(), 0);
        EXPECT_EQ(KTGetContext()->sPatternList, nullptr);
        EXPECT_EQ(KTGetContext()->wPatternList, nullptr);
    }
    KTRedirectError(before);
    KTSetStatus(KT_StsOk);
}

TEST(HandlerRelease, WarpingWithoutMemory) {
    for (const bool isFixed : {false, true})
        onEveryFailure([&](Scene& scene) {
            Vectors vectors(scene);
            const int handles[] = {
                isFixed ? KTwPatternIni(vectors.words, Vectors::count, Vectors::dim, 0)
                        : KTsPatternIni(vectors.rows, Vectors::count, Vectors::dim)};
            double distance = 0;
            int fixedDistance = 0, scale = 0;
            const int nearest = scene.run([&] {
                return isFixed ? KTwEvalDTW(handles, 1, vectors.words, Vectors::count, Vectors::dim,
                                            0, 0, 0, 0, 2, &fixedDistance, KT_NoScale, &scale)
                               : KTsEvalDTW(handles, 1, vectors.rows, Vectors::count, Vectors::dim,
                                            0, 0.0, 2, &distance);
            });
            EXPECT_EQ(nearest, scene.allocationFailed ? -1 : 0);
        });
}

TEST(HandlerRelease, PatternFilesWithoutMemory) {
    onEveryFailure([](Scene& scene) {
        Vectors vectors(scene);
        const int handle = KTwPatternIni(vectors.words, Vectors::count, Vectors::dim, 0);
        const Stream stream(std::tmpfile());
        KTwWriteDTWPattern(stream.get(), handle);
        std::rewind(stream.get());
        KTwPatternFreeAll();
        const int read = scene.run([&] { return KTwReadDTWPattern(stream.get()); });
        EXPECT_EQ(read, scene.allocationFailed ? -1 : handle);
        KTwPatternFreeAll();
        KTGetContext()->nFixedPatterns = 0; // by contract one too high after some of these failures
    });
}

// --- quantisers ---

namespace {
constexpr int flags = KT_CB_EUCLID | KT_CB_SPLIT_LARGEST;
}

TEST(HandlerRelease, CodebookWithoutMemory) {
    for (const bool isFixed : {false, true})
        onEveryFailure([&](Scene& scene) {
            Vectors vectors(scene);
            int labels[Vectors::count];
            KTCodebook* codebook = scene.run([&] {
                return isFixed ? KTwMakeCodebook(vectors.words, labels, Vectors::count,
                                                 Vectors::dim, 4, flags)
                               : KTsMakeCodebook(vectors.rows, labels, Vectors::count, Vectors::dim,
                                                 4, flags);
            });
            EXPECT_EQ(codebook == nullptr, scene.allocationFailed);
            KT_FreeCodebook(codebook);
        });
}

TEST(HandlerRelease, QuantisingThatReachesNoCell) {
    for (const bool isFixed : {false, true})
        onReport([&](Scene& scene) {
            Vectors vectors(scene);
            int labels[Vectors::count], scale = 0, fixedDistortion = 0;
            double distortion = 0;
            KTCodebook* codebook =
                KTsMakeCodebook(vectors.rows, labels, Vectors::count, Vectors::dim, 4, flags);
            scene.mine([=] { KT_FreeCodebook(codebook); });
            runVoid(scene, [&] {
                if (isFixed) // a codebook of the other form
                    KTwVQCodebook(codebook, vectors.words, labels, Vectors::count, Vectors::dim,
                                  &fixedDistortion, KT_NoScale, &scale);
                else
                    KTsVQCodebook(codebook, vectors.rows, labels, Vectors::count, 0, &distortion);
            });
            EXPECT_EQ(labels[Vectors::count - 1], 0);
        });
}

// --- perceptrons ---

namespace {

using perceptrons::randomNetwork;

sMLPServer* denseServer(std::mt19937& random) {
    return randomNetwork<float>(random, {3, 4, 2}, 0.5).server().release();
}
sMLPServer* sparseServer(std::mt19937& random) {
    return randomNetwork<float>(random, {3, 4, 2}, 0.5).describedAsSparse().server().release();
}

} // namespace

TEST(HandlerRelease, NetworksWithoutMemory) {
    onEveryFailure([](Scene& scene) {
        std::mt19937 random(1);
        auto network = randomNetwork<float>(random, {3, 4, 2}, 0.5);
        const auto server = scene.run([&] { return network.server(); });
        if (scene.acted()) {
            EXPECT_EQ(server, nullptr);
        }
    });
    onEveryFailure([](Scene& scene) {
        const int counts[] = {3, 4, 2};
        float*** table = scene.run([&] { return KTsSetWeightsStr(counts, 3, 0.5f); });
        EXPECT_EQ(table == nullptr, scene.allocationFailed);
        KTsFreeWeightsStr(table);
    });
}

TEST(HandlerRelease, SparseEvaluationWithoutMemory) {
    onEveryFailure([](Scene& scene) {
        std::mt19937 random(2);
        sMLPServer* server = sparseServer(random);
        scene.mine([=] { KTsFreeMLPServer(server); });
        const float input[3] = {1, 2, 3};
        float output[2] = {9, 9};
        runVoid(scene, [&] { KTsEvalMLPFeedForward(server, input, 3, output, 2); });
        EXPECT_EQ(output[1] == 9.0f, scene.acted());
    });
}

TEST(HandlerRelease, BackPropagationWithoutMemory) {
    onEveryFailure([](Scene& scene) {
        std::mt19937 random(3);
        sMLPServer* server = denseServer(random);
        scene.mine([=] { KTsFreeMLPServer(server); });
        const float input[3] = {1, 2, 3}, target[2] = {0.25f, 0.75f};
        const float *inputs[] = {input}, *targets[] = {target};
        int epochs = 77;
        runVoid(scene, [&] {
            KTsTrainMLPBackPropagation(server, inputs, 1, 3, targets, 2, 0.1f, 3, 1e-9f, 0.5f,
                                       &epochs);
        });
        EXPECT_EQ(epochs, scene.acted() ? 77 : 3);
    });
}

TEST(HandlerRelease, SparseNetworksThatAreRefused) {
    onReport([](Scene& scene) {
        std::mt19937 random(4);
        sMLPServer* server = sparseServer(random);
        scene.mine([=] { KTsFreeMLPServer(server); });
        const Stream stream(std::tmpfile());
        runVoid(scene, [&] { KTsWriteMLPServer(stream.get(), server); });
    });
    onReport([](Scene& scene) {
        std::mt19937 random(5);
        sMLPServer* server = sparseServer(random);
        scene.mine([=] { KTsFreeMLPServer(server); });
        const float input[3] = {1, 2, 3}, target[2] = {0.25f, 0.75f};
        const float *inputs[] = {input}, *targets[] = {target};
        int epochs = 77;
        runVoid(scene, [&] {
            KTsTrainMLPBackPropagation(server, inputs, 1, 3, targets, 2, 0.1f, 3, 1e-9f, 0.5f,
                                       &epochs);
        });
        EXPECT_EQ(epochs, 77);
    });
}

TEST(HandlerRelease, NetworkFilesWithoutMemory) {
    onEveryFailure([](Scene& scene) {
        std::mt19937 random(6);
        sMLPServer* server = denseServer(random);
        scene.mine([=] { KTsFreeMLPServer(server); });
        const Stream stream(std::tmpfile());
        KTsWriteMLPServer(stream.get(), server);
        std::rewind(stream.get());
        sMLPServer* read = scene.run([&] { return KTsReadMLPServer(stream.get()); });
        if (scene.acted()) {
            EXPECT_EQ(read, nullptr);
        }
        KTsFreeMLPServer(read);
    });
}
