#include "support/alloc_faults.h"
#include "support/reports.h"

#include "templates/KT_DTW.h"
#include "ktlp6.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstdint>
#include <string>
#include <thread>
#include <vector>

namespace {

// Each flavour's functions under one set of names, so that every test runs on both.
struct FloatStore {
    using Sample = float;
    using Record = sPattern;
    static constexpr char letter = 's';
    static int create(Sample** rows, int n, int dim) { return KTsPatternIni(rows, n, dim); }
    static int get(int handle, Sample*** rows, int* n, int* dim) {
        return KTsPatternGet(handle, rows, n, dim);
    }
    static int free(int handle) { return KTsPatternFree(handle); }
    static int freeAll() { return KTsPatternFreeAll(); }
    static int number() { return KTsPatternsNumber(); }
    static Record* find(int handle) { return KTsPatternPtrGet(handle); }
    static int freeRecord(Record* record) { return KTsPatternPtrFree(record); }
    static Record*& head() { return KTGetContext()->sPatternList; }
    static int& count() { return KTGetContext()->nFloatPatterns; }
};

struct FixedStore {
    using Sample = short;
    using Record = wPattern;
    static constexpr char letter = 'w';
    static int create(Sample** rows, int n, int dim) { return KTwPatternIni(rows, n, dim, -3); }
    static int get(int handle, Sample*** rows, int* n, int* dim) {
        int scale = 0;
        const int result = KTwPatternGet(handle, rows, n, dim, &scale);
        EXPECT_EQ(scale, result != 0 ? -3 : 0);
        return result;
    }
    static int free(int handle) { return KTwPatternFree(handle); }
    static int freeAll() { return KTwPatternFreeAll(); }
    static int number() { return KTwPatternsNumber(); }
    static Record* find(int handle) { return KTwPatternPtrGet(handle); }
    static int freeRecord(Record* record) { return KTwPatternPtrFree(record); }
    static Record*& head() { return KTGetContext()->wPatternList; }
    static int& count() { return KTGetContext()->nFixedPatterns; }
};

template <class Store>
class PatternStore : public testing::Test {
protected:
    using Sample = typename Store::Sample;

    ~PatternStore() override { Store::freeAll(); }

    int create(int n = 2, int dim = 3, Sample first = 0) {
        std::vector<std::vector<Sample>> data{std::size_t(n), std::vector<Sample>(std::size_t(dim))};
        std::vector<Sample*> rows;
        for (auto& row : data) {
            for (Sample& x : row)
                x = first++;
            rows.push_back(row.data());
        }
        return Store::create(rows.data(), n, dim);
    }

    // Handles in the order of the list, with its links checked on the way.
    std::vector<int> handles() {
        std::vector<int> result;
        const typename Store::Record* before = nullptr;
        for (const auto* p = Store::head(); p != nullptr; before = p, p = p->next) {
            EXPECT_EQ(p->prev, before);
            EXPECT_EQ(p->isFirst, before == nullptr ? 1 : 0);
            result.push_back(p->handle);
        }
        EXPECT_EQ(Store::number(), int(result.size()));
        return result;
    }

    std::string named(const char* tail) {
        std::string result{'K', 'T', Store::letter};
        return result += tail;
    }
    std::string text(const std::string& withS) {
        std::string result = withS;
        for (std::size_t at = 0; (at = result.find("sPattern", at)) != std::string::npos; ++at)
            result[at] = Store::letter;
        return result;
    }
    void expectReport(std::size_t i, int status, const std::string& function, const std::string& message) {
        ASSERT_LT(i, reports.count());
        EXPECT_EQ(reports[i].status, status);
        EXPECT_EQ(reports[i].function, function);
        EXPECT_EQ(reports[i].message, message);
        EXPECT_EQ(reports[i].source, "..\\_LIBSRC\\KT_DTW");
        EXPECT_GT(reports[i].line, 0);
        EXPECT_EQ(KTGetStatus(), status);
    }

