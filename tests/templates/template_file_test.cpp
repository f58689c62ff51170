#include "support/alloc_faults.h"
#include "support/reports.h"

#include "ktlp6.h"
#include "templates/KT_DTW.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

namespace {

using Bytes = std::string;

// Records put together here, byte by byte.
Bytes word(std::uint32_t value) {
    Bytes result;
    for (int i = 0; i < 4; ++i)
        result += char(value >> (8 * i) & 0xFF);
    return result;
}
Bytes word(int value) {
    return word(static_cast<std::uint32_t>(value));
}
Bytes half(int value) {
    return word(value).substr(0, 2);
}
Bytes real(float value) {
    std::uint32_t bits;
    std::memcpy(&bits, &value, sizeof bits);
    return word(bits);
}

// 3 vectors of 2 elements: 1.5, -2, 0.25, 3, -0.125, 100 (and 12 times that at a scale of -3).
const float reals[] = {1.5f, -2.0f, 0.25f, 3.0f, -0.125f, 100.0f};

Bytes floatRecord(int handle, int isFirst, int nDim = 2, int nVectors = 3) {
    Bytes result = "DTW " + word(handle) + word(isFirst) + word(nDim) + word(nVectors);
    for (float x : reals)
        result += real(x);
    return result;
}

Bytes fixedRecord(int handle, int isFirst, int nDim = 2, int nVectors = 3) {
    Bytes result = "DTW " + word(handle) + word(isFirst) + word(nDim) + word(nVectors) + word(-3);
    for (float x : reals)
        result += real(x);
    for (float x : reals)
        result += half(int(x * 8));
    return result;
}

// A stream over a temporary file that holds the given bytes, at their beginning.
class Stream {
public:
    explicit Stream(const Bytes& bytes = {}) : file(std::tmpfile()) {
        if (!bytes.empty()) {
            EXPECT_EQ(std::fwrite(bytes.data(), 1, bytes.size(), file), bytes.size());
        }
        std::rewind(file);
    }
    ~Stream() { std::fclose(file); }
    operator FILE*() const { return file; }

    Bytes contents() const {
        std::rewind(file);
        Bytes result;
        for (int c; (c = std::fgetc(file)) != EOF;)
            result += char(c);
        return result;
    }

private:
    FILE* file;
};

class DtwFile : public testing::Test {
protected:
    ~DtwFile() override {
        KTsPatternFreeAll();
        KTwPatternFreeAll();
    }

    int storeFloat() {
        float rows[3][2], *pointers[] = {rows[0], rows[1], rows[2]};
        std::memcpy(rows, reals, sizeof rows);
        return KTsPatternIni(pointers, 3, 2);
    }
    int storeFixed() {
        short rows[3][2], *pointers[] = {rows[0], rows[1], rows[2]};
        for (int i = 0; i < 6; ++i)
            rows[i / 2][i % 2] = short(reals[i] * 8);
        return KTwPatternIni(pointers, 3, 2, -3);
    }
    void expectFloatPattern(int handle) {
        float** rows = nullptr;
        int n = 0, dim = 0;
        ASSERT_EQ(KTsPatternGet(handle, &rows, &n, &dim), handle);
        ASSERT_EQ(n, 3);
        ASSERT_EQ(dim, 2);
        for (int i = 0; i < 6; ++i)
            EXPECT_EQ(rows[i / 2][i % 2], reals[i]);
    }
    void expectFixedPattern(int handle) {
        short** rows = nullptr;
        int n = 0, dim = 0, scale = 0;
        ASSERT_EQ(KTwPatternGet(handle, &rows, &n, &dim, &scale), handle);
        ASSERT_EQ(n, 3);
        ASSERT_EQ(dim, 2);
        EXPECT_EQ(scale, -3);
        for (int i = 0; i < 6; ++i) {
            EXPECT_EQ(rows[i / 2][i % 2], short(reals[i] * 8));
            EXPECT_EQ(KTwPatternPtrGet(handle)->pFloatData[i / 2][i % 2], reals[i]);
        }
    }

    support::CapturedReports reports;
};

} // namespace

TEST_F(DtwFile, FloatRecordByteByByte) {
    storeFloat();
    storeFloat();
    Stream stream;
    KTsWriteDTWPattern(stream, 1);
    KTsWriteDTWPattern(stream, 2);
    EXPECT_EQ(stream.contents(), floatRecord(1, 1) + floatRecord(2, 0));
    EXPECT_EQ(reports.count(), 0u);
}

