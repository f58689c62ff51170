// Servers and weights tables.
#include "perceptrons/perceptrons.h"
#include "support/alloc_faults.h"
#include "support/guarded.h"
#include "support/reports.h"

#include <algorithm>
#include <climits>
#include <cstdint>
#include <cstring>

using namespace perceptrons;

namespace {

void expectReport(const support::CapturedReports& reports, std::size_t i, int status,
                  const char* function, const char* message) {
    ASSERT_LT(i, reports.count());
    EXPECT_EQ(reports[i].status, status);
    EXPECT_EQ(reports[i].function, function);
    EXPECT_EQ(reports[i].message, message);
    EXPECT_EQ(reports[i].source, module);
}

std::ptrdiff_t paddedCount(const std::vector<int>& counts) {
    return ktl::perc::paddedWeightCount(counts.data(), int(counts.size()));
}

template <class T>
const char* initName() {
    return std::is_same_v<T, float> ? "KTsInitMLPServer" : "KTwInitMLPServer";
}

template <class T>
T*** setWeights(const std::vector<int>& counts, T value) {
    if constexpr (std::is_same_v<T, float>)
        return KTsSetWeightsStr(counts.data(), int(counts.size()), value);
    else
        return KTwSetWeightsStr(counts.data(), int(counts.size()), value);
}
void freeWeights(float*** ppp) {
    KTsFreeWeightsStr(ppp);
}
void freeWeights(short*** ppp) {
    KTwFreeWeightsStr(ppp);
}

// The table's address arithmetic as the layout tells it.
template <class T>
void expectDenseLayout(T*** ppp, const std::vector<int>& counts) {
    auto** firstRow = reinterpret_cast<T**>(ppp + counts.size() - 1);
    T* block = ppp[0][0];
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(block) % 32, 0u);
    for (std::size_t l = 1; l < counts.size(); ++l) {
        EXPECT_EQ(ppp[l - 1], firstRow);
        for (int j = 0; j < counts[l]; ++j, ++firstRow) {
            EXPECT_EQ(*firstRow, block);
            block += (counts[l - 1] + 3) / 4 * 4;
        }
    }
}

} // namespace

template <class T>
struct Servers : testing::Test {};
using Flavours = testing::Types<float, short>;
TYPED_TEST_SUITE(Servers, Flavours);

TYPED_TEST(Servers, KeepACopyOfTheNetwork) {
    using T = TypeParam;
    std::mt19937 random(1);
    Network<T> network = randomNetwork<T>(random, {3, 5, 2}, 1000);
    network.thresholds = randomVector<T>(random, 7, 10);
    network.flags |= KT_MLP_THRESHOLD | 0x40000000;
    const Server<T> server = network.server();
    ASSERT_TRUE(server);
    EXPECT_STREQ(server->identifier, (std::is_same_v<T, float>) ? "sMLPServer" : "wMLPServer");
    EXPECT_EQ(server->flags, unsigned(network.flags));
    EXPECT_EQ(server->nLayers, 3);
    EXPECT_EQ(server->nBufLen, 8);
    EXPECT_EQ(server->pThresholds, network.thresholds.data());
    EXPECT_EQ(server->pppConnections, nullptr);
    EXPECT_EQ(server->ppConnCounts, nullptr);
    EXPECT_NE(server->playerNeuronCounts, network.counts.data());
    EXPECT_EQ(std::vector<int>(server->playerNeuronCounts, server->playerNeuronCounts + 3),
              network.counts);
    expectDenseLayout(server->pppWeights, network.counts);
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(server->pNet) % 32, 0u);
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(server->pLayerOut) % 32, 0u);
    for (int l = 1; l < 3; ++l)
        for (int j = 0; j < network.counts[std::size_t(l)]; ++j) {
            const auto& row = network.weights[std::size_t(l) - 1][std::size_t(j)];
            EXPECT_EQ(std::vector<T>(server->pppWeights[l - 1][j],
                                     server->pppWeights[l - 1][j] + row.size()),
                      row);
        }
    if constexpr (std::is_same_v<T, short>) {
        EXPECT_EQ(server->weightScale, -15);
    }
}