    support::CapturedReports reports;
};

using Stores = testing::Types<FloatStore, FixedStore>;
TYPED_TEST_SUITE(PatternStore, Stores);

} // namespace

TYPED_TEST(PatternStore, HandlesCountFromOneAndTheSmallestFreeOneComesBackAtTheTail) {
    EXPECT_EQ(this->create(), 1);
    EXPECT_EQ(this->create(), 2);
    EXPECT_EQ(this->create(), 3);
    EXPECT_EQ(TypeParam::free(1), 0);
    EXPECT_EQ(this->handles(), (std::vector<int>{2, 3}));
    EXPECT_EQ(this->create(), 1);
    EXPECT_EQ(this->handles(), (std::vector<int>{2, 3, 1}));
    EXPECT_EQ(this->create(), 4);
    EXPECT_EQ(TypeParam::free(3), 0);
    EXPECT_EQ(TypeParam::free(2), 0);
    EXPECT_EQ(this->create(), 2);
    EXPECT_EQ(this->create(), 3);
    EXPECT_EQ(this->handles(), (std::vector<int>{1, 4, 2, 3}));
    EXPECT_EQ(this->reports.count(), 0u);
}

TYPED_TEST(PatternStore, FreeingTheOnlyPatternLeavesAnEmptyList) {
    EXPECT_EQ(this->create(), 1);
    EXPECT_EQ(TypeParam::free(1), 0);
    EXPECT_EQ(TypeParam::head(), nullptr);
    EXPECT_EQ(TypeParam::number(), 0);
    EXPECT_EQ(this->create(), 1);
}

TYPED_TEST(PatternStore, FreeingHeadMiddleAndTailKeepsTheLinks) {
    for (int i = 1; i <= 5; ++i)
        EXPECT_EQ(this->create(), i);
    EXPECT_EQ(TypeParam::free(3), 0);
    EXPECT_EQ(this->handles(), (std::vector<int>{1, 2, 4, 5}));
    EXPECT_EQ(TypeParam::free(5), 0);
    EXPECT_EQ(this->handles(), (std::vector<int>{1, 2, 4}));
    EXPECT_EQ(TypeParam::free(1), 0);
    EXPECT_EQ(this->handles(), (std::vector<int>{2, 4}));
}

// Handles far above the number of patterns, as files bring them, do not disturb the choice.
TYPED_TEST(PatternStore, HandleChoiceSkipsWhatIsTakenAnywhereInTheList) {
    for (int i = 0; i < 70; ++i)
        this->create(1, 1);
    TypeParam::find(5)->handle = INT_MAX;
    TypeParam::find(33)->handle = 71;
    EXPECT_EQ(this->create(1, 1), 5);
    EXPECT_EQ(this->create(1, 1), 33);
    EXPECT_EQ(this->create(1, 1), 72);
    EXPECT_EQ(this->create(1, 1), 73);
}

// More patterns than the choice of a handle marks at once. The records are the test's own: filling a real
// store would walk its list each time.
TYPED_TEST(PatternStore, HandleChoiceInAStoreOfTenThousands) {
    EXPECT_EQ(this->create(1, 1), 1);
    std::vector<typename TypeParam::Record> more(20000);
    auto* tail = TypeParam::head();
    for (std::size_t i = 0; i < more.size(); ++i) {
        more[i] = {};
        more[i].handle = int(i) + 2;
        more[i].prev = tail;
        tail->next = &more[i];
        tail = &more[i];
    }
    TypeParam::count() = 20001;
    EXPECT_EQ(this->create(1, 1), 20002);
    more[16384 - 2].handle = 30000;
    EXPECT_EQ(this->create(1, 1), 16384);
    TypeParam::head()->next = tail->next; // the two real records behind the first one
    tail->next->prev = TypeParam::head();
    TypeParam::count() = 3;
    EXPECT_EQ(this->handles(), (std::vector<int>{1, 20002, 16384}));
}

