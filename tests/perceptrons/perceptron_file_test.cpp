// Networks on streams, byte by byte.
#include "perceptrons/perceptrons.h"
#include "support/alloc_faults.h"
#include "support/reports.h"
#include "support/streams.h"

#include <algorithm>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstring>

using namespace perceptrons;
using support::Bytes;
using support::Stream;
using support::streamOf;

namespace {

void writeTo(FILE* f, sMLPServer* server) {
    KTsWriteMLPServer(f, server);
}
void writeTo(FILE* f, wMLPServer* server) {
    KTwWriteMLPServer(f, server);
}
template <class T>
Server<T> readFrom(FILE* f) {
    if constexpr (std::is_same_v<T, float>)
        return Server<T>(KTsReadMLPServer(f));
    else
        return Server<T>(KTwReadMLPServer(f));
}
template <class T>
Server<T> read(const Bytes& bytes) {
    return readFrom<T>(streamOf(bytes).get());
}
template <class T>
Bytes written(const Server<T>& server) {
    const Stream stream(std::tmpfile());
    writeTo(stream.get(), server.get());
    return support::contentsOf(stream.get());
}

template <class T>
constexpr bool isFloat = std::is_same_v<T, float>;
template <class T>
constexpr std::size_t headerBytes = isFloat<T> ? 60 : 64;
template <class T>
const char* readName() {
    return isFloat<T> ? "KTsReadMLPServer" : "KTwReadMLPServer";
}

// The file of a network as the format tells it; every pointer is `stale`, padding holds `pad`.
template <class T>
Bytes image(const Network<T>& network, std::uint32_t stale, T pad) {
    Bytes bytes;
    support::putText(bytes, isFloat<T> ? "sMLPServer" : "wMLPServer", 12);
    support::put(bytes, stale); // weights
    support::put(bytes, stale); // thresholds
    support::put(bytes, network.flags);
    for (int i = 0; i < 3; ++i) // connections, their counts, neuron counts
        support::put(bytes, stale);
    support::put(bytes, network.layers());
    support::put(bytes, stale); // functions
    support::put(bytes, stale);
    if (!isFloat<T>) support::put(bytes, network.weightScale);
    support::put(bytes, stale); // buffers
    support::put(bytes, stale);
    support::put(bytes, *std::max_element(network.counts.begin(), network.counts.end()) + 3);
    for (int count : network.counts)
        support::put(bytes, count);
    for (const auto& layer : network.weights)
        for (const auto& row : layer)
            for (std::size_t i = 0; i < (row.size() + 3) / 4 * 4; ++i)
                support::put(bytes, i < row.size() ? row[i] : pad);
    return bytes;
}

template <class T>
Network<T> example(int flags = KT_MLP_SIGMOID) {
    std::mt19937 random(1);
    Network<T> network = randomNetwork<T>(random, {3, 5, 2}, 1000);
    network.flags = flags;
    network.weightScale = -13;
    return network;
}

// What reading reports, as "status function: message".
template <class T>
std::vector<std::string> reportsOfReading(const Bytes& bytes) {
    support::CapturedReports reports;
    EXPECT_FALSE(read<T>(bytes));
    std::vector<std::string> texts;
    for (const support::Report& report : reports.all()) {
        EXPECT_EQ(report.source, module);
        texts.push_back(std::to_string(report.status) + " " + report.function + ": " +
                        report.message);
    }
    return texts;
}
using Texts = std::vector<std::string>;

} // namespace

template <class T>
struct Files : testing::Test {};
using Flavours = testing::Types<float, short>;
TYPED_TEST_SUITE(Files, Flavours);

TYPED_TEST(Files, AreTheImageOfA32BitBuild) {
    using T = TypeParam;
    for (int flags : {KT_MLP_SIGMOID, KT_MLP_ABS | 0x1000, KT_MLP_SIGMOID | KT_MLP_THRESHOLD}) {
        Network<T> network = example<T>(flags);
        network.thresholds.assign(7, T(1));
        EXPECT_EQ(written<T>(network.server()), image(network, 0, T(0)));
    }
}