TEST_F(DtwFile, FixedRecordByteByByte) {
    storeFixed();
    storeFixed();
    Stream stream;
    KTwWriteDTWPattern(stream, 1);
    KTwWriteDTWPattern(stream, 2);
    EXPECT_EQ(stream.contents(), fixedRecord(1, 1) + fixedRecord(2, 0));
    EXPECT_EQ(reports.count(), 0u);
}

TEST_F(DtwFile, FloatRecordsReadBackInOrderUnderTheirHandles) {
    Stream stream(floatRecord(9, 0) + floatRecord(4, 1));
    EXPECT_EQ(KTsReadDTWPattern(stream), 9);
    EXPECT_EQ(KTsPatternsNumber(), 1);
    EXPECT_EQ(KTsReadDTWPattern(stream), 4);
    EXPECT_EQ(KTsPatternsNumber(), 2);
    EXPECT_EQ(KTsReadDTWPattern(stream), -1);
    EXPECT_EQ(KTsPatternsNumber(), 2);
    expectFloatPattern(9);
    expectFloatPattern(4);
    // The head is what was read first, whatever the files' flags say.
    EXPECT_EQ(KTsPatternPtrGet(9)->isFirst, 1);
    EXPECT_EQ(KTsPatternPtrGet(4)->isFirst, 0);
    EXPECT_EQ(KTsPatternPtrGet(4)->prev, KTsPatternPtrGet(9));
    EXPECT_EQ(reports.count(), 0u);
}

TEST_F(DtwFile, FixedRecordsReadBackInOrderUnderTheirHandles) {
    Stream stream(fixedRecord(9, 0) + fixedRecord(4, 1));
    EXPECT_EQ(KTwReadDTWPattern(stream), 9);
    EXPECT_EQ(KTwReadDTWPattern(stream), 4);
    EXPECT_EQ(KTwReadDTWPattern(stream), -1);
    EXPECT_EQ(KTwPatternsNumber(), 2);
    expectFixedPattern(9);
    expectFixedPattern(4);
    EXPECT_EQ(KTwPatternPtrGet(9)->isFirst, 1);
    EXPECT_EQ(KTwPatternPtrGet(4)->isFirst, 0);
    EXPECT_EQ(reports.count(), 0u);
}

// Larger than the pieces in which rows are written and payloads are read, with a row length that is
// no multiple.
TEST_F(DtwFile, LargePatternsSurviveTheRoundTrip) {
    const int n = 700, dim = 1501;
    std::vector<float> data(std::size_t(n) * dim);
    std::vector<short> fixed(data.size());
    for (std::size_t i = 0; i < data.size(); ++i) {
        data[i] = float(i) * 0.37f;
        fixed[i] = short(i * 7919);
    }
    std::vector<float*> rows;
    std::vector<short*> fixedRows;
    for (int i = 0; i < n; ++i) {
        rows.push_back(&data[std::size_t(i) * dim]);
        fixedRows.push_back(&fixed[std::size_t(i) * dim]);
    }
    Stream stream;
    KTsWriteDTWPattern(stream, KTsPatternIni(rows.data(), n, dim));
    KTwWriteDTWPattern(stream, KTwPatternIni(fixedRows.data(), n, dim, 2));
    KTsPatternFreeAll();
    KTwPatternFreeAll();
    std::rewind(stream);
    ASSERT_EQ(KTsReadDTWPattern(stream), 1);
    ASSERT_EQ(KTwReadDTWPattern(stream), 1);
    for (int i = 0; i < n; ++i) {
        const std::size_t size = std::size_t(dim);
        EXPECT_EQ(
            std::memcmp(KTsPatternPtrGet(1)->pData[i], rows[std::size_t(i)], size * sizeof(float)),
            0);
        EXPECT_EQ(std::memcmp(KTwPatternPtrGet(1)->pData[i], fixedRows[std::size_t(i)],
                              size * sizeof(short)),
                  0);
        EXPECT_EQ(KTwPatternPtrGet(1)->pFloatData[i][dim - 1],
                  4.0f * fixedRows[std::size_t(i)][dim - 1]);
    }
}