TYPED_TEST(Servers, RowsAreFourAndEightElementsApart) {
    using T = TypeParam;
    std::mt19937 random(2);
    for (int inputs : {1, 3, 4, 5, 8}) {
        const Server<T> server = randomNetwork<T>(random, {inputs, 5}, 9).server();
        const int stride = inputs <= 4 ? 4 : 8;
        EXPECT_EQ(server->pppWeights[0][1] - server->pppWeights[0][0], stride);
        EXPECT_EQ(paddedCount({inputs, 5}), std::ptrdiff_t(stride) * 5);
    }
}

TYPED_TEST(Servers, TakeTheSigmoidPairForItsFlag) {
    using T = TypeParam;
    std::mt19937 random(3);
    for (int flags :
         {KT_MLP_SIGMOID, KT_MLP_SIGMOID | KT_MLP_ABS, KT_MLP_SIGMOID | KT_MLP_THRESHOLD}) {
        Network<T> network = randomNetwork<T>(random, {2, 3, 2}, 9, true);
        network.flags = flags;
        for (bool arrays : {true, false}) {
            if (!arrays) network.activations.clear(), network.derivatives.clear();
            const Server<T> server = network.server();
            ASSERT_TRUE(server);
            for (int l = 0; l < 2; ++l) {
                if constexpr (std::is_same_v<T, float>) {
                    EXPECT_EQ(server->ppActivation[l], KTsSigmoidActivation);
                    EXPECT_EQ(server->ppDerivative[l], KTsSigmoidDerivative);
                } else {
                    EXPECT_EQ(server->ppActivation[l], KTwSigmoidActivation);
                    EXPECT_EQ(server->ppDerivative[l], KTwSigmoidDerivative);
                }
            }
        }
    }
}

TYPED_TEST(Servers, TakeTheAbsPairForItsFlag) {
    using T = TypeParam;
    std::mt19937 random(4);
    Network<T> network = randomNetwork<T>(random, {2, 3, 2}, 9);
    network.flags = KT_MLP_ABS | 1;
    const Server<T> server = network.server();
    ASSERT_TRUE(server);
    if constexpr (std::is_same_v<T, float>) {
        EXPECT_EQ(server->ppActivation[1], KTsAbsActivation);
        EXPECT_EQ(server->ppDerivative[0], KTsAbsDerivative);
    } else {
        EXPECT_EQ(server->ppActivation[1], KTwAbsActivation);
        EXPECT_EQ(server->ppDerivative[0], KTwAbsDerivative);
    }
}

TYPED_TEST(Servers, CopyTheCallersFunctions) {
    using T = TypeParam;
    std::mt19937 random(5);
    Network<T> network = randomNetwork<T>(random, {2, 3, 2}, 9, true);
    const Server<T> server = network.server();
    ASSERT_TRUE(server);
    EXPECT_NE(server->ppActivation, network.activations.data());
    EXPECT_EQ(server->ppActivation[1], network.activations[1]);
    EXPECT_EQ(server->ppDerivative[0], network.derivatives[0]);
}

TYPED_TEST(Servers, AreRefusedWithoutFunctions) {
    using T = TypeParam;
    std::mt19937 random(6);
    for (int flags : {0, KT_MLP_THRESHOLD})
        for (int missing : {0, 1, 2}) {
            Network<T> network = randomNetwork<T>(random, {2, 3}, 9, true);
            network.flags = flags;
            if (missing != 1) network.activations.clear();
            if (missing != 0) network.derivatives.clear();
            support::CapturedReports reports;
            EXPECT_FALSE(network.server());
            ASSERT_EQ(reports.count(), 1u);
            expectReport(reports, 0, KT_StsBadArg, initName<T>(),
                         "can't define type of activation and derivative function to use");
            EXPECT_EQ(KTGetStatus(), KT_StsBadArg);
        }
}

