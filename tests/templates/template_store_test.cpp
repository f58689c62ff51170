#include "support/alloc_faults.h"
#include "support/reports.h"
#include "support/streams.h"

#include "ktlp6.h"
#include "templates/KT_DTW.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <cstdint>
#include <ctime>
#include <random>
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
    static int read(FILE* stream) { return KTsReadDTWPattern(stream); }
    static Record*& head() { return KTGetContext()->sPatternList; }
    static int& count() { return KTGetContext()->nFloatPatterns; }
};

struct FixedStore {
    using Sample = short;
    using Record = wPattern;
    static constexpr char letter = 'w';
    static int create(Sample** rows, int n, int dim) { return KTwPatternIni(rows, n, dim, -3); }
    static int get(int handle, Sample*** rows, int* n, int* dim) {
        int scale = 77;
        const int result = KTwPatternGet(handle, rows, n, dim, &scale);
        EXPECT_TRUE(scale == -3 || (scale == 77 && result == 0)) << scale;
        return result;
    }
    static int free(int handle) { return KTwPatternFree(handle); }
    static int freeAll() { return KTwPatternFreeAll(); }
    static int number() { return KTwPatternsNumber(); }
    static Record* find(int handle) { return KTwPatternPtrGet(handle); }
    static int freeRecord(Record* record) { return KTwPatternPtrFree(record); }
    static int read(FILE* stream) { return KTwReadDTWPattern(stream); }
    static Record*& head() { return KTGetContext()->wPatternList; }
    static int& count() { return KTGetContext()->nFixedPatterns; }
};

template <class Store>
class PatternStore : public testing::Test {
protected:
    using Sample = typename Store::Sample;

    ~PatternStore() override { Store::freeAll(); }

    int create(int n = 2, int dim = 3, Sample first = 0) {
        std::vector<std::vector<Sample>> data{std::size_t(n),
                                              std::vector<Sample>(std::size_t(dim))};
        std::vector<Sample*> rows;
        for (auto& row : data) {
            for (Sample& x : row)
                x = first++;
            rows.push_back(row.data());
        }
        return Store::create(rows.data(), n, dim);
    }

