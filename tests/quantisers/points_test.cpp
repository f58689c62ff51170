// What speeds tree codebooks up, against all distances: the farthest pair, and the side of a plane.
#include "quantisers/trees.h"
#include "support/alloc_faults.h"
#include "support/every_level.h"
#include "support/guarded.h"

#include <gtest/gtest.h>

#include <numeric>

using namespace trees;

namespace {

template <class T>
class Points : public testing::Test {};
using NumericForms = testing::Types<float, short>;
TYPED_TEST_SUITE(Points, NumericForms);

template <class T>
ktl::codebook::Vectors vectorsOf(Rows<T>& set) {
    return {set.get(), set.count(), set.nDim(), rowDistance<T>, isFloat<T> ? 0. : 1.};
}

// --- the farthest pair ---

TYPED_TEST(Points, FarthestPairIsTheFirstOneOfTheDoubleLoop) {
    using T = TypeParam;
    Random random(6);
    int ties = 0;
    for (int round = 0; round < 480; ++round) {
        const int kind = round % kinds, n = 2 + int(random() % 300), nDim = 1 + int(random() % 16);
        Rows<T> set = someSet<T>(kind, n, nDim, random);
        std::vector<int> members; // a list out of order, not of all
        for (int i = 0; i < n; ++i)
            if (random() % 8 != 0) members.push_back(i);
        std::shuffle(members.begin(), members.end(), random);
        Reference<T> plain(set);
        Leaf<T> want;
        want.members = members;
        plain.farthest(want);

        const ktl::codebook::Vectors vectors{set.get(), n, nDim, rowDistance<T>,
                                             isFloat<T> ? 0. : 1.};
        ktl::codebook::Points<T> points;
        ASSERT_TRUE(points.take(vectors, set.get()));
        const auto got = points.farthest(members.data(), int(members.size()));
        ASSERT_EQ(got.spread, want.spread) << "round " << round;
        ASSERT_EQ(got.first, want.far1) << "round " << round;
        ASSERT_EQ(got.second, want.far2) << "round " << round;
        for (std::size_t a = 0; a < members.size() && want.spread > 0; ++a)
            for (std::size_t b = a + 1; b < members.size(); ++b)
                ties += rowDistance<T>(vectors, members[a], members[b]) == want.spread;
    }
    EXPECT_GT(ties, 4800); // the sets are full of them
}

// a plain loop over 2 * 10^10 pairs would time out
TYPED_TEST(Points, FarthestPairOfManyEqualVectorsIsQuick) {
    using T = TypeParam;
    const int n = 200000;
    std::vector<T> one(13, T(7)), other(13, T(9));
    std::vector<T*> rows(std::size_t(n), one.data());
    const ktl::codebook::Vectors vectors{rows.data(), n, 13, rowDistance<T>, isFloat<T> ? 0. : 1.};
    std::vector<int> members;
    for (int i = 0; i < n; ++i)
        members.push_back(i);
    ktl::codebook::Points<T> points;
    ASSERT_TRUE(points.take(vectors, rows.data()));
    EXPECT_EQ(points.farthest(members.data(), n).second, 0);
    for (int i = 3; i < n; i += 2)
        rows[std::size_t(i)] = other.data();
    ASSERT_TRUE(points.take(vectors, rows.data()));
    const auto pair = points.farthest(members.data(), n);
    EXPECT_EQ(pair.first, 0);
    EXPECT_EQ(pair.second, 3);
}

TEST(PointsFloat, FarthestPairIsTheFirstOneWhateverTheNumbersAre) {
    Random random(13);
    for (int round = 0; round < 450; ++round) {
        const int kind = round % oddKinds, n = 2 + int(random() % 120),
                  nDim = 1 + int(random() % 70);
        Rows<float> set = oddSet(kind, n, nDim, random);
        std::vector<int> members(set.rows.size());
        for (int i = 0; i < n; ++i)
            members[std::size_t(i)] = i;
        std::shuffle(members.begin(), members.end(), random);
        Reference<float> plain(set);
        const ktl::codebook::Vectors vectors{set.get(), n, nDim, rowDistance<float>, 0.0};
        ktl::codebook::Points<float> points;
        ASSERT_TRUE(points.take(vectors, set.get()));
        bool hasOwnFrame = false;
        // and of ever shorter lists, in whatever frame the last search has left
        while (!members.empty()) {
            Leaf<float> want;
            want.members = members;
            plain.farthest(want);
            const auto got = points.farthest(members.data(), int(members.size()), hasOwnFrame);
            ASSERT_EQ(got.spread, want.spread) << "round " << round << " of " << members.size();
            ASSERT_EQ(got.first, want.far1) << "round " << round << " of " << members.size();
            ASSERT_EQ(got.second, want.far2) << "round " << round << " of " << members.size();
            hasOwnFrame = got.hasOwnFrame;
            members.resize(members.size() / 2);
        }
    }
}

// Sets of which the radii tell nothing, of sizes for which the search has boxes; full of equal
// distances but for the sphere.
TYPED_TEST(Points, FarthestPairOfManyIsTheFirstOneOnEveryLevel) {
    using T = TypeParam;
    Random random(17);
    for (int round = 0; round < 3; ++round) {
        const int n = 2300 + int(random() % 200), nDim = 15 + int(random() % 4);
        const int kind = round == 1 ? 7 : 6;
        SCOPED_TRACE(testing::Message() << "round " << round << " n " << n << " nDim " << nDim);
        Rows<T> set = someSet<T>(kind, n, nDim, random);
        if (round == 0) // corners whose integer distances are the same for many pairs
            set = fill<T>(n, nDim, [&](int, int) { return double(random() % 2); });
        Leaf<T> want;
        for (int i = 0; i < n; ++i)
            want.members.push_back(i);
        std::shuffle(want.members.begin(), want.members.end(), random);
        Reference<T>(set).farthest(want);
        support::onEveryLevel([&] {
            const ktl::codebook::Vectors vectors{set.get(), n, nDim, rowDistance<T>,
                                                 isFloat<T> ? 0. : 1.};
            ktl::codebook::Points<T> points;
            ASSERT_TRUE(points.take(vectors, set.get()));
            const auto got = points.farthest(want.members.data(), n);
            EXPECT_EQ(got.spread, want.spread);
            EXPECT_EQ(got.first, want.far1);
            EXPECT_EQ(got.second, want.far2);
        });
    }
}

// --- sides ---

// Where a side is told, the distances tell the same; and it is told of nearly all of a cloud.
TYPED_TEST(Points, SidesAreThoseOfTheDistances) {
    using T = TypeParam;
    Random random(19);
    for (int kind = 0; kind < kinds; ++kind)
        for (const int nDim : {1, 7, 16, 40}) {
            SCOPED_TRACE(testing::Message() << "kind " << kind << " nDim " << nDim);
            Rows<T> set = someSet<T>(kind, 200, nDim, random);
            std::vector<int> members(set.rows.size());
            std::iota(members.begin(), members.end(), 0);
            std::shuffle(members.begin(), members.end(), random);
            support::onEveryLevel([&] {
                ktl::codebook::Points<T> points;
                ASSERT_TRUE(points.take(vectorsOf(set), set.get()));
                points.select(members.data(), 200, false);
                const T *left = set.pointers[3], *right = set.pointers[170];
                const vsq::Plane plane = ktl::codebook::planeBetween(
                    left, right, points.frame(), nDim, isFloat<T> ? 0. : 1., points.normal());
                points.label(members.data(), 200, plane);
                int told = 0;
                for (std::size_t i = 0; i < members.size(); ++i) {
                    const T* row = set.pointers[std::size_t(members[i])];
                    const bool isRight =
                        distanceOf(row, right, nDim) <= distanceOf(row, left, nDim);
                    const char label = points.labels()[i];
                    ASSERT_TRUE(label == '?' || label == (isRight ? 'R' : 'L')) << i << label;
                    told += label != '?';
                }
                EXPECT_GT(told, kind == 0 ? 190 : -1);
            });
        }
}

TEST(PointsFloat, APointIsTheScaledDifferenceFromTheCentre) {
    const std::vector<float> row = {3, -5, 100}, centre = {1, 2, 4};
    support::Guarded<float> point(16, -1.0f);
    const float squares = ktl::codebook::makePoint(row.data(), {centre.data(), 0.5f}, 3,
                                                   point.data(), ktl::codebook::strideFor(3));
    std::vector<float> expected(16, 0.0f);
    expected[0] = 0.5f, expected[1] = -4.5f, expected[2] = 46.0f;
    EXPECT_EQ(point.values(), expected); // zeros after the elements
    EXPECT_TRUE(point.intact());
    EXPECT_EQ(squares, 0.25f + 20.25f + 2116.0f);
    EXPECT_GE(ktl::codebook::reachOf(squares, 3), std::sqrt(squares));
    EXPECT_LE(ktl::codebook::reachOf(squares, 3), std::sqrt(squares) * 1.001f);
}

TEST(PointsFloat, BoundsEndWhereFloatsDo) {
    EXPECT_EQ(ktl::codebook::reachOf(trees::inf, 3), trees::inf);
    EXPECT_EQ(ktl::codebook::reachOf(trees::nan, 3), inf);
}

TYPED_TEST(Points, EveryFailedAllocationGivesFalseAndLosesNothing) {
    using T = TypeParam;
    Random random(20);
    Rows<T> set = someSet<T>(0, 50, 5, random);
    const long before = support::alloc::liveBlocks();
    bool taken = true;
    const int failures = support::alloc::failEach(
        [&] { taken = ktl::codebook::Points<T>().take(vectorsOf(set), set.get()); },
        [&] {
            EXPECT_FALSE(taken);
            EXPECT_EQ(support::alloc::liveBlocks(), before);
        });
    EXPECT_TRUE(taken);
    EXPECT_GT(failures, 5);
}

} // namespace
