#include "mixtures/mixtures.h"
#include "support/alloc_faults.h"
#include "support/reports.h"
#include "support/streams.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstring>

using namespace mixtures;

namespace {

using support::Bytes;
using support::contentsOf;
using support::put;
using support::setWordAt;
using support::Stream;
using support::streamOf;
using support::wordAt;

Bytes written(const Server& server) {
    const Stream stream(std::tmpfile());
    KTWriteGaussMixServer(stream.get(), server.get());
    return contentsOf(stream.get());
}

Server read(const Bytes& bytes) {
    return Server(KTReadGaussMixServer(streamOf(bytes).get()));
}

// The image of a mixture, written by the format's description; `stale` stands for every pointer,
// `tail` bytes of no meaning follow, and padding holds `pad`.
template <class T>
Bytes image(const Mixture<T>& m, int flags, int scale, int observations, std::uint32_t stale,
            int tail, T pad = T(0)) {
    const int dimPad = (m.nDim + 3) / 4 * 4, mixPad = (m.nMix + 3) / 4 * 4;
    Bytes payload;
    const auto vector = [&](const std::vector<T>& v, int length) {
        for (int i = 0; i < length; ++i)
            put(payload, i < int(v.size()) ? v[std::size_t(i)] : pad);
    };
    const auto table = [&](int count) {
        for (int i = 0; i < count; ++i)
            put(payload, stale);
    };
    if (sizeof(T) == 4) vector(m.weights, mixPad); // the normalised weights
    for (int k = 0; k < mixPad; ++k)
        put(payload, 0xABCD1234u); // the work vector
    vector(m.weights, mixPad);
    table(mixPad);
    for (const auto& row : m.means)
        vector(row, dimPad);
    table(mixPad);
    if (m.full()) table(m.nMix * dimPad);
    for (const auto& row : m.diagonals)
        vector(row, dimPad);
    for (const auto& matrix : m.matrices)
        for (const auto& row : matrix)
            vector(row, dimPad);
    payload.resize(payload.size() + std::size_t(tail), 0xEE);
    Bytes file{'G', 'A', 'U', 'S'};
    for (const std::uint32_t w :
         {stale, stale, m.full() ? stale : 0u, m.full() ? 0u : stale, sizeof(T) == 4 ? stale : 0u,
          stale, std::uint32_t(m.nDim), std::uint32_t(m.nMix), std::uint32_t(flags),
          std::uint32_t(scale), std::uint32_t(observations), std::uint32_t(payload.size())})
        put(file, w);
    file.insert(file.end(), payload.begin(), payload.end());
    return file;
}

int flavourFlags(const Mixture<float>& m) {
    return GAUSS_SERVER_FVR_S | (m.full() ? KT_GAUSS_FULL : KT_GAUSS_DIAGONAL);
}
int flavourFlags(const Mixture<short>& m) {
    return GAUSS_SERVER_FVR_W | (m.full() ? KT_GAUSS_FULL : KT_GAUSS_DIAGONAL);
}

template <class T>
void expectHolds(const Server& server, const Mixture<T>& m) {
    ASSERT_NE(server, nullptr);
    EXPECT_EQ(server->nDim, m.nDim);
    EXPECT_EQ(server->nMix, m.nMix);
    for (std::size_t k = 0; k < m.weights.size(); ++k) {
        EXPECT_EQ(ktl::gauss::weights<T>(server.get())[k], m.weights[k]);
        for (std::size_t i = 0; i < std::size_t(m.nDim); ++i) {
            EXPECT_EQ(ktl::gauss::means<T>(server.get())[k][i], m.means[k][i]);
            for (std::size_t j = 0; m.full() && j < std::size_t(m.nDim); ++j)
                EXPECT_EQ(ktl::gauss::matrices<T>(server.get())[k][i][j], m.matrices[k][i][j]);
            if (!m.full()) {
                EXPECT_EQ(ktl::gauss::diagonals<T>(server.get())[k][i], m.diagonals[k][i]);
            }
        }
    }
}

} // namespace

