#include "support/alloc_faults.h"
#include "support/reports.h"

#include "frame/KT_ALLOC.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <string>

namespace {

bool onBoundary(const void* p, std::uintptr_t alignment) {
    return reinterpret_cast<std::uintptr_t>(p) % alignment == 0;
}

// Rows start on 32 bytes, are `stride` elements apart, and every cell is writable on its own.
template <class T>
void checkTable(T** table, int nRows, int nCols, int stride) {
    ASSERT_NE(table, nullptr);
    for (int i = 0; i < nRows; ++i) {
        EXPECT_TRUE(onBoundary(table[i], 32));
        if (i > 0) {
            EXPECT_EQ(table[i] - table[i - 1], stride);
        }
        for (int j = 0; j < nCols; ++j)
            table[i][j] = static_cast<T>(i * 100 + j);
    }
    if (nRows > 0) {
        EXPECT_GE(reinterpret_cast<char*>(table[0]), reinterpret_cast<char*>(table + nRows));
    }
    for (int i = 0; i < nRows; ++i)
        for (int j = 0; j < nCols; ++j)
            ASSERT_EQ(table[i][j], static_cast<T>(i * 100 + j));
}

void expectTableReport(const support::CapturedReports& reports, const char* function, int line) {
    ASSERT_EQ(reports.count(), 1u);
    EXPECT_EQ(reports[0].status, -4);
    EXPECT_EQ(reports[0].function, function);
    EXPECT_EQ(reports[0].message, "The table can not be allocated");
    EXPECT_EQ(reports[0].source, "..\\_LIBSRC\\KT_ALLOC");
    EXPECT_EQ(reports[0].line, line);
    EXPECT_EQ(KTGetStatus(), -4);
}

} // namespace

TEST(Table, EveryRowStartsOn32BytesForAnyWidth) {
    for (int nRows : {1, 2, 3, 7, 33})
        for (int nCols = 0; nCols < 70; ++nCols) {
            float** floats = KTsAlloc2(nRows, nCols);
            checkTable(floats, nRows, nCols, (nCols + 7) / 8 * 8);
            KTFree2(floats);
            short** shorts = KTwAlloc2(nRows, nCols);
            checkTable(shorts, nRows, nCols, (nCols + 15) / 16 * 16);
            KTFree2(shorts);
        }
}

TEST(Table, NineColumnsHaveAStrideOf16InBothKinds) {
    float** floats = KTsAlloc2(2, 9);
    short** shorts = KTwAlloc2(2, 9);
    EXPECT_EQ(floats[1] - floats[0], 16);
    EXPECT_EQ(shorts[1] - shorts[0], 16);
    KTFree2(floats);
    KTFree2(shorts);
}

TEST(Table, NoRowsGiveATableThatMayOnlyBeFreed) {
    const long before = support::alloc::liveBlocks();
    float** floats = KTsAlloc2(0, 5);
    short** shorts = KTwAlloc2(0, 0);
    EXPECT_NE(floats, nullptr);
    EXPECT_NE(shorts, nullptr);
    KTFree2(floats);
    KTFree2(shorts);
    EXPECT_EQ(support::alloc::liveBlocks(), before);
}

TEST(Table, IsOneBlockThatOneCallReleases) {
    const long before = support::alloc::liveBlocks();
    float** table = KTsAlloc2(12, 40);
    EXPECT_EQ(support::alloc::liveBlocks(), before + 1);
    KTFree2(table);
    EXPECT_EQ(support::alloc::liveBlocks(), before);
}

TEST(Table, FreeingNullIsHarmless) {
    KTFree2(nullptr);
}

TEST(Table, ExhaustionOfTheFloatTableIsReported) {
    support::CapturedReports reports;
    float** table = nullptr;
    const int failures = support::alloc::failEach([&] { table = KTsAlloc2(3, 5); },
                                                  [&] {
                                                      EXPECT_EQ(table, nullptr);
                                                      expectTableReport(reports, "KTsAlloc2", 60);
                                                      reports.clear();
                                                  });
    EXPECT_EQ(failures, 1);
    EXPECT_EQ(reports.count(), 0u);
    checkTable(table, 3, 5, 8);
    KTFree2(table);
}

TEST(Table, ExhaustionOfTheFixedTableIsReported) {
    support::CapturedReports reports;
    short** table = nullptr;
    const int failures = support::alloc::failEach([&] { table = KTwAlloc2(3, 5); },
                                                  [&] {
                                                      EXPECT_EQ(table, nullptr);
                                                      expectTableReport(reports, "KTwAlloc2", 108);
                                                      reports.clear();
                                                  });
    EXPECT_EQ(failures, 1);
    checkTable(table, 3, 5, 16);
    KTFree2(table);
}

