// Operations on models, codebooks and mixtures under a report's handler that releases what they
// have in use.
#include "support/releasing_handler.h"

#include "frame/KT_ALLOC.h"
#include "mixtures/KT_GAUSS.h"
#include "models/codebooks.h"
#include "models/forward_backward.h"
#include "models/outputs.h"
#include "support/streams.h"

#include <algorithm>
#include <cfloat>
#include <climits>
#include <string>

using namespace models;
using support::Bytes;
using support::Manner;
using support::onEveryFailure;
using support::onReport;
using support::Scene;
using support::Stream;

namespace {

constexpr int n = 4, m = 6, dim = 3;

// One model in every flavour and form, with the mixtures and densities that they need.
struct Kit {
    std::mt19937 random{1};
    Model<float> model = randomModel(random, n, m, Shape::full);
    Model<float> costs = costsOf(model);
    Model<short> fixed = fixedOf(model);
    Servers mixtures = normalised();
    Servers fixedMixtures = fixedServers(random, n, dim, 2, true);
    Servers densities = floatServers(random, m, dim, 1, false);
    Servers fixedDensities = fixedServers(random, m, dim, 1, false);

    explicit Kit(Scene& scene) {
        scene.mine([this] {
            for (Servers* servers : {&mixtures, &fixedMixtures, &densities, &fixedDensities})
                *servers = {};
        });
    }
    Kit(const Kit&) = delete;
    Kit& operator=(const Kit&) = delete;

    void setCodebooks(int count = m) {
        ASSERT_EQ(KTsInitSemicontCodebook(densities.table.data(), count, dim, 0), 1);
        ASSERT_EQ(KTwInitSemicontCodebook(fixedDensities.table.data(), count, dim, 0), 1);
    }
    static void freeCodebooks() {
        KTsFreeSemicontCodebook();
        KTwFreeSemicontCodebook();
    }
    int continuous(int flags = KT_HMM_EXPONENTIAL) {
        return (flags == int(KT_HMM_EXPONENTIAL) ? model : costs)
            .continuous(mixtures.table.data(), dim, flags);
    }
    int fixedContinuous() {
        return fixed.continuous(fixedMixtures.table.data(), dim, KT_HMM_LOGARITHMIC, -8);
    }

private:
    // Full ones whose normalisation needs the thread's work table.
    Servers normalised() {
        Servers servers;
        for (int i = 0; i < n; ++i)
            servers.add(mixtures::randomMixture(random, dim, 2, true).server(KT_GAUSS_NORMALIZE));
        KTFreeGaussTbls();
        return servers;
    }
};

// The six creations, as lambdas of a kit; `initial` may be null, `nStates` anything.
struct Creation {
    const char* name;
    int (*call)(Kit& kit, bool withInitial, int nStates);
};
template <class T>
const T* initialOf(const Model<T>& model, bool given) {
    return given ? model.initial.data() : nullptr;
}
const Creation creations[] = {
    {"KTwInitHMMServer",
     [](Kit& k, bool given, int nStates) {
         return KTwInitHMMServer(pointers(k.fixed.trans).data(), pointers(k.fixed.out).data(),
                                 initialOf(k.fixed, given), nStates, m, KT_HMM_LOGARITHMIC);
     }},
    {"KTsInitHMMServer",
     [](Kit& k, bool given, int nStates) {
         return KTsInitHMMServer(pointers(k.model.trans).data(), pointers(k.model.out).data(),
                                 initialOf(k.model, given), nStates, m, KT_HMM_EXPONENTIAL);
     }},
    {"KTwInitContHMMServer",
     [](Kit& k, bool given, int nStates) {
         return KTwInitContHMMServer(pointers(k.fixed.trans).data(), initialOf(k.fixed, given),
                                     k.fixedMixtures.table.data(), nStates, dim, KT_HMM_LOGARITHMIC,
                                     -8);
     }},
    {"KTsInitContHMMServer",
     [](Kit& k, bool given, int nStates) {
         return KTsInitContHMMServer(pointers(k.model.trans).data(), initialOf(k.model, given),
                                     k.mixtures.table.data(), nStates, dim, KT_HMM_EXPONENTIAL);
     }},
    {"KTwInitSemicontHMMServer",
     [](Kit& k, bool given, int nStates) {
         return KTwInitSemicontHMMServer(pointers(k.fixed.trans).data(),
                                         pointers(k.fixed.out).data(), initialOf(k.fixed, given),
                                         nStates, m, dim, KT_HMM_LOGARITHMIC, -8);
     }},
    {"KTsInitSemicontHMMServer",
     [](Kit& k, bool given, int nStates) {
         return KTsInitSemicontHMMServer(pointers(k.model.trans).data(),
                                         pointers(k.model.out).data(), initialOf(k.model, given),
                                         nStates, m, dim, KT_HMM_EXPONENTIAL);
     }},
};

Bytes written(int id) {
    const Stream stream(std::tmpfile());
    KTWriteHMMServer(stream.get(), id, "model");
    return support::contentsOf(stream.get());
}

template <class T>
struct Frames {
    explicit Frames(std::mt19937& random)
        : values(framesOf<T>(random, 5, dim)), rows(pointers(values)) {}
    Rows<T> values;
    std::vector<const T*> rows;
};

} // namespace