TEST(GaussFile, WrittenAndReadBackFloatServersEvaluateAsBefore) {
    std::mt19937 random(71);
    for (const bool full : {false, true})
        for (const auto& [nDim, nMix] : {std::pair{13, 3}, {39, 8}, {1, 1}, {4, 4}}) {
            auto mixture = randomMixture(random, nDim, nMix, full);
            const Server server = mixture.server(KT_GAUSS_NORMALIZE);
            const Server back = read(written(server));
            expectHolds(back, mixture);
            EXPECT_EQ(back->flags, server->flags | KT_GAUSS_BLOCK);
            EXPECT_EQ(back->nBytes, server->nBytes);
            EXPECT_EQ(back->nObservations, 1);
            const auto x = randomVector(random, nDim, 1);
            EXPECT_EQ(KTsEvalGaussMix(back.get(), x.data(), nDim),
                      KTsEvalGaussMix(server.get(), x.data(), nDim));
        }
}

TEST(GaussFile, WrittenAndReadBackFixedServersEvaluateAsBefore) {
    std::mt19937 random(72);
    for (const bool full : {false, true})
        for (const auto& [nDim, nMix] : {std::pair{13, 3}, {39, 8}, {2, 2}}) {
            auto mixture = randomFixedMixture(random, nDim, nMix, full);
            const Server server = mixture.server(KT_GAUSS_NORMALIZE, -17);
            server->nObservations = 1234;
            const Server back = read(written(server));
            expectHolds(back, mixture);
            EXPECT_EQ(back->flags, server->flags);
            EXPECT_EQ(back->scale, -17);
            EXPECT_EQ(back->nObservations, 1234);
            EXPECT_EQ(back->nBytes, server->nBytes);
            EXPECT_EQ(back->pNormWeights, nullptr);
            const auto x = randomWords(random, nDim);
            int a = 0, b = 0;
            EXPECT_EQ(KTwEvalGaussMix(back.get(), x.data(), nDim, 2, &a),
                      KTwEvalGaussMix(server.get(), x.data(), nDim, 2, &b));
            EXPECT_EQ(a, b);
        }
}

TEST(GaussFile, HasTheDescribedLayout) {
    std::mt19937 random(73);
    for (const bool full : {false, true}) {
        auto mixture = randomMixture(random, 5, 3, full);
        const Server server = mixture.server();
        for (int k = 0; k < 4; ++k)
            static_cast<float*>(server->pWork)[k] = 7;
        const Bytes got = written(server);
        const Bytes expected = image(mixture, flavourFlags(mixture), 0, 1, 0x30, 0);
        ASSERT_GE(got.size(), expected.size());
        ASSERT_LE(got.size(), expected.size() + 15);
        EXPECT_EQ(wordAt(got, 0), 0x53554147u);
        EXPECT_EQ(wordAt(got, 48), got.size() - 52);
        EXPECT_EQ(wordAt(got, 12) != 0, full);
        EXPECT_EQ(wordAt(got, 16) != 0, !full);
        for (const std::size_t at : {28u, 32u, 36u, 40u, 44u})
            EXPECT_EQ(wordAt(got, at), wordAt(expected, at)) << at;
        // The payload, less the work vector and the tables, which mean nothing.
        const std::size_t mixPad = 4, dimPad = 8, floats = 52 + 4 * (2 * mixPad),
                          means = floats + 4 * 2 * mixPad;
        EXPECT_EQ(Bytes(got.begin() + 52, got.begin() + 52 + 16),
                  Bytes(expected.begin() + 52, expected.begin() + 52 + 16));
        EXPECT_EQ(wordAt(got, 52 + 16), 0x40E00000u); // the work vector as it is
        EXPECT_EQ(Bytes(got.begin() + long(floats), got.begin() + long(floats) + 16),
                  Bytes(expected.begin() + long(floats), expected.begin() + long(floats) + 16));
        EXPECT_EQ(
            Bytes(got.begin() + long(means), got.begin() + long(means + 4 * 3 * dimPad)),
            Bytes(expected.begin() + long(means), expected.begin() + long(means + 4 * 3 * dimPad)));
        const std::size_t rows = means + 4 * 3 * dimPad + 4 * mixPad + (full ? 4 * 3 * dimPad : 0);
        EXPECT_EQ(Bytes(got.begin() + long(rows), got.begin() + long(expected.size())),
                  Bytes(expected.begin() + long(rows), expected.end()));
    }
}