TYPED_TEST(Files, ComeBackAsTheyWere) {
    using T = TypeParam;
    Network<T> network = example<T>(KT_MLP_SIGMOID | KT_MLP_THRESHOLD | 0x40);
    const Server<T> server = read<T>(image(network, 0xDEADBEEF, T(0)));
    ASSERT_TRUE(server);
    EXPECT_EQ(server->flags, unsigned(network.flags));
    EXPECT_EQ(server->pThresholds, nullptr);
    EXPECT_EQ(server->ppConnCounts, nullptr);
    EXPECT_EQ(server->nBufLen, 8);
    EXPECT_EQ(std::vector<int>(server->playerNeuronCounts, server->playerNeuronCounts + 3),
              network.counts);
    for (std::size_t l = 0; l < 2; ++l)
        for (std::size_t j = 0; j < network.weights[l].size(); ++j) {
            const auto& row = network.weights[l][j];
            EXPECT_EQ(
                std::vector<T>(server->pppWeights[l][j], server->pppWeights[l][j] + row.size()),
                row);
        }
    if constexpr (!isFloat<T>) {
        EXPECT_EQ(server->weightScale, -13);
    }
}

// The flag comes back, the thresholds do not: evaluation has none to subtract.
TYPED_TEST(Files, WithThresholdsComeBackWithoutThem) {
    using T = TypeParam;
    Network<T> network = example<T>(KT_MLP_SIGMOID | KT_MLP_THRESHOLD);
    const Server<T> flagged = read<T>(image(network, 0, T(0)));
    network.flags = KT_MLP_SIGMOID;
    const Server<T> plain = read<T>(image(network, 0, T(0)));
    ASSERT_TRUE(flagged && plain);
    EXPECT_EQ(flagged->pThresholds, nullptr);
    const std::vector<T> input(3, T(1));
    std::vector<T> outputs[2] = {std::vector<T>(2, T(-1)), std::vector<T>(2, T(-1))};
    for (std::size_t i = 0; i < 2; ++i) {
        ServerOf<T>* server = i == 0 ? flagged.get() : plain.get();
        if constexpr (isFloat<T>)
            KTsEvalMLPFeedForward(server, input.data(), 3, outputs[i].data(), 2);
        else
            KTwEvalMLPFeedForward(server, input.data(), 3, outputs[i].data(), 2, KT_Saturate,
                                  nullptr, -15);
    }
    EXPECT_EQ(outputs[0], outputs[1]);
    EXPECT_NE(outputs[0], std::vector<T>(2, T(-1)));
}

TYPED_TEST(Files, KeepThePaddingOfTheFile) {
    using T = TypeParam;
    const Bytes bytes = image(example<T>(), 0, T(77));
    const Server<T> server = read<T>(bytes);
    ASSERT_TRUE(server);
    EXPECT_EQ(server->pppWeights[0][0][3], T(77));
    EXPECT_EQ(written<T>(server), bytes);
}

TYPED_TEST(Files, MayHoldSeveralObjects) {
    using T = TypeParam;
    Bytes bytes = {'x'};
    const Bytes one = image(example<T>(), 0, T(0));
    for (int i = 0; i < 2; ++i)
        bytes.insert(bytes.end(), one.begin(), one.end());
    bytes.push_back('y');
    const Stream stream = streamOf(bytes);
    EXPECT_EQ(std::fgetc(stream.get()), 'x');
    EXPECT_TRUE(readFrom<T>(stream.get()));
    EXPECT_TRUE(readFrom<T>(stream.get()));
    EXPECT_EQ(std::fgetc(stream.get()), 'y');
}

TYPED_TEST(Files, OfNetworksWithoutWeightsComeBack) {
    using T = TypeParam;
    for (const std::vector<int>& counts : {std::vector<int>{6}, {0}, {0, 3}, {3, 0}}) {
        Network<T> network;
        network.counts = counts;
        network.flags = KT_MLP_SIGMOID;
        for (std::size_t l = 1; l < counts.size(); ++l)
            network.weights.emplace_back(std::size_t(counts[l]),
                                         std::vector<T>(std::size_t(counts[l - 1])));
        const Bytes bytes = image(network, 0, T(0));
        const Server<T> server = read<T>(bytes);
        ASSERT_TRUE(server);
        EXPECT_EQ(written<T>(server), bytes);
    }
}

