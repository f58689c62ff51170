#include "models/stored_models.h"
#include "support/alloc_faults.h"
#include "support/reports.h"
#include "support/streams.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

namespace {

using namespace models;
using support::Bytes;
using support::contentsOf;
using support::put;
using support::putAll;
using support::setWordAt;
using support::Stream;
using support::streamOf;
using support::wordAt;

// Offsets of the record's words.
[[maybe_unused]] constexpr std::size_t atId = 16, atTag = 20, atStates = 24, atSymbols = 28,
                                       atTransitions = 32, atOutputs = 36, atInitials = 40,
                                       atStatus = 52, atStateWords = 56, atMixtures = 60,
                                       atScale = 68;

class HmmFile : public testing::Test {
protected:
    ~HmmFile() override { KTHMMFreeAll(); }
    support::CapturedReports reports;
    std::mt19937 random{20250613};
};

Bytes written(int id, const char* name = "model") {
    const Stream stream(std::tmpfile());
    KTWriteHMMServer(stream.get(), id, name);
    return contentsOf(stream.get());
}

int readFrom(const Bytes& bytes, char* name = nullptr) {
    return KTReadHMMServer(streamOf(bytes).get(), name);
}

// --- the image, by the description of the format ---

template <class T>
Bytes outputsImage(const KindModel<T>& model, int id) {
    Bytes bytes;
    if (model.kind == OutputKind::discrete) putAll(bytes, storedDiscrete(model));
    if (model.kind == OutputKind::semicontinuous) putAll(bytes, storedWeights(model));
    if (model.kind == OutputKind::continuous) {
        const Stream stream(std::tmpfile());
        for (int i = 0; i < model.n; ++i)
            KTWriteGaussMixServer(stream.get(), KTFindHMMServer(id)->mixtures[i]);
        bytes = contentsOf(stream.get());
    }
    return bytes;
}

template <class T>
Bytes imageOf(const KindModel<T>& model, int id, const std::string& name, int tag = 0,
              const std::vector<std::int32_t>& stateWords = {}) {
    const auto initials = storedInitials(model);
    const auto transitions = storedTransitions(model);
    const Bytes outputs = outputsImage(model, id);
    const auto outputsAt = std::uint32_t(0x50 + 4 * initials.size() + 4 * transitions.size());
    Bytes bytes;
    support::putText(bytes, "HMM ", 4);
    support::putText(bytes, name, 12);
    for (const int word : {id, tag, model.n, model.m})
        put(bytes, std::int32_t(word));
    put(bytes, std::uint32_t(0x50 + 4 * initials.size()));
    put(bytes, outputsAt);
    for (const std::uint32_t word : {0x50u, 0u, 0u, model.status()})
        put(bytes, word);
    put(bytes, stateWords.empty() ? 0u : std::uint32_t(outputsAt + outputs.size()));
    put(bytes, 0u);
    for (const int word : {model.nQuant, model.scale, 0, 0})
        put(bytes, std::int32_t(word));
    putAll(bytes, initials);
    putAll(bytes, transitions);
    bytes.insert(bytes.end(), outputs.begin(), outputs.end());
    putAll(bytes, stateWords);
    return bytes;
}

// Written as described; read back into a server that writes the same again, but for its id.
template <class T>
void expectRoundTrip(KindModel<T>& model) {
    const int id = model.create();
    ASSERT_GT(id, 0);
    const Bytes image = imageOf(model, id, "some name");
    ASSERT_EQ(written(id, "some name"), image);
    char name[12];
    const int second = readFrom(image, name);
    ASSERT_GT(second, 0);
    EXPECT_NE(second, id);
    EXPECT_STREQ(name, "some name");
    EXPECT_EQ(unsigned(parametersOf(second).status), model.status());
    // a mixture that was read says so in its flags, and its tail is that of its new place: its
    // image is taken anew
    EXPECT_EQ(written(second, "some name"), imageOf(model, second, "some name"));
    const auto answer = query<T>(second, model.n, model.m, model.kind);
    EXPECT_EQ(answer.initial, model.initial);
    KTFreeHMMServer(id);
    KTFreeHMMServer(second);
}

template <class T>
void roundTripAll(std::mt19937& random, std::initializer_list<unsigned> domains) {
    Codebook<T> codebook(random, 6, 3);
    ASSERT_TRUE(codebook.made);
    for (const OutputKind kind : allKinds)
        for (const Shape shape : allShapes)
            for (const unsigned domain : domains)
                for (int n = 1; n <= 9; ++n) {
                    SCOPED_TRACE(testing::Message()
                                 << int(kind) << " " << int(shape) << " " << domain << " " << n);
                    auto model = randomModel<T>(random, kind, shape, n, domain, 6, 3);
                    expectRoundTrip(model);
                }
}

TEST_F(HmmFile, EveryFloatModelHasTheDescribedImage) {
    roundTripAll<float>(random, {1u, 2u});
    EXPECT_EQ(reports.count(), 0u);
}
TEST_F(HmmFile, EveryFixedModelHasTheDescribedImage) {
    roundTripAll<short>(random, {0u, 1u});
    EXPECT_EQ(reports.count(), 0u);
}

TEST_F(HmmFile, PositionsOfABandOfFiveCostStates) {
    auto model = randomModel<float>(random, OutputKind::discrete, Shape::banded, 5, 1, 3, 0);
    const Bytes bytes = written(model.create());
    EXPECT_EQ(wordAt(bytes, atInitials), 0x50u);
    EXPECT_EQ(wordAt(bytes, atTransitions), 0x70u);
    EXPECT_EQ(wordAt(bytes, atOutputs), 0xA4u);
    EXPECT_EQ(bytes.size(), 0xA4u + 3 * 8 * 4);
}

TEST_F(HmmFile, TilesAreWrittenPlainAndReadBackTiled) {
    for (const Shape shape : allShapes)
        for (int n = 1; n <= 9; ++n) {
            auto model = randomModel<float>(random, OutputKind::discrete, shape, n, 1, 2, 0);
            const Bytes plain = written(model.create());
            KTGetContext()->hmmMode |= HMM_MODE_TILED;
            const int tiled = model.create();
            ASSERT_NE(unsigned(parametersOf(tiled).status) & HMM_SERVER_TILED, 0u);
            Bytes bytes = written(tiled);
            setWordAt(bytes, atId, wordAt(plain, atId));
            EXPECT_EQ(bytes, plain);
            const int second = readFrom(plain);
            EXPECT_NE(unsigned(parametersOf(second).status) & HMM_SERVER_TILED, 0u);
            EXPECT_EQ(query<float>(second, n, 2, OutputKind::discrete).trans,
                      query<float>(tiled, n, 2, OutputKind::discrete).trans);
            KTGetContext()->hmmMode &= ~HMM_MODE_TILED;
        }
}

// --- names ---

TEST_F(HmmFile, NamesOfTwelveAndMoreCharactersFillTheField) {
    auto model = randomModel<float>(random, OutputKind::discrete, Shape::full, 2, 1, 1, 0);
    const int id = model.create();
    for (const char* given : {"abcdefghijkl", "abcdefghijklmno"}) {
        const Bytes bytes = written(id, given);
        EXPECT_EQ(std::string(bytes.begin() + 4, bytes.begin() + 16), "abcdefghijkl");
        char name[14];
        std::memset(name, '#', sizeof name);
        EXPECT_GT(readFrom(bytes, name), 0);
        EXPECT_EQ(std::string(name, 14), "abcdefghijkl##"); // no terminator
    }
}

TEST_F(HmmFile, ShorterNamesAreFilledWithZerosAndComeBackTerminated) {
    auto model = randomModel<float>(random, OutputKind::discrete, Shape::full, 2, 1, 1, 0);
    const int id = model.create();
    const Bytes bytes = written(id, "ab");
    EXPECT_EQ(std::string(bytes.begin() + 4, bytes.begin() + 16),
              std::string("ab") + std::string(10, '\0'));
    char name[12];
    std::memset(name, '#', sizeof name);
    EXPECT_GT(readFrom(bytes, name), 0);
    EXPECT_EQ(std::string(name, 12), std::string("ab\0", 3) + std::string(9, '#'));
    const Bytes unnamed = written(id, nullptr);
    EXPECT_EQ(std::string(unnamed.begin() + 4, unnamed.begin() + 16), std::string(12, '\0'));
    EXPECT_GT(readFrom(unnamed, nullptr), 0);
}

TEST_F(HmmFile, TheNameComesEvenWhereTheRecordDoesNot) {
    Bytes bytes;
    support::putText(bytes, "HMM lost", 16);
    char name[12] = "";
    EXPECT_EQ(readFrom(bytes, name), -1);
    EXPECT_STREQ(name, "lost");
}

// --- what a server keeps ---

TEST_F(HmmFile, TagAndStateWordsSurviveReadCopyAndWrite) {
    auto model = randomModel<float>(random, OutputKind::discrete, Shape::triangular, 5, 1, 3, 0);
    const std::vector<std::int32_t> words{1, -2, 3, -4, 0x7FFFFFFF};
    const int id = model.create();
    Bytes image = imageOf(model, id, "tagged", 0x1234, words);
    setWordAt(image, atStateWords, 1); // only a flag
    setWordAt(image, atMixtures, 0xDEADBEEF);
    setWordAt(image, atId, 999);
    setWordAt(image, atOutputs, 0xFFFFFFFF);
    setWordAt(image, 44, 0xDEADBEEF); // next
    setWordAt(image, 48, 0xDEADBEEF); // prev
    const int second = readFrom(image);
    ASSERT_EQ(second, 2);
    const HMMServer* server = KTFindHMMServer(second);
    EXPECT_EQ(server->tag, 0x1234);
    EXPECT_EQ(std::vector<std::int32_t>(server->stateWords, server->stateWords + 5), words);
    EXPECT_EQ(server->mixtures, nullptr);
    EXPECT_EQ(written(second, "tagged"), imageOf(model, second, "tagged", 0x1234, words));
    const int copy = KTCopyHMMServer(second);
    // a copy has no tag
    EXPECT_EQ(written(copy, "tagged"), imageOf(model, copy, "tagged", 0, words));
}

TEST_F(HmmFile, StateWordsOfAContinuousModelStandBehindItsMixtures) {
    auto model = randomModel<short>(random, OutputKind::continuous, Shape::full, 3, 1, 0, 2);
    const std::vector<std::int32_t> words{7, 8, 9};
    const int id = model.create();
    const Bytes image = imageOf(model, id, "", 0, words);
    const int second = readFrom(image);
    ASSERT_GT(second, 0);
    EXPECT_EQ(written(second, nullptr), imageOf(model, second, "", 0, words));
    EXPECT_EQ(wordAt(image, atStateWords), image.size() - 12);
}

TEST_F(HmmFile, ContinuousModelsScoreAsBefore) {
    auto model = randomModel<float>(random, OutputKind::continuous, Shape::banded, 4, 2, 0, 3);
    const int id = model.create(), second = readFrom(written(id));
    const float a[] = {0.5f, -1.0f, 0.25f}, b[] = {0.0f, 1.0f, 0.5f};
    const float* frames[] = {a, b, a};
    const float cost = KTsEvalContHMMForward(id, frames, 3, nullptr);
    EXPECT_LT(cost, 100.0f);
    EXPECT_EQ(KTsEvalContHMMForward(second, frames, 3, nullptr), cost);
    KTFreeHMMServer(id);
    EXPECT_EQ(KTsEvalContHMMForward(second, frames, 3, nullptr), cost); // its mixtures are its own
}

// Whatever the status says: its word stays as it is, and the mixtures go, and are copied, with the
// server.
template <class T>
void expectOwnMixtures(std::mt19937& random, unsigned domain) {
    auto model = randomModel<T>(random, OutputKind::continuous, Shape::full, 2, domain, 0, 2);
    Bytes image = written(model.create());
    const std::uint32_t status = model.status() & ~HMM_SERVER_OWNS_MIXTURES;
    setWordAt(image, atStatus, status);
    const long before = support::alloc::liveBlocks();
    KTSetHMMMode(KT_HMM_KEEP);
    const int id = readFrom(image), copy = KTCopyHMMServer(id), copyOfCopy = KTCopyHMMServer(copy);
    const int changed = domain == 1 && KindModel<T>::isFloat
                            ? KTswConvertHMMServer(id, -8, -14, -10, -9)
                        : domain == 1 ? KTwsConvertHMMServer(id, 8, 14, 10, 9)
                                      : KTsLogHMMServer(id);
    for (const int each : {id, copy, copyOfCopy}) {
        EXPECT_EQ(unsigned(parametersOf(each).status), status);
        EXPECT_EQ(wordAt(written(each), atStatus), status);
    }
    EXPECT_EQ(unsigned(parametersOf(changed).status) & HMM_SERVER_OWNS_MIXTURES, 0u);
    EXPECT_NE(KTFindHMMServer(copy)->mixtures[0], KTFindHMMServer(id)->mixtures[0]);
    KTFreeHMMServer(id);
    const auto answer = query<T>(copyOfCopy, 2, 0, OutputKind::continuous);
    EXPECT_EQ(answer.initial, model.initial);
    EXPECT_EQ(written(copy).size(), image.size());
    for (const int each : {copy, copyOfCopy, changed})
        KTFreeHMMServer(each);
    EXPECT_EQ(support::alloc::liveBlocks(), before);
}

TEST_F(HmmFile, MixturesOfAFileAlwaysBelongToItsServer) {
    expectOwnMixtures<float>(random, 1);
    expectOwnMixtures<float>(random, 2);
    expectOwnMixtures<short>(random, 1);
    EXPECT_EQ(reports.count(), 0u);
}

TEST_F(HmmFile, AServerWhoseFileDoesNotNameItsMixturesItsOwnCanBeTrained) {
    auto model = randomModel<float>(random, OutputKind::continuous, Shape::full, 2, 2, 0, 2);
    const int id = model.create();
    Bytes image = written(id);
    setWordAt(image, atStatus, model.status() & ~HMM_SERVER_OWNS_MIXTURES);
    const float a[] = {0.5f, -1.0f}, b[] = {0.0f, 1.0f};
    const float* frames[] = {a, b, a};
    const float* const* sequence = frames;
    const int count = 3;
    const auto trained = [&](int hmm) {
        const int result = KTsTrainContHMMBaumWelch(hmm, &sequence, &count, 1, 2, nullptr);
        EXPECT_GT(result, 0);
        return KTsEvalContHMMForward(result, frames, 3, nullptr);
    };
    EXPECT_EQ(trained(readFrom(image)), trained(id));
}

// A server whose status says that it is tiled: the file's array is plain, as every file's; the word
// stays.
template <class T>
void expectTiledBitKept(std::mt19937& random, Shape shape, int n, unsigned domain) {
    SCOPED_TRACE(testing::Message() << int(shape) << " " << n << " " << domain);
    auto model = randomModel<T>(random, OutputKind::discrete, shape, n, domain, 3, 0);
    const int plain = model.create();
    Bytes image = written(plain);
    setWordAt(image, atStatus, model.status() | HMM_SERVER_TILED);
    const long before = support::alloc::liveBlocks();
    int id = 0;
    support::alloc::failEach([&] { id = readFrom(image); },
                             [&] {
                                 EXPECT_EQ(id, -1);
                                 EXPECT_EQ(support::alloc::liveBlocks(), before);
                             });
    const int copy = KTCopyHMMServer(id);
    const std::vector<int> symbols{0, 2, 1, 1};
    for (const int each : {id, copy}) {
        EXPECT_EQ(unsigned(parametersOf(each).status), model.status() | HMM_SERVER_TILED);
        EXPECT_EQ(query<T>(each, n, 3, OutputKind::discrete).trans,
                  query<T>(plain, n, 3, OutputKind::discrete).trans);
        Bytes again = written(each); // plain again, and the bit says so
        setWordAt(again, 16, wordAt(written(plain), 16));
        EXPECT_EQ(again, written(plain));
        if constexpr (KindModel<T>::isFloat) {
            EXPECT_EQ(KTsEvalHMMViterbi(each, symbols.data(), 4, nullptr),
                      KTsEvalHMMViterbi(plain, symbols.data(), 4, nullptr));
            EXPECT_EQ(KTsEvalHMMForward(each, symbols.data(), 4, nullptr),
                      KTsEvalHMMForward(plain, symbols.data(), 4, nullptr));
        } else {
            EXPECT_EQ(KTwEvalHMMViterbi(each, symbols.data(), 4, nullptr, 0, nullptr),
                      KTwEvalHMMViterbi(plain, symbols.data(), 4, nullptr, 0, nullptr));
        }
        int order = 0, expectedOrder = 1;
        KTGetHMMScales(each, &order, nullptr, nullptr, nullptr);
        KTGetHMMScales(plain, &expectedOrder, nullptr, nullptr, nullptr);
        EXPECT_EQ(order, expectedOrder);
    }
    if constexpr (KindModel<T>::isFloat) {
        const auto transform = domain == 1 ? KTsExpHMMServer : KTsLogHMMServer;
        const int ofPlain = transform(plain), ofTiled = transform(id);
        EXPECT_EQ(parametersOf(ofTiled).status, parametersOf(ofPlain).status);
        EXPECT_EQ(query<T>(ofTiled, n, 3, OutputKind::discrete).trans,
                  query<T>(ofPlain, n, 3, OutputKind::discrete).trans);
    }
}

TEST_F(HmmFile, TheTiledBitIsKept) {
    for (const Shape shape : allShapes)
        for (int n = 1; n <= 6; ++n) {
            expectTiledBitKept<float>(random, shape, n, 1);
            expectTiledBitKept<float>(random, shape, n, 2);
            expectTiledBitKept<short>(random, shape, n, 1);
        }
}

TEST_F(HmmFile, OneStreamHoldsSeveralServers) {
    Codebook<float> codebook(random, 4, 2);
    const Stream stream(std::tmpfile());
    std::fputs("prologue", stream.get());
    std::vector<KindModel<float>> models;
    std::vector<long> ends;
    for (const OutputKind kind : allKinds) {
        models.push_back(randomModel<float>(random, kind, Shape::banded, 5, 1, 4, 2));
        KTWriteHMMServer(stream.get(), models.back().create(), "x");
        ends.push_back(std::ftell(stream.get()));
    }
    std::fseek(stream.get(), 8, SEEK_SET);
    for (std::size_t i = 0; i < models.size(); ++i) {
        const int id = KTReadHMMServer(stream.get(), nullptr);
        ASSERT_GT(id, 3);
        EXPECT_EQ(std::ftell(stream.get()),
                  ends[i]); // a mixture's tail depends on its place, so not by the size of its copy
        EXPECT_EQ(written(id, "x"), imageOf(models[i], id, "x"));
    }
    EXPECT_EQ(KTReadHMMServer(stream.get(), nullptr), -1);
}

// --- writing what is not whole ---

TEST_F(HmmFile, AnUnknownServerWritesNothing) {
    EXPECT_TRUE(written(1).empty()); // no registry
    KTSetHMMMode(0);
    EXPECT_TRUE(written(1).empty());
    KTWriteHMMServer(nullptr, 1, "x");
}

TEST_F(HmmFile, AServerOfNeitherFormEndsBehindTheHeader) {
    auto model = randomModel<float>(random, OutputKind::discrete, Shape::full, 2, 1, 1, 0);
    const int id = model.create();
    HMMServer* server = KTFindHMMServer(id);
    const unsigned status = server->status;
    server->status &= ~0x30u;
    EXPECT_EQ(written(id).size(), 16u);
    server->status = status;
    void* const outputs = server->outputs; // nor can one be written that lacks an array
    server->outputs = nullptr;
    EXPECT_EQ(written(id).size(), 16u);
    server->outputs = outputs;
}

TEST_F(HmmFile, AWriteThatComesUpShortEndsInSilence) {
    Codebook<float> codebook(random, 4, 2);
    for (const OutputKind kind : allKinds) {
        auto model = randomModel<float>(random, kind, Shape::full, 3, 1, 4, 2);
        const int id = model.create();
        const Stream readOnly(std::fopen(KTL_SOURCE_DIR "/exports.txt", "rb"));
        ASSERT_TRUE(readOnly);
        KTWriteHMMServer(readOnly.get(), id, "x");
        EXPECT_TRUE(std::ferror(readOnly.get()));
    }
    EXPECT_EQ(reports.count(), 0u);
}

int answerOfHandler = 0, reportsSeen = 0;
int countingHandler(int, const char*, const char*, const char*, int) {
    ++reportsSeen;
    return answerOfHandler;
}

TEST_F(HmmFile, ANegativeStatusAfterAMixtureIsTracedBack) {
    auto model = randomModel<float>(random, OutputKind::continuous, Shape::full, 3, 1, 0, 2);
    const int id = model.create();
    const Bytes whole = written(id);
    KTSetStatus(-4);
    const Bytes cut = written(id);
    ASSERT_EQ(reports.count(), 1u);
    EXPECT_EQ(reports[0].status, KT_StsBacktrace);
    EXPECT_EQ(reports[0].function, "KTWriteHMMServer");
    EXPECT_EQ(reports[0].message, "");
    EXPECT_EQ(reports[0].source, "..\\_LIBSRC\\KT_HMAN");
    EXPECT_LT(cut.size(), whole.size());
    EXPECT_GT(cut.size(), wordAt(whole, atOutputs)); // the first mixture is there

    const KTErrorHandler previous = KTRedirectError(countingHandler);
    answerOfHandler = 0; // a handler that answers 0 lets the writing go on
    EXPECT_EQ(written(id), whole);
    EXPECT_EQ(reportsSeen, 3);
    KTRedirectError(previous);
    KTSetStatus(0);
}

// --- reading what is not whole ---

void expectRefused(const Bytes& bytes) {
    const KTContext* context = KTGetContext();
    const int servers = context->nHMMServers;
    const long blocks = support::alloc::liveBlocks();
    EXPECT_EQ(readFrom(bytes), -1);
    EXPECT_EQ(context->nHMMServers, servers);
    EXPECT_EQ(support::alloc::liveBlocks(), blocks);
}

TEST_F(HmmFile, ReadingMakesTheRegistry) {
    EXPECT_EQ(readFrom({}), -1);
    EXPECT_NE(KTGetContext()->hmmMode & HMM_MODE_READY, 0u);
    EXPECT_EQ(KTReadHMMServer(nullptr, nullptr), -1);
}

TEST_F(HmmFile, OtherMagicBytesAreRefusedAndThePositionStays) {
    auto model = randomModel<float>(random, OutputKind::discrete, Shape::full, 2, 1, 1, 0);
    Bytes bytes = written(model.create());
    bytes[3] = 0;
    const Stream stream = streamOf(bytes);
    char name[12] = "untouched";
    EXPECT_EQ(KTReadHMMServer(stream.get(), name), -1);
    EXPECT_EQ(std::ftell(stream.get()), 16);
    EXPECT_STREQ(name, "untouched");
    EXPECT_EQ(reports.count(), 0u);
}

TEST_F(HmmFile, AHeaderAlmostWithItsRecordIsRefused) {
    auto model = randomModel<float>(random, OutputKind::discrete, Shape::full, 2, 1, 1, 0);
    Bytes bytes = written(model.create());
    bytes.resize(16 + 63);
    expectRefused(bytes);
}

template <class T>
std::vector<Bytes> someImages(std::mt19937& random) {
    Codebook<T> codebook(random, 5, 3);
    std::vector<Bytes> images;
    for (const OutputKind kind : allKinds)
        for (const Shape shape : allShapes) {
            auto model = randomModel<T>(random, kind, shape, 5, 1, 5, 3);
            const int id = model.create();
            images.push_back(imageOf(model, id, "fuzz", 0,
                                     shape == Shape::full ? std::vector<std::int32_t>(5, 9)
                                                          : std::vector<std::int32_t>()));
            KTFreeHMMServer(id);
        }
    return images;
}

TEST_F(HmmFile, EveryTruncationIsRefused) {
    std::vector<Bytes> images = someImages<float>(random);
    for (const Bytes& image : someImages<short>(random))
        images.push_back(image);
    for (const Bytes& image : images)
        for (std::size_t length = 0; length < image.size(); ++length) {
            SCOPED_TRACE(length);
            expectRefused(Bytes(image.begin(), image.begin() + std::ptrdiff_t(length)));
        }
    EXPECT_EQ(reports.count(), 0u);
}

TEST_F(HmmFile, CountsAndStatusWordsThatMakeNoSenseAreRefused) {
    Codebook<float> codebook(random, 5, 3);
    for (const OutputKind kind : allKinds) {
        auto model = randomModel<float>(random, kind, Shape::full, 4, 1, 5, 3);
        const Bytes image = written(model.create());
        const auto with = [&](std::size_t at, std::uint32_t value) {
            Bytes changed = image;
            setWordAt(changed, at, value);
            return changed;
        };
        const std::uint32_t status = wordAt(image, atStatus);
        for (const std::uint32_t n :
             {0u, 0xFFFFFFFFu, 0x80000000u, 0x7FFFFFFFu, 0x7FFFFFFCu, 0x40000000u})
            expectRefused(with(atStates, n));
        if (kind != OutputKind::continuous)
            for (const std::uint32_t n :
                 {0u, 0xFFFFFFFFu, 0x80000000u, 0x7FFFFFFFu, 0x7FFFFFFCu, 0x40000000u})
                expectRefused(with(atSymbols, n));
        expectRefused(with(atStatus, status & ~0x30u));
        expectRefused(with(atStatus, status | 0x30u));
        expectRefused(with(atStatus, status | 0xC00000u | 0x200000u));
    }
    EXPECT_EQ(reports.count(), 0u);
}

TEST_F(HmmFile, BitsThatDoNotMatterAreTakenOver) {
    auto model = randomModel<float>(random, OutputKind::continuous, Shape::full, 2, 1, 0, 2);
    Bytes image = written(model.create());
    setWordAt(image, atStatus, wordAt(image, atStatus) | 0x80000400u | HMM_SERVER_TILED);
    setWordAt(image, atTag, 77);
    int id = 0;
    // a continuous model has no use for it
    for (const std::uint32_t n : {0x80000000u, 0x7FFFFFFFu}) {
        setWordAt(image, atSymbols, n);
        id = readFrom(image);
        ASSERT_GT(id, 0);
        EXPECT_EQ(KTFindHMMServer(id)->tag, 77);
    }
    EXPECT_EQ(unsigned(parametersOf(id).status), model.status() | 0x80000400u | HMM_SERVER_TILED);
    EXPECT_EQ(query<float>(id, 2, 0, OutputKind::continuous).trans, model.trans);
    EXPECT_GT(KTCopyHMMServer(id), 0);
}

// A record without an output kind has no outputs; nothing can be evaluated with it, but it can be
// carried.
TEST_F(HmmFile, WithoutAnOutputKindThereAreNoOutputs) {
    auto model = randomModel<float>(random, OutputKind::discrete, Shape::full, 2, 1, 1, 0);
    Bytes image = written(model.create());
    setWordAt(image, atStatus, wordAt(image, atStatus) & ~0x800000u);
    const int id = readFrom(image);
    ASSERT_GT(id, 0);
    EXPECT_EQ(KTFindHMMServer(id)->outputs, nullptr);
    const int symbol = 0;
    EXPECT_EQ(KTsEvalHMMViterbi(id, &symbol, 1, nullptr), FLT_MAX);
    EXPECT_GT(KTCopyHMMServer(id), 0);
    EXPECT_EQ(written(id).size(), 0x50u + 16 + 16);
}

TEST_F(HmmFile, AHugePromiseTakesNoMoreMemoryThanTheStreamHolds) {
    auto model = randomModel<float>(random, OutputKind::discrete, Shape::banded, 4, 1, 5, 0);
    Bytes image = written(model.create());
    image.resize(2000);
    setWordAt(image, atStates, 0x10000000u);
    support::alloc::arm(0);
    expectRefused(image);
    support::alloc::disarm();
    // the record and one piece, besides the stream's own
    EXPECT_LE(support::alloc::allocations(), 3);
}

TEST_F(HmmFile, LargeServersComeInPieces) {
    auto model = randomModel<float>(random, OutputKind::discrete, Shape::full, 300, 2, 300, 0);
    expectRoundTrip(model);
    auto fixedModel =
        randomModel<short>(random, OutputKind::discrete, Shape::triangular, 501, 1, 400, 0);
    expectRoundTrip(fixedModel);
    const int id = model.create();
    const Bytes image = written(id);
    for (const std::size_t cut :
         {std::size_t(100000), std::size_t(300000), std::size_t(500000), image.size() - 1})
        expectRefused(Bytes(image.begin(), image.begin() + std::ptrdiff_t(cut)));
}

TEST_F(HmmFile, AMixtureThatCanNotBeReadReleasesTheOnesBefore) {
    auto model = randomModel<float>(random, OutputKind::continuous, Shape::full, 3, 1, 0, 2);
    Bytes image = written(model.create());
    const Bytes tag{'G', 'A', 'U', 'S'};
    const auto last = std::find_end(image.begin(), image.end(), tag.begin(), tag.end());
    ASSERT_NE(last, image.end());
    *last = 'g';
    expectRefused(image);
}

TEST_F(HmmFile, AStatusThatWasNegativeBeforeReleasesTheServer) {
    auto model = randomModel<float>(random, OutputKind::discrete, Shape::full, 2, 1, 1, 0);
    const Bytes image = written(model.create());
    KTSetStatus(-4);
    EXPECT_EQ(readFrom(image), 2); // the id comes back all the same
    EXPECT_EQ(KTFindHMMServer(2), nullptr);
    EXPECT_EQ(KTGetContext()->nHMMServers, 1);
}

TEST_F(HmmFile, EveryAllocationMayFail) {
    std::vector<Bytes> images = someImages<float>(random);
    for (const Bytes& image : someImages<short>(random))
        images.push_back(image);
    auto large = randomModel<float>(random, OutputKind::discrete, Shape::full, 300, 1, 300, 0);
    images.push_back(written(large.create()));
    const KTContext* context = KTGetContext();
    for (const unsigned mode : {0u, HMM_MODE_TILED}) {
        KTGetContext()->hmmMode |= mode;
        for (const Bytes& image : images) {
            const Stream stream = streamOf(image);
            std::fgetc(stream.get()); // the stream takes its buffer
            const int servers = context->nHMMServers;
            const long blocks = support::alloc::liveBlocks();
            int id = 0;
            support::alloc::failEach(
                [&] {
                    std::rewind(stream.get());
                    id = KTReadHMMServer(stream.get(), nullptr);
                },
                [&] {
                    EXPECT_EQ(id, -1);
                    EXPECT_EQ(context->nHMMServers, servers);
                    EXPECT_EQ(support::alloc::liveBlocks(), blocks);
                    KTSetStatus(0); // the mixtures' reader has reported
                });
            EXPECT_GT(id, 0);
            KTFreeHMMServer(id);
            EXPECT_EQ(support::alloc::liveBlocks(), blocks);
        }
    }
}

TEST_F(HmmFile, WritingTilesWithoutMemoryEndsBehindTheHeader) {
    KTSetHMMMode(0);
    KTGetContext()->hmmMode |= HMM_MODE_TILED;
    auto model = randomModel<float>(random, OutputKind::discrete, Shape::full, 3, 1, 2, 0);
    const int id = model.create();
    const Stream stream(std::tmpfile());
    std::fputc('x', stream.get());
    support::alloc::arm(1);
    KTWriteHMMServer(stream.get(), id, "x");
    support::alloc::disarm();
    EXPECT_EQ(contentsOf(stream.get()).size(), 17u);
}

TEST_F(HmmFile, WithoutMemoryForTheRegistryReadingFails) {
    auto model = randomModel<float>(random, OutputKind::discrete, Shape::full, 2, 1, 1, 0);
    const Stream stream = streamOf(written(model.create()));
    KTHMMFreeAll();
    support::alloc::arm(1);
    EXPECT_EQ(KTReadHMMServer(stream.get(), nullptr), -1);
    support::alloc::disarm();
    EXPECT_EQ(KTGetContext()->hmmMode & HMM_MODE_READY, 0u);
}

// --- files that were tampered with: whatever is accepted has to be usable without harm ---

void useServer(int id) {
    const Parameters p = parametersOf(id);
    const Stream sink(std::tmpfile());
    KTWriteHMMServer(sink.get(), id, "again");
    KTSetHMMMode(KT_HMM_KEEP);
    int order;
    KTGetHMMScales(id, &order, &order, &order, &order);
    const auto discard = [id](int made) {
        if (made > 0 && made != id) KTFreeHMMServer(made);
    };
    discard(KTCopyHMMServer(id));
    discard(KTsExpHMMServer(id));
    discard(KTsLogHMMServer(id));
    discard(KTswConvertHMMServer(id, -8, -14, -10, -10));
    discard(KTwsConvertHMMServer(id, 8, 14, 10, 10));
    const int symbols[] = {0, 1, 0};
    KTsEvalHMMForward(id, symbols, 3, nullptr);
    KTsEvalHMMViterbi(id, symbols, 3, nullptr);
    KTwEvalHMMViterbi(id, symbols, 3, nullptr, KT_NoScale, nullptr);
    const float frame[64] = {};
    const float* frames[] = {frame, frame};
    const short fixedFrame[64] = {};
    const short* fixedFrames[] = {fixedFrame, fixedFrame};
    const int* const sequences[] = {symbols};
    const float* const* const pppFrames[] = {frames};
    const int three = 3, two = 2;
    discard(KTsTrainHMMBaumWelch(id, sequences, &three, 1, 2, nullptr));
    std::vector<GaussMixServer*> mixtures(
        64, KTFindHMMServer(id)->mixtures != nullptr ? KTFindHMMServer(id)->mixtures[0] : nullptr);
    if (p.nStates <= 64) {
        KTGetHMMProb(id, nullptr, nullptr, nullptr, nullptr, mixtures.data());
        for (int i = 0; mixtures[0] != nullptr && i < p.nStates; ++i)
            KTsFreeGaussMixServer(mixtures[std::size_t(i)]);
    }
    if (p.nQuant <= 64) {
        KTsEvalSemicontHMMForward(id, frames, 2, nullptr);
        KTsEvalSemicontHMMViterbi(id, frames, 2, nullptr);
        KTwEvalSemicontHMMViterbi(id, fixedFrames, 2, nullptr, KT_NoScale, nullptr);
        discard(KTsTrainContHMMBaumWelch(id, pppFrames, &two, 1, 2, nullptr));
        discard(KTsTrainSemicontHMMBaumWelch(id, pppFrames, &two, 1, 2, nullptr));
        KTsEvalContHMMForward(id, frames, 2, nullptr);
        KTsEvalContHMMViterbi(id, frames, 2, nullptr);
        KTwEvalContHMMViterbi(id, fixedFrames, 2, nullptr, KT_NoScale, nullptr);
    }
    KTSetStatus(0);
}

TEST_F(HmmFile, TamperedFilesDoNoHarm) {
    std::vector<Bytes> images = someImages<float>(random);
    for (const Bytes& image : someImages<short>(random))
        images.push_back(image);
    const Codebook<float> codebook(random, 5, 3);
    const Codebook<short> fixedCodebook(random, 5, 3);
    const Stream stream(std::tmpfile());
    const std::uint32_t nasty[] = {0,          1,          2,          3,          4,
                                   6,          8,          0x7FFFFFFF, 0x80000000, 0xFFFFFFFF,
                                   0x00800021, 0x00802021, 0x00801012, 0x40400021};
    int accepted = 0;
    for (int round = 0; round < 6000; ++round) {
        Bytes image = images[random() % images.size()];
        const bool inRecord = random() % 2 == 0;
        for (int changes = 1 + int(random() % 3); changes > 0; --changes)
            if (inRecord)
                setWordAt(image, 16 + 4 * (random() % 16), nasty[random() % std::size(nasty)]);
            else
                image[random() % image.size()] = static_cast<unsigned char>(random());
        std::rewind(stream.get());
        std::fwrite(image.data(), 1, image.size(), stream.get());
        std::rewind(stream.get());
        const int id = KTReadHMMServer(stream.get(), nullptr);
        KTSetStatus(0);
        if (id < 0) continue;
        ++accepted;
        useServer(id);
        KTFreeHMMServer(id);
        ASSERT_EQ(KTGetContext()->nHMMServers, 0);
    }
    EXPECT_GT(accepted, 1000);
}

} // namespace