TYPED_TEST(PatternStore, GetReturnsTheStoresOwnCopy) {
    using Sample = typename TypeParam::Sample;
    std::vector<Sample> first{1, 2, 3}, second{-4, 5, 32767};
    Sample* rows[] = {first.data(), second.data()};
    const int handle = TypeParam::create(rows, 2, 3);
    first.assign(3, 0);
    Sample** stored = nullptr;
    int n = 0, dim = 0;
    EXPECT_EQ(TypeParam::get(handle, &stored, &n, &dim), handle);
    EXPECT_EQ(n, 2);
    EXPECT_EQ(dim, 3);
    ASSERT_NE(stored, nullptr);
    EXPECT_NE(stored[0], first.data());
    EXPECT_EQ(std::vector<Sample>(stored[0], stored[0] + 3), (std::vector<Sample>{1, 2, 3}));
    EXPECT_EQ(std::vector<Sample>(stored[1], stored[1] + 3), second);
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(stored[1]) % 32, 0u);
    EXPECT_EQ(TypeParam::find(handle)->pData, stored);
}

TYPED_TEST(PatternStore, GetOfAnUnknownHandleIsSilentUnlessTheStoreIsEmpty) {
    using Sample = typename TypeParam::Sample;
    Sample** rows = nullptr;
    int n = -7, dim = -8;
    this->create();
    EXPECT_EQ(TypeParam::get(2, &rows, &n, &dim), 0);
    EXPECT_EQ(TypeParam::get(0, &rows, &n, &dim), 0);
    EXPECT_EQ(TypeParam::get(-1, &rows, &n, &dim), 0);
    EXPECT_EQ(this->reports.count(), 0u);
    EXPECT_EQ(KTGetStatus(), 0);
    TypeParam::freeAll();
    EXPECT_EQ(TypeParam::get(1, &rows, &n, &dim), 0);
    ASSERT_EQ(this->reports.count(), 1u);
    this->expectReport(0, KT_StsUnknownErr, this->named("PatternPtrGet"),
                       this->text("sPatterns have not been initialized."));
    EXPECT_EQ(rows, nullptr);
    EXPECT_EQ(n, -7);
    EXPECT_EQ(dim, -8);
}

TYPED_TEST(PatternStore, FreeOfAnUnknownHandleIsReported) {
    this->create();
    EXPECT_EQ(TypeParam::free(7), -1);
    ASSERT_EQ(this->reports.count(), 1u);
    this->expectReport(
        0, KT_StsUnknownErr, this->named("PatternFree"),
        this->text("sPattern NULL ptr is met in internal structure. The sPattern can not be free."));
    EXPECT_EQ(TypeParam::number(), 1);
}

TYPED_TEST(PatternStore, FreeInAnEmptyStoreMakesTwoReports) {
    EXPECT_EQ(TypeParam::free(1), -1);
    ASSERT_EQ(this->reports.count(), 2u);
    this->expectReport(0, KT_StsUnknownErr, this->named("PatternPtrGet"),
                       this->text("sPatterns have not been initialized."));
    this->expectReport(
        1, KT_StsUnknownErr, this->named("PatternFree"),
        this->text("sPattern NULL ptr is met in internal structure. The sPattern can not be free."));
}

TYPED_TEST(PatternStore, FreeingANullRecordIsSilent) {
    EXPECT_EQ(TypeParam::freeRecord(nullptr), -1);
    EXPECT_EQ(this->reports.count(), 0u);
}

TYPED_TEST(PatternStore, FreeingARecordOfAStoreThatCountsNoneIsReported) {
    this->create();
    auto* record = TypeParam::head();
    TypeParam::count() = 0;
    EXPECT_EQ(TypeParam::freeRecord(record), -1);
    ASSERT_EQ(this->reports.count(), 1u);
    this->expectReport(0, KT_StsUnknownErr, this->named("PatternPtrFree"),
                       this->text("Error in internal structure. sPatterns have not be allocated."));
    TypeParam::count() = 1;
    TypeParam::head() = nullptr;
    EXPECT_EQ(TypeParam::freeRecord(record), -1);
    ASSERT_EQ(this->reports.count(), 2u);
    TypeParam::head() = record;
    EXPECT_EQ(TypeParam::freeRecord(record), 0);
}