TEST(GaussFile, ReadsImagesOfAnyAlignmentWithStalePointers) {
    std::mt19937 random(74);
    for (const bool full : {false, true})
        for (int tail = 0; tail <= 15; ++tail) {
            support::CapturedReports reports;
            const auto floats = randomMixture(random, 5, 3, full);
            const auto words = randomFixedMixture(random, 5, 3, full);
            expectHolds(read(image(floats, flavourFlags(floats), 0, 9, 0xDEADBEEF, tail)), floats);
            const Server fixed =
                read(image(words, flavourFlags(words) | KT_GAUSS_BLOCK, -3, 9, 1, tail));
            expectHolds(fixed, words);
            EXPECT_EQ(fixed->nObservations, 9);
            EXPECT_EQ(fixed->scale, -3);
            EXPECT_EQ(fixed->flags, flavourFlags(words)); // the block bit goes
            EXPECT_EQ(reports.count(), 0u);
        }
}

TEST(GaussFile, KeepsTheNormalisedWeightsOfTheFile) {
    std::mt19937 random(75);
    const auto m = randomMixture(random, 3, 2, false);
    Bytes file = image(m, flavourFlags(m) | KT_GAUSS_NORMALIZE, 0, 1, 5, 0);
    Bytes patch;
    put(patch, 42.0f);
    std::copy(patch.begin(), patch.end(), file.begin() + 52);
    const Server server = read(file);
    EXPECT_EQ(server->pNormWeights[0], 42.0f);
    EXPECT_EQ(ktl::gauss::weights<float>(server.get())[0], m.weights[0]);
}

TEST(GaussFile, PaddingOfTheFileDoesNotCount) {
    std::mt19937 random(76);
    auto m = randomMixture(random, 5, 3, false);
    const auto x = randomVector(random, 5, 1);
    const Server clean = m.server(), dirty = read(image(m, flavourFlags(m), 0, 1, 5, 3, 1e30f));
    EXPECT_EQ(KTsEvalGaussMix(dirty.get(), x.data(), 5), KTsEvalGaussMix(clean.get(), x.data(), 5));
}

TEST(GaussFile, StandsRightBehindThePayloadAfterARead) {
    std::mt19937 random(77);
    const auto a = randomMixture(random, 5, 3, true);
    const auto b = randomFixedMixture(random, 6, 2, false);
    Bytes file = image(a, flavourFlags(a), 0, 1, 5, 11);
    const Bytes second = image(b, flavourFlags(b), 0, 1, 5, 0);
    file.insert(file.end(), second.begin(), second.end());
    file.push_back('!');
    const Stream stream = streamOf(file);
    const Server first(KTReadGaussMixServer(stream.get())),
        next(KTReadGaussMixServer(stream.get()));
    expectHolds(first, a);
    expectHolds(next, b);
    EXPECT_EQ(std::fgetc(stream.get()), '!');
}

TEST(GaussFile, AWrongTagLeavesNothing) {
    support::CapturedReports reports;
    std::mt19937 random(78);
    const auto m = randomMixture(random, 5, 3, true);
    for (std::size_t i = 0; i < 4; ++i) {
        Bytes file = image(m, flavourFlags(m), 0, 1, 5, 0);
        file[i] ^= 0x20;
        const long before = support::alloc::liveBlocks();
        const Stream stream = streamOf(file);
        support::alloc::arm(0);
        EXPECT_EQ(KTReadGaussMixServer(stream.get()), nullptr);
        support::alloc::disarm();
        EXPECT_LE(support::alloc::liveBlocks(), before + 3); // the stream's own
    }
    EXPECT_EQ(KTGetStatus(), 0);
    EXPECT_EQ(reports.count(), 0u);
}

TEST(GaussFile, EveryTruncationGivesNullInSilence) {
    support::CapturedReports reports;
    std::mt19937 random(79);
    const auto m = randomMixture(random, 3, 2, true);
    const auto w = randomFixedMixture(random, 3, 2, false);
    for (const Bytes& file :
         {image(m, flavourFlags(m), 0, 1, 5, 4), image(w, flavourFlags(w), 0, 1, 5, 0)})
        for (std::size_t length = 0; length < file.size(); ++length) {
            EXPECT_EQ(read(Bytes(file.begin(), file.begin() + long(length))), nullptr) << length;
        }
    EXPECT_EQ(KTGetStatus(), 0);
    EXPECT_EQ(reports.count(), 0u);
}