// What is read takes part in comparisons like what was stored.
TEST_F(DtwFile, PatternsThatWereReadAreCompared) {
    Stream stream(floatRecord(3, 1)), fixedStream(fixedRecord(5, 1));
    const int handle = KTsReadDTWPattern(stream), fixedHandle = KTwReadDTWPattern(fixedStream);
    float** rows = nullptr;
    short** fixedRows = nullptr;
    KTsPatternGet(handle, &rows, nullptr, nullptr);
    KTwPatternGet(fixedHandle, &fixedRows, nullptr, nullptr, nullptr);
    double result = -1;
    EXPECT_EQ(KTsEvalDTW(&handle, 1, rows, 3, 2, 0, 0, 0, &result), 0);
    EXPECT_EQ(result, 0.0);
    int fixedResult = -1;
    EXPECT_EQ(KTwEvalDTW(&fixedHandle, 1, fixedRows, 3, 2, -3, 0, 0, 0, 0, &fixedResult, KT_NoScale,
                         nullptr),
              0);
    EXPECT_EQ(fixedResult, 0);
}

TEST_F(DtwFile, TheOlderOfTwoEqualHandlesIsFound) {
    const int handle = storeFloat();
    const sPattern* older = KTsPatternPtrGet(handle);
    Stream stream(floatRecord(handle, 1));
    EXPECT_EQ(KTsReadDTWPattern(stream), handle);
    EXPECT_EQ(KTsPatternsNumber(), 2);
    EXPECT_EQ(KTsPatternPtrGet(handle), older);
    EXPECT_EQ(older->next->handle, handle);
    EXPECT_EQ(KTsPatternFree(handle), 0);
    EXPECT_NE(KTsPatternPtrGet(handle), nullptr);
    EXPECT_EQ(KTsPatternsNumber(), 1);
}

// The tag does not tell the flavours apart: the first float is taken for the scale.
TEST_F(DtwFile, AFloatRecordMisleadsTheFixedReader) {
    Stream stream(floatRecord(1, 1, 1, 2) + Bytes(100, '\0'));
    EXPECT_EQ(KTwReadDTWPattern(stream), 1);
    std::uint32_t bits;
    std::memcpy(&bits, &reals[0], sizeof bits);
    EXPECT_EQ(KTwPatternPtrGet(1)->scale, int(bits));
    EXPECT_EQ(KTwPatternPtrGet(1)->pFloatData[0][0], reals[1]);
}

TEST_F(DtwFile, StreamsThatEndAnywhereLeaveTheStoreUnchanged) {
    const Bytes whole = floatRecord(5, 1), wholeFixed = fixedRecord(5, 1);
    const long before = support::alloc::liveBlocks();
    for (std::size_t length = 0; length < whole.size(); ++length) {
        Stream stream(whole.substr(0, length));
        EXPECT_EQ(KTsReadDTWPattern(stream), -1) << length;
        EXPECT_EQ(KTsPatternsNumber(), 0);
    }
    const std::size_t floatsEnd = 24 + sizeof reals; // from there on the record counts
    for (std::size_t length = 0; length < floatsEnd; ++length) {
        Stream stream(wholeFixed.substr(0, length));
        EXPECT_EQ(KTwReadDTWPattern(stream), -1) << length;
        EXPECT_EQ(KTwPatternsNumber(), 0);
    }
    for (std::size_t length = floatsEnd; length < wholeFixed.size(); ++length) {
        Stream stream(wholeFixed.substr(0, length));
        EXPECT_EQ(KTwReadDTWPattern(stream), -1) << length;
        EXPECT_EQ(KTwPatternsNumber(), 1);
        KTGetContext()->nFixedPatterns = 0;
    }
    EXPECT_EQ(reports.count(), 0u);
    EXPECT_EQ(KTGetContext()->sPatternList, nullptr);
    EXPECT_EQ(KTGetContext()->wPatternList, nullptr);
    EXPECT_EQ(support::alloc::liveBlocks(), before);
}

// A number that is one too high disturbs nothing: the list is what says which patterns there are.
TEST_F(DtwFile, AFixedRecordCutOffInItsIntegersStaysCounted) {
    const Bytes record = fixedRecord(5, 1);
    Stream cut(record.substr(0, record.size() - 1));
    EXPECT_EQ(KTwReadDTWPattern(cut), -1);
    EXPECT_EQ(KTwPatternsNumber(), 1);
    EXPECT_EQ(reports.count(), 0u);
    EXPECT_EQ(KTwPatternGet(5, nullptr, nullptr, nullptr, nullptr), 0);
    ASSERT_EQ(reports.count(), 1u); // no head: still an empty store
    EXPECT_EQ(reports[0].message, "wPatterns have not been initialized.");
    EXPECT_EQ(storeFixed(), 1);
    EXPECT_EQ(KTwPatternsNumber(), 2);
    Stream stream(record);
    EXPECT_EQ(KTwReadDTWPattern(stream), 5);
    EXPECT_EQ(storeFixed(), 2);
    EXPECT_EQ(KTwPatternFreeAll(), 0);
    EXPECT_EQ(KTwPatternsNumber(), 1);
    EXPECT_EQ(KTwPatternFreeAll(), 0);
    KTGetContext()->nFixedPatterns = 0;
}