TYPED_TEST(PatternStore, FreeAllEmptiesTheStore) {
    for (int i = 0; i < 4; ++i)
        this->create();
    EXPECT_EQ(TypeParam::freeAll(), 0);
    EXPECT_EQ(TypeParam::number(), 0);
    EXPECT_EQ(TypeParam::head(), nullptr);
    EXPECT_EQ(TypeParam::freeAll(), 0);
    EXPECT_EQ(this->reports.count(), 0u);
}

// With a count that is too low the last records cannot be freed: each failure is reported, the others are
// freed.
TYPED_TEST(PatternStore, FreeAllCarriesOnAfterAFailure) {
    for (int i = 0; i < 4; ++i)
        this->create();
    TypeParam::count() = 2;
    EXPECT_EQ(TypeParam::freeAll(), -1);
    ASSERT_EQ(this->reports.count(), 4u);
    for (std::size_t i = 0; i < 4; i += 2) {
        this->expectReport(i, KT_StsUnknownErr, this->named("PatternPtrFree"),
                           this->text("Error in internal structure. sPatterns have not be allocated."));
        this->expectReport(i + 1, KT_StsUnknownErr, this->named("PatternFreeAll"),
                           this->text("Error in internal structure. sPattern can not be free"));
    }
    TypeParam::count() = 2;
    EXPECT_EQ(this->handles(), (std::vector<int>{3, 4}));
    EXPECT_EQ(TypeParam::freeAll(), 0);
}

TYPED_TEST(PatternStore, EveryFailedAllocationIsReportedAndLeavesTheStoreUnchanged) {
    this->create();
    this->reports.clear();
    const long before = support::alloc::liveBlocks();
    using Sample = typename TypeParam::Sample;
    std::vector<Sample> data{1, 2, 3};
    Sample* rows[] = {data.data(), data.data()};
    int handle = 0;
    const int failures = support::alloc::failEach(
        [&] { handle = TypeParam::create(rows, 2, 3); },
        [&] {
            EXPECT_EQ(handle, -1);
            ASSERT_GE(this->reports.count(), 1u);
            this->expectReport(this->reports.count() - 1, KT_StsNoMem, this->named("PatternIni"),
                               this->text("sPattern can not be allocated"));
            EXPECT_EQ(support::alloc::liveBlocks(), before);
            EXPECT_EQ(TypeParam::number(), 1);
            this->reports.clear();
        });
    EXPECT_GE(failures, 3); // the record and its tables, at least
    EXPECT_EQ(handle, 2);
    EXPECT_EQ(TypeParam::free(2), 0);
    EXPECT_EQ(support::alloc::liveBlocks(), before);
}

TYPED_TEST(PatternStore, SizesThatMakeNoVectorsAreRefused) {
    typename TypeParam::Sample** none = nullptr;
    const int sizes[][2] = {{-1, 3}, {2, 0}, {2, -1}, {INT_MIN, INT_MIN}};
    for (const auto& size : sizes) {
        EXPECT_EQ(TypeParam::create(none, size[0], size[1]), -1);
        EXPECT_EQ(KTGetStatus(), KT_StsBadArg);
    }
    EXPECT_EQ(this->reports.count(), 4u);
    EXPECT_EQ(TypeParam::number(), 0);
}

TYPED_TEST(PatternStore, SizesBeyondTheAddressSpaceFail) {
    typename TypeParam::Sample** none = nullptr;
    EXPECT_EQ(TypeParam::create(none, INT_MAX, INT_MAX), -1);
    EXPECT_EQ(KTGetStatus(), KT_StsNoMem);
    EXPECT_EQ(TypeParam::number(), 0);
}