// --- creation and copies ---

TEST(HandlerRelease, CreationWithoutData) {
    for (const Creation& creation : creations)
        onReport([&](Scene& scene) {
            SCOPED_TRACE(creation.name);
            Kit kit(scene);
            kit.setCodebooks();
            EXPECT_EQ(scene.run([&] { return creation.call(kit, false, n); }), -1);
        });
}

TEST(HandlerRelease, CreationOfNoStates) {
    for (const Creation& creation : creations)
        for (const int states : {0, -1, INT_MIN})
            onReport([&](Scene& scene) {
                SCOPED_TRACE(creation.name);
                Kit kit(scene);
                kit.setCodebooks();
                EXPECT_EQ(scene.run([&] { return creation.call(kit, true, states); }), -1);
            });
}

TEST(HandlerRelease, CreationWithoutMemoryForAMixture) {
    for (const int k : {2, 3})
        onEveryFailure([&](Scene& scene) {
            Kit kit(scene);
            const int id = scene.run([&] { return creations[k].call(kit, true, n); });
            if (scene.acted()) {
                EXPECT_EQ(id, -1);
            }
        });
}

TEST(HandlerRelease, CreationThatDisagreesWithTheCodebook) {
    for (const int k : {4, 5})
        onReport([&](Scene& scene) {
            Kit kit(scene);
            kit.setCodebooks(m - 1);
            EXPECT_EQ(scene.run([&] { return creations[k].call(kit, true, n); }), -3);
        });
}

TEST(HandlerRelease, CopyWithoutMemory) {
    for (const bool isFixed : {false, true})
        onEveryFailure([&](Scene& scene) {
            Kit kit(scene);
            const int id = isFixed ? kit.fixedContinuous() : kit.continuous();
            const int copy = scene.run([&] { return KTCopyHMMServer(id); });
            if (scene.acted()) {
                EXPECT_EQ(copy, -1);
            }
        });
}

// A server for which memory ran out silently has no form yet, which its copy's last step reports.
TEST(HandlerRelease, CopyOfAServerWithoutArrays) {
    onReport([&](Scene& scene) {
        Kit kit(scene);
        const int id =
            KTsInitHMMServer(pointers(kit.model.trans).data(), pointers(kit.model.out).data(),
                             kit.model.initial.data(), 1, INT_MAX, 0);
        ASSERT_GT(id, 0);
        const int copy = scene.run([&] { return KTCopyHMMServer(id); });
        EXPECT_TRUE(copy == -1 ||
                    KTGetHMMParm(copy, nullptr, nullptr, nullptr, nullptr, nullptr) == -1);
    });
}

