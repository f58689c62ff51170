#include "transforms/vsqtwd.h"

#include "support/alloc_faults.h"
#include "support/guarded.h"
#include "support/kernel_reports.h"

#include <gtest/gtest.h>

#include <cmath>
#include <thread>

namespace {

const long double pi = std::acos(-1.0L);

int reversed(int i, int order) {
    int result = 0;
    for (int bit = 0; bit < order; ++bit)
        if ((i >> bit & 1) != 0) result += 1 << (order - 1 - bit);
    return result;
}

class TransformTables : public testing::Test {
protected:
    void SetUp() override { vsqFreeFftTbls(); }
    void TearDown() override {
        vsqFreeFftTbls();
        vsqSetStatus(0);
    }
};

TEST_F(TransformTables, BitReversalOfEveryUsualOrder) {
    for (int order = 0; order <= 16; ++order) {
        const int* table = vsqGetBitRevTbl(order);
        ASSERT_NE(table, nullptr);
        for (int i = 0; i < 1 << order; ++i)
            ASSERT_EQ(table[i], reversed(i, order)) << order;
    }
}

TEST_F(TransformTables, CalcFillsATableOfTheCallers) {
    support::Guarded<int> table(32);
    vsqCalcBitRevTbl(table.data(), 5);
    for (int i = 0; i < 32; ++i)
        EXPECT_EQ(table[static_cast<std::size_t>(i)], reversed(i, 5));
    EXPECT_TRUE(table.intact());
    support::Guarded<int> one(1, 7);
    vsqCalcBitRevTbl(one.data(), 0);
    EXPECT_EQ(one[0], 0);
    EXPECT_TRUE(one.intact());
}

TEST_F(TransformTables, TwiddlesAreTheRootsRoundedToFloat) {
    for (int order = 1; order <= 18; ++order) {
        const float* table = vsqcGetFftTwdTbl(order);
        ASSERT_NE(table, nullptr);
        const std::size_t half = std::size_t{1} << (order - 1);
        for (std::size_t k = 0; k < half; ++k) {
            const long double angle =
                pi * static_cast<long double>(k) / static_cast<long double>(half);
            // Half a unit in the last place of a number below 1, and the double's own error.
            ASSERT_NEAR(table[2 * k], static_cast<double>(std::cos(angle)), 2.99e-8)
                << order << " " << k;
            ASSERT_NEAR(table[2 * k + 1], static_cast<double>(-std::sin(angle)), 2.99e-8)
                << order << " " << k;
        }
    }
}

TEST_F(TransformTables, OrderZeroHasTheOneRoot) {
    support::Guarded<float> table(2, 9.0f);
    vsqcCalcFftTwdTbl(table.data(), 0);
    EXPECT_EQ(table[0], 1.0f);
    EXPECT_EQ(table[1], 0.0f);
    EXPECT_TRUE(table.intact());
    EXPECT_EQ(vsqcGetFftTwdTbl(0)[0], 1.0f);
}

TEST_F(TransformTables, ShortOrdersWriteNothingBehindTheirEntries) {
    for (int order = 1; order < 15; ++order) {
        support::Guarded<float> table(std::size_t{1} << order); // 2^(order-1) pairs
        vsqcCalcFftTwdTbl(table.data(), order);
        EXPECT_TRUE(table.intact()) << order;
    }
}

TEST_F(TransformTables, LongOrdersHaveASecondLevelBehindTheFirst) {
    for (int order : {15, 16}) {
        const std::size_t first = std::size_t{1} << (order - 1);
        support::Guarded<float> table(2 * (first + 4096));
        vsqcCalcFftTwdTbl(table.data(), order);
        EXPECT_TRUE(table.intact());
        for (std::size_t k = 0; k < 4096; ++k) {
            const long double angle = 0.0003834951969714103L * static_cast<long double>(k);
            ASSERT_NEAR(table[2 * (first + k)], static_cast<double>(std::cos(angle)), 2.99e-8);
            ASSERT_NEAR(table[2 * (first + k) + 1], static_cast<double>(-std::sin(angle)), 2.99e-8);
        }
    }
}

TEST_F(TransformTables, TheSecondCallReturnsTheSamePointer) {
    EXPECT_EQ(vsqGetBitRevTbl(7), vsqGetBitRevTbl(7));
    EXPECT_EQ(vsqcGetFftTwdTbl(7), vsqcGetFftTwdTbl(7));
    EXPECT_NE(vsqGetBitRevTbl(7), vsqGetBitRevTbl(8));
}

TEST_F(TransformTables, AfterTheReleaseTheNextCallComputesTheTableAgain) {
    const long before = support::alloc::liveBlocks();
    vsqGetBitRevTbl(6);
    vsqcGetFftTwdTbl(6);
    EXPECT_EQ(support::alloc::liveBlocks(), before + 2);
    vsqFreeFftTbls();
    EXPECT_EQ(support::alloc::liveBlocks(), before);
    support::alloc::arm(0);
    const int* table = vsqGetBitRevTbl(6);
    EXPECT_EQ(support::alloc::allocations(), 1);
    support::alloc::disarm();
    EXPECT_EQ(table[1], 32);
}

TEST_F(TransformTables, RefuseBadOrdersAndNullTables) {
    int ints[2];
    float floats[4];
    support::KernelReports reports;
    const auto expect = [&](const char* function, const char* text) {
        ASSERT_EQ(reports.all().size(), 1u);
        EXPECT_EQ(reports.all()[0].status, -5);
        EXPECT_EQ(reports.all()[0].function, function);
        EXPECT_EQ(reports.all()[0].source, "vsqtwd");
        EXPECT_EQ(reports.takeMessage(), text);
        vsqSetStatus(0);
    };
    EXPECT_EQ(vsqGetBitRevTbl(-1), nullptr);
    expect("vsqGetBitRevTbl", "order<0");
    EXPECT_EQ(vsqGetBitRevTbl(32), nullptr);
    expect("vsqGetBitRevTbl", "order>31");
    EXPECT_EQ(vsqcGetFftTwdTbl(-1), nullptr);
    expect("vsqcGetFftTwdTbl", "order<0");
    EXPECT_EQ(vsqcGetFftTwdTbl(32), nullptr);
    expect("vsqcGetFftTwdTbl", "order>31");
    vsqCalcBitRevTbl(ints, -1);
    expect("vsqCalcBitRevTbl", "order<0");
    vsqCalcBitRevTbl(nullptr, 32);
    expect("vsqCalcBitRevTbl", "order>31");
    vsqCalcBitRevTbl(nullptr, 1);
    expect("vsqCalcBitRevTbl", "tbl==0");
    vsqcCalcFftTwdTbl(floats, -1);
    expect("vsqcCalcFftTwdTbl", "order<0");
    vsqcCalcFftTwdTbl(nullptr, 32);
    expect("vsqcCalcFftTwdTbl", "order>31");
    vsqcCalcFftTwdTbl(nullptr, 1);
    expect("vsqcCalcFftTwdTbl", "tbl==0");
}

TEST_F(TransformTables, ANegativeStatusGivesNoTable) {
    vsqGetBitRevTbl(4);
    vsqSetStatus(-7);
    EXPECT_EQ(vsqGetBitRevTbl(4), nullptr);
    EXPECT_EQ(vsqcGetFftTwdTbl(4), nullptr);
    vsqSetStatus(7);
    EXPECT_NE(vsqGetBitRevTbl(4), nullptr);
}

TEST_F(TransformTables, ExhaustionIsReported) {
    support::KernelReports reports;
    support::alloc::arm(1);
    EXPECT_EQ(vsqGetBitRevTbl(5), nullptr);
    support::alloc::disarm();
    ASSERT_EQ(reports.all().size(), 1u);
    EXPECT_EQ(reports.all()[0].status, -4);
    EXPECT_EQ(reports.takeMessage(), "NULL Pointer");
    vsqSetStatus(0);
    support::alloc::arm(1);
    EXPECT_EQ(vsqcGetFftTwdTbl(5), nullptr);
    support::alloc::disarm();
    EXPECT_EQ(reports.all()[0].function, "vsqcGetFftTwdTbl");
    EXPECT_EQ(reports.takeMessage(), "NULL Pointer");
    vsqSetStatus(0);
    EXPECT_NE(vsqcGetFftTwdTbl(5), nullptr);
}

// What 32 bits cannot count must not come out small: such tables are asked for and never there.
TEST_F(TransformTables, TheLongestOrdersAreAMatterOfMemory) {
    support::KernelReports reports;
    for (int order : {30, 31}) {
        support::alloc::armFrom(1);
        EXPECT_EQ(vsqGetBitRevTbl(order), nullptr);
        support::alloc::disarm();
        EXPECT_EQ(reports.takeMessage(), "NULL Pointer");
        vsqSetStatus(0);
        support::alloc::armFrom(1);
        EXPECT_EQ(vsqcGetFftTwdTbl(order), nullptr);
        support::alloc::disarm();
        EXPECT_EQ(reports.takeMessage(), "NULL Pointer");
        vsqSetStatus(0);
    }
}

TEST_F(TransformTables, ThreadsThatAskAtOnceGetOneTable) {
    std::vector<const int*> ints(8);
    std::vector<const float*> floats(8);
    std::vector<std::thread> threads;
    for (std::size_t i = 0; i < ints.size(); ++i)
        threads.emplace_back([&, i] {
            ints[i] = vsqGetBitRevTbl(15);
            floats[i] = vsqcGetFftTwdTbl(14);
        });
    for (std::thread& thread : threads)
        thread.join();
    for (std::size_t i = 0; i < ints.size(); ++i) {
        EXPECT_EQ(ints[i], ints[0]);
        EXPECT_EQ(floats[i], floats[0]);
    }
    EXPECT_EQ(ints[0][1], 1 << 14);
}

TEST(TransformTablesDeath, ARefusalEndsTheProcess) {
    EXPECT_EXIT(vsqGetBitRevTbl(32), testing::ExitedWithCode(1), "^$");
    EXPECT_EXIT(vsqcGetFftTwdTbl(-1), testing::ExitedWithCode(1), "^$");
    EXPECT_EXIT(vsqCalcBitRevTbl(nullptr, 3), testing::ExitedWithCode(1), "^$");
    EXPECT_EXIT(vsqcCalcFftTwdTbl(nullptr, 3), testing::ExitedWithCode(1), "^$");
}

// --- inside the layer ---

TEST(WorkingTables, RootsThatMirrorEachOtherAreExactMirrorImages) {
    for (int order : {0, 1, 2, 3, 4, 9}) {
        const unsigned long long n = 1ULL << order;
        for (unsigned long long k = 1; k < n; ++k) {
            EXPECT_EQ(vsq::unitRoot(k, order).re, vsq::unitRoot(n - k, order).re);
            EXPECT_EQ(vsq::unitRoot(k, order).im, -vsq::unitRoot(n - k, order).im);
            const long double angle =
                2.0L * pi * static_cast<long double>(k) / static_cast<long double>(n);
            EXPECT_NEAR(vsq::unitRoot(k, order).re, static_cast<double>(std::cos(angle)), 3e-16);
            EXPECT_NEAR(vsq::unitRoot(k, order).im, static_cast<double>(-std::sin(angle)), 3e-16);
        }
    }
}

TEST(WorkingTables, EveryOrderHasPassesThatMakeUpItsLength) {
    for (int order = 0; order <= 20; ++order) {
        const vsq::FftTables* tables = vsq::fftTables(order);
        ASSERT_NE(tables, nullptr);
        EXPECT_EQ(tables, vsq::fftTables(order));
        EXPECT_EQ(tables->order, order);
        int rows = 0;
        for (int i = 0; i < tables->nPasses; ++i) {
            EXPECT_GE(tables->radixOrder[i], 2);
            EXPECT_LE(tables->radixOrder[i], 4);
            rows += tables->radixOrder[i];
        }
        EXPECT_EQ(rows, order < 6 ? 0 : order - 4);
    }
    vsqsFreeRealFftTbls();
}

TEST(WorkingTables, AWorkBlockIsNeverLentTwice) {
    vsq::WorkCache cache;
    const long before = support::alloc::liveBlocks();
    float* first = cache.take(100);
    float* second = cache.take(100);
    ASSERT_NE(first, nullptr);
    EXPECT_NE(first, second);
    cache.give(first);
    EXPECT_EQ(cache.take(50), first); // large enough
    cache.give(first);
    cache.give(second); // the slot keeps the last one
    float* grown = cache.take(1000);
    grown[999] = 1.0f;
    cache.give(grown);
    EXPECT_EQ(support::alloc::liveBlocks(), before + 1);
    cache.release();
    EXPECT_EQ(support::alloc::liveBlocks(), before);
    cache.give(cache.take(100));
    EXPECT_EQ(cache.take(PTRDIFF_MAX), nullptr);
    EXPECT_EQ(cache.take(-1), nullptr); // however large the block that is there
    cache.release();
    EXPECT_EQ(support::alloc::liveBlocks(), before);
}

} // namespace