TYPED_TEST(Files, WithAShortHeaderGiveNoReport) {
    using T = TypeParam;
    const Bytes bytes = image(example<T>(), 0, T(0));
    for (std::size_t length : {std::size_t(0), std::size_t(1), std::size_t(12), headerBytes<T> - 1})
        EXPECT_EQ(reportsOfReading<T>(Bytes(bytes.begin(), bytes.begin() + std::ptrdiff_t(length))),
                  Texts());
}

TYPED_TEST(Files, OfTheOtherFlavourAreRefusedAfterTheHeader) {
    using T = TypeParam;
    using Other = std::conditional_t<isFloat<T>, short, float>;
    const Bytes bytes = image(example<Other>(), 0, Other(0));
    EXPECT_EQ(reportsOfReading<T>(bytes),
              Texts{std::string("-5 ") + readName<T>() + ": " +
                    (isFloat<T> ? "Bad sMLPServer identifier" : "Bad wMLPServer identifier")});
    support::CapturedReports reports;
    const Stream stream = streamOf(bytes);
    EXPECT_FALSE(readFrom<T>(stream.get()));
    EXPECT_EQ(std::ftell(stream.get()), long(headerBytes<T>));
}

TYPED_TEST(Files, CompareTheIdentifierUpToItsEnd) {
    using T = TypeParam;
    Bytes bytes = image(example<T>(), 0, T(0));
    bytes[11] = 'z';
    EXPECT_TRUE(read<T>(bytes));
    bytes[10] = 'z';
    EXPECT_EQ(reportsOfReading<T>(bytes).size(), 1u);
}

TYPED_TEST(Files, WithShortCountsAreAMemoryFailure) {
    using T = TypeParam;
    const Bytes bytes = image(example<T>(), 0, T(0));
    for (std::size_t missing = 1; missing <= 12; ++missing)
        EXPECT_EQ(
            reportsOfReading<T>(Bytes(
                bytes.begin(), bytes.begin() + std::ptrdiff_t(headerBytes<T> + 12 - missing))),
            Texts{std::string("-4 ") + readName<T>() + ": nomemory"});
}

TYPED_TEST(Files, WithShortWeightsAreABadState) {
    using T = TypeParam;
    const Bytes bytes = image(example<T>(), 0, T(0));
    for (std::size_t length = headerBytes<T> + 12; length < bytes.size(); ++length)
        ASSERT_EQ(reportsOfReading<T>(Bytes(bytes.begin(), bytes.begin() + std::ptrdiff_t(length))),
                  Texts{std::string("-3 ") + readName<T>() + ": input_output_error"});
}

TYPED_TEST(Files, WithoutAFunctionFlagFailInTheConstructor) {
    using T = TypeParam;
    for (int flags : {0, KT_MLP_THRESHOLD})
        EXPECT_EQ(reportsOfReading<T>(image(example<T>(flags), 0, T(0))),
                  Texts{std::string("-5 ") +
                        (isFloat<T> ? "KTsInitMLPServer" : "KTwInitMLPServer") +
                        ": can't define type of activation and derivative function to use"});
}