TYPED_TEST(Servers, OfOneLayerHaveEmptyTables) {
    using T = TypeParam;
    Network<T> network;
    network.counts = {6};
    network.flags = KT_MLP_SIGMOID;
    const Server<T> server = network.server();
    ASSERT_TRUE(server);
    EXPECT_EQ(server->nLayers, 1);
    EXPECT_EQ(server->nBufLen, 9);
}

TYPED_TEST(Servers, MayHaveLayersWithoutNeurons) {
    using T = TypeParam;
    for (const std::vector<int>& counts : {std::vector<int>{0}, std::vector<int>{0, 3},
                                           std::vector<int>{3, 0}, std::vector<int>{3, 0, 2}}) {
        std::mt19937 random(7);
        EXPECT_TRUE(randomNetwork<T>(random, counts, 9).server());
        T*** table = setWeights<T>(counts, T(1));
        EXPECT_NE(table, nullptr);
        freeWeights(table);
    }
}

TYPED_TEST(Servers, OfImpossibleShapesAreRefused) {
    using T = TypeParam;
    const std::vector<std::vector<int>> shapes = {
        {}, {-1}, {3, -1}, {-3, 2}, {INT_MAX}, {INT_MAX, INT_MAX}, {INT_MAX, INT_MAX, INT_MAX}};
    for (const std::vector<int>& counts : shapes) {
        Network<T> network;
        network.counts = counts;
        network.flags = KT_MLP_SIGMOID;
        support::CapturedReports reports;
        EXPECT_FALSE(network.server());
        ASSERT_EQ(reports.count(), 1u);
        expectReport(reports, 0, KT_StsNoMem, initName<T>(), "nomemory");
    }
}

TYPED_TEST(Servers, ReportEveryAllocationThatFails) {
    using T = TypeParam;
    std::mt19937 random(8);
    for (bool sparse : {false, true}) {
        Network<T> network = randomNetwork<T>(random, {3, 5, 2}, 9);
        if (sparse) network = network.describedAsSparse();
        support::CapturedReports reports;
        int n = 0, survived = 0;
        for (bool failed = true; failed;) {
            reports.clear();
            support::alloc::arm(++n);
            ServerOf<T>* server = network.server().release();
            failed = support::alloc::failed();
            support::alloc::disarm();
            if (failed && server != nullptr) {
                ++survived; // the second buffer's failure goes unnoticed
                EXPECT_EQ(server->pLayerOut, nullptr);
                EXPECT_EQ(reports.count(), 0u);
            } else if (failed) {
                ASSERT_EQ(reports.count(), 1u);
                expectReport(reports, 0, KT_StsNoMem, initName<T>(),
                             reports[0].message == "nomemory"
                                 ? "nomemory"
                                 : "insufficiency of memory for pointer  pMLPserver");
            }
            FreeServer()(server);
        }
        EXPECT_EQ(survived, 1);
    }
}

TYPED_TEST(Servers, KeepNothingOfAFailedConstruction) {
    using T = TypeParam;
    std::mt19937 random(9);
    Network<T> network = randomNetwork<T>(random, {3, 5, 2}, 9).describedAsSparse();
    // A handler without memory of its own.
    const auto silent = [](int status, const char*, const char*, const char*, int) {
        return status;
    };
    KTErrorHandler previous = KTRedirectError(silent);
    const long before = support::alloc::liveBlocks();
    support::alloc::failEach([&] { network.server(); },
                             [&] { EXPECT_EQ(support::alloc::liveBlocks(), before); });
    KTRedirectError(previous);
    KTSetStatus(0);
    EXPECT_EQ(support::alloc::liveBlocks(), before);
}

