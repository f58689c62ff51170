#include "models/forward_backward.h"
#include "models/training.h"

#include "support/alloc_faults.h"
#include "support/every_level.h"
#include "support/guarded.h"
#include "support/reports.h"

#include <cstdint>

namespace {

using namespace training;
using ForwardBackward = training::HmmTest;

constexpr int noExponent = 0x7FFFFFFF;

// What a call left behind; rows without padding.
struct Lattice {
    Lattice(std::size_t n, std::size_t frames)
        : states(n), length(frames), alphaBeta(2 * n * frames, -7.0), scales(frames, -7.0) {}
    double alpha(std::size_t t, std::size_t i) const { return alphaBeta[t * states + i]; }
    double beta(std::size_t t, std::size_t i) const { return alphaBeta[(length + t) * states + i]; }
    bool intact() const { return alphaBeta.intact() && scales.intact(); }

    std::size_t states, length;
    support::Guarded<double> alphaBeta, scales;
    double result = 0.0;
    int exponent = 0;
};

Lattice runDiscrete(int id, std::size_t n, const std::vector<int>& symbols) {
    Lattice l(n, symbols.size());
    l.result = KTsEvalHMMForwardBackward(id, symbols.data(), l.alphaBeta.data(), l.scales.data(),
                                         int(symbols.size()), &l.exponent);
    return l;
}

Lattice runContinuous(int id, std::size_t n, const std::vector<float>& outputs) {
    Lattice l(n, outputs.size() / n);
    l.result = KTsEvalContHMMForwardBackward(id, l.alphaBeta.data(), l.scales.data(),
                                             outputs.data(), int(l.length), &l.exponent);
    return l;
}

oracle::DiscreteHmm randomModel(std::mt19937& random, std::size_t n, std::size_t symbols,
                                Topology topology) {
    return {randomChain(random, n, topology), randomRows(random, n, symbols)};
}

void expectOccupancies(const Lattice& l, const oracle::Expectations& e) {
    ASSERT_GT(l.result, 0.0);
    EXPECT_NEAR(std::log(l.result) - l.exponent * std::log(2.0), e.logLikelihood,
                1e-12 * std::fabs(e.logLikelihood) + 1e-9);
    for (std::size_t t = 0; t < l.length; ++t)
        for (std::size_t i = 0; i < l.states; ++i)
            ASSERT_NEAR(l.alpha(t, i) * l.beta(t, i) / l.result, e.gamma[t][i], 1e-9)
                << t << ' ' << i;
}

// One state is stored as a full model whatever was asked for; a band needs three.
const std::size_t sizes[] = {1, 2, 3, 4, 5, 7, 8, 9, 10, 13, 16, 21};

TEST_F(ForwardBackward, OccupanciesAreTheTextbooks) {
    support::onEveryLevel([] {
        std::mt19937 random(1);
        for (Topology topology : topologies)
            for (std::size_t n : sizes) {
                SCOPED_TRACE(n);
                const auto model = randomModel(random, n, 6, topology);
                const auto symbols = drawSymbols(random, model, 1 + int(random() % 40));
                const int id = makeDiscrete(model);
                const Lattice l = runDiscrete(id, n, symbols);
                expectOccupancies(
                    l, oracle::expectations(model.chain, oracle::logOutputs(model, symbols)));
                EXPECT_TRUE(l.intact());
                KTFreeHMMServer(id);
            }
    });
}

TEST_F(ForwardBackward, TheThreeFlavoursAgree) {
    std::mt19937 random(2);
    for (Topology topology : topologies)
        for (std::size_t n : {1u, 4u, 11u}) {
            const auto model = randomModel(random, n, 5, topology);
            const auto symbols = drawSymbols(random, model, 30);
            std::vector<float> outputs;
            for (int symbol : symbols)
                for (std::size_t i = 0; i < n; ++i)
                    outputs.push_back(float(model.b[i][std::size_t(symbol)]));
            const int id = makeDiscrete(model);
            const Lattice discrete = runDiscrete(id, n, symbols);
            const Lattice continuous = runContinuous(id, n, outputs);
            EXPECT_EQ(discrete.alphaBeta.values(), continuous.alphaBeta.values());
            EXPECT_EQ(discrete.result, continuous.result);
            support::CapturedReports reports; // there is no codebook
            Lattice semicontinuous(n, symbols.size());
            semicontinuous.result = KTsEvalSemicontHMMForwardBackward(
                id, semicontinuous.alphaBeta.data(), semicontinuous.scales.data(), outputs.data(),
                30, &semicontinuous.exponent);
            EXPECT_EQ(discrete.alphaBeta.values(), semicontinuous.alphaBeta.values());
            EXPECT_EQ(discrete.exponent, semicontinuous.exponent);
        }
}

TEST_F(ForwardBackward, AllLevelsGiveTheSameBits) {
    std::mt19937 random(3);
    for (Topology topology : topologies)
        for (std::size_t n : {5u, 10u, 19u, 40u}) {
            const auto model = randomModel(random, n, 6, topology);
            const auto symbols = drawSymbols(random, model, 300);
            const int id = makeDiscrete(model);
            vsq::selectLevel(vsq::Level::baseline);
            const Lattice baseline = runDiscrete(id, n, symbols);
            support::onEveryLevel([&] {
                const Lattice l = runDiscrete(id, n, symbols);
                EXPECT_EQ(l.alphaBeta.values(), baseline.alphaBeta.values());
                EXPECT_EQ(l.scales.values(), baseline.scales.values());
                EXPECT_EQ(l.result, baseline.result);
            });
        }
}

TEST_F(ForwardBackward, SingleFrameIsNotScaled) {
    const oracle::DiscreteHmm model{{{0.25, 0.5}, {{0.5, 0.5}, {0.5, 0.5}}},
                                    {{0.5, 0.25}, {0.125, 0.25}}};
    const Lattice l = runDiscrete(makeDiscrete(model), 2, {0});
    EXPECT_EQ(l.alphaBeta.values(), (std::vector<double>{0.125, 0.0625, 1.0, 1.0}));
    EXPECT_EQ(l.exponent, 0);
    EXPECT_EQ(l.result, 0.1875);
    EXPECT_EQ(l.scales[0], 1.0);
}

TEST_F(ForwardBackward, LastFrameIsBroughtIntoRange) {
    std::mt19937 random(4);
    const auto model = randomModel(random, 4, 8, Topology::full);
    const Lattice l = runDiscrete(makeDiscrete(model), 4, drawSymbols(random, model, 5));
    EXPECT_GE(l.result, 1.0);
    EXPECT_LT(l.result, 2.0);
    EXPECT_EQ(std::ldexp(1.0, l.exponent), l.scales[4]);
    for (std::size_t t = 0; t < 4; ++t)
        EXPECT_EQ(l.scales[t], 1.0); // far from 2^-128
    EXPECT_GT(l.exponent, 0);
}

TEST_F(ForwardBackward, ImpossibleSymbolGivesZero) {
    oracle::DiscreteHmm model{{{1.0, 0.0}, {{0.5, 0.5}, {0.5, 0.5}}}, {{1.0, 0.0}, {1.0, 0.0}}};
    const int id = makeDiscrete(model);
    for (const std::vector<int>& symbols : {std::vector<int>{0, 1, 0}, {1, 0}, {1}}) {
        const Lattice l = runDiscrete(id, 2, symbols);
        EXPECT_EQ(l.result, 0.0);
        EXPECT_EQ(l.exponent, noExponent);
    }
}

TEST_F(ForwardBackward, SymbolOutsideTheAlphabetGivesZero) {
    std::mt19937 random(5);
    const int id = makeDiscrete(randomModel(random, 3, 4, Topology::full));
    for (int symbol : {-1, 4, INT32_MAX, INT32_MIN}) {
        const Lattice l = runDiscrete(id, 3, {0, symbol, 1});
        EXPECT_EQ(l.result, 0.0);
        EXPECT_EQ(l.exponent, noExponent);
        EXPECT_TRUE(l.intact());
    }
}

TEST_F(ForwardBackward, LongSequencesCountTheirExponent) {
    const std::size_t frames = 200000;
    const oracle::DiscreteHmm model{{{1.0}, {{1.0}}}, {{0.125, 0.875}}};
    const Lattice l = runDiscrete(makeDiscrete(model), 1, std::vector<int>(frames, 0));
    EXPECT_EQ(l.exponent, int(3 * frames));
    EXPECT_EQ(l.result, 1.0);
    double product = 0.0;
    for (std::size_t t = 0; t < frames; ++t)
        product += std::log2(l.scales[t]);
    EXPECT_EQ(product, double(l.exponent));
}

// A drop by more than 2^256 in one frame is made good by 2^256 alone.
TEST_F(ForwardBackward, OneStepIsClamped) {
    const oracle::DiscreteHmm model{{{1.0}, {{1.0}}}, {{1.0}}};
    const int id = makeDiscrete(model);
    const float tiny = 0x1p-120f;
    const Lattice l = runContinuous(id, 1, {tiny, tiny, tiny, 1.0f});
    // 2^-120, 2^-240 to 2^0 by 2^240, 2^-120, 2^-120 to 2^0 by 2^120
    EXPECT_EQ(l.scales.values(), (std::vector<double>{1.0, 0x1p240, 1.0, 0x1p120}));
    EXPECT_EQ(l.result, 1.0);
    EXPECT_EQ(l.exponent, 360);
    const oracle::DiscreteHmm rare{{{double(0x1p-100f)}, {{double(0x1p-100f)}}}, {{1.0}}};
    const Lattice clamped = runContinuous(makeDiscrete(rare), 1, {tiny, tiny});
    EXPECT_EQ(clamped.scales[1], 0x1p256); // for a sum of 2^-440
    EXPECT_EQ(clamped.result, 0x1p-184);
    EXPECT_EQ(clamped.exponent, 256);
}

TEST_F(ForwardBackward, LargeOutputsAreScaledDown) {
    const oracle::DiscreteHmm model{{{0.5, 0.5}, {{0.5, 0.5}, {0.5, 0.5}}}, {{1.0}, {1.0}}};
    const Lattice l = runContinuous(makeDiscrete(model), 2, std::vector<float>(2 * 50, 0x1p100f));
    EXPECT_EQ(l.exponent, -5000);
    EXPECT_EQ(l.result, 1.0);
    for (std::size_t t = 0; t < 50; ++t)
        EXPECT_EQ(l.alpha(t, 0) * l.beta(t, 0), 0.5);
}

TEST_F(ForwardBackward, SumsBeyondTheDoublesAndNegativeOnesFail) {
    const oracle::DiscreteHmm model{{{1.0}, {{1.0}}}, {{1.0}}};
    const int id = makeDiscrete(model);
    const float infinity = std::numeric_limits<float>::infinity();
    for (float bad : {infinity, -1.0f, std::numeric_limits<float>::quiet_NaN()})
        for (const std::vector<float>& outputs : {std::vector<float>{1.0f, bad, 1.0f}, {bad}}) {
            const Lattice l = runContinuous(id, 1, outputs);
            if (outputs.size() == 1 && bad == infinity) continue; // a single frame is not looked at
            EXPECT_EQ(l.result, -1.0) << bad;
            EXPECT_EQ(l.exponent, noExponent);
        }
}

TEST_F(ForwardBackward, BackwardRowThatVanishesGivesZero) {
    // rows of opposite signs: the forward sum is 1/2, the backward one 0
    const oracle::DiscreteHmm model{{{0.75, 0.25}, {{0.0, 1.0}, {0.0, -1.0}}}, {{1.0}, {1.0}}};
    const Lattice l = runDiscrete(makeDiscrete(model), 2, {0, 0});
    EXPECT_EQ(l.result, 0.0);
    EXPECT_EQ(l.exponent, noExponent);
}

// --- backward values beyond the doubles ---

// A walk to the last state, one state and a factor of 1e-30 a frame, while the last one would take
// every frame as it is.
std::vector<float> costlyWalk(std::size_t n, std::size_t frames) {
    std::vector<float> outputs(n * frames, 0.0f);
    for (std::size_t t = 0; t < frames; ++t) {
        outputs[t * n + n - 1] = 1.0f;
        if (t + 1 < n) outputs[t * n + t] = 1e-30f;
    }
    return outputs;
}

oracle::DiscreteHmm walkModel(std::size_t n, Topology topology) {
    oracle::DiscreteHmm model{{Row(n, 0.0), Rows(n, Row(n, 0.0))}, Rows(n, Row{1.0})};
    model.chain.pi[0] = 1.0;
    for (std::size_t i = 0; i < n; ++i)
        for (std::size_t j = 0; j < n; ++j)
            if (connects(topology, i, j) && (j + 1 < n || i + 2 >= n)) model.chain.a[i][j] = 0.5;
    return model;
}

TEST_F(ForwardBackward, BackwardValuesOfStatesThatAreNotReachedStayFinite) {
    const std::size_t frames = 20;
    support::onEveryLevel([&] {
        for (Topology topology : topologies)
            for (std::size_t n : {15u, 16u}) {
                SCOPED_TRACE(testing::Message() << "topology " << int(topology) << " states " << n);
                const int id = makeDiscrete(walkModel(n, topology));
                const Lattice l = runContinuous(id, n, costlyWalk(n, frames));
                ASSERT_GT(l.result, 0.0);
                EXPECT_TRUE(l.intact());
                for (std::size_t t = 0; t < frames; ++t)
                    for (std::size_t i = 0; i < n; ++i) {
                        const double occupancy = i == std::min(t, n - 1) ? 1.0 : 0.0;
                        ASSERT_TRUE(std::isfinite(l.beta(t, i))) << t << ' ' << i;
                        ASSERT_NEAR(l.alpha(t, i) * l.beta(t, i) / l.result, occupancy, 1e-12);
                        if (t + 1 == frames) {
                            EXPECT_EQ(l.beta(t, i), 1.0);
                        }
                    }
                KTFreeHMMServer(id);
            }
    });
}

TEST_F(ForwardBackward, BackwardValueOfADenormalStateIsAtMostTheLargestDouble) {
    // 1e-320 of the first state's value when the second takes over
    const oracle::DiscreteHmm model{{{0.5, 0.5}, {{1.0, 0.0}, {0.0, 1.0}}}, {{1.0}, {1.0}}};
    std::vector<float> outputs;
    for (int t = 0; t < 28; ++t)
        for (const float output : {t < 8 ? 1.0f : 1e-40f, t < 8 ? 1e-40f : 1.0f})
            outputs.push_back(output);
    const Lattice l = runContinuous(makeDiscrete(model), 2, outputs);
    ASSERT_GT(l.result, 0.0);
    for (std::size_t t = 0; t < 28; ++t) {
        EXPECT_LE(l.beta(t, 1), std::numeric_limits<double>::max()) << t;
        EXPECT_EQ(l.alpha(t, 0) * l.beta(t, 0) / l.result, 0.0) << t;
    }
    EXPECT_NEAR(l.alpha(6, 1) * l.beta(6, 1) / l.result, 1.0, 1e-12);
}

TEST_F(ForwardBackward, OccupanciesFromForwardValuesAreTheUsualOnes) {
    std::mt19937 random(9);
    for (Topology topology : topologies)
        for (std::size_t n : {1u, 2u, 3u, 7u, 64u, 65u, 130u}) {
            SCOPED_TRACE(testing::Message() << "topology " << int(topology) << " states " << n);
            const auto model = randomModel(random, n, 6, topology);
            const auto symbols = drawSymbols(random, model, 1 + int(random() % 20));
            const int id = makeDiscrete(model);
            Lattice l = runDiscrete(id, n, symbols);
            ASSERT_GT(l.result, 0.0);
            const HMMServer& server = *KTFindHMMServer(id);
            const hmm::TransitionMap map = hmm::TransitionMap::of(server);
            double* beta = l.alphaBeta.data() + n * l.length;
            std::vector<double> moves(map.size(), 0.0);
            hmm::occupanciesFromForward(
                &server,
                {l.alphaBeta.data(), beta, l.scales.data(), std::ptrdiff_t(n), int(l.length)},
                1.0 / l.result, moves.data());
            EXPECT_TRUE(l.intact());
            const auto expected =
                oracle::expectations(model.chain, oracle::logOutputs(model, symbols));
            for (std::size_t t = 0; t < l.length; ++t)
                for (std::size_t i = 0; i < n; ++i)
                    ASSERT_NEAR(l.beta(t, i), expected.gamma[t][i], 1e-9) << t << ' ' << i;
            for (std::size_t i = 0; i < n; ++i)
                for (std::size_t j = 0; j < n; ++j)
                    if (connects(map.topology, i, j)) {
                        ASSERT_NEAR(moves[map.position(int(i), int(j))], expected.xi[i][j], 1e-9);
                    }
            KTFreeHMMServer(id);
        }
}

// A model that came with a file may be a band of two states: the first two cover everything.
TEST_F(ForwardBackward, BandOfTwoStates) {
    std::mt19937 random(6);
    const auto model = randomModel(random, 2, 4, Topology::triangular);
    const int id = makeDiscrete(model);
    HMMServer* server = KTFindHMMServer(id);
    void* band = hmm::allocateArray(4, sizeof(float));
    const float* old = hmm::floats(server->transitions);
    for (int k = 0; k < 4; ++k)
        hmm::floats(band)[k] = old[k < 3 ? k : 2];
    std::free(server->transitions);
    server->transitions = band;
    server->status = (server->status & ~HMM_SERVER_TRIANGULAR) | HMM_SERVER_BANDED;
    const auto symbols = drawSymbols(random, model, 25);
    expectOccupancies(runDiscrete(id, 2, symbols),
                      oracle::expectations(model.chain, oracle::logOutputs(model, symbols)));
}

TEST_F(ForwardBackward, NothingToEvaluate) {
    double alphaBeta[2], scales[1];
    const int symbol = 0;
    int exponent = 5;
    EXPECT_EQ(KTsEvalHMMForwardBackward(1, &symbol, alphaBeta, scales, 1, &exponent), -1.0);
    EXPECT_EQ(exponent, noExponent); // no registry
    KTSetHMMMode(0);
    EXPECT_EQ(KTsEvalHMMForwardBackward(1, &symbol, alphaBeta, scales, 1, &exponent), 0.0);
    std::mt19937 random(7);
    const int id = makeDiscrete(randomModel(random, 3, 4, Topology::full));
    EXPECT_EQ(KTsEvalHMMForwardBackward(id, &symbol, alphaBeta, scales, 0, &exponent), 0.0);
    EXPECT_EQ(exponent, noExponent);
}

TEST_F(ForwardBackward, CodebookDisagreementsAreReportedAndPassedBy) {
    oracle::Components density{{1.0}, {{0.0, 0.0}}, {{{1.0, 0.0}, {0.0, 1.0}}}};
    GaussMixServer* servers[2] = {makeMixture(density), makeMixture(density)};
    ASSERT_EQ(KTsInitSemicontCodebook(servers, 2, 2, 0), 1);
    const oracle::SemicontinuousHmm model{{{1.0}, {{1.0}}}, {{0.5, 0.5}}};
    const int id = makeSemicontinuous(model, 2);
    double alphaBeta[2], scales[1];
    const float output = 0.5f;
    int exponent;
    const auto run = [&] {
        exponent = -1;
        EXPECT_EQ(KTsEvalSemicontHMMForwardBackward(id, alphaBeta, scales, &output, 1, &exponent),
                  0.5);
        EXPECT_EQ(exponent, 0);
    };
    support::CapturedReports reports;
    const auto expectReports = [&](const std::vector<std::string>& texts) {
        ASSERT_EQ(reports.count(), texts.size());
        for (std::size_t k = 0; k < texts.size(); ++k) {
            EXPECT_EQ(reports[k].status, KT_StsBadArg);
            EXPECT_EQ(reports[k].message, texts[k]);
            EXPECT_EQ(reports[k].function, "KTsEvalSemicontHMMForwardBackward");
            EXPECT_EQ(reports[k].source, "..\\_LIBSRC\\KT_HFOR");
        }
        reports.clear();
    };
    run();
    expectReports({});
    KTsFreeSemicontCodebook();
    run();
    expectReports({"_sSemicontCodebook->ccgPdfs==0", "nSymbols!=_sSemicontCodebook->nSymbols",
                   "nQuant!=_sSemicontCodebook->nQuant"});
    ASSERT_EQ(KTsInitSemicontCodebook(servers, 1, 2, 0), 1);
    run();
    expectReports({"nSymbols!=_sSemicontCodebook->nSymbols"});
    KTsFreeSemicontCodebook();
    ASSERT_EQ(KTsInitSemicontCodebook(servers, 2, 1, 0), 1);
    run();
    expectReports({"nQuant!=_sSemicontCodebook->nQuant"});
    for (GaussMixServer* server : servers)
        KTsFreeGaussMixServer(server);
}

TEST_F(ForwardBackward, AHandlerMayReleaseTheModel) {
    GaussMixServer* density = makeMixture({{1.0}, {{0.0, 0.0}}, {{{1.0, 0.0}, {0.0, 1.0}}}});
    ASSERT_EQ(KTsInitSemicontCodebook(&density, 1, 2, 0), 1);
    static int id;
    id = makeSemicontinuous({{{1.0}, {{1.0}}}, {{1.0}}}, 2);
    KTsFreeSemicontCodebook();
    KTsFreeGaussMixServer(density);
    const KTErrorHandler before =
        KTRedirectError([](int, const char*, const char*, const char*, int) {
            KTFreeHMMServer(id);
            return 0;
        });
    double alphaBeta[2], scales[1];
    const float output = 0.5f;
    int exponent = -1;
    EXPECT_LE(KTsEvalSemicontHMMForwardBackward(id, alphaBeta, scales, &output, 1, &exponent), 0.0);
    KTRedirectError(before);
    EXPECT_EQ(KTFindHMMServer(id), nullptr);
}

TEST_F(ForwardBackward, AllocatesNothing) {
    std::mt19937 random(8);
    const auto model = randomModel(random, 9, 4, Topology::triangular);
    const auto symbols = drawSymbols(random, model, 50);
    const int id = makeDiscrete(model);
    Lattice l(9, 50);
    support::alloc::arm(0);
    KTsEvalHMMForwardBackward(id, symbols.data(), l.alphaBeta.data(), l.scales.data(), 50,
                              &l.exponent);
    EXPECT_EQ(support::alloc::allocations(), 0);
    support::alloc::disarm();
}

} // namespace
