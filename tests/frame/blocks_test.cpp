#include "support/alloc_faults.h"

#include "frame/blocks.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstdint>

TEST(Blocks, RoundUpGivesTheNextMultiple) {
    for (int step : {1, 2, 4, 16, 64})
        for (int n = 0; n < 300; ++n) {
            int expected = n;
            while (expected % step != 0)
                ++expected;
            EXPECT_EQ(ktl::roundUp(n, step), expected) << n << " " << step;
        }
    EXPECT_EQ(ktl::roundUp(INT_MAX - 3, 4), INT_MAX - 3);
    EXPECT_EQ(ktl::roundUp((std::int64_t(1) << 40) + 1, 4), (std::int64_t(1) << 40) + 4);
}

TEST(Blocks, AlignedIsTheFirstBoundaryAtOrAfterTheBlock) {
    alignas(64) char block[192];
    for (std::size_t alignment : {8, 16, 64})
        for (std::size_t offset = 0; offset < 65; ++offset) {
            const char* expected = block + (offset + alignment - 1) / alignment * alignment;
            EXPECT_EQ(ktl::aligned<char>(block + offset, alignment), expected);
        }
}

TEST(Blocks, ArraysAreZeroUpToARegisterAfterThem) {
    void* block = ktl::allocateArray(5, sizeof(float));
    ASSERT_NE(block, nullptr);
    const float* first = ktl::floats(block);
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(first) % ktl::floatAlignment, 0u);
    for (int i = 0; i < 5 + 16; ++i)
        EXPECT_EQ(first[i], 0.0f);
    std::free(block);
}

TEST(Blocks, ArraysBeyondTheAddressSpaceAreRefused) {
    EXPECT_EQ(ktl::allocateArray(PTRDIFF_MAX, sizeof(float)), nullptr);
    EXPECT_EQ(ktl::allocateArray(PTRDIFF_MAX, 1), nullptr);
}

TEST(Blocks, ZeroedBlocksAreZero) {
    struct Record {
        int a;
        void* b;
    };
    auto* records = ktl::zeroed<Record>(3);
    ASSERT_NE(records, nullptr);
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(records[i].a, 0);
        EXPECT_EQ(records[i].b, nullptr);
    }
    std::free(records);
    support::alloc::arm(1);
    EXPECT_EQ(ktl::zeroed<Record>(), nullptr);
    support::alloc::disarm();
}

TEST(Blocks, ABufferThatIsLongEnoughStays) {
    float* buffer = nullptr;
    int capacity = 0;
    ASSERT_TRUE(ktl::growBuffer<float>(buffer, capacity, 10));
    float* const first = buffer;
    ASSERT_TRUE(ktl::growBuffer<float>(buffer, capacity, 10));
    ASSERT_TRUE(ktl::growBuffer<float>(buffer, capacity, 3));
    EXPECT_EQ(buffer, first);
    EXPECT_EQ(capacity, 10);
    std::free(buffer);
}

TEST(Blocks, ABufferThatCannotGrowIsGone) {
    float* buffer = nullptr;
    int capacity = 0;
    const long before = support::alloc::liveBlocks();
    ASSERT_TRUE(ktl::growBuffer<float>(buffer, capacity, 10));
    support::alloc::arm(1);
    EXPECT_FALSE(ktl::growBuffer<float>(buffer, capacity, 11));
    support::alloc::disarm();
    EXPECT_EQ(buffer, nullptr);
    EXPECT_EQ(capacity, 0);
    EXPECT_EQ(support::alloc::liveBlocks(), before);
}

// A report's handler may set the buffer up anew while the failure is told.
TEST(Blocks, WhatAHandlerStoresWhileABlockIsRenewedStays) {
    int* block = ktl::zeroed<int>();
    int capacity = 1;
    int* stored = nullptr;
    const auto failAfterAHandler = [&]() -> int* {
        EXPECT_EQ(block, nullptr);
        EXPECT_EQ(capacity, 0);
        block = stored = ktl::zeroed<int>(2);
        capacity = 2;
        return nullptr;
    };
    EXPECT_FALSE(ktl::renewBlock(block, capacity, 5, std::free, failAfterAHandler));
    EXPECT_EQ(block, stored);
    EXPECT_EQ(capacity, 2);
    std::free(block);
}