// --- queries and files ---

TEST(HandlerRelease, QueryWithoutMemoryForAMixture) {
    for (const bool isFixed : {false, true})
        onEveryFailure([&](Scene& scene) {
            Kit kit(scene);
            const int id = isFixed ? kit.fixedContinuous() : kit.continuous();
            GaussMixServer marker{};
            GaussMixServer* slots[n] = {&marker, nullptr, &marker, &marker};
            EXPECT_EQ(scene.run([&] {
                return KTGetHMMProb(id, nullptr, nullptr, nullptr, nullptr, slots);
            }),
                      0);
            bool gone = false; // from the mixture that failed on there are none
            for (GaussMixServer* slot : {slots[0], slots[2], slots[3]}) {
                EXPECT_NE(slot, &marker);
                gone = gone || slot == nullptr;
                EXPECT_EQ(slot == nullptr, gone);
                KTsFreeGaussMixServer(slot);
            }
            EXPECT_EQ(gone, scene.acted());
            EXPECT_EQ(slots[1], nullptr);
        });
}

TEST(HandlerRelease, WritingGoesOnAfterABacktrace) {
    for (const int at : {1, 2, n})
        onReport(
            [&](Scene& scene) {
                Kit kit(scene);
                const int id = kit.continuous();
                const Stream stream(std::tmpfile());
                KTSetStatus(KT_StsUnknownErr);
                scene.run([&] {
                    KTWriteHMMServer(stream.get(), id, "model");
                    return 0;
                });
                EXPECT_EQ(scene.reports(), at); // the rest of the mixtures is gone
            },
            at);
}

TEST(HandlerRelease, ReadingWithoutMemory) {
    for (const bool isFixed : {false, true})
        onEveryFailure([&](Scene& scene) {
            Kit kit(scene);
            const Bytes image = written(isFixed ? kit.fixedContinuous() : kit.continuous());
            KTHMMFreeAll();
            KTSetHMMMode(0);
            const Stream stream = support::streamOf(image);
            const int id = scene.run([&] { return KTReadHMMServer(stream.get(), nullptr); });
            if (scene.acted()) {
                EXPECT_EQ(id, -1);
            }
        });
}

TEST(HandlerRelease, ReadingAMixtureWithoutCovariances) {
    onReport([&](Scene& scene) {
        Kit kit(scene);
        Bytes image = written(kit.continuous());
        KTHMMFreeAll();
        const std::string tag = "GAUS";
        const auto mixture = std::search(image.begin(), image.end(), tag.begin(), tag.end());
        std::fill_n(mixture + 12, 8, static_cast<unsigned char>(0)); // both pointers
        const Stream stream = support::streamOf(image);
        EXPECT_EQ(scene.run([&] { return KTReadHMMServer(stream.get(), nullptr); }), -1);
    });
}

// --- transforms, measurement, classes ---

TEST(HandlerRelease, TransformsWithoutMemory) {
    const auto run = [](auto makeSource, auto transform) {
        onEveryFailure([&](Scene& scene) {
            Kit kit(scene);
            const int id = makeSource(kit);
            const int result = scene.run([&] { return transform(id); });
            if (scene.acted()) {
                EXPECT_EQ(result, -1);
            }
        });
    };
    const auto costs = [](Kit& kit) { return kit.continuous(KT_HMM_LOGARITHMIC); };
    const auto probabilities = [](Kit& kit) { return kit.continuous(); };
    const auto fixed = [](Kit& kit) { return kit.fixedContinuous(); };
    run(costs, KTsExpHMMServer);
    run(probabilities, KTsLogHMMServer);
    run(costs, [](int id) { return KTswConvertHMMServer(id, -8, -14, -8, -4); });
    run(fixed, [](int id) { return KTwsConvertHMMServer(id, 8, -14, -8, -4); });
}