TYPED_TEST(Files, ThatClaimTooMuchTakeLittleMemory) {
    using T = TypeParam;
    const std::size_t atLayers = 36, atCounts = headerBytes<T>;
    const std::string start = std::string(" ") + readName<T>() + ": ";
    Bytes bytes = image(example<T>(), 0, T(0));
    const auto changed = [&](std::size_t at, std::uint32_t value) {
        Bytes copy = bytes;
        support::setWordAt(copy, at, value);
        return copy;
    };
    EXPECT_EQ(reportsOfReading<T>(changed(atLayers, INT_MAX)), Texts{"-4" + start + "nomemory"});
    EXPECT_EQ(reportsOfReading<T>(changed(atLayers, 0x80000000)),
              Texts{"-4" + start +
                    "insufficiency of memory for pointer  pMLPServer0. playerNeuronCounts"});
    EXPECT_EQ(reportsOfReading<T>(changed(atLayers, 0)).back(), "-4" + start + "nomemory");
    // A block beyond the address space is refused before the stream is asked for it; on 64 bits
    // there is none.
    const bool fits = sizeof(void*) > 4;
    for (std::size_t at : {atCounts, atCounts + 4, atCounts + 8}) {
        EXPECT_EQ(reportsOfReading<T>(changed(at, INT_MAX)),
                  Texts{fits ? "-3" + start + "input_output_error" : "-4" + start + "nomemory"});
        EXPECT_EQ(reportsOfReading<T>(changed(at, 0xFFFFFFFF)), Texts{"-4" + start + "nomemory"});
    }
    // Rows and inputs that no weight stands for.
    Network<T> empty;
    empty.flags = KT_MLP_SIGMOID;
    for (const std::vector<int>& counts :
         {std::vector<int>{INT_MAX}, {0, INT_MAX}, {0, 60000, 0, 60000}}) {
        empty.counts = counts;
        const Texts reports = reportsOfReading<T>(image(empty, 0, T(0)));
        ASSERT_FALSE(reports.empty());
        // the table's own report may stand before it
        EXPECT_EQ(reports.back(), "-4" + start + "nomemory");
        if (fits) {
            EXPECT_EQ(reports.size(), 1u);
        }
    }
    empty.counts = {0, 60000};
    EXPECT_TRUE(read<T>(image(empty, 0, T(0))));
}

TYPED_TEST(Files, LargerThanOnePieceComeBack) {
    using T = TypeParam;
    std::mt19937 random(2);
    Network<T> network = randomNetwork<T>(random, {301, 301}, 1000); // 360 kilobytes of floats
    const Bytes bytes = image(network, 0, T(5));
    const Server<T> server = read<T>(bytes);
    ASSERT_TRUE(server);
    EXPECT_EQ(written<T>(server), bytes);
    Bytes layers = image(network, 0, T(0)); // and many layers: 40000 of no neurons
    layers.resize(headerBytes<T>);
    support::setWordAt(layers, 36, 40000);
    layers.resize(headerBytes<T> + 160000);
    const Server<T> deep = read<T>(layers);
    ASSERT_TRUE(deep);
    EXPECT_EQ(deep->nLayers, 40000);
}

// Every byte of a small file changed in several ways: reading gives a server that can be evaluated
// and written, or null.
TYPED_TEST(Files, SurviveDamage) {
    using T = TypeParam;
    const Bytes bytes = image(example<T>(), 0x1234, T(0));
    support::CapturedReports reports;
    std::mt19937 random(3);
    const auto examine = [&](const Bytes& damaged) {
        const Server<T> server = read<T>(damaged);
        if (server) {
            EXPECT_EQ(written<T>(server).size() % 2, 0u);
            if (server->playerNeuronCounts[server->nLayers - 1] <= 64) {
                const std::vector<T> input(64, T(1));
                std::vector<T> output(64);
                if constexpr (isFloat<T>)
                    KTsEvalMLPFeedForward(server.get(), input.data(), 64, output.data(), 64);
                else
                    KTwEvalMLPFeedForward(server.get(), input.data(), 64, output.data(), 64, 3,
                                          nullptr, -15);
            }
        }
        reports.clear();
    };
    for (std::size_t at = 0; at < bytes.size(); ++at)
        for (unsigned change : {0x01u, 0x80u, 0xFFu, 0x10u}) {
            Bytes damaged = bytes;
            damaged[at] = static_cast<unsigned char>(damaged[at] ^ change);
            examine(damaged);
        }
    for (int round = 0; round < 2000; ++round) {
        Bytes damaged = bytes;
        for (int i = 0; i < 3; ++i)
            damaged[random() % damaged.size()] = static_cast<unsigned char>(random());
        damaged.resize(random() % (damaged.size() + 1));
        examine(damaged);
    }
}