TEST_F(DtwFile, ForeignTagsAreRefused) {
    for (const char* tag : {"DTW_", "dtw ", "GAUS", "\0\0\0\0", "WTD "}) {
        Stream stream(Bytes(tag, 4) + floatRecord(5, 1).substr(4));
        EXPECT_EQ(KTsReadDTWPattern(stream), -1);
        std::rewind(stream);
        EXPECT_EQ(KTwReadDTWPattern(stream), -1);
    }
    EXPECT_EQ(KTsPatternsNumber() + KTwPatternsNumber(), 0);
    EXPECT_EQ(reports.count(), 0u);
}

// Sizes that promise more than the stream holds, overflow in a product, or make no sense.
TEST_F(DtwFile, HostileHeadersAreRefused) {
    const int big = INT_MAX, small = INT_MIN;
    const int sizes[][2] = {{big, big}, {65536, 65536}, {big, 1}, {1, big},       {46341, 46341},
                            {-1, 3},    {3, -1},        {-1, -1}, {small, small}, {0, 3},
                            {0, big},   {3, small},     {2, 4},   {4, 2},         {32768, 32768}};
    const long before = support::alloc::liveBlocks();
    for (const auto& size : sizes) {
        Stream stream(floatRecord(5, 1, size[0], size[1])),
            fixedStream(fixedRecord(5, 1, size[0], size[1]));
        EXPECT_EQ(KTsReadDTWPattern(stream), -1) << size[0] << " x " << size[1];
        EXPECT_EQ(KTwReadDTWPattern(fixedStream), -1) << size[0] << " x " << size[1];
        // sizes so near to the real ones that only integers are missing
        KTGetContext()->nFixedPatterns = 0;
    }
    EXPECT_EQ(KTsPatternsNumber() + KTwPatternsNumber(), 0);
    EXPECT_EQ(support::alloc::liveBlocks(), before);
    EXPECT_EQ(reports.count(), 0u);
}

// A pattern returns under the handle that it had, whatever it was; handles that are chosen start at
// 1.
TEST_F(DtwFile, HandlesOfZeroAndBelowAreReturned) {
    for (int handle : {0, -1, -2, INT_MIN}) {
        Stream stream(floatRecord(handle, 1)), fixedStream(fixedRecord(handle, 1));
        EXPECT_EQ(KTsReadDTWPattern(stream), handle);
        EXPECT_EQ(KTwReadDTWPattern(fixedStream), handle);
        EXPECT_EQ(KTsPatternsNumber(), 1);
        EXPECT_EQ(KTwPatternsNumber(), 1);
        expectFloatPattern(handle);
        expectFixedPattern(handle);
        float** rows = nullptr;
        KTsPatternGet(handle, &rows, nullptr, nullptr);
        double result = -1;
        EXPECT_EQ(KTsEvalDTW(&handle, 1, rows, 3, 2, 0, 0, 0, &result), 0);
        EXPECT_EQ(result, 0.0);
        EXPECT_EQ(storeFloat(), 1);
        EXPECT_EQ(storeFixed(), 1);
        Stream again, fixedAgain;
        KTsWriteDTWPattern(again, handle);
        KTwWriteDTWPattern(fixedAgain, handle);
        EXPECT_EQ(again.contents(), floatRecord(handle, 1));
        EXPECT_EQ(fixedAgain.contents(), fixedRecord(handle, 1));
        EXPECT_EQ(KTsPatternFree(handle), 0);
        EXPECT_EQ(KTwPatternFree(handle), 0);
        EXPECT_EQ(KTsPatternFree(1), 0);
        EXPECT_EQ(KTwPatternFree(1), 0);
    }
    EXPECT_EQ(KTsPatternsNumber() + KTwPatternsNumber(), 0);
    EXPECT_EQ(reports.count(), 0u);
}

TEST_F(DtwFile, ARecordWithoutVectorsIsAccepted) {
    Stream stream(floatRecord(6, 1, 2, 0)), fixedStream(fixedRecord(7, 1, INT_MAX, 0));
    EXPECT_EQ(KTsReadDTWPattern(stream), 6);
    EXPECT_EQ(KTwReadDTWPattern(fixedStream), 7);
    EXPECT_EQ(KTsPatternPtrGet(6)->nVectors, 0);
}

