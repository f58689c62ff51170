// The tree as quantising walks it, against a walk by distances.
#include "quantisers/descent.h"
#include "quantisers/trees.h"
#include "support/alloc_faults.h"
#include "support/every_level.h"

#include <gtest/gtest.h>

using namespace trees;

namespace {

template <class T>
class Descent : public testing::Test {};
using NumericForms = testing::Types<float, short>;
TYPED_TEST_SUITE(Descent, NumericForms);

// Whether a row comes past a node on its way down by distances.
template <class T>
bool passes(const KTCodebook& codebook, const T* row, const KTCluster* node) {
    const auto to = [&](const KTCluster* cluster) {
        return distanceOf(row, static_cast<const T*>(cluster->pCentroid), codebook.nDim);
    };
    for (const KTCluster* at = codebook.pRoot;;
         at = to(at->pRight) <= to(at->pLeft) ? at->pRight : at->pLeft)
        if (at == node || at->isLeaf != 0) return at == node;
}

// Takes all rows down, in groups of every size, and returns how many came to a leaf.
template <class T>
int descendAll(const KTCodebook& codebook, Rows<T>& tested) {
    int leaves = 0, size = 1;
    for (int first = 0; first < tested.count(); first += size) {
        size = 1 + first % 70; // few go down in groups, many together
        const int count = std::min(size, tested.count() - first);
        const std::vector<const T*> rows(tested.pointers.begin() + first,
                                         tested.pointers.begin() + first + count);
        ktl::codebook::Descents<T> descents(codebook, codebook.pDescent, count);
        for (int done = 0; done < count; done += descents.size()) {
            const int taken = std::min(count - done, descents.size());
            descents.take(rows.data() + done, taken);
            for (int i = 0; i < taken; ++i) {
                const KTCluster* node = descents.nodeOf(i);
                EXPECT_TRUE(passes(codebook, rows[std::size_t(done + i)], node))
                    << first + done + i;
                leaves += node->isLeaf != 0;
            }
        }
    }
    return leaves;
}

TYPED_TEST(Descent, EveryNodeLiesOnTheWayByDistances) {
    Random random(1);
    for (int kind = 0; kind < kinds; ++kind)
        for (const int nDim : {1, 5, 16, 17, ktl::codebook::longestOfDescent}) {
            SCOPED_TRACE(testing::Message() << "kind " << kind << " nDim " << nDim);
            Rows<TypeParam> set = someSet<TypeParam>(kind, 120, nDim, random),
                            tested = someSet<TypeParam>(kind, 150, nDim, random);
            const Codebook codebook = train(set, 16, KT_CB_EUCLID | KT_CB_SPLIT_LARGEST);
            ASSERT_NE(codebook, nullptr);
            ASSERT_NE(codebook->pDescent, nullptr);
            support::onEveryLevel([&] {
                const int leaves = descendAll(*codebook, tested);
                if (kind != 0) return;
                EXPECT_GT(leaves, 135); // a cloud is rarely in doubt
            });
        }
}

TYPED_TEST(Descent, OfOneCellEndsAtTheRoot) {
    Rows<TypeParam> set{{1, 2}, {3, 4}};
    const Codebook codebook = train(set, 1, KT_CB_EUCLID);
    ASSERT_NE(codebook, nullptr);
    EXPECT_EQ(descendAll(*codebook, set), 2);
}

// The distances decide there, and they send a vector midway to the right.
TYPED_TEST(Descent, AVectorMidwayStopsOrGoesRight) {
    Rows<TypeParam> set{{0}, {8}, {16}, {24}}, midway{{12}, {4}, {20}};
    const Codebook codebook = train(set, 4, KT_CB_EUCLID | KT_CB_SPLIT_LARGEST);
    ASSERT_NE(codebook, nullptr);
    descendAll(*codebook, midway);
}

TYPED_TEST(Descent, LongVectorsDoWithout) {
    Random random(2);
    Rows<TypeParam> set = someSet<TypeParam>(0, 20, ktl::codebook::longestOfDescent + 1, random);
    const Codebook codebook = train(set, 3, KT_CB_EUCLID | KT_CB_SPLIT_LARGEST);
    ASSERT_NE(codebook, nullptr);
    EXPECT_EQ(codebook->pDescent, nullptr);
}

TYPED_TEST(Descent, EveryFailedAllocationGivesNullAndLosesNothing) {
    Random random(3);
    Rows<TypeParam> set = someSet<TypeParam>(0, 60, 5, random);
    const Codebook codebook = train(set, 8, KT_CB_EUCLID | KT_CB_SPLIT_LARGEST);
    ASSERT_NE(codebook, nullptr);
    const std::vector<float> centre(5, 0.0f);
    const long before = support::alloc::liveBlocks();
    KTDescent* descent = nullptr;
    const int failures = support::alloc::failEach(
        [&] {
            descent = ktl::codebook::makeDescent<TypeParam>(*codebook, {centre.data(), 1.0f}, 0.0);
        },
        [&] {
            EXPECT_EQ(descent, nullptr);
            EXPECT_EQ(support::alloc::liveBlocks(), before);
        });
    EXPECT_EQ(failures, 6); // the record and its arrays
    ASSERT_NE(descent, nullptr);
    ktl::codebook::freeDescent(descent);
    ktl::codebook::freeDescent(nullptr);
    EXPECT_EQ(support::alloc::liveBlocks(), before);
}

} // namespace