TYPED_TEST(Files, ReportAllocationsThatFail) {
    using T = TypeParam;
    const Bytes bytes = image(example<T>(), 0, T(0));
    const Stream stream = streamOf(bytes);
    std::fgetc(stream.get()); // its buffer is there
    std::vector<std::string> seen;
    support::CapturedReports reports;
    Server<T> server;
    support::alloc::failEach(
        [&] {
            server.reset();
            std::rewind(stream.get());
            server = readFrom<T>(stream.get());
        },
        [&] {
            if (server) { // only the second buffer's failure goes unnoticed
                EXPECT_EQ(server->pLayerOut, nullptr);
                return;
            }
            std::string texts;
            for (const support::Report& report : reports.all())
                texts += report.function + ": " + report.message + "; ";
            EXPECT_EQ(KTGetStatus(), KT_StsNoMem);
            if (seen.empty() || seen.back() != texts) seen.push_back(texts);
            reports.clear();
        });
    const std::string name = readName<T>(), letter = isFloat<T> ? "s" : "w";
    const std::string init = "KT" + letter + "InitMLPServer: ";
    EXPECT_EQ(
        seen,
        (Texts{name + ": insufficiency of memory for pointer  pMLPServer0. playerNeuronCounts; ",
               name + ": nomemory; ", // the weights as they come in
               "KT" + letter + "SetWeightsStr: nomemory; " + name + ": nomemory; ",
               init + "insufficiency of memory for pointer  pMLPserver; ", init + "nomemory; "}));
    EXPECT_TRUE(server);
}

TYPED_TEST(Files, LeaveNothingBehindWhenReadingFails) {
    using T = TypeParam;
    const Bytes bytes = image(example<T>(), 0, T(0));
    const auto silent = [](int status, const char*, const char*, const char*, int) {
        return status;
    };
    KTErrorHandler previous = KTRedirectError(silent);
    for (std::size_t length : {bytes.size(), headerBytes<T> + 20, headerBytes<T> + 3}) {
        const Stream stream =
            streamOf(Bytes(bytes.begin(), bytes.begin() + std::ptrdiff_t(length)));
        std::fgetc(stream.get());
        const long before = support::alloc::liveBlocks();
        const auto run = [&] {
            std::rewind(stream.get());
            readFrom<T>(stream.get());
        };
        support::alloc::failEach(run, [&] { EXPECT_EQ(support::alloc::liveBlocks(), before); });
        EXPECT_EQ(support::alloc::liveBlocks(), before);
    }
    KTRedirectError(previous);
    KTSetStatus(0);
}

TYPED_TEST(Files, OfSparseNetworksAreNotWritten) {
    using T = TypeParam;
    const Server<T> server = example<T>().describedAsSparse().server();
    support::CapturedReports reports;
    EXPECT_TRUE(written<T>(server).empty());
    ASSERT_EQ(reports.count(), 1u);
    EXPECT_EQ(reports[0].status, KT_StsUnsupported);
    EXPECT_EQ(reports[0].function, isFloat<T> ? "KTsWriteMLPServer" : "KTwWriteMLPServer");
    EXPECT_EQ(reports[0].message, "a sparse network cannot be written");
    EXPECT_EQ(reports[0].source, module);
}

TYPED_TEST(Files, NullArgumentsDoNothing) {
    using T = TypeParam;
    support::CapturedReports reports;
    const Server<T> server = example<T>().server();
    writeTo(nullptr, server.get());
    const Stream stream(std::tmpfile());
    writeTo(stream.get(), static_cast<ServerOf<T>*>(nullptr));
    EXPECT_TRUE(support::contentsOf(stream.get()).empty());
    EXPECT_FALSE(readFrom<T>(nullptr));
    EXPECT_EQ(reports.count(), 0u);
}

// A stream that cannot be written fails at once.
TYPED_TEST(Files, ReportAHeaderThatCannotBeWritten) {
    using T = TypeParam;
    const Server<T> server = example<T>().server();
    const char* name = "KT_PERCFILE_test.tmp";
    std::fclose(std::fopen(name, "wb"));
    {
        const Stream stream(KTOpenFile(name, "rb"));
        support::CapturedReports reports;
        writeTo(stream.get(), server.get());
        ASSERT_EQ(reports.count(), 1u);
        EXPECT_EQ(reports[0].status, KT_StsNoMem);
        EXPECT_EQ(reports[0].function, isFloat<T> ? "KTsWriteMLPServer" : "KTwWriteMLPServer");
        EXPECT_EQ(reports[0].message, "input_output_error");
        EXPECT_EQ(reports[0].source, module);
    }
    std::remove(name);
}
