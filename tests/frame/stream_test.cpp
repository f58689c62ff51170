#include "support/alloc_faults.h"
#include "support/streams.h"

#include "frame/stream.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

using ktl::Arrival;
using support::Bytes;
using support::Stream;
using support::streamOf;

namespace {

constexpr std::size_t piece = ktl::claimedPiece<short>;

// Elements of which each says where it stands.
Bytes counted(std::size_t n) {
    Bytes bytes;
    for (std::size_t i = 0; i < n; ++i)
        support::put(bytes, static_cast<short>(i * 7 + i / piece));
    return bytes;
}

} // namespace

TEST(ClaimedArrays, ArriveWholeAroundEveryPiece) {
    for (std::size_t n :
         {std::size_t(0), std::size_t(1), piece - 1, piece, piece + 1, 2 * piece, 4 * piece + 5}) {
        const Stream stream = streamOf(counted(n + 1));
        ktl::Scratch<short> elements;
        ASSERT_EQ(ktl::readClaimed(stream.get(), n, elements), Arrival::complete) << n;
        for (std::size_t i = 0; i < n; ++i)
            ASSERT_EQ(elements[std::ptrdiff_t(i)], static_cast<short>(i * 7 + i / piece))
                << n << " " << i;
        EXPECT_EQ(std::ftell(stream.get()), long(2 * n)); // nothing beyond them is read
    }
}

TEST(ClaimedArrays, EndWithTheStream) {
    for (std::size_t n : {std::size_t(0), piece - 1, piece, 3 * piece}) {
        const Stream stream = streamOf(counted(n));
        ktl::Scratch<short> elements;
        EXPECT_EQ(ktl::readClaimed(stream.get(), n + 1, elements), Arrival::streamEnded) << n;
    }
}

TEST(ClaimedArrays, TakeNoMoreMemoryThanTwiceWhatCame) {
    const Stream stream = streamOf(counted(2 * piece));
    ktl::Scratch<short> elements;
    support::alloc::arm(0);
    EXPECT_EQ(ktl::readClaimed(stream.get(), std::uint64_t(1) << 60, elements),
              Arrival::streamEnded);
    const long taken = support::alloc::bytes();
    support::alloc::disarm();
    // blocks of one, two and four pieces, one after the other
    EXPECT_LE(taken, long(7 * piece * sizeof(short)));
}

TEST(ClaimedArrays, TellThatMemoryRanOut) {
    const int failures = support::alloc::failEach(
        [] {
            const Stream stream = streamOf(counted(4 * piece));
            ktl::Scratch<short> elements;
            const Arrival arrival = ktl::readClaimed(stream.get(), 4 * piece, elements);
            EXPECT_EQ(arrival, support::alloc::failed() ? Arrival::noMemory : Arrival::complete);
        },
        [] {});
    EXPECT_GE(failures, 3);
}

TEST(ClaimedArrays, GrowInBlocksOfTheCallersOwn) {
    using Block = ktl::Held<char, ktl::freePlain>;
    const std::size_t n = 2 * piece + 3;
    const Stream stream = streamOf(counted(n));
    Block block;
    const auto first = [](const Block& b) {
        return ktl::aligned<short>(b.get(), ktl::floatAlignment);
    };
    ASSERT_EQ(ktl::readClaimed<short>(
                  stream.get(), n, block,
                  [](std::uint64_t count) {
                      return Block(static_cast<char*>(
                          ktl::allocateArray(std::size_t(count), sizeof(short))));
                  },
                  first),
              Arrival::complete);
    for (std::size_t i = 0; i < n; ++i)
        ASSERT_EQ(first(block)[i], static_cast<short>(i * 7 + i / piece));
}

TEST(Records, AreLittleEndianWords) {
    const Stream stream(std::tmpfile());
    constexpr char tag[] = {'A', 'B'};
    ASSERT_TRUE(ktl::writeTag(stream.get(), tag));
    ASSERT_TRUE(ktl::writeWords(stream.get(), ktl::Words<2>{0x04030201u, 0xFFFFFFFEu}));
    EXPECT_EQ(support::contentsOf(stream.get()),
              (Bytes{'A', 'B', 1, 2, 3, 4, 0xFE, 0xFF, 0xFF, 0xFF}));
}

TEST(Records, ATagIsReadToItsEndAndCompared) {
    constexpr char tag[] = {'A', 'B'};
    for (const bool matches : {true, false}) {
        Bytes bytes{'A', static_cast<unsigned char>(matches ? 'B' : 'C'), 1, 0, 0, 0};
        const Stream stream = streamOf(bytes);
        EXPECT_EQ(ktl::readTag(stream.get(), tag), matches);
        ktl::Words<1> words{};
        EXPECT_TRUE(ktl::readWords(stream.get(), words));
        EXPECT_EQ(words[0], 1u);
        EXPECT_FALSE(ktl::readWords(stream.get(), words));
    }
}