TEST(HandlerRelease, TransformsThatAreRefused) {
    const auto run = [](int flags, auto transform) {
        onReport([&](Scene& scene) {
            Kit kit(scene);
            const int id = kit.continuous(flags);
            EXPECT_EQ(scene.run([&] { return transform(id); }), -1);
        });
    };
    run(KT_HMM_EXPONENTIAL, KTsExpHMMServer);
    run(KT_HMM_LOGARITHMIC, KTsLogHMMServer);
    run(KT_HMM_EXPONENTIAL, [](int id) { return KTswConvertHMMServer(id, -8, -14, -8, -4); });
    run(KT_HMM_EXPONENTIAL, [](int id) { return KTwsConvertHMMServer(id, -8, -14, -8, -4); });
}

TEST(HandlerRelease, MeasuringWithoutMemory) {
    for (const bool isFixed : {false, true})
        onEveryFailure([&](Scene& scene) {
            Kit kit(scene);
            const int id = isFixed ? kit.fixedContinuous() : kit.continuous(KT_HMM_LOGARITHMIC);
            int orders[4] = {};
            scene.run([&] {
                KTGetHMMScales(id, &orders[0], &orders[1], &orders[2], &orders[3]);
                return 0;
            });
            EXPECT_EQ(orders[1] == 0 && orders[2] == 0, scene.acted());
        });
}

TEST(HandlerRelease, JoiningTheWrongClass) {
    onReport([&](Scene& scene) {
        Kit kit(scene);
        const int group = KTCreateHMMClass();
        ASSERT_EQ(KTAddHMMToClass(group, kit.model.discrete(KT_HMM_EXPONENTIAL)), 1);
        const int id = kit.continuous();
        EXPECT_EQ(scene.run([&] { return KTAddHMMToClass(group, id); }), -1);
    });
}

// --- evaluation ---

namespace {

// Each gets a server of its domain and form, or a class of it, and says whether it has failed.
struct Evaluation {
    int (*create)(Kit& kit);
    bool (*fails)(int hmm, const float* const* frames, const short* const* words);
};
const Evaluation evaluations[] = {
    {[](Kit& kit) { return kit.model.semicont(dim, KT_HMM_EXPONENTIAL); },
     [](int hmm, const float* const* frames, const short* const*) {
         return KTsEvalSemicontHMMForward(hmm, frames, 5, nullptr) == FLT_MAX;
     }},
    {[](Kit& kit) { return kit.costs.semicont(dim, KT_HMM_LOGARITHMIC); },
     [](int hmm, const float* const* frames, const short* const*) {
         return KTsEvalSemicontHMMViterbi(hmm, frames, 5, nullptr) == FLT_MAX;
     }},
    {[](Kit& kit) { return kit.fixed.semicont(dim, KT_HMM_LOGARITHMIC, -8); },
     [](int hmm, const float* const*, const short* const* words) {
         int scale = 0;
         return KTwEvalSemicontHMMViterbi(hmm, words, 5, nullptr, 0, &scale) == INT_MAX;
     }},
};

} // namespace

// A codebook of other counts than the model's, or none; the model alone, and as the member of a
// class.
TEST(HandlerRelease, EvaluationWithADisagreeingCodebook) {
    for (const Evaluation& evaluation : evaluations)
        for (const int densities : {m - 1, 0})
            for (const bool inClass : {false, true})
                onReport([&](Scene& scene) {
                    Kit kit(scene);
                    kit.setCodebooks();
                    int hmm = evaluation.create(kit);
                    const int group = KTCreateHMMClass();
                    ASSERT_EQ(KTAddHMMToClass(group, hmm), 1);
                    if (inClass) hmm = -group;
                    Kit::freeCodebooks();
                    if (densities > 0) kit.setCodebooks(densities);
                    const Frames<float> frames(kit.random);
                    const Frames<short> words(kit.random);
                    EXPECT_TRUE(scene.run([&] {
                        return evaluation.fails(hmm, frames.rows.data(), words.rows.data());
                    }));
                });
}