TEST(GaussFile, BothOrNeitherCovarianceIsReported) {
    std::mt19937 random(80);
    const auto m = randomMixture(random, 3, 2, false);
    const auto w = randomFixedMixture(random, 3, 2, false);
    for (Bytes file :
         {image(m, flavourFlags(m), 0, 1, 5, 0), image(w, flavourFlags(w), 0, 1, 5, 0)})
        for (const std::uint32_t value : {0u, 1u}) {
            support::CapturedReports reports;
            setWordAt(file, 12, value);
            setWordAt(file, 16, value);
            EXPECT_EQ(read(file), nullptr);
            ASSERT_EQ(reports.count(), 1u);
            EXPECT_EQ(reports[0].status, -5);
            EXPECT_EQ(reports[0].message,
                      "One of InverseCov or InverseCovD must be NULL and the other non NULL");
            EXPECT_EQ(reports[0].function, "KTReadGaussMixServer");
            EXPECT_EQ(reports[0].source, "..\\_LIBSRC\\KT_GAUSS");
        }
}

TEST(GaussFile, SizesThatMakeNoSenseAreRefusedInSilence) {
    support::CapturedReports reports;
    std::mt19937 random(81);
    const auto m = randomMixture(random, 3, 2, true);
    const Bytes good = image(m, flavourFlags(m), 0, 1, 5, 0);
    const std::uint32_t payload = wordAt(good, 48);
    for (const std::uint32_t bytes :
         {0u, 1u, payload - 1, payload + 16, 0x7FFFFFFFu, 0x80000000u, 0xFFFFFFFFu}) {
        Bytes file = good;
        setWordAt(file, 48, bytes);
        file.resize(file.size() + 64);
        EXPECT_EQ(read(file), nullptr) << bytes;
    }
    for (const std::size_t at : {28u, 32u})
        for (const std::uint32_t n :
             {0u, 0xFFFFFFFFu, 0x80000000u, 0x7FFFFFFFu, 0x7FFFFFFDu, 0x10000u}) {
            Bytes file = good;
            setWordAt(file, at, n);
            EXPECT_EQ(read(file), nullptr) << at << " " << n;
        }
    EXPECT_EQ(KTGetStatus(), 0);
    EXPECT_EQ(reports.count(), 0u);
}

// A record may announce gigabytes, consistently; the stream that has not got them costs no more
// than it holds.
TEST(GaussFile, AHugePromiseTakesNoMoreMemoryThanTheStreamHolds) {
    support::CapturedReports reports;
    Mixture<float> small;
    small.nDim = 3;
    small.nMix = 2;
    small.weights = {1, 1};
    small.means = small.diagonals = {{1, 1, 1}, {1, 1, 1}};
    Bytes file = image(small, flavourFlags(small), 0, 1, 5, 0);
    const std::uint32_t nMix = 1000, nDim = 100000; // 800 MB
    setWordAt(file, 28, nDim);
    setWordAt(file, 32, nMix);
    setWordAt(file, 48, nMix * 12 + 2 * (nMix * nDim * 4 + nMix * 4));
    const Stream stream = streamOf(file);
    support::alloc::arm(0);
    EXPECT_EQ(KTReadGaussMixServer(stream.get()), nullptr);
    support::alloc::disarm();
    EXPECT_LE(support::alloc::allocations(), 3); // a first piece, and the stream's buffer
    EXPECT_EQ(reports.count(), 0u);
}

TEST(GaussFile, LargeServersComeInPieces) {
    std::mt19937 random(82);
    auto mixture = randomMixture(random, 39, 700, false); // 230 KB
    const Server server = mixture.server();
    expectHolds(read(written(server)), mixture);
}

