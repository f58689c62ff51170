#include "quantisers/trees.h"
#include "support/alloc_faults.h"
#include "support/every_level.h"
#include "support/guarded.h"
#include "support/reports.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <ctime>

using namespace trees;

namespace {

constexpr int largest = KT_CB_EUCLID | KT_CB_SPLIT_LARGEST;
constexpr int widest = KT_CB_EUCLID | KT_CB_SPLIT_WIDEST;
constexpr const char* source = "..\\_LIBSRC\\Kt_cdbk";

template <class T>
bool sameBits(T a, T b) {
    return a == b || (a != a && b != b);
}

template <class T>
void expectSameTree(const KTCluster* got, const Leaf<T>& want) {
    ASSERT_NE(got, nullptr);
    EXPECT_EQ(spreadOf(*got, T()), want.spread);
    EXPECT_EQ(got->iFar1, want.far1);
    EXPECT_EQ(got->iFar2, want.far2);
    EXPECT_EQ(got->nMembers, want.count);
    EXPECT_EQ(unsigned(got->node), want.node);
    const T* centroid = static_cast<const T*>(got->pCentroid);
    for (std::size_t k = 0; k < want.centroid.size(); ++k)
        ASSERT_TRUE(sameBits(centroid[k], want.centroid[k]))
            << "element " << k << " of node " << want.node;
    ASSERT_EQ(got->isLeaf != 0, want.left == nullptr);
    if (want.left) {
        EXPECT_EQ(got->pMembers, nullptr);
        expectSameTree(got->pLeft, *want.left);
        expectSameTree(got->pRight, *want.right);
        return;
    }
    EXPECT_EQ(got->cell, want.cell);
    EXPECT_EQ(got->pLeft, nullptr);
    EXPECT_EQ(got->pRight, nullptr);
    for (int i = 0; i < want.count; ++i)
        ASSERT_EQ(got->pMembers[i], want.members[std::size_t(i)]);
}

// Trains and quantises, and compares with the plain form.
template <class T>
void expectAsPlain(Rows<T>& set, int nSize, int flags, Rows<T>* tested = nullptr) {
    support::CapturedReports reports;
    Reference<T> plain(set);
    plain.train(nSize, flags);
    support::Guarded<int> labels(set.rows.size(), -7);
    Codebook codebook = train(set, nSize, flags, labels.data());
    EXPECT_TRUE(labels.intact());
    if (plain.status != 0) {
        EXPECT_EQ(codebook, nullptr);
        EXPECT_EQ(KTGetStatus(), plain.status);
        return;
    }
    ASSERT_NE(codebook, nullptr);
    EXPECT_EQ(labels.values(), plain.labels);
    EXPECT_EQ(codebook->depth, plain.depth);
    EXPECT_EQ(codebook->nSize, nSize);
    EXPECT_EQ(codebook->nDim, set.nDim());
    expectSameTree(codebook->pRoot, plain.root);
    for (std::size_t c = 0; c < plain.cells.size(); ++c)
        EXPECT_TRUE(sameBits(static_cast<const T*>(codebook->ppCentroids[c])[0],
                             plain.cells[c]->centroid[0]));

    Rows<T>& rows = tested != nullptr ? *tested : set;
    support::Guarded<int> index(rows.rows.size(), -7);
    const double distortion =
        quantise(codebook.get(), rows.get(), index.data(), rows.count(), rows.nDim());
    double total = 0;
    for (int i = 0; i < rows.count(); ++i) {
        const auto& leaf = plain.quantise(rows.pointers[std::size_t(i)]);
        ASSERT_EQ(index[std::size_t(i)], leaf.cell) << "vector " << i;
        total += plain.between(rows.pointers[std::size_t(i)], leaf.centroid.data());
    }
    total /= rows.count();
    EXPECT_TRUE(sameBits(distortion, isFloat<T> ? total : std::trunc(total)))
        << distortion << total;
    EXPECT_TRUE(index.intact());
    EXPECT_EQ(reports.count(), 0u);
}

template <class T>
class Tree : public testing::Test {};
using NumericForms = testing::Types<float, short>;
TYPED_TEST_SUITE(Tree, NumericForms);

// --- against the plain form ---

TYPED_TEST(Tree, EqualsThePlainForm) {
    Random random(1);
    for (int round = 0; round < 160; ++round) {
        const int kind = round % kinds, n = 1 + int(random() % 200), nDim = 1 + int(random() % 20);
        const int nSize = 1 + int(random() % 24), flags = round / kinds % 2 ? largest : widest;
        SCOPED_TRACE(testing::Message()
                     << "kind " << kind << " n " << n << " nDim " << nDim << " nSize " << nSize);
        Rows<TypeParam> set = someSet<TypeParam>(kind, n, nDim, random);
        Rows<TypeParam> tested = someSet<TypeParam>(kind, 100, nDim, random);
        expectAsPlain(set, nSize, flags);
        expectAsPlain(set, nSize, flags, &tested);
        if (this->HasFatalFailure()) return;
    }
}

TYPED_TEST(Tree, IsTheSameOnEveryLevel) {
    Random random(2);
    for (int kind = 0; kind < kinds; ++kind) {
        Rows<TypeParam> set = someSet<TypeParam>(kind, 150, 13, random);
        support::onEveryLevel([&] { expectAsPlain(set, 16, largest); });
    }
}

TYPED_TEST(Tree, TakesVectorsOfAnyLength) {
    Random random(3);
    for (int nDim : {1, 15, 16, 17, 64, 65, 100, 101, 300}) {
        SCOPED_TRACE(nDim);
        Rows<TypeParam> set = someSet<TypeParam>(0, 40, nDim, random);
        expectAsPlain(set, 6, widest);
        Rows<TypeParam> grid = someSet<TypeParam>(1, 40, nDim, random);
        expectAsPlain(grid, 6, largest);
    }
}

TYPED_TEST(Tree, TakesFewerVectorsThanElements) {
    Random random(4);
    Rows<TypeParam> set = someSet<TypeParam>(0, 3, 50, random);
    expectAsPlain(set, 3, widest);
}

TEST(TreeFloat, HoldsForTinyHugeAndMissingNumbers) {
    Random random(5);
    const double scales[] = {1e-44, 1e-38, 1e-30, 1e-20, 1e14, 1e16, 1e19, 1e30};
    for (double scale : scales) {
        SCOPED_TRACE(scale);
        std::normal_distribution<double> normal;
        Rows<float> set = fill<float>(60, 5, [&](int, int) { return scale * normal(random); });
        expectAsPlain(set, 8, widest);
        Rows<float> mixed =
            fill<float>(60, 5, [&](int i, int) { return (i % 7 ? 1 : scale) * normal(random); });
        expectAsPlain(mixed, 8, widest);
    }
    for (double odd : {double(std::numeric_limits<float>::infinity()), std::nan("")}) {
        std::normal_distribution<double> normal;
        Rows<float> set = fill<float>(
            60, 5, [&](int i, int k) { return i == 20 && k == 3 ? odd : normal(random); });
        expectAsPlain(set, 8, largest);
    }
}

TEST(TreeFloat, EqualsThePlainFormWhateverTheNumbersAre) {
    Random random(12);
    for (int round = 0; round < 180; ++round) {
        const int kind = round % oddKinds, n = 1 + int(random() % 150);
        const int nDim = round % 5 == 0 ? 60 + int(random() % 20) : 1 + int(random() % 15);
        const int nSize = 1 + int(random() % 16), flags = round / oddKinds % 2 ? largest : widest;
        SCOPED_TRACE(testing::Message()
                     << "kind " << kind << " n " << n << " nDim " << nDim << " nSize " << nSize);
        Rows<float> set = oddSet(kind, n, nDim, random), tested = oddSet(kind, 60, nDim, random);
        expectAsPlain(set, nSize, flags);
        expectAsPlain(set, nSize, flags, &tested);
        if (HasFatalFailure()) return;
    }
}

// --- many vectors in one call ---

// The cells that one vector a call gives, and the mean of their distances in the order of the rows.
template <class T>
std::vector<int> oneByOne(const Codebook& codebook, Rows<T>& rows, double& distortion) {
    std::vector<int> cells(rows.rows.size());
    double total = 0;
    for (std::size_t i = 0; i < cells.size(); ++i) {
        quantise(codebook.get(), rows.get() + i, &cells[i], 1, rows.nDim());
        const auto* const centroid =
            static_cast<const T*>(codebook->ppCentroids[std::size_t(cells[i]) - 1]);
        total += distanceOf(rows.pointers[i], centroid, rows.nDim());
    }
    total /= rows.count();
    distortion = isFloat<T> ? total : std::trunc(total);
    return cells;
}

template <class T>
void expectAsOneByOne(const Codebook& codebook, Rows<T>& rows) {
    double want = 0;
    const std::vector<int> cells = oneByOne(codebook, rows, want);
    support::onEveryLevel([&] {
        support::Guarded<int> index(cells.size(), -7);
        const double got =
            quantise(codebook.get(), rows.get(), index.data(), rows.count(), rows.nDim());
        EXPECT_EQ(index.values(), cells);
        EXPECT_TRUE(sameBits(got, want)) << got << " " << want;
        EXPECT_TRUE(index.intact());
    });
}

// Adds rows halfway between centroids, on them and right beside both.
template <class T>
Rows<T> withMidways(const Codebook& codebook, Rows<T> rows, Random& random) {
    const auto cells = std::size_t(codebook->nSize);
    for (std::size_t i = 0; i < rows.rows.size(); i += 3) {
        const auto* const a = static_cast<const T*>(codebook->ppCentroids[random() % cells]);
        const auto* const b = static_cast<const T*>(codebook->ppCentroids[random() % cells]);
        const double part = double(random() % 5) / 4;
        for (std::size_t k = 0; k < rows.rows[i].size(); ++k)
            rows.rows[i][k] = T(a[k] + part * (double(b[k]) - a[k]));
        if constexpr (isFloat<T>)
            if (random() % 2) rows.rows[i][0] = std::nextafter(rows.rows[i][0], T(1e30));
    }
    return Rows<T>(std::move(rows.rows));
}

TYPED_TEST(Tree, ManyVectorsInOneCallGoWhereEachWouldAlone) {
    Random random(20);
    for (int round = 0; round < 3 * kinds; ++round) {
        const int kind = round % kinds, nDim = 1 + int(random() % 64);
        const int nSize = 1 + int(random() % 150), n = 20 + int(random() % 700);
        SCOPED_TRACE(testing::Message()
                     << "kind " << kind << " n " << n << " nDim " << nDim << " nSize " << nSize);
        Rows<TypeParam> set = someSet<TypeParam>(kind, 300, nDim, random);
        const Codebook codebook = train(set, nSize, largest);
        ASSERT_NE(codebook, nullptr);
        Rows<TypeParam> tested =
            withMidways(codebook, someSet<TypeParam>(kind, n, nDim, random), random);
        expectAsOneByOne(codebook, tested);
    }
}

TEST(TreeFloat, ManyOddVectorsInOneCallGoWhereEachWouldAlone) {
    Random random(21);
    for (int round = 0; round < 3 * oddKinds; ++round) {
        const int kind = round % oddKinds, nDim = 1 + int(random() % 20);
        SCOPED_TRACE(testing::Message() << "kind " << kind << " nDim " << nDim);
        Rows<float> set = oddSet(kind, 300, nDim, random);
        const Codebook codebook = train(set, 1 + int(random() % 40), largest);
        ASSERT_NE(codebook, nullptr);
        Rows<float> tested = oddSet((kind + round) % oddKinds, 500, nDim, random);
        expectAsOneByOne(codebook, tested);
    }
}

// Every count around those where a call begins to take vectors together and where its room ends.
TYPED_TEST(Tree, EveryCountOfVectorsGivesTheSameCells) {
    Random random(22);
    for (int nDim : {13, 64}) {
        Rows<TypeParam> set = someSet<TypeParam>(0, 9000, nDim, random);
        const Codebook codebook = train(set, 40, largest);
        ASSERT_NE(codebook, nullptr);
        double distortion = 0;
        const std::vector<int> cells = oneByOne(codebook, set, distortion);
        std::vector<int> counts = {1023, 1024, 1025, 2049, 4095, 4096, 4097, 8193, 9000};
        for (int count = 1; count < 100; ++count)
            counts.push_back(count);
        for (int count : counts) {
            support::Guarded<int> index(std::size_t(count), -7);
            quantise(codebook.get(), set.get(), index.data(), count, nDim);
            EXPECT_TRUE(std::equal(index.data(), index.data() + count, cells.begin())) << count;
            EXPECT_TRUE(index.intact()) << count;
        }
    }
}

TYPED_TEST(Tree, ManyVectorsGoDownADegenerateTree) {
    Random random(23);
    Rows<TypeParam> equal = fill<TypeParam>(4, 3, [](int, int) { return 5; });
    const Codebook codebook = train(equal, 500, largest);
    ASSERT_NE(codebook, nullptr);
    Rows<TypeParam> tested =
        fill<TypeParam>(300, 3, [&](int, int) { return double(random() % 11); });
    expectAsOneByOne(codebook, tested);
    // each cell is split off from the one before
    Rows<TypeParam> line =
        fill<TypeParam>(14, 1, [](int i, int) { return (i % 2 ? 1 : -1) * std::pow(2, i); });
    const Codebook chain = train(line, 12, widest);
    ASSERT_NE(chain, nullptr);
    Rows<TypeParam> along =
        fill<TypeParam>(1000, 1, [&](int, int) { return double(random() % 20000) - 10000; });
    expectAsOneByOne(chain, along);
}

TYPED_TEST(Tree, QuantisingGoesOnWithoutMemory) {
    Random random(24);
    Rows<TypeParam> set = someSet<TypeParam>(0, 300, 13, random);
    const Codebook codebook = train(set, 20, largest);
    ASSERT_NE(codebook, nullptr);
    double want = 0;
    const std::vector<int> cells = oneByOne(codebook, set, want);
    support::CapturedReports reports;
    const long before = support::alloc::liveBlocks();
    std::vector<int> index(cells.size());
    double got = 0;
    const auto check = [&] {
        EXPECT_EQ(index, cells);
        EXPECT_EQ(got, want);
        EXPECT_EQ(reports.count(), 0u);
        EXPECT_EQ(support::alloc::liveBlocks(), before);
        index.assign(index.size(), -7);
    };
    const int failures = support::alloc::failEach(
        [&] { got = quantise(codebook.get(), set.get(), index.data(), 300, 13); }, check);
    EXPECT_GT(failures, 0);
    check();
    support::alloc::armFrom(1);
    got = quantise(codebook.get(), set.get(), index.data(), 300, 13);
    support::alloc::disarm();
    check();
}

// --- what odd data cost ---

// Processor seconds of a training, the shortest of three.
template <class T>
double costOf(Rows<T>& set, int nSize, int flags) {
    double least = 1e9;
    for (int run = 0; run < 3 && (run == 0 || least < 2); ++run) {
        const std::clock_t start = std::clock();
        const Codebook codebook = train(set, nSize, flags);
        least = std::min(least, double(std::clock() - start) / CLOCKS_PER_SEC);
    }
    return least;
}

// A plain search of all pairs costs hundreds of times what ordinary vectors cost.
constexpr double oddIsWorth = 30;

TEST(TreeFloat, OddNumbersCostLittleMoreThanOrdinaryOnes) {
    Random random(14);
    constexpr int n = 10000, nDim = 13, nSize = 16;
    for (int flags : {largest, widest}) {
        support::CapturedReports reports; // some sets have no second cell
        Rows<float> ordinary = someSet<float>(0, n, nDim, random);
        const double limit = oddIsWorth * costOf(ordinary, nSize, flags);
        for (int kind = 0; kind < oddKinds; ++kind) {
            Rows<float> set = oddSet(kind, n, nDim, random);
            EXPECT_LT(costOf(set, nSize, flags), limit) << "kind " << kind;
        }
        for (double scale : {1e-42, 1e-30, 1e30}) {
            Rows<float> set = ordinary;
            for (auto& row : set.rows)
                for (float& value : row)
                    value = float(value * scale);
            set = Rows<float>(std::move(set.rows));
            EXPECT_LT(costOf(set, nSize, flags), limit) << "scale " << scale;
        }
    }
}

TYPED_TEST(Tree, CornersOfACubeCostLittleMoreThanACloud) {
    using T = TypeParam;
    Random random(18);
    constexpr int n = 10000, nDim = 13, nSize = 16;
    Rows<T> cloud = someSet<T>(0, n, nDim, random);
    const double limit = oddIsWorth * costOf(cloud, nSize, largest);
    Rows<T> wide = fill<T>(n, nDim, [&](int, int) { return double(random() % 2) * 65535 - 32768; });
    EXPECT_LT(costOf(wide, nSize, largest), limit);
    Rows<T> narrow = fill<T>(n, nDim, [&](int, int) { return double(random() % 2); });
    EXPECT_LT(costOf(narrow, nSize, largest), limit);
}

TYPED_TEST(Tree, ManyEmptyCellsCostLittle) { // each would cost a pass over all vectors
    Random random(15);
    constexpr int n = 10000, nDim = 13;
    Rows<TypeParam> ordinary = someSet<TypeParam>(0, n, nDim, random);
    const double limit = oddIsWorth * costOf(ordinary, 16, largest);
    Rows<TypeParam> equal = fill<TypeParam>(n, nDim, [](int, int) { return 5; });
    EXPECT_LT(costOf(equal, 1024, largest), limit);
}

// --- edge cases ---

TYPED_TEST(Tree, OneCellIsTheRoot) {
    Rows<TypeParam> set{{1, 2}, {3, 4}, {5, 9}};
    for (int nSize : {1, 0, -3}) {
        int labels[3] = {};
        Codebook codebook = train(set, nSize, widest, labels);
        ASSERT_NE(codebook, nullptr);
        EXPECT_EQ(codebook->depth, 1);
        EXPECT_EQ(labels[0], 1);
        EXPECT_EQ(labels[1], 1);
        EXPECT_EQ(labels[2], 1);
        int index[3] = {};
        quantise(codebook.get(), set.get(), index, 3, 2);
        EXPECT_EQ(index[0], 1);
        EXPECT_EQ(index[2], 1);
    }
}

TYPED_TEST(Tree, FreeingAOneCellCodebookFreesTheRootsMembers) {
    const long before = support::alloc::liveBlocks();
    {
        Rows<TypeParam> set{{1, 2}, {3, 4}, {5, 9}};
        train(set, 1, largest);
    }
    EXPECT_EQ(support::alloc::liveBlocks(), before);
    KT_FreeCodebook(nullptr);
}

TYPED_TEST(Tree, TwoCellsHaveDepthTwo) {
    Rows<TypeParam> set{{0}, {1}, {10}, {11}};
    int labels[4] = {};
    Codebook codebook = train(set, 2, widest, labels);
    ASSERT_NE(codebook, nullptr);
    EXPECT_EQ(codebook->depth, 2);
    EXPECT_EQ(std::vector<int>(labels, labels + 4), (std::vector<int>{1, 1, 2, 2}));
    EXPECT_EQ(codebook->flags, isFloat<TypeParam> ? 5 : 6);
}

TYPED_TEST(Tree, WidestFailsWhenNoLeafHasAnySpread) {
    support::CapturedReports reports;
    Rows<TypeParam> set{{1}, {5}, {1}, {5}, {1}};
    const long before = support::alloc::liveBlocks();
    EXPECT_NE(train(set, 2, widest), nullptr);
    EXPECT_EQ(reports.count(), 0u);
    EXPECT_EQ(train(set, 3, widest), nullptr);
    ASSERT_EQ(reports.count(), 1u);
    EXPECT_EQ(reports[0].status, KT_StsBadArg);
    EXPECT_EQ(reports[0].message, "codebook of given size can not be constructed");
    EXPECT_EQ(reports[0].function, isFloat<TypeParam> ? "KTsMakeCodebook" : "KTwMakeCodebook");
    EXPECT_EQ(reports[0].source, source);
    EXPECT_EQ(KTGetStatus(), KT_StsBadArg);
    Rows<TypeParam> single{{3, 4}};
    EXPECT_EQ(train(single, 2, widest), nullptr);
    EXPECT_EQ(reports.count(), 2u);
    EXPECT_EQ(support::alloc::liveBlocks(), before);
}

TYPED_TEST(Tree, LargestGoesOnWithEmptyLeaves) {
    Rows<TypeParam> set{{1, 1}, {5, 1}, {1, 1}, {5, 1}, {1, 1}};
    expectAsPlain(set, 3, largest);
    expectAsPlain(set, 7, largest);
    int labels[5] = {};
    Codebook codebook = train(set, 7, largest, labels);
    ASSERT_NE(codebook, nullptr);
    EXPECT_EQ(labels[0], labels[2]);
    EXPECT_EQ(labels[0], labels[4]);
    EXPECT_EQ(labels[1], labels[3]);
    EXPECT_NE(labels[0], labels[1]);
}

TYPED_TEST(Tree, LargestWinsOverWidest) {
    Random random(7);
    Rows<TypeParam> set = someSet<TypeParam>(5, 80, 3, random);
    Codebook one = train(set, 9, largest), both = train(set, 9, largest | KT_CB_SPLIT_WIDEST);
    Codebook other = train(set, 9, widest);
    std::vector<int> a(80), b(80), c(80);
    quantise(one.get(), set.get(), a.data(), 80, 3);
    quantise(both.get(), set.get(), b.data(), 80, 3);
    quantise(other.get(), set.get(), c.data(), 80, 3);
    EXPECT_EQ(a, b);
    EXPECT_NE(a, c);
}

TYPED_TEST(Tree, WithoutAFlagThatChoosesTwoCellsAreTheMost) {
    support::CapturedReports reports;
    Rows<TypeParam> set{{0}, {1}, {10}, {11}};
    EXPECT_NE(train(set, 2, KT_CB_EUCLID), nullptr);
    EXPECT_EQ(train(set, 3, KT_CB_EUCLID), nullptr);
    ASSERT_EQ(reports.count(), 1u);
    EXPECT_EQ(reports[0].status, KT_StsBadArg);
    EXPECT_EQ(reports[0].message, "codebook of given size can not be constructed");
}

TYPED_TEST(Tree, RefusesToStartWithoutADistance) {
    support::CapturedReports reports;
    Rows<TypeParam> set{{0}, {1}};
    EXPECT_EQ(train(set, 2, KT_CB_SPLIT_WIDEST), nullptr);
    ASSERT_EQ(reports.count(), 1u);
    EXPECT_EQ(reports[0].status, KT_StsBadArg);
    EXPECT_EQ(reports[0].message, "No distance is choosen in input flags.");
    EXPECT_EQ(reports[0].function, isFloat<TypeParam> ? "KTsMakeCodebook" : "KTwMakeCodebook");
    EXPECT_EQ(reports[0].source, source);
}

TYPED_TEST(Tree, RefusesVectorsWithoutElements) {
    support::CapturedReports reports;
    Rows<TypeParam> set{{0}, {1}};
    EXPECT_EQ(make(set.get(), nullptr, 2, 0, 2, widest), nullptr);
    EXPECT_EQ(reports.count(), 1u);
    EXPECT_EQ(KTGetStatus(), KT_StsBadArg);
    Codebook codebook = train(set, 2, widest);
    int index[2] = {9, 9};
    quantise(codebook.get(), set.get(), index, 2, 0);
    EXPECT_EQ(index[0], 0);
    EXPECT_EQ(reports.count(), 2u);
}

TYPED_TEST(Tree, NoVectorsMakeOneEmptyCell) {
    support::CapturedReports reports;
    for (int n : {0, -5}) {
        Codebook codebook(make(static_cast<TypeParam**>(nullptr), nullptr, n, 3, 1, largest));
        ASSERT_NE(codebook, nullptr);
        EXPECT_EQ(codebook->pRoot->nMembers, 0);
        EXPECT_EQ(make(static_cast<TypeParam**>(nullptr), nullptr, n, 3, 2, widest), nullptr);
        EXPECT_EQ(make(static_cast<TypeParam**>(nullptr), nullptr, n, 3, 3, largest), nullptr);
    }
    EXPECT_EQ(reports.count(), 4u);
}

TYPED_TEST(Tree, AVectorMidwayGoesRightAtEveryLevel) {
    Rows<TypeParam> set{{0}, {8}, {16}, {24}};
    Codebook codebook = train(set, 4, largest);
    ASSERT_NE(codebook, nullptr);
    Rows<TypeParam> midway{{12}, {4}, {20}}; // between 4 and 20, between 0 and 8, between 16 and 24
    int index[3] = {};
    quantise(codebook.get(), midway.get(), index, 3, 1);
    EXPECT_EQ(index[0], 3); // right at the root; 12 is nearer to 16 then
    EXPECT_EQ(index[1], 2);
    EXPECT_EQ(index[2], 4);
}

TYPED_TEST(Tree, NullLabelsAndNullIndexAreAccepted) {
    Random random(8);
    Rows<TypeParam> set = someSet<TypeParam>(0, 30, 4, random);
    Codebook codebook = train(set, 5, widest);
    ASSERT_NE(codebook, nullptr);
    std::vector<int> index(30);
    const double with = quantise(codebook.get(), set.get(), index.data(), 30, 4);
    EXPECT_EQ(quantise(codebook.get(), set.get(), nullptr, 30, 4), with);
    EXPECT_GT(with, 0);
}

TYPED_TEST(Tree, QuantisingNothingGivesNoDistortion) {
    support::CapturedReports reports;
    Rows<TypeParam> set{{0}, {8}};
    Codebook codebook = train(set, 2, widest);
    EXPECT_EQ(quantise(codebook.get(), set.get(), nullptr, 0, 1), 0);
    EXPECT_EQ(quantise(codebook.get(), set.get(), nullptr, -1, 1), 0);
    EXPECT_EQ(reports.count(), 0u);
}

TYPED_TEST(Tree, AnIncompleteDescentGivesIndexZeroAndOneReport) {
    support::CapturedReports reports;
    Rows<TypeParam> set{{0}, {1}, {100}, {140}, {200}};
    Codebook codebook = train(set, 4, widest);
    ASSERT_NE(codebook, nullptr);
    std::vector<int> whole(5), cut(5, -1);
    quantise(codebook.get(), set.get(), whole.data(), 5, 1);
    const int depth = codebook->depth;
    codebook->depth = depth - 1; // as if the record had been damaged
    quantise(codebook.get(), set.get(), cut.data(), 5, 1);
    int zeros = 0;
    for (std::size_t i = 0; i < 5; ++i) {
        EXPECT_TRUE(cut[i] == 0 || cut[i] == whole[i]);
        zeros += cut[i] == 0;
    }
    EXPECT_GT(zeros, 0);
    EXPECT_LT(zeros, 5);
    ASSERT_EQ(reports.count(), 1u);
    EXPECT_EQ(reports[0].status, KT_StsBadArg);
    EXPECT_EQ(reports[0].message, "VQ is not performed for some input vectors.");
    EXPECT_EQ(reports[0].function, "KTsVQCodebook"); // in both numeric forms
    EXPECT_EQ(reports[0].source, source);
    codebook->depth = depth;
}

TYPED_TEST(Tree, OnlyACompleteCodebookOfTheFormQuantises) {
    support::CapturedReports reports;
    Rows<TypeParam> set{{0}, {8}};
    Codebook codebook = train(set, 2, widest);
    int index[2] = {9, 9};
    const int complete = codebook->flags;
    for (int flags : {1, 2, complete == 5 ? 6 : 5}) {
        codebook->flags = flags;
        index[0] = index[1] = 9;
        EXPECT_EQ(quantise(codebook.get(), set.get(), index, 2, 1), 0);
        EXPECT_EQ(index[0], 0);
        EXPECT_EQ(index[1], 0);
    }
    quantise(nullptr, set.get(), index, 2, 1);
    EXPECT_EQ(reports.count(), 4u);
}

TYPED_TEST(Tree, ShorterAndLongerVectorsStayInsideTheCentroids) {
    Random random(9);
    Rows<TypeParam> set = someSet<TypeParam>(0, 30, 4, random);
    Rows<TypeParam> longer = someSet<TypeParam>(0, 30, 40, random);
    Codebook codebook = train(set, 5, widest);
    std::vector<int> whole(30), more(30), less(30);
    quantise(codebook.get(), longer.get(), whole.data(), 30, 4);
    quantise(codebook.get(), longer.get(), more.data(), 30, 40);
    EXPECT_EQ(whole, more);
    quantise(codebook.get(), set.get(), less.data(), 30, 2);
    for (int cell : less)
        EXPECT_TRUE(cell >= 1 && cell <= 5);
}

TYPED_TEST(Tree,
           // every split makes one empty leaf: a tree as deep as it has cells
           SurvivesADegenerateTree) {
    std::vector<TypeParam> row(3, TypeParam(5));
    std::vector<TypeParam*> rows(4, row.data());
    Codebook codebook(make(rows.data(), nullptr, 4, 3, 3000, largest));
    ASSERT_NE(codebook, nullptr);
    EXPECT_EQ(codebook->depth, 3000);
    int index[4] = {};
    quantise(codebook.get(), rows.data(), index, 4, 3);
    EXPECT_GE(index[0], 1);
}

// A run of a training for each allocation that fails. Returns how many there were.
template <class T>
int expectEveryFailureReported(Rows<T>& set, int nSize, int flags) {
    std::vector<int> labels(set.rows.size(), -7);
    const std::vector<int> untouched = labels;
    support::CapturedReports reports;
    Codebook codebook;
    std::string texts;
    texts.reserve(4096);
    const long before = support::alloc::liveBlocks();
    const int failures = support::alloc::failEach(
        [&] { codebook = train(set, nSize, flags, labels.data()); },
        [&] {
            EXPECT_EQ(codebook, nullptr);
            EXPECT_EQ(KTGetStatus(), KT_StsNoMem);
            ASSERT_EQ(reports.count(), 1u);
            EXPECT_EQ(reports[0].status, KT_StsNoMem);
            const bool isStart =
                reports[0].message == "insufficiency of memory for pointer  codebook";
            EXPECT_TRUE(isStart ||
                        reports[0].message == "codebook of given size can not be constructed");
            texts += isStart ? 's' : 'c';
            reports.clear();
            EXPECT_EQ(support::alloc::liveBlocks(), before);
            EXPECT_EQ(labels, untouched);
        });
    EXPECT_NE(codebook, nullptr);
    EXPECT_NE(labels, untouched);
    EXPECT_EQ(texts.front(), 's');
    EXPECT_EQ(texts.back(), 'c');
    KTSetStatus(0);
    return failures;
}

TYPED_TEST(Tree, EveryFailedAllocationIsReportedAndNothingIsLost) {
    for (int nDim : {3, 70}) {
        Random random(10);
        Rows<TypeParam> set = someSet<TypeParam>(0, 60, nDim, random);
        EXPECT_GT(expectEveryFailureReported(set, 4, widest), 20);
    }
    Rows<TypeParam> equal = fill<TypeParam>(60, 3, [](int, int) { return 5; });
    EXPECT_GT(expectEveryFailureReported(equal, 4, largest), 20);
}

TEST(TreeFloat, EveryFailedAllocationIsReportedWhateverTheNumbersAre) {
    Random random(16);
    for (int kind = 0; kind < oddKinds; ++kind) {
        Rows<float> set = oddSet(kind, 60, 5, random);
        EXPECT_GT(expectEveryFailureReported(set, 4, largest), 20);
    }
}

// --- the scale of the fixed form ---

// What the scale mode makes of a distance, and of the mean distance.
int scaledDistance(const short* a, const short* b, int n, int mode, int scale) {
    if (mode != KT_FixedScale) return distanceOf(a, b, n);
    return vsqwNormExt(a, b, n, VSQ_NormRoot, VSQ_FIXED_SCALE, &scale);
}

// One call against the plain walk of the tree.
void expectScaled(const KTCodebook& codebook, Rows<short>& tested, int mode, int givenScale) {
    SCOPED_TRACE(testing::Message() << "mode " << mode << " scale " << givenScale);
    const int n = tested.count(), nDim = tested.nDim();
    std::vector<int> want;
    double total = 0;
    for (const short* row : tested.pointers) {
        const KTCluster* node = codebook.pRoot;
        const auto to = [&](const KTCluster* cluster) {
            return scaledDistance(row, static_cast<const short*>(cluster->pCentroid), nDim, mode,
                                  givenScale);
        };
        while (node->isLeaf == 0)
            node = to(node->pRight) <= to(node->pLeft) ? node->pRight : node->pLeft;
        want.push_back(node->cell);
        total += to(node);
    }
    int wantScale = givenScale;
    const int wantMean = KTdiConvertDown(total / n, mode, &wantScale);

    support::Guarded<int> index(want.size(), -7);
    int distortion = -7, scale = givenScale;
    auto* const shared = const_cast<KTCodebook*>(&codebook);
    KTwVQCodebook(shared, tested.get(), index.data(), n, nDim, &distortion, mode, &scale);
    EXPECT_EQ(index.values(), want);
    EXPECT_EQ(distortion, wantMean);
    EXPECT_EQ(scale, wantScale);
    EXPECT_TRUE(index.intact());
    scale = givenScale;
    KTwVQCodebook(shared, tested.get(), index.data(), n, nDim, nullptr, mode, &scale);
    EXPECT_EQ(index.values(), want);
    EXPECT_EQ(scale, givenScale); // the scale is the mean's, which nobody asked for
}

TEST(TreeFixed, EveryScaleModeEqualsThePlainWalk) {
    Random random(11);
    Rows<short> set = someSet<short>(0, 300, 13, random),
                tested = someSet<short>(0, 200, 13, random);
    Codebook codebook = train(set, 16, largest);
    ASSERT_NE(codebook, nullptr);
    for (int mode :
         {KT_NoScale, KT_FixedScale, KT_AutoScale, KT_Saturate, 4, 6, 7, -1, INT32_MIN, INT32_MAX})
        for (int scale : {0, 1, 8, 20, 40, -3, -25, -100, INT32_MIN, INT32_MAX})
            expectScaled(*codebook, tested, mode, scale);
}

TEST(TreeFixed, AFixedScaleCountsInEachDistanceAndInTheMean) {
    Rows<short> set{{0, 0}, {0, 10}, {1000, 0}, {1000, 10}};
    Codebook codebook = train(set, 2, widest);
    ASSERT_NE(codebook, nullptr);
    // 300 and 500 from the centroids (0, 5) and (1000, 5)
    Rows<short> tested{{0, 305}, {1000, 505}};
    int index[2] = {}, distortion = 0, scale = 2;
    KTwVQCodebook(codebook.get(), tested.get(), index, 2, 2, &distortion, KT_FixedScale, &scale);
    EXPECT_EQ(distortion, 25); // (300 / 4 + 500 / 4) / 2 = 100, and a quarter of that
    EXPECT_EQ(scale, 2);
    EXPECT_EQ(index[0], 1);
    EXPECT_EQ(index[1], 2);
    scale = -1;
    KTwVQCodebook(codebook.get(), tested.get(), index, 2, 2, &distortion, KT_FixedScale, &scale);
    EXPECT_EQ(distortion, 1600);
    KTwVQCodebook(codebook.get(), tested.get(), index, 2, 2, &distortion, KT_FixedScale, nullptr);
    EXPECT_EQ(distortion, 400);
}

TEST(TreeFixed, OtherScaleModesLeaveTheDistancesPlain) {
    Rows<short> set{{0, 0}, {0, 10}, {1000, 0}, {1000, 10}};
    Codebook codebook = train(set, 2, widest);
    ASSERT_NE(codebook, nullptr);
    Rows<short> tested{{0, 305}, {1000, 505}};
    int index[2] = {}, distortion = 0;
    for (int mode : {KT_NoScale, KT_Saturate, 6, 7, -1}) {
        int scale = 20;
        KTwVQCodebook(codebook.get(), tested.get(), index, 2, 2, &distortion, mode, &scale);
        EXPECT_EQ(distortion, 400) << mode;
        EXPECT_EQ(scale, 0) << mode;
        EXPECT_EQ(index[0], 1);
        EXPECT_EQ(index[1], 2);
    }
    int scale = 1;
    for (int call = 0; call < 2; ++call) { // the second meets what the first has stored
        KTwVQCodebook(codebook.get(), tested.get(), index, 2, 2, &distortion, KT_AutoScale, &scale);
        EXPECT_EQ(scale, 9 - 31);
        EXPECT_EQ(distortion, 400 << 22);
        EXPECT_EQ(index[0], 1);
        EXPECT_EQ(index[1], 2);
    }
}

TEST(TreeFixed, AScaleThatMakesDistancesEqualSendsVectorsRight) {
    Rows<short> set{{0}, {8}};
    Codebook codebook = train(set, 2, widest);
    Rows<short> tested{{0}};
    int index = 0, distortion = 0, scale = 10;
    KTwVQCodebook(codebook.get(), tested.get(), &index, 1, 1, &distortion, KT_FixedScale, &scale);
    EXPECT_EQ(index, 2);
    scale = 10;
    KTwVQCodebook(codebook.get(), tested.get(), &index, 1, 1, &distortion, KT_Saturate, &scale);
    EXPECT_EQ(index, 1);
}

TEST(TreeFixed, MeansAreTruncatedTowardZero) {
    Rows<short> set{{-1, 1}, {-2, 2}, {30000, -30000}, {30001, -30001}};
    Codebook codebook = train(set, 2, widest);
    ASSERT_NE(codebook, nullptr);
    const auto* left = static_cast<const short*>(codebook->ppCentroids[0]);
    EXPECT_EQ(left[0], -1);
    EXPECT_EQ(left[1], 1);
    const auto* right = static_cast<const short*>(codebook->ppCentroids[1]);
    EXPECT_EQ(right[0], 30000);
    EXPECT_EQ(right[1], -30000);
}

} // namespace
