#include "support/alloc_faults.h"
#include "support/every_level.h"
#include "support/guarded.h"

#include "ktlp6.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <random>

namespace {

template <class T>
struct Codes {
    Codes(int nCodes, int nDim) {
        for (int c = 0; c < nCodes; ++c)
            rows.push_back(std::vector<T>(static_cast<std::size_t>(nDim)));
        point();
    }
    Codes(std::initializer_list<std::vector<T>> values) : rows(values) { point(); }
    void point() {
        pointers.clear();
        for (auto& row : rows)
            pointers.push_back(row.data());
    }
    int count() const { return int(rows.size()); }
    T** get() { return pointers.data(); }
    std::vector<T>& operator[](int c) { return rows[std::size_t(c)]; }

    std::vector<std::vector<T>> rows;
    std::vector<T*> pointers;
};

using Random = std::mt19937;

// --- the plain forms ---

float plainSquare(const float* a, const float* b, int nDim) {
    volatile float even = 0, odd = 0; // each rounding to float is part of the result
    for (int k = 0; k < nDim; ++k) {
        const volatile float difference = a[k] - b[k];
        const volatile float square = difference * difference;
        if (k % 2 == 0)
            even = even + square;
        else
            odd = odd + square;
    }
    return even + odd;
}

std::int64_t exactSquare(const short* a, const short* b, int nDim) {
    std::int64_t total = 0;
    for (int k = 0; k < nDim; ++k)
        total += (std::int64_t(a[k]) - b[k]) * (std::int64_t(a[k]) - b[k]);
    return total;
}

std::vector<int> wordsOf(const std::vector<float>& values) {
    std::vector<int> words(values.size());
    std::memcpy(words.data(), values.data(), 4 * values.size());
    return words;
}

constexpr int unwritten = -77;

std::vector<int> plainWinners(const std::vector<int>& words, int nBest) {
    const int n = int(words.size());
    std::vector<int> indices(words.size(), unwritten);
    if (nBest == 1) {
        int winner = 0;
        for (int c = 1; c < n; ++c)
            if (words[std::size_t(c)] < words[std::size_t(winner)]) winner = c;
        indices[0] = winner;
        indices[std::size_t(winner)] = 0;
    } else if (nBest > 1) {
        for (int c = 0; c < n; ++c)
            indices[std::size_t(c)] = c;
        const int places = nBest >= n ? n - 1 : nBest;
        for (int p = 0; p < places; ++p) {
            int best = p;
            for (int q = p + 1; q < n; ++q)
                if (words[std::size_t(indices[std::size_t(q)])] <
                    words[std::size_t(indices[std::size_t(best)])])
                    best = q;
            std::swap(indices[std::size_t(p)], indices[std::size_t(best)]);
        }
    }
    return indices;
}

void expectFloat(const std::vector<float>& vector, Codes<float>& codes, int nBest, int bRoot) {
    const int nDim = int(vector.size()), nCodes = codes.count();
    std::vector<float> want;
    for (auto& row : codes.rows) {
        const float square = plainSquare(row.data(), vector.data(), nDim);
        want.push_back(bRoot ? std::sqrt(square) : square);
    }
    support::Guarded<float> distances(want.size(), -1);
    support::Guarded<int> indices(want.size(), unwritten);
    KTsVQKohonen(vector.data(), codes.get(), distances.data(), nDim, nCodes, indices.data(), nBest,
                 bRoot);
    ASSERT_EQ(wordsOf(distances.values()), wordsOf(want));
    ASSERT_EQ(indices.values(), plainWinners(wordsOf(want), nBest));
    EXPECT_TRUE(distances.intact());
    EXPECT_TRUE(indices.intact());
}

// --- float ---

TEST(KohonenFloat, EqualsThePlainFormOnEveryLevel) {
    support::onEveryLevel([] {
        Random random(1);
        std::normal_distribution<float> normal;
        for (int round = 0; round < 600; ++round) {
            const int nDim = 1 + int(random() % 40), nCodes = 1 + int(random() % 70);
            const bool isGrid = round % 3 == 0;
            const auto value = [&] { return isGrid ? float(random() % 3) : normal(random); };
            Codes<float> codes(nCodes, nDim);
            for (auto& row : codes.rows)
                for (float& element : row)
                    element = value();
            std::vector<float> vector(static_cast<std::size_t>(nDim));
            for (float& element : vector)
                element = value();
            const int nBests[] = {-1, 0, 1, 2, 5, nCodes - 1, nCodes, nCodes + 3};
            expectFloat(vector, codes, nBests[random() % 8], round % 2);
            if (HasFatalFailure()) return;
        }
    });
}

TEST(KohonenFloat, OneElementGivesTheSameSquares) {
    Codes<float> codes{{3.0f}, {-1.5f}, {0.25f}};
    for (int bRoot : {0, 1})
        expectFloat({1.0f}, codes, 1, bRoot);
    float distances[3];
    const float vector = 1.0f;
    KTsVQKohonen(&vector, codes.get(), distances, 1, 3, nullptr, 0, 0);
    EXPECT_EQ(distances[0], 4.0f);
    EXPECT_EQ(distances[1], 6.25f);
    EXPECT_EQ(distances[2], 0.5625f);
}

TEST(KohonenFloat, TheTwoSumsAreRoundedSeparately) {
    // 2^24 swallows a 1 that is added to it, but not the 2 that two of them make in the other sum
    Codes<float> codes{{4096, 1, 0, 1}};
    float distance, vector[4] = {};
    KTsVQKohonen(vector, codes.get(), &distance, 4, 1, nullptr, 0, 0);
    EXPECT_EQ(distance, 16777218.0f);
    Codes<float> other{{4096, 0, 1, 0, 1, 0}};
    KTsVQKohonen(vector, other.get(), &distance, 4, 1, nullptr, 0, 0);
    EXPECT_EQ(distance, 16777216.0f);
}

TEST(KohonenFloat, BelowTwoElementsTheFirstOnesAreCompared) {
    Codes<float> codes{{3.0f, 9.0f}, {1.5f, 9.0f}};
    const float vector[2] = {1.0f, -9.0f};
    for (int nDim : {1, 0, -1, INT32_MIN}) {
        support::Guarded<float> distances(2, -7);
        int indices[2] = {9, 9};
        KTsVQKohonen(vector, codes.get(), distances.data(), nDim, 2, indices, 1, 0);
        EXPECT_EQ(distances[0], 4.0f) << nDim;
        EXPECT_EQ(distances[1], 0.25f) << nDim;
        EXPECT_EQ(indices[0], 1);
        KTsVQKohonen(vector, codes.get(), distances.data(), nDim, 2, indices, 2, 1);
        EXPECT_EQ(distances[0], 2.0f) << nDim;
        EXPECT_EQ(distances[1], 0.5f) << nDim;
        EXPECT_EQ(indices[0], 1);
        EXPECT_EQ(indices[1], 0);
        EXPECT_TRUE(distances.intact());
    }
}

// The fixed flavour has no short path: its sums of no elements are 0.
TEST(KohonenFixed, NoElementsAreAllAtDistanceZero) {
    Codes<short> codes{{3}, {1}};
    for (int nDim : {0, -1, INT32_MIN})
        for (int mode : {KT_NoScale, KT_FixedScale, KT_Saturate}) {
            int distances[2] = {9, 9}, indices[2] = {9, 9};
            KTwVQKohonen(codes[0].data(), codes.get(), distances, nDim, 2, indices, 1, 1, mode,
                         nullptr);
            EXPECT_EQ(distances[0], 0);
            EXPECT_EQ(distances[1], 0);
            EXPECT_EQ(indices[0], 0);
        }
}

// --- winners, in both flavours ---

TEST(Kohonen, EqualDistancesGiveTheLowerIndexInBothSelections) {
    Codes<float> codes{{5, 0}, {0, 2}, {2, 0}, {0, -2}, {-2, 0}};
    const float vector[2] = {};
    float distances[5];
    int one[5] = {unwritten, unwritten, unwritten, unwritten, unwritten}, ranked[5];
    KTsVQKohonen(vector, codes.get(), distances, 2, 5, one, 1, 1);
    EXPECT_EQ(one[0], 1);
    EXPECT_EQ(one[1], 0); // the winner's own word
    EXPECT_EQ(one[2], unwritten);
    EXPECT_EQ(one[4], unwritten);
    KTsVQKohonen(vector, codes.get(), distances, 2, 5, ranked, 2, 1);
    EXPECT_EQ(ranked[0], 1);
    EXPECT_EQ(ranked[1], 2);
}

TEST(Kohonen, AnEarlierPlaceWinsTiesAfterExchanges) {
    Codes<float> codes{{5, 0}, {0, 5}, {1, 0}};
    const float vector[2] = {};
    float distances[3];
    int ranked[3];
    KTsVQKohonen(vector, codes.get(), distances, 2, 3, ranked, 2, 0);
    EXPECT_EQ(std::vector<int>(ranked, ranked + 3),
              (std::vector<int>{2, 1, 0})); // code 0 went to the last place
    EXPECT_EQ(distances[0], 25);            // the distances stay in the order of the codes
    EXPECT_EQ(distances[2], 1);
}

TEST(Kohonen, NBestOfAllCodesIsHeldToOneLess) {
    Codes<short> codes{{9, 0}, {1, 0}, {5, 0}};
    const short vector[2] = {};
    int distances[3], ranked[3], less[3];
    KTwVQKohonen(vector, codes.get(), distances, 2, 3, ranked, 3, 1, KT_NoScale, nullptr);
    KTwVQKohonen(vector, codes.get(), distances, 2, 3, less, 2, 1, KT_NoScale, nullptr);
    EXPECT_EQ(std::vector<int>(ranked, ranked + 3), (std::vector<int>{1, 2, 0}));
    EXPECT_EQ(std::vector<int>(ranked, ranked + 3), std::vector<int>(less, less + 3));
    int single[2] = {unwritten, unwritten};
    KTwVQKohonen(vector, codes.get(), distances, 2, 1, single, 4, 1, KT_NoScale, nullptr);
    EXPECT_EQ(single[0], 0);
    EXPECT_EQ(single[1], unwritten);
}

TEST(Kohonen, WinnerZeroGivesIndexZero) {
    Codes<short> codes{{0, 0}, {1, 0}};
    const short vector[2] = {};
    int distances[2], indices[2] = {unwritten, unwritten};
    KTwVQKohonen(vector, codes.get(), distances, 2, 2, indices, 1, 0, KT_NoScale, nullptr);
    EXPECT_EQ(indices[0], 0);
    EXPECT_EQ(indices[1], unwritten);
}

TEST(Kohonen, WithoutBestTheIndicesAreNotTouched) {
    Codes<short> codes{{0, 0}, {1, 0}};
    const short vector[2] = {};
    int distances[2], indices[2] = {unwritten, unwritten};
    for (int nBest : {0, -4}) {
        KTwVQKohonen(vector, codes.get(), distances, 2, 2, indices, nBest, 0, KT_NoScale, nullptr);
        KTwVQKohonen(vector, codes.get(), distances, 2, 2, nullptr, nBest, 0, KT_NoScale, nullptr);
        EXPECT_EQ(indices[0], unwritten);
    }
}

TEST(Kohonen, WithoutCodesNothingIsWritten) {
    float distance = 7;
    int word = 7, index = 7;
    for (int nCodes : {0, -1}) {
        KTsVQKohonen(nullptr, nullptr, &distance, 3, nCodes, &index, 2, 1);
        KTwVQKohonen(nullptr, nullptr, &word, 3, nCodes, &index, 1, 1, KT_AutoScale, nullptr);
    }
    EXPECT_EQ(distance, 7);
    EXPECT_EQ(word, 7);
    EXPECT_EQ(index, 7);
}

TEST(Kohonen, AllocatesNothing) {
    Codes<float> codes(300, 20);
    Codes<short> words(300, 20);
    std::vector<float> distances(300);
    std::vector<int> fixed(300), indices(300);
    support::alloc::arm(0);
    KTsVQKohonen(codes[0].data(), codes.get(), distances.data(), 20, 300, indices.data(), 9, 1);
    KTwVQKohonen(words[0].data(), words.get(), fixed.data(), 20, 300, indices.data(), 9, 1,
                 KT_AutoScale, nullptr);
    support::alloc::disarm();
    EXPECT_EQ(support::alloc::allocations(), 0);
}

// --- fixed ---

int shifted(int value, int scale) {
    if (scale >= 1) return scale > 31 ? (value < 0 ? -1 : 0) : value >> scale;
    return int(std::uint32_t(value) << (std::uint32_t(scale) & 31u));
}

TEST(KohonenFixed, EqualsThePlainFormOnEveryLevel) {
    support::onEveryLevel([] {
        Random random(2);
        for (int round = 0; round < 800; ++round) {
            const int nDim = int(random() % 40), nCodes = 1 + int(random() % 70),
                      scaleMode = int(random() % 6) - 1;
            const unsigned range = round % 3 == 0 ? 4 : round % 3 == 1 ? 2000 : 65536;
            const auto value = [&] { return short(int(random() % range) - int(range / 2)); };
            Codes<short> codes(nCodes, nDim + 1);
            for (auto& row : codes.rows)
                for (short& element : row)
                    element = value();
            std::vector<short> vector(static_cast<std::size_t>(nDim + 1));
            for (short& element : vector)
                element = value();
            const int bRoot = round % 2, nBest = int(random() % 6) - 1;
            int scale = int(random() % 80) - 40;
            const int givenScale = scale;

            std::vector<int> want(codes.rows.size());
            int wantScale = givenScale;
            if (scaleMode == 2 || scaleMode == 3) {
                std::vector<float> floats;
                for (auto& row : codes.rows) {
                    const float square = float(exactSquare(row.data(), vector.data(), nDim));
                    floats.push_back(bRoot ? std::sqrt(square) : square);
                }
                KTsibConvertDown(floats.data(), want.data(), nCodes, scaleMode, &wantScale);
            } else {
                for (std::size_t c = 0; c < want.size(); ++c) {
                    const auto wrapped =
                        std::uint32_t(exactSquare(codes.rows[c].data(), vector.data(), nDim));
                    want[c] = int(bRoot ? std::uint32_t(std::floor(std::sqrt(double(wrapped))))
                                        : wrapped);
                    if (scaleMode == 1) want[c] = shifted(want[c], givenScale);
                }
            }
            support::Guarded<int> distances(want.size(), -1);
            support::Guarded<int> indices(want.size(), unwritten);
            KTwVQKohonen(vector.data(), codes.get(), distances.data(), nDim, nCodes, indices.data(),
                         nBest, bRoot, scaleMode, &scale);
            ASSERT_EQ(distances.values(), want) << "mode " << scaleMode << " scale " << givenScale;
            ASSERT_EQ(indices.values(), plainWinners(want, nBest));
            ASSERT_EQ(scale, wantScale);
            ASSERT_TRUE(distances.intact() && indices.intact());
        }
    });
}

// A distance whose square is exactly `square` + `rest` squared ones and so on: codes of as many
// elements as needed.
std::vector<short> rowOfSquare(std::int64_t square) {
    std::vector<short> row;
    while (square > 0) {
        const auto root = std::min<std::int64_t>(std::int64_t(std::sqrt(double(square))), 32767);
        row.push_back(short(root));
        square -= root * root;
    }
    EXPECT_LE(row.size(), 16u);
    row.resize(16);
    return row;
}

TEST(KohonenFixed, IntegerRootsAreTheTruncatedOnesUpTo32Bits) {
    support::onEveryLevel([] {
        std::vector<std::int64_t> squares;
        for (std::int64_t root : {1, 2, 3, 100, 255, 256, 4095, 32767, 46340, 46341, 65535})
            for (std::int64_t offset : {-1, 0, 1})
                squares.push_back(root * root + offset);
        squares.insert(squares.end(), {(1LL << 31) - 1, 1LL << 31, (1LL << 32) - 1});
        const short zero[16] = {};
        for (std::int64_t square : squares) {
            if (square < 0 || square >= 1LL << 32) continue;
            Codes<short> code{rowOfSquare(square)};
            int distance = -1;
            KTwVQKohonen(zero, code.get(), &distance, 16, 1, nullptr, 0, 1, KT_NoScale, nullptr);
            EXPECT_LE(std::int64_t(distance) * distance, square);
            EXPECT_GT(std::int64_t(distance + 1) * (distance + 1), square);
        }
    });
}

TEST(KohonenFixed, PlainSumsWrapAndTheWinnerIsTheMostNegative) {
    Codes<short> codes{{1, 0}, {32767, 32767}, {-32768, -32768}};
    const short vector[2] = {-32768, -32768};
    int distances[3], indices[3];
    KTwVQKohonen(vector, codes.get(), distances, 2, 3, indices, 1, 0, KT_NoScale, nullptr);
    EXPECT_EQ(distances[1], -262142); // 2 * 65535^2 - 2^33
    EXPECT_EQ(indices[0], 0);         // 32769^2 + 32768^2 is negative as a word, and smaller
    EXPECT_LT(distances[0], distances[1]);
}

TEST(KohonenFixed, ScalesShiftRightFromOneUpAndLeftByFiveBitsBelow) {
    Codes<short> codes{{5, 6}};
    const short vector[2] = {};
    const auto at = [&](int scale) {
        int distance;
        KTwVQKohonen(vector, codes.get(), &distance, 2, 1, nullptr, 0, 0, KT_FixedScale, &scale);
        return distance;
    };
    EXPECT_EQ(at(0), 61);
    EXPECT_EQ(at(1), 30);
    EXPECT_EQ(at(5), 1);
    EXPECT_EQ(at(31), 0);
    EXPECT_EQ(at(32), 0);
    EXPECT_EQ(at(-1), INT32_MIN); // left by 31
    EXPECT_EQ(at(-31), 122);      // left by 1
    EXPECT_EQ(at(-32), 61);       // left by 0
    int distance;
    KTwVQKohonen(vector, codes.get(), &distance, 2, 1, nullptr, 0, 0, KT_FixedScale, nullptr);
    EXPECT_EQ(distance, 61);
}

TEST(KohonenFixed, AutoScaleFillsTheWordsAndSaturateClamps) {
    Codes<short> codes{{3, 4}, {0, 0}, {32767, 32767}};
    const short vector[2] = {};
    int distances[3], indices[3], scale = 99;
    KTwVQKohonen(vector, codes.get(), distances, 2, 2, indices, 1, 1, KT_AutoScale, &scale);
    EXPECT_EQ(scale, 3 - 31);
    EXPECT_EQ(distances[0], 5 << 28);
    EXPECT_EQ(distances[1], 0);
    EXPECT_EQ(indices[0], 1);
    const short far[2] = {-32768, -32768};
    KTwVQKohonen(far, codes.get(), distances, 2, 3, indices, 2, 0, KT_Saturate, &scale);
    EXPECT_EQ(distances[2], INT32_MAX);
    EXPECT_EQ(scale, 0);
    KTwVQKohonen(vector, codes.get(), distances, 2, 2, indices, 1, 1, KT_AutoScale, nullptr);
    EXPECT_EQ(distances[0], 5 << 28);
}

} // namespace