TEST(GaussFile, ExhaustionIsReportedUnderTheFlavoursName) {
    std::mt19937 random(83);
    const auto m = randomMixture(random, 39, 300, false); // more than one piece
    const auto w = randomFixedMixture(random, 5, 2, false);
    for (const bool fixed : {false, true}) {
        const Bytes file =
            fixed ? image(w, flavourFlags(w), 0, 1, 5, 0) : image(m, flavourFlags(m), 0, 1, 5, 0);
        const Stream stream = streamOf(file);
        std::fgetc(stream.get()); // the stream has its buffer from here on
        int failures = 0;
        for (;; ++failures) {
            support::CapturedReports reports;
            std::rewind(stream.get());
            support::alloc::arm(failures + 1);
            const Server server(KTReadGaussMixServer(stream.get()));
            const bool failed = support::alloc::failed();
            support::alloc::disarm();
            if (!failed) {
                EXPECT_NE(server, nullptr);
                break;
            }
            EXPECT_EQ(server, nullptr);
            ASSERT_EQ(reports.count(), 1u);
            EXPECT_EQ(reports[0].status, -4);
            EXPECT_EQ(reports[0].message, "insufficiency of memory for pointer  ptr");
            EXPECT_EQ(reports[0].function,
                      fixed ? "KTwReadGaussMixServer" : "KTReadGaussMixServer");
        }
        EXPECT_GE(failures, 2);
    }
}

// Every bit of the word but KT_GAUSS_BLOCK comes back as it stands, from a first read and from a
// second one of what was written then.
TEST(GaussFile, FlagsOfTheFileAreKept) {
    std::mt19937 random(84);
    const int strange = int(0x8FFFE000u) | 0x0C4F | KT_GAUSS_RAW | KT_GAUSS_NORMALIZE;
    for (const bool full : {false, true}) {
        const int shape = full ? KT_GAUSS_FULL : 0;
        const auto m = randomMixture(random, 5, 2, full);
        for (const int more : {0, GAUSS_SERVER_FVR_W + 0, KT_GAUSS_DIAGONAL + 0, strange}) {
            const int flags = GAUSS_SERVER_FVR_S | shape | more;
            const Server server = read(image(m, flags, -7, 9, 5, 0));
            expectHolds(server, m);
            EXPECT_EQ(server->flags, flags | KT_GAUSS_BLOCK);
            EXPECT_EQ(server->scale, -7);
            EXPECT_EQ(server->nObservations, 9);
            EXPECT_EQ(read(written(server))->flags, flags | KT_GAUSS_BLOCK);
        }
        const auto w = randomFixedMixture(random, 5, 2, full);
        for (const int more : {0, KT_GAUSS_DIAGONAL + 0, strange}) {
            const int flags = GAUSS_SERVER_FVR_W | shape | more;
            const Server server = read(image(w, flags | KT_GAUSS_BLOCK, -7, 9, 5, 0));
            expectHolds(server, w);
            EXPECT_EQ(server->flags, flags);
            EXPECT_EQ(read(written(server))->flags, flags);
        }
    }
}

// A fixed server without its bit would pass for a float one, which has normalised weights; training
// goes by the bit of full covariances, and would look for those of the other shape.
TEST(GaussFile, FlagsThatPromiseWhatIsNotThereAreRefusedInSilence) {
    support::CapturedReports reports;
    std::mt19937 random(90);
    for (const bool full : {false, true}) {
        const int shape = full ? KT_GAUSS_FULL : 0,
                  otherShape = full ? KT_GAUSS_DIAGONAL : KT_GAUSS_FULL;
        const auto m = randomMixture(random, 5, 2, full);
        const auto w = randomFixedMixture(random, 5, 2, full);
        EXPECT_EQ(read(image(m, GAUSS_SERVER_FVR_S | otherShape, 0, 1, 5, 0)), nullptr);
        EXPECT_EQ(read(image(w, GAUSS_SERVER_FVR_W | otherShape, 0, 1, 5, 0)), nullptr);
        EXPECT_EQ(read(image(w, shape, 0, 1, 5, 0)), nullptr);
        EXPECT_EQ(read(image(w, shape | KT_GAUSS_RAW, 0, 1, 5, 0)), nullptr);
    }
    EXPECT_EQ(KTGetStatus(), 0);
    EXPECT_EQ(reports.count(), 0u);
}

TEST(GaussFile, WritingLeavesTheServerAsItWas) {
    std::mt19937 random(85);
    auto mixture = randomMixture(random, 5, 2, false);
    const Server server = mixture.server();
    const int bytes = server->nBytes;
    written(server);
    EXPECT_EQ(server->nBytes, bytes);
}