TEST(HandlerRelease, ForwardBackwardWithADisagreeingCodebook) {
    for (const int at : {1, 2})
        onReport(
            [&](Scene& scene) {
                Kit kit(scene);
                kit.setCodebooks();
                const int id = kit.model.semicont(dim, KT_HMM_EXPONENTIAL);
                Kit::freeCodebooks(); // three reports: no densities, and both counts
                double lattice[2 * 2 * n], scales[2];
                const float outputs[2 * n] = {1, 1, 1, 1, 1, 1, 1, 1};
                int exponent = 0;
                const double result = scene.run([&] {
                    return KTsEvalSemicontHMMForwardBackward(id, lattice, scales, outputs, 2,
                                                             &exponent);
                });
                EXPECT_LE(result, 0.0);
                EXPECT_EQ(exponent, INT_MAX);
            },
            at);
}

// --- training ---

// Two reports at the beginning, and three for each sequence of each iteration: the handler acts at
// each.
TEST(HandlerRelease, TrainingWithADisagreeingCodebook) {
    for (int at = 1; at <= 2 + 3 * 4; ++at)
        onReport(
            [&](Scene& scene) {
                SCOPED_TRACE(at);
                Kit kit(scene);
                kit.setCodebooks();
                const int id = kit.model.semicont(dim, KT_HMM_EXPONENTIAL);
                Kit::freeCodebooks();
                const Frames<float> frames(kit.random);
                const float* const* sequences[] = {frames.rows.data(), frames.rows.data()};
                const int lengths[] = {5, 4};
                float tolerance = 1e-30f; // the change is 0: one iteration, a call
                const int result = scene.run([&] {
                    int trained =
                        KTsTrainSemicontHMMBaumWelch(id, sequences, lengths, 2, 2, &tolerance);
                    if (trained > 0)
                        trained = KTsTrainSemicontHMMBaumWelch(trained, sequences, lengths, 2, 2,
                                                               &tolerance);
                    return trained;
                });
                EXPECT_EQ(result, -1);
            },
            at);
}

// A codebook with fewer densities still lets sequences count, so that iterations follow one
// another.
TEST(HandlerRelease, TrainingThatHasRunForAWhile) {
    for (int at = 1; at <= 9; ++at)
        onReport(
            [&](Scene& scene) {
                SCOPED_TRACE(at);
                Kit kit(scene);
                kit.setCodebooks();
                const int id = kit.model.semicont(dim, KT_HMM_EXPONENTIAL);
                Kit::freeCodebooks();
                kit.setCodebooks(m - 1);
                const Frames<float> frames(kit.random);
                const float* const* sequences[] = {frames.rows.data(), frames.rows.data()};
                const int lengths[] = {5, 4};
                float tolerance = 1e-30f;
                EXPECT_EQ(scene.run([&] {
                    return KTsTrainSemicontHMMBaumWelch(id, sequences, lengths, 2, 4, &tolerance);
                }),
                          -1);
                EXPECT_EQ(scene.reports(), at); // it has ended at once
                EXPECT_EQ(tolerance, 1e-30f);
            },
            at);
}

namespace {

int nTrainingReports = 0;
int freeCodebookAtThird(int status, const char*, const char*, const char*, int) {
    if (++nTrainingReports == 3) KTsFreeSemicontCodebook();
    return status;
}

// The start values and weights after one iteration on the first nSequences.
std::vector<float> trainedOnce(int nSequences, KTErrorHandler handler) {
    Scene scene(Manner::releases, 100);
    Kit kit(scene);
    kit.setCodebooks();
    const int id = kit.model.semicont(dim, KT_HMM_EXPONENTIAL);
    Kit::freeCodebooks();
    kit.setCodebooks(m - 1);
    const Frames<float> frames(kit.random);
    const float* const* sequences[] = {frames.rows.data(), frames.rows.data()};
    const int lengths[] = {5, 4};
    const KTErrorHandler before = KTRedirectError(handler);
    nTrainingReports = 0;
    const int trained = scene.run([&] {
        return KTsTrainSemicontHMMBaumWelch(id, sequences, lengths, nSequences, 1, nullptr);
    });
    KTRedirectError(before);
    std::vector<float> values(n + n * m);
    void* rows[n];
    for (int i = 0; i < n; ++i)
        rows[i] = values.data() + n + i * m;
    EXPECT_EQ(KTGetHMMProb(trained, values.data(), nullptr, nullptr, rows, nullptr), 0);
    return values;
}

} // namespace

