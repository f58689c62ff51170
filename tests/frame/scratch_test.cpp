#include "support/alloc_faults.h"
#include "support/reports.h"

#include "frame/scratch.h"

#include <gtest/gtest.h>

#include <climits>

TEST(Scratch, HoldsItsElementsAndReleasesThemWithTheScope) {
    const long before = support::alloc::liveBlocks();
    {
        ktl::Scratch<float> plain(7);
        ktl::AlignedScratch<double> aligned(7);
        ktl::Table<float> floats(3, 5);
        ktl::Table<short> shorts(3, 5);
        ASSERT_TRUE(plain && aligned && floats && shorts);
        EXPECT_EQ(support::alloc::liveBlocks(), before + 4);
        for (int i = 0; i < 7; ++i) {
            plain[i] = 1.0f;
            aligned[i] = 2.0;
        }
        floats[2][4] = 3.0f;
        shorts[2][4] = 4;
        EXPECT_EQ(floats[2] - floats[1], 8);
        EXPECT_EQ(shorts[2] - shorts[1], 16);
    }
    EXPECT_EQ(support::alloc::liveBlocks(), before);
}

TEST(Scratch, SaysFalseWhenMemoryRanOut) {
    support::CapturedReports reports;
    support::alloc::arm(1);
    EXPECT_FALSE(ktl::Scratch<int>(4));
    support::alloc::arm(1);
    EXPECT_FALSE(ktl::AlignedScratch<int>(4));
    EXPECT_EQ(reports.count(), 0u); // guards leave the report to the caller
    support::alloc::arm(1);
    EXPECT_FALSE(ktl::Table<float>(4, 4));
    support::alloc::disarm();
    EXPECT_EQ(reports.count(), 1u); // a table has reported
}

TEST(Scratch, RefusesCountsBeyondTheAddressSpace) {
    EXPECT_FALSE(ktl::Scratch<double>(-1));
    EXPECT_FALSE(ktl::Scratch<double>(PTRDIFF_MAX));
    EXPECT_FALSE(ktl::Scratch<double>(SIZE_MAX));
    EXPECT_FALSE(ktl::AlignedScratch<double>(-1));
    EXPECT_FALSE(ktl::AlignedScratch<double>(PTRDIFF_MAX));
}

TEST(Scratch, OfNoElementsIsNotAFailure) {
    EXPECT_TRUE(ktl::Scratch<float>(0));
    EXPECT_TRUE(ktl::AlignedScratch<float>(0));
    EXPECT_FALSE(ktl::Scratch<float>()); // but one that never asked holds nothing
}

TEST(Scratch, HandsItsBlockOverOnce) {
    const long before = support::alloc::liveBlocks();
    ktl::Scratch<float> first(3);
    ktl::Scratch<float> second(std::move(first));
    EXPECT_FALSE(first);
    ASSERT_TRUE(second);
    float* block = second.take();
    EXPECT_FALSE(second);
    EXPECT_EQ(support::alloc::liveBlocks(), before + 1);
    std::free(block);
}

TEST(GrowBuffer, KeepsABlockThatIsLargeEnough) {
    float* buffer = nullptr;
    int capacity = 0;
    ASSERT_TRUE(ktl::growBuffer<float>(buffer, capacity, 10));
    EXPECT_EQ(capacity, 10);
    float* const first = buffer;
    EXPECT_TRUE(ktl::growBuffer<float>(buffer, capacity, 3));
    EXPECT_EQ(buffer, first);
    EXPECT_EQ(capacity, 10);
    std::free(buffer);
}

TEST(GrowBuffer, FailureLeavesBothFieldsZero) {
    void* buffer = nullptr;
    int capacity = 0;
    ASSERT_TRUE(ktl::growBuffer<float>(buffer, capacity, 10));
    const long before = support::alloc::liveBlocks();
    support::alloc::arm(1);
    EXPECT_FALSE(ktl::growBuffer<float>(buffer, capacity, 11));
    support::alloc::disarm();
    EXPECT_EQ(buffer, nullptr);
    EXPECT_EQ(capacity, 0);
    EXPECT_EQ(support::alloc::liveBlocks(), before - 1);
    EXPECT_TRUE(ktl::growBuffer<float>(buffer, capacity, 11));
    EXPECT_EQ(capacity, 11);
    std::free(buffer);
}