TEST(GaussFile, AFailingWriteIsSilent) {
    support::CapturedReports reports;
    std::mt19937 random(86);
    auto mixture = randomMixture(random, 39, 100, false);
    const Server server = mixture.server();
    const int bytes = server->nBytes;
    const Stream readOnly(std::fopen(KTL_SOURCE_DIR "/exports.txt", "rb"));
    ASSERT_NE(readOnly, nullptr);
    KTWriteGaussMixServer(readOnly.get(), server.get());
    EXPECT_EQ(server->nBytes, bytes);
    EXPECT_EQ(reports.count(), 0u);
    EXPECT_EQ(KTGetStatus(), 0);
}

TEST(GaussFile, NullArgumentsDoNothing) {
    std::mt19937 random(87);
    auto mixture = randomMixture(random, 5, 2, false);
    KTWriteGaussMixServer(nullptr, mixture.server().get());
    const Stream stream(std::tmpfile());
    KTWriteGaussMixServer(stream.get(), nullptr);
    EXPECT_TRUE(contentsOf(stream.get()).empty());
    EXPECT_EQ(KTReadGaussMixServer(nullptr), nullptr);
}

TEST(GaussFile, WorksThroughTheLibrarysStreams) {
    std::mt19937 random(88);
    auto mixture = randomMixture(random, 5, 2, true);
    const std::string name = testing::TempDir() + "ktl_gauss_file_test.bin";
    FILE* out = KTOpenFile(name.c_str(), "wb");
    ASSERT_NE(out, nullptr);
    KTWriteGaussMixServer(out, mixture.server().get());
    KTCloseFile(out);
    FILE* in = KTOpenFile(name.c_str(), "rb");
    ASSERT_NE(in, nullptr);
    expectHolds(Server(KTReadGaussMixServer(in)), mixture);
    KTCloseFile(in);
    std::remove(name.c_str());
}

// Damaged files: whatever comes of them, it is null or a server that every operation can take.
TEST(GaussFile, MutatedFilesDoNoHarm) {
    support::CapturedReports reports;
    std::mt19937 random(89);
    const auto f = randomMixture(random, 5, 3, true);
    const auto d = randomMixture(random, 6, 2, false);
    const auto w = randomFixedMixture(random, 5, 3, false);
    const std::vector<Bytes> seeds{image(f, flavourFlags(f), 0, 4, 5, 0),
                                   image(d, flavourFlags(d), 0, 4, 5, 7),
                                   image(w, flavourFlags(w), -12, 4, 5, 15)};
    const std::uint32_t odd[] = {0,  1,    2,    3,      4,          7,          8,
                                 16, 0x20, 0x30, 0xFFFF, 0x7FFFFFFF, 0x80000000, 0xFFFFFFFF};
    int accepted = 0;
    for (int round = 0; round < 4000; ++round) {
        Bytes file = seeds[std::size_t(round) % seeds.size()];
        for (unsigned change = random() % 3 + 1; change > 0; --change) {
            switch (random() % 4) {
            case 0:
                file[random() % file.size()] ^= static_cast<unsigned char>(1u << random() % 8);
                break;
            case 1:
                setWordAt(file, 4 + 4 * (random() % 12), odd[random() % std::size(odd)]);
                break;
            case 2:
                setWordAt(file, 4 + 4 * (random() % 12), std::uint32_t(random()) >> random() % 32);
                break;
            default:
                file.resize(52 + random() % (file.size() - 51));
            }
            if (file.size() < 52) file.resize(52);
        }
        const Server server = read(file);
        if (server == nullptr) continue;
        ++accepted;
        const std::vector<float> x(std::size_t(server->nDim), 0.5f);
        const std::vector<short> y(std::size_t(server->nDim), 3);
        std::vector<float> row = x;
        float* rows[] = {row.data(), row.data()};
        KTsEvalGaussMix(server.get(), x.data(), server->nDim);
        KTwEvalGaussMix(server.get(), y.data(), server->nDim, 2, nullptr);
        read(written(server));
        Server(KTswConvertGaussMixServer(server.get(), -10, -10, -10));
        Server(KTwsConvertGaussMixServer(server.get(), 10, 10, 10));
        Server(KTsInvertGaussianCovMatrix(server.get(), KT_GAUSS_NORMALIZE));
        KTSetStatus(0);
        Server(KTsTrainGaussMixServer(server.get(), rows, 2, server->nDim));
        reports.clear();
    }
    EXPECT_GT(accepted, 200);
    KTFreeGaussTbls();
}