// Only the codebook goes, before the second sequence: that one counts for nothing then, and no
// value of a frame of the first takes the place of its own.
TEST(HandlerRelease, TrainingWhoseCodebookGoes) {
    const std::vector<float> ofFirst = trainedOnce(1, KTNulDevReport);
    EXPECT_EQ(trainedOnce(2, freeCodebookAtThird), ofFirst);
    EXPECT_NE(trainedOnce(2, KTNulDevReport), ofFirst);
}

TEST(HandlerRelease, ContinuousTrainingWithoutMemory) {
    onEveryFailure([&](Scene& scene) {
        Kit kit(scene);
        const int id = kit.continuous();
        const Frames<float> frames(kit.random);
        const float* const* sequences[] = {frames.rows.data()};
        const int length = 5;
        float tolerance = 1e-30f;
        const int result = scene.run(
            [&] { return KTsTrainContHMMBaumWelch(id, sequences, &length, 1, 3, &tolerance); });
        if (scene.acted()) {
            EXPECT_EQ(result, -1);
        }
    });
}

// --- codebooks ---

TEST(HandlerRelease, CodebookWithoutMemoryForADensity) {
    for (const bool isFixed : {false, true})
        onEveryFailure([&](Scene& scene) {
            Kit kit(scene);
            KTSetHMMMode(0);
            const int result = scene.run([&] {
                return isFixed ? KTwInitSemicontCodebook(kit.fixedDensities.table.data(), m, dim, 0)
                               : KTsInitSemicontCodebook(kit.densities.table.data(), m, dim, 0);
            });
            if (scene.acted()) {
                EXPECT_EQ(result, 1); // as ever; the status and the codebook say otherwise
            }
        });
}

// The vectors stand in tables of the library, which the handler releases as well.
TEST(HandlerRelease, CodebookMadeWithoutMemory) {
    constexpr int count = 40;
    for (const int flags : {0, KT_GAUSS_FULL | KT_GAUSS_NORMALIZE})
        for (const bool isFixed : {false, true})
            onEveryFailure([&](Scene& scene) {
                std::mt19937 random(3);
                std::vector<int> labels;
                float** vectors = KTsAlloc2(count, dim);
                short** words = KTwAlloc2(count, dim);
                for (int i = 0; i < count; ++i) {
                    labels.push_back(i % 2);
                    const auto values = mixtures::randomWords(random, dim, 100);
                    for (int k = 0; k < dim; ++k)
                        vectors[i][k] = words[i][k] = values[at(k)];
                }
                scene.mine([=] {
                    KTFree2(vectors);
                    KTFree2(words);
                });
                KTSetHMMMode(0);
                scene.run([&] {
                    if (isFixed)
                        KTwMakeSemicontCodebook(words, labels.data(), count, dim, 2, flags, 0, -20);
                    else
                        KTsMakeSemicontCodebook(vectors, labels.data(), count, dim, 2, flags);
                    return 0;
                });
            });
}

// --- mixtures ---