    // Only files bring handles that nobody chose: records of no vectors, of `dim` elements each.
    static void putRecord(support::Bytes& bytes, int handle, int dim) {
        support::putText(bytes, "DTW ", 4);
        for (const int field : {handle, 0, dim, 0})
            support::put(bytes, field);
        if (Store::letter == 'w') support::put(bytes, -3);
    }
    void read(int handle, int dim = 1) {
        support::Bytes bytes;
        putRecord(bytes, handle, dim);
        const support::Stream stream = support::streamOf(bytes);
        EXPECT_EQ(Store::read(stream.get()), handle);
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
    void expectReport(std::size_t i, int status, const std::string& function,
                      const std::string& message) {
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
    for (int i = 1; i <= 70; ++i)
        this->create(1, 1);
    TypeParam::free(5);
    TypeParam::free(33);
    this->read(INT_MAX);
    this->read(71);
    EXPECT_EQ(this->create(1, 1), 5);
    EXPECT_EQ(this->create(1, 1), 33);
    EXPECT_EQ(this->create(1, 1), 72);
    EXPECT_EQ(this->create(1, 1), 73);
}

// Handles of all kinds, chosen and read, many of them equal, against a plain list: what is found is
// the oldest record of a handle, whatever was freed, and the handle chosen is the smallest free
// one. A record's length tells which it is.
TYPED_TEST(PatternStore, ThousandsOfStepsEqualAPlainList) {
    struct Entry {
        int handle, dim;
    };
    std::mt19937 random(17);
    std::vector<Entry> list;
    const auto oldest = [&](int handle) {
        return std::find_if(list.begin(), list.end(),
                            [=](const Entry& e) { return e.handle == handle; });
    };
    const auto any = [&]() {
        switch (random() % 5) {
        case 0:
            return int(random());
        case 1:
            return int(random() % 8) << 28 | int(random() % 4);
        case 2:
            return -int(random() % 40);
        default:
            return int(random() % 300);
        }
    };
    for (int step = 1; step <= 6000; ++step) {
        const bool growing = step / 1000 % 2 == 0;
        const unsigned choice = random() % 8;
        if (choice < (growing ? 3 : 1)) {
            int smallest = 1;
            while (oldest(smallest) != list.end())
                ++smallest;
            ASSERT_EQ(this->create(0, step), smallest) << step;
            list.push_back({smallest, step});
        } else if (choice < (growing ? 6 : 3)) {
            const int handle = any();
            this->read(handle, step);
            list.push_back({handle, step});
        } else if (!list.empty()) {
            auto at = list.begin() + long(random() % list.size());
            if (choice == 6) { // any of the records of a handle
                auto* record = TypeParam::head();
                for (auto before = list.begin(); before != at; ++before)
                    record = record->next;
                ASSERT_EQ(TypeParam::freeRecord(record), 0);
            } else {
                at = oldest(at->handle);
                ASSERT_EQ(TypeParam::free(at->handle), 0);
            }
            list.erase(at);
        }
        if (list.empty()) continue;
        for (const int handle : {list[random() % list.size()].handle, any()}) {
            int dim = -1;
            typename TypeParam::Sample** rows;
            int n;
            const auto expected = oldest(handle);
            const auto* record = TypeParam::find(handle);
            ASSERT_EQ(record != nullptr, expected != list.end()) << step << ": " << handle;
            if (record == nullptr) continue;
            ASSERT_EQ(TypeParam::get(handle, &rows, &n, &dim), handle);
            ASSERT_EQ(dim, expected->dim) << step << ": " << handle;
        }
        ASSERT_EQ(TypeParam::number(), int(list.size()));
    }
    std::vector<int> kept;
    for (const Entry& e : list)
        kept.push_back(e.handle);
    EXPECT_EQ(this->handles(), kept);
    EXPECT_GT(kept.size(), 300u);
    EXPECT_EQ(TypeParam::freeAll(), 0);
    EXPECT_EQ(TypeParam::head(), nullptr);
    EXPECT_EQ(this->reports.count(), 0u);
}

// Walking the list would take minutes.
TYPED_TEST(PatternStore, AHundredThousandPatternsTakeNoWalks) {
    constexpr int many = 100000;
    const std::clock_t start = std::clock();
    for (int i = 1; i <= many; ++i)
        ASSERT_EQ(this->create(0, 1), i);
    support::Bytes bytes;
    for (int i = 0; i < many; ++i) // far off and equal ones
        this->putRecord(bytes, i % 2 == 0 ? 1000000 + i : -5, 2);
    const support::Stream stream = support::streamOf(bytes);
    for (int i = 0; i < many; ++i)
        ASSERT_EQ(TypeParam::read(stream.get()), i % 2 == 0 ? 1000000 + i : -5);
    for (int i = 1; i <= many; ++i)
        ASSERT_EQ(TypeParam::find(i)->handle, i);
    for (int i = many; i > 0; i -= 2)
        ASSERT_EQ(TypeParam::free(i), 0);
    for (int i = 2; i <= many; i += 2)
        ASSERT_EQ(this->create(0, 1), i);
    for (int i = 0; i < many; i += 2)
        ASSERT_EQ(TypeParam::free(1000000 + i), 0);
    ASSERT_EQ(TypeParam::freeAll(), 0);
    EXPECT_LT(double(std::clock() - start) / CLOCKS_PER_SEC, 15.0);
    EXPECT_EQ(TypeParam::number(), 0);
}

// Its tables, its record and its share of the index, for patterns as they are in speech. A fixed
// pattern keeps its vectors in both forms.
TYPED_TEST(PatternStore, APatternTakesAtMostTwiceItsVectors) {
    const long vectors = 60L * 13 * (TypeParam::letter == 'w' ? 6 : 4);
    for (const int count : {1, 1000}) {
        support::alloc::arm(0);
        for (int i = 0; i < count; ++i)
            this->create(60, 13);
        support::alloc::disarm();
        EXPECT_LE(support::alloc::bytes(), 2 * vectors * count) << count;
        TypeParam::freeAll();
    }
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
        this->text(
            "sPattern NULL ptr is met in internal structure. The sPattern can not be free."));
    EXPECT_EQ(TypeParam::number(), 1);
}

TYPED_TEST(PatternStore, FreeInAnEmptyStoreMakesTwoReports) {
    EXPECT_EQ(TypeParam::free(1), -1);
    ASSERT_EQ(this->reports.count(), 2u);
    this->expectReport(0, KT_StsUnknownErr, this->named("PatternPtrGet"),
                       this->text("sPatterns have not been initialized."));
    this->expectReport(
        1, KT_StsUnknownErr, this->named("PatternFree"),
        this->text(
            "sPattern NULL ptr is met in internal structure. The sPattern can not be free."));
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

// With a count that is too low the last records cannot be freed: each failure is reported, the
// others are freed.
TYPED_TEST(PatternStore, FreeAllCarriesOnAfterAFailure) {
    for (int i = 0; i < 4; ++i)
        this->create();
    TypeParam::count() = 2;
    EXPECT_EQ(TypeParam::freeAll(), -1);
    ASSERT_EQ(this->reports.count(), 4u);
    for (std::size_t i = 0; i < 4; i += 2) {
        this->expectReport(
            i, KT_StsUnknownErr, this->named("PatternPtrFree"),
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
    EXPECT_GE(failures, 2); // the record and its table, at least
    EXPECT_EQ(handle, 2);
    EXPECT_EQ(TypeParam::free(2), 0);
    EXPECT_EQ(support::alloc::liveBlocks(), before);
}

// The index is made with the first pattern and grows with some later ones.
TYPED_TEST(PatternStore, EveryFailedAllocationOfTheIndexLeavesTheStoreUnchanged) {
    typename TypeParam::Sample value = 1, *row = &value;
    int atOnce = 0;
    for (int kept = 0; kept < 130; ++kept) {
        const long before = support::alloc::liveBlocks();
        int handle = 0;
        const int failures =
            support::alloc::failEach([&] { handle = TypeParam::create(&row, 1, 1); },
                                     [&] {
                                         EXPECT_EQ(handle, -1);
                                         EXPECT_EQ(KTGetStatus(), KT_StsNoMem);
                                         EXPECT_EQ(TypeParam::number(), kept);
                                         this->reports.clear();
                                         EXPECT_EQ(support::alloc::liveBlocks(), before);
                                     });
        atOnce = std::max(atOnce, failures);
        ASSERT_EQ(handle, kept + 1);
    }
    EXPECT_GE(atOnce, TypeParam::letter == 'w' ? 5 : 4);
    EXPECT_EQ(TypeParam::freeAll(), 0);
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
    // after the record: the 16-bit table, then the float table
    for (int table = 2; table <= 3; ++table) {
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
    // outputs that nobody wants may be null
    EXPECT_EQ(KTsPatternGet(2, nullptr, nullptr, nullptr), 2);
    EXPECT_EQ(KTsPatternFreeAll(), 0);
    EXPECT_EQ(KTwPatternsNumber(), 1);
    EXPECT_EQ(KTwPatternFreeAll(), 0);
    EXPECT_EQ(reports.count(), 0u);
}