// INT_MAX rows of INT_MAX columns would wrap any 64-bit size; no malloc may see the remainder.
TEST(Table, ASizeBeyondTheAddressSpaceIsReportedAsExhaustion) {
    support::CapturedReports reports;
    support::alloc::arm(0);
    EXPECT_EQ(KTsAlloc2(INT_MAX, INT_MAX), nullptr);
    EXPECT_EQ(support::alloc::allocations(), 0);
    support::alloc::disarm();
    expectTableReport(reports, "KTsAlloc2", 60);
    reports.clear();
    EXPECT_EQ(KTwAlloc2(-1, 4), nullptr);
    expectTableReport(reports, "KTwAlloc2", 108);
    reports.clear();
    EXPECT_EQ(KTsAlloc2(4, -1), nullptr);
    expectTableReport(reports, "KTsAlloc2", 60);
}

TEST(AlignedBlock, CarriesTheRawAddressInTheWordInFront) {
    for (int n = 0; n < 50; ++n) {
        float* block = ktl::allocFloats(n);
        ASSERT_NE(block, nullptr);
        EXPECT_TRUE(onBoundary(block, vsq::blockAlignment));
        std::uintptr_t raw;
        std::memcpy(&raw, reinterpret_cast<char*>(block) - sizeof raw, sizeof raw);
        const std::uintptr_t gap = reinterpret_cast<std::uintptr_t>(block) - raw;
        EXPECT_GE(gap, sizeof raw);
        EXPECT_LT(gap, sizeof raw + vsq::blockAlignment);
        for (int i = 0; i < n; ++i)
            block[i] = 1.0f;
        vsq::freeAligned(block);
    }
}

TEST(AlignedBlock, IsAlignedOnAtLeast32Bytes) {
    static_assert(vsq::blockAlignment % 32 == 0);
    static_assert(sizeof(void*) != 4 || vsq::blockAlignment == 32);
}

TEST(AlignedBlock, OfComplexHasRoomForPairs) {
    float* block = ktl::allocComplex(17);
    ASSERT_NE(block, nullptr);
    std::memset(block, 0, 17 * 8); // the address sanitizer watches
    vsq::freeAligned(block);
}

TEST(AlignedBlock, OfRecordsHasRoomForTheirSize) {
    struct Edges {
        double left, centre, right;
    };
    Edges* block = vsq::allocAligned<Edges>(9);
    ASSERT_NE(block, nullptr);
    std::memset(block, 0, 9 * 24);
    vsq::freeAligned(block);
}

TEST(AlignedBlock, FreeingNullIsHarmless) {
    vsq::freeAligned(nullptr);
}

TEST(AlignedBlock, ExhaustionGivesNullAndNoReport) {
    support::CapturedReports reports;
    float* block = nullptr;
    for (auto* allocate : {ktl::allocFloats, ktl::allocComplex}) {
        const int failures = support::alloc::failEach([&] { block = allocate(8); },
                                                      [&] { EXPECT_EQ(block, nullptr); });
        EXPECT_EQ(failures, 1);
        vsq::freeAligned(block);
    }
    EXPECT_EQ(ktl::allocFloats(-1), nullptr);
    EXPECT_EQ(vsq::allocAligned(PTRDIFF_MAX, 8), nullptr);
    EXPECT_EQ(vsq::allocAligned(PTRDIFF_MAX, 1), nullptr);
    EXPECT_EQ(reports.count(), 0u);
    EXPECT_EQ(KTGetStatus(), 0);
}

TEST(Streams, WriteAndReadBackThroughTheLibrary) {
    const std::string name =
        (std::filesystem::temp_directory_path() / "ktlp6_alloc_test.bin").string();
    FILE* stream = KTOpenFile(name.c_str(), "wb");
    ASSERT_NE(stream, nullptr);
    EXPECT_EQ(std::fwrite("a\nb", 1, 3, stream), 3u);
    EXPECT_EQ(KTCloseFile(stream), 0);
    char text[4] = {};
    stream = KTOpenFile(name.c_str(), "rb");
    ASSERT_NE(stream, nullptr);
    EXPECT_EQ(std::fread(text, 1, 4, stream), 3u);
    EXPECT_STREQ(text, "a\nb");
    EXPECT_EQ(KTCloseFile(stream), 0);
    std::remove(name.c_str());
}

TEST(Streams, AFileThatIsNotThereGivesNullAndNoReport) {
    support::CapturedReports reports;
    EXPECT_EQ(KTOpenFile("no/such/folder/file.bin", "rb"), nullptr);
    EXPECT_EQ(reports.count(), 0u);
    EXPECT_EQ(KTGetStatus(), 0);
}