TEST_F(DtwFile, UnknownHandlesWriteNothing) {
    storeFloat();
    Stream stream;
    KTsWriteDTWPattern(stream, 7);
    EXPECT_EQ(reports.count(), 0u);
    KTwWriteDTWPattern(stream, 1);
    ASSERT_EQ(reports.count(), 1u);
    EXPECT_EQ(reports[0].message, "wPatterns have not been initialized.");
    EXPECT_EQ(stream.contents(), "");
}

TEST_F(DtwFile, NoStreamIsNoCrash) {
    storeFloat();
    storeFixed();
    KTsWriteDTWPattern(nullptr, 1);
    KTwWriteDTWPattern(nullptr, 1);
    EXPECT_EQ(KTsReadDTWPattern(nullptr), -1);
    EXPECT_EQ(KTwReadDTWPattern(nullptr), -1);
}

#ifndef _WIN32 // has no streams over memory
// Where the device is full at any byte, the record is truncated and nothing is said.
TEST_F(DtwFile, ShortWritesAreSilent) {
    storeFloat();
    storeFixed();
    Bytes room(fixedRecord(1, 1).size(), '\0');
    for (std::size_t size = 1; size < room.size(); ++size) {
        for (bool fixed : {false, true}) {
            room.assign(room.size(), '\0');
            FILE* file = fmemopen(room.data(), size, "wb");
            ASSERT_NE(file, nullptr);
            std::setvbuf(file, nullptr, _IONBF, 0);
            (fixed ? KTwWriteDTWPattern : KTsWriteDTWPattern)(file, 1);
            std::fclose(file);
            const Bytes whole = fixed ? fixedRecord(1, 1) : floatRecord(1, 1);
            EXPECT_TRUE(whole.compare(0, 4, room, 0, 4) == 0 || size < 5);
        }
    }
    EXPECT_EQ(reports.count(), 0u);
}
#endif

TEST_F(DtwFile, EveryFailedAllocationOfTheFloatReaderLeavesTheStoreUnchanged) {
    Stream stream(floatRecord(5, 1));
    const long before = support::alloc::liveBlocks();
    int handle = 0;
    const int failures = support::alloc::failEach(
        [&] {
            std::rewind(stream);
            handle = KTsReadDTWPattern(stream);
        },
        [&] {
            EXPECT_EQ(handle, -1);
            EXPECT_EQ(KTsPatternsNumber(), 0);
            // the table's own; the reader says nothing
            for (const support::Report& report : reports.all())
                EXPECT_EQ(report.function, "KTsAlloc2");
            EXPECT_LE(support::alloc::liveBlocks(), before + 1); // the stream's buffer
            reports.clear();
        });
    EXPECT_GE(failures, 3);
    EXPECT_EQ(handle, 5);
    expectFloatPattern(5);
    KTsPatternFreeAll();
    EXPECT_LE(support::alloc::liveBlocks(), before + 1);
}

TEST_F(DtwFile, OnlyTheSixteenBitTableOfTheFixedReaderIsReported) {
    Stream stream(fixedRecord(5, 1));
    const long before = support::alloc::liveBlocks();
    int handle = 0, told = 0, counted = 0;
    const int failures = support::alloc::failEach(
        [&] {
            std::rewind(stream);
            handle = KTwReadDTWPattern(stream);
        },
        [&] {
            EXPECT_EQ(handle, -1);
            counted += KTwPatternsNumber();
            KTGetContext()->nFixedPatterns = 0;
            EXPECT_LE(support::alloc::liveBlocks(), before + 1);
            if (reports.count() == 2) {
                ++told;
                EXPECT_EQ(reports[0].function, "KTwAlloc2");
                EXPECT_EQ(reports[1].status, KT_StsNoMem);
                EXPECT_EQ(reports[1].function, "KTwReadDTWPattern");
                EXPECT_EQ(reports[1].message, "wPattern can not be allocated");
                EXPECT_EQ(reports[1].source, "..\\_LIBSRC\\KT_DTW");
            } else if (reports.count() == 1) {
                EXPECT_EQ(reports[0].function, "KTsAlloc2");
            }
            reports.clear();
        });
    EXPECT_GE(failures, 5);
    EXPECT_EQ(told, 1);
    EXPECT_EQ(counted, 2); // the two steps of the 16-bit rows: what arrives, and their table
    EXPECT_EQ(handle, 5);
    expectFixedPattern(5);
}