TEST(HandlerRelease, MixturesWithoutMemory) {
    const auto run = [](bool fromFixed, auto make) {
        onEveryFailure([&](Scene& scene) {
            Kit kit(scene);
            GaussMixServer* source = fromFixed ? kit.fixedMixtures.table[0] : kit.mixtures.table[0];
            GaussMixServer* made = scene.run([&] { return make(source); });
            if (scene.acted()) {
                EXPECT_EQ(made, nullptr);
            }
            KTsFreeGaussMixServer(made);
        });
    };
    using namespace ktl::gauss;
    run(false, [](GaussMixServer* s) {
        return KTsInitGaussMixServer(weights<float>(s), means<float>(s), matrices<float>(s),
                                     nullptr, dim, 2, KT_GAUSS_NORMALIZE);
    });
    run(true, [](GaussMixServer* s) {
        return KTwInitGaussMixServer(weights<short>(s), means<short>(s), matrices<short>(s),
                                     nullptr, dim, 2, 0, -13);
    });
    run(false, [](GaussMixServer* s) { return KTswConvertGaussMixServer(s, -14, -8, -4); });
    run(true, [](GaussMixServer* s) {
        s->flags |= KT_GAUSS_NORMALIZE;
        return KTwsConvertGaussMixServer(s, -14, -8, -4);
    });
    run(false, [](GaussMixServer* s) { // merges its own means
        return KTsTrainGaussMixServer(s, means<float>(s), 2, dim);
    });
}

TEST(HandlerRelease, MixturesThatAreRefused) {
    onReport([&](Scene& scene) {
        Kit kit(scene);
        GaussMixServer* source = kit.fixedMixtures.table[0];
        EXPECT_EQ(scene.run([&] { return KTswConvertGaussMixServer(source, -14, -8, -4); }),
                  nullptr);
    });
    onReport([&](Scene& scene) {
        Kit kit(scene);
        GaussMixServer* source = kit.mixtures.table[0];
        EXPECT_EQ(scene.run([&] { return KTwsConvertGaussMixServer(source, -14, -8, -4); }),
                  nullptr);
    });
}

TEST(HandlerRelease, InversionWithoutMemoryForTheResult) {
    for (const bool full : {false, true})
        onReport([&](Scene& scene) {
            std::mt19937 random(5);
            Server raw = mixtures::randomMixture(random, dim, 2, full).server();
            // the work table is there
            KTsFreeGaussMixServer(KTsInvertGaussianCovMatrix(raw.get(), 0));
            scene.mine([&] { raw.reset(); });
            scene.failAt = 1;
            EXPECT_EQ(scene.run([&] { return KTsInvertGaussianCovMatrix(raw.get(), 0); }), nullptr);
        });
}

namespace {

long blocksAtReport = 0;
int noteBlocks(int status, const char*, const char*, const char*, int) {
    blocksAtReport = support::alloc::liveBlocks();
    return status;
}

} // namespace

// The one failure that releases its source has done so when it reports: afterwards it touches
// nothing.
TEST(HandlerRelease, InversionReleasesItsSourceBeforeTheReport) {
    std::mt19937 random(6);
    GaussMixServer* raw = mixtures::randomMixture(random, dim, 2, true).server().release();
    KTFreeGaussTbls();
    const KTErrorHandler before = KTRedirectError(noteBlocks);
    const long blocks = support::alloc::liveBlocks();
    support::alloc::arm(1);
    EXPECT_EQ(KTsInvertGaussianCovMatrix(raw, 0), nullptr);
    support::alloc::disarm();
    EXPECT_EQ(blocksAtReport, blocks - 1);
    EXPECT_EQ(support::alloc::liveBlocks(), blocks - 1);
    KTRedirectError(before);
    KTSetStatus(KT_StsOk);
}

TEST(HandlerRelease, MixtureFilesWithoutMemory) {
    onEveryFailure([&](Scene& scene) {
        Kit kit(scene);
        const Stream stream(std::tmpfile());
        KTWriteGaussMixServer(stream.get(), kit.mixtures.table[0]);
        std::rewind(stream.get());
        GaussMixServer* read = scene.run([&] { return KTReadGaussMixServer(stream.get()); });
        EXPECT_EQ(read == nullptr, scene.allocationFailed);
        KTsFreeGaussMixServer(read);
    });
}