TYPED_TEST(Servers, OfSparseNetworksPackTheirRows) {
    using T = TypeParam;
    Network<T> network;
    network.counts = {4, 3};
    network.flags = KT_MLP_SIGMOID;
    network.weights = {{{T(1), T(2), T(3)}, {}, {T(4)}}};
    network.connections = {{{3, 0, 3}, {}, {2}}};
    const Server<T> server = network.server();
    ASSERT_TRUE(server);
    ASSERT_NE(server->ppConnCounts, nullptr);
    EXPECT_EQ(std::vector<int>(server->ppConnCounts[0], server->ppConnCounts[0] + 3),
              (std::vector<int>{3, 0, 1}));
    EXPECT_EQ(server->pppWeights[0][1] - server->pppWeights[0][0], 3);
    EXPECT_EQ(server->pppWeights[0][2] - server->pppWeights[0][1], 0);
    EXPECT_EQ(std::vector<T>(server->pppWeights[0][0], server->pppWeights[0][0] + 4),
              (std::vector<T>{T(1), T(2), T(3), T(4)}));
    EXPECT_EQ(std::vector<int>(server->pppConnections[0][0], server->pppConnections[0][0] + 4),
              (std::vector<int>{3, 0, 3, 2}));
}

// The caller's arrays may go at once.
TYPED_TEST(Servers, OfSparseNetworksCopyConnectionsAndCounts) {
    using T = TypeParam;
    Network<T> network;
    network.counts = {4, 2, 1};
    network.flags = KT_MLP_SIGMOID;
    network.weights = {{{T(1), T(2)}, {T(3)}}, {{T(4)}}};
    network.connections = {{{3, 0}, {1}}, {{1}}};
    const Server<T> server = network.server();
    ASSERT_TRUE(server);
    for (auto& layer : network.connections)
        for (auto& row : layer)
            std::fill(row.begin(), row.end(), -99);
    for (auto& layer : network.weights)
        for (auto& row : layer)
            std::fill(row.begin(), row.end(), T(99));
    EXPECT_EQ(server->pppConnections[0][0][0], 3);
    EXPECT_EQ(server->pppConnections[0][1][0], 1);
    EXPECT_EQ(server->pppConnections[1][0][0], 1);
    EXPECT_EQ(server->ppConnCounts[0][0], 2); // the test's own counts are gone by now
    EXPECT_EQ(server->ppConnCounts[1][0], 1);
    EXPECT_EQ(server->pppWeights[0][0][1], T(2));
    EXPECT_EQ(server->pppWeights[1][0][0], T(4));
}

TYPED_TEST(Servers, OfSparseNetworksWantConnections) {
    using T = TypeParam;
    int count = 1;
    int* counts[] = {&count};
    T weight = T(1);
    T* row = &weight;
    T** table[] = {&row};
    const int shape[] = {1, 1};
    support::CapturedReports reports;
    if constexpr (std::is_same_v<T, float>)
        EXPECT_EQ(KTsInitMLPServer(table, nullptr, counts, shape, nullptr, nullptr, 2,
                                   KT_MLP_SIGMOID, nullptr),
                  nullptr);
    else
        EXPECT_EQ(KTwInitMLPServer(table, nullptr, counts, shape, nullptr, nullptr, 2,
                                   KT_MLP_SIGMOID, -15, nullptr),
                  nullptr);
    ASSERT_EQ(reports.count(), 1u);
    expectReport(reports, 0, KT_StsBadArg, initName<T>(), "bad connections of a sparse network");
}

TYPED_TEST(Servers, OfSparseNetworksRefuseBadConnections) {
    using T = TypeParam;
    for (int index : {-1, 4, INT_MAX}) {
        Network<T> network;
        network.counts = {4, 1};
        network.flags = KT_MLP_SIGMOID;
        network.weights = {{{T(1), T(2)}}};
        network.connections = {{{3, index}}};
        support::CapturedReports reports;
        EXPECT_FALSE(network.server());
        expectReport(reports, 0, KT_StsBadArg, initName<T>(),
                     "bad connections of a sparse network");
    }
}

TYPED_TEST(Servers, FreeAcceptsNull) {
    using T = TypeParam;
    FreeServer()(static_cast<ServerOf<T>*>(nullptr));
    freeWeights(static_cast<T***>(nullptr));
}