TYPED_TEST(PatternStore, APatternWithoutFramesMayBeStored) {
    EXPECT_EQ(this->create(0, 3), 1);
    typename TypeParam::Sample** rows = nullptr;
    int n = 7, dim = 7;
    EXPECT_EQ(TypeParam::get(1, &rows, &n, &dim), 1);
    EXPECT_EQ(n, 0);
    EXPECT_EQ(dim, 3);
}

TYPED_TEST(PatternStore, EachThreadHasItsOwnStore) {
    this->create();
    int number = -1, handle = -1;
    std::thread other([&] {
        number = TypeParam::number();
        typename TypeParam::Sample value = 1, *row = &value;
        handle = TypeParam::create(&row, 1, 1);
        TypeParam::freeAll();
    });
    other.join();
    EXPECT_EQ(number, 0);
    EXPECT_EQ(handle, 1);
    EXPECT_EQ(TypeParam::number(), 1);
}

TEST(FixedPatternStore, KeepsTheIntegersAndTheRealValues) {
    short values[] = {8, -32768, 32767, 0, 1}, *row = values;
    const int handle = KTwPatternIni(&row, 1, 5, -3);
    short** rows = nullptr;
    int n = 0, dim = 0, scale = 0;
    EXPECT_EQ(KTwPatternGet(handle, &rows, &n, &dim, &scale), handle);
    EXPECT_EQ(rows[0][0], 8);
    EXPECT_EQ(scale, -3);
    const wPattern* record = KTwPatternPtrGet(handle);
    EXPECT_EQ(std::vector<float>(record->pFloatData[0], record->pFloatData[0] + 5),
              (std::vector<float>{1.0f, -4096.0f, 4095.875f, 0.0f, 0.125f}));
    KTwPatternFreeAll();
    const int plain = KTwPatternIni(&row, 1, 5, 0);
    EXPECT_EQ(KTwPatternPtrGet(plain)->pFloatData[0][2], 32767.0f);
    KTwPatternFreeAll();
}

TEST(FixedPatternStore, AFailedTableIsReportedByTheTableToo) {
    support::CapturedReports reports;
    short value = 1, *row = &value;
    for (int table = 2; table <= 3; ++table) { // after the record: the 16-bit table, then the float table
        support::alloc::arm(table);
        EXPECT_EQ(KTwPatternIni(&row, 1, 1, 0), -1);
        support::alloc::disarm();
        ASSERT_EQ(reports.count(), 2u);
        EXPECT_EQ(reports[0].function, table == 2 ? "KTwAlloc2" : "KTsAlloc2");
        EXPECT_EQ(reports[0].message, "The table can not be allocated");
        EXPECT_EQ(reports[1].function, "KTwPatternIni");
        EXPECT_EQ(reports[1].message, "wPattern can not be allocated");
        reports.clear();
    }
}

TEST(PatternStores, TheFlavoursKnowNothingOfEachOther) {
    support::CapturedReports reports;
    float value = 1, *row = &value;
    EXPECT_EQ(KTsPatternIni(&row, 1, 1), 1);
    EXPECT_EQ(KTsPatternIni(&row, 1, 1), 2);
    EXPECT_EQ(KTwPatternsNumber(), 0);
    short fixed = 1, *fixedRow = &fixed;
    EXPECT_EQ(KTwPatternIni(&fixedRow, 1, 1, 0), 1);
    EXPECT_EQ(KTwPatternGet(2, nullptr, nullptr, nullptr, nullptr), 0);
    EXPECT_EQ(KTsPatternGet(2, nullptr, nullptr, nullptr), 2); // outputs that nobody wants may be null
    EXPECT_EQ(KTsPatternFreeAll(), 0);
    EXPECT_EQ(KTwPatternsNumber(), 1);
    EXPECT_EQ(KTwPatternFreeAll(), 0);
    EXPECT_EQ(reports.count(), 0u);
}