TYPED_TEST(Servers, WeightsTablesAreFilledWithTheirPadding) {
    using T = TypeParam;
    const std::vector<int> counts = {3, 5, 2};
    T*** table = setWeights<T>(counts, T(7));
    ASSERT_NE(table, nullptr);
    expectDenseLayout(table, counts);
    for (int i = 0; i < 4 * 5 + 8 * 2; ++i)
        EXPECT_EQ(table[0][0][i], T(7));
    freeWeights(table);
}

TYPED_TEST(Servers, WeightsTablesReportFailedAllocations) {
    using T = TypeParam;
    const char* name = std::is_same_v<T, float> ? "KTsSetWeightsStr" : "KTwSetWeightsStr";
    support::CapturedReports reports;
    const int failures = support::alloc::failEach(
        [] {
            T*** table = setWeights<T>({3, 5, 2}, T(7));
            freeWeights(table);
        },
        [&] {
            ASSERT_EQ(reports.count(), 1u);
            expectReport(reports, 0, KT_StsNoMem, name, "nomemory");
            reports.clear();
        });
    EXPECT_EQ(failures, 2); // the pointers and the block
    EXPECT_EQ(setWeights<T>({INT_MAX, INT_MAX, INT_MAX}, T(7)), nullptr);
    EXPECT_EQ(setWeights<T>({3, -2}, T(7)), nullptr);
    EXPECT_EQ(reports.count(), 2u);
}

TYPED_TEST(Servers, ConstructorDoesNotReadTheTablesPadding) {
    using T = TypeParam;
    const std::vector<int> counts = {3, 2};
    T*** table = setWeights<T>(counts, T(7));
    Network<T> network;
    network.counts = counts;
    network.flags = KT_MLP_SIGMOID;
    network.weights = {{{T(7), T(7), T(7)}, {T(7), T(7), T(7)}}}; // rows without any padding
    const Server<T> server = network.server();
    EXPECT_NE(server->pppWeights[0][0][3], T(7));
    freeWeights(table);
}

TEST(Weights, AreReadAndWrittenNeuronByNeuron) {
    std::mt19937 random(10);
    for (int inputs : {3, 5}) {
        Network<float> network = randomNetwork<float>(random, {inputs, 5, 2}, 3);
        const Server<float> server = network.server();
        support::Guarded<float> row{std::size_t(inputs)};
        for (int j = 0; j < 5; ++j) {
            sMLPGetWeights(server.get(), 1, j, row.data());
            EXPECT_EQ(row.values(), network.weights[0][std::size_t(j)]);
        }
        EXPECT_TRUE(row.intact());
        const std::vector<float> changed = randomVector<float>(random, 5, 3);
        sMLPSetWeights(server.get(), 2, 1, changed.data());
        support::Guarded<float> second(5);
        sMLPGetWeights(server.get(), 2, 1, second.data());
        EXPECT_EQ(second.values(), changed);
        sMLPGetWeights(server.get(), 2, 0, second.data());
        EXPECT_EQ(second.values(), network.weights[1][0]);
    }
}

TEST(Weights, OfNeuronsThatAreNotThereAreLeftAlone) {
    std::mt19937 random(11);
    Network<float> network = randomNetwork<float>(random, {3, 2}, 3);
    const Server<float> dense = network.server(), sparse = network.describedAsSparse().server();
    const std::vector<float> before = weightsOf(dense.get());
    std::vector<float> row(3, 9.0f);
    for (const auto& [layer, neuron] : {std::pair{0, 0}, {2, 0}, {-1, 0}, {1, -1}, {1, 2}}) {
        sMLPSetWeights(dense.get(), layer, neuron, row.data());
        sMLPGetWeights(dense.get(), layer, neuron, row.data());
    }
    sMLPSetWeights(sparse.get(), 1, 0, row.data());
    sMLPGetWeights(sparse.get(), 1, 0, row.data());
    EXPECT_EQ(row, (std::vector<float>{9, 9, 9}));
    EXPECT_EQ(weightsOf(dense.get()), before);
    EXPECT_EQ(sparse->pppWeights[0][0][0], network.weights[0][0][0]);
}
