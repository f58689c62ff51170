// Fills and copies.
#include "support/every_level.h"
#include "support/guarded.h"
#include "support/kernel_reports.h"

#include <limits>

namespace {

using support::expectRefused;
using support::Guarded;

template <class T>
struct Vec;
template <>
struct Vec<float> {
    static constexpr char letter = 's';
    static constexpr auto zero = vsqsbZero;
    static constexpr auto set = vsqsbSet;
    static constexpr auto copy = vsqsbCopy;
};
template <>
struct Vec<short> {
    static constexpr char letter = 'w';
    static constexpr auto zero = vsqwbZero;
    static constexpr auto set = vsqwbSet;
    static constexpr auto copy = vsqwbCopy;
};

template <class T>
std::string name(const char* rest) {
    return std::string("vsq") + Vec<T>::letter + "b" + rest;
}

template <class T>
class VectorFills : public testing::Test {};
using Flavours = testing::Types<float, short>;
TYPED_TEST_SUITE(VectorFills, Flavours);

TYPED_TEST(VectorFills, ZeroClearsExactlyTheArray) {
    for (int n = 1; n < 200; ++n) {
        Guarded<TypeParam> a(std::size_t(n), TypeParam(-3));
        Vec<TypeParam>::zero(a.data(), n);
        EXPECT_EQ(a.values(), std::vector<TypeParam>(std::size_t(n), TypeParam(0)));
        EXPECT_TRUE(a.intact());
    }
}

TYPED_TEST(VectorFills, SetFillsExactlyTheArrayOnEveryLevel) {
    support::onEveryLevel([] {
        for (int n = 1; n < 200; ++n) {
            Guarded<TypeParam> a(std::size_t(n), TypeParam(-3));
            Vec<TypeParam>::set(TypeParam(-32768), a.data(), n);
            EXPECT_EQ(a.values(), std::vector<TypeParam>(std::size_t(n), TypeParam(-32768)));
            EXPECT_TRUE(a.intact());
        }
    });
}

TYPED_TEST(VectorFills, CopyCopiesExactlyTheArray) {
    for (int n = 1; n < 200; ++n) {
        std::vector<TypeParam> source(static_cast<std::size_t>(n));
        for (int i = 0; i < n; ++i)
            source[std::size_t(i)] = TypeParam(7 * i - 90);
        Guarded<TypeParam> a(static_cast<std::size_t>(n));
        Vec<TypeParam>::copy(source.data(), a.data(), n);
        EXPECT_EQ(a.values(), source);
        EXPECT_TRUE(a.intact());
    }
}

TYPED_TEST(VectorFills, CopyOfOverlappingArraysMovesThem) {
    for (int shift : {-3, -1, 0, 1, 5}) {
        std::vector<TypeParam> a(120);
        for (std::size_t i = 0; i < a.size(); ++i)
            a[i] = TypeParam(i);
        Vec<TypeParam>::copy(a.data() + 10, a.data() + 10 + shift, 100);
        for (int i = 0; i < 100; ++i)
            EXPECT_EQ(a[std::size_t(10 + shift + i)], TypeParam(10 + i)) << shift;
    }
}

TYPED_TEST(VectorFills, RefuseTheLengthFirstThenSourceThenDestination) {
    using V = Vec<TypeParam>;
    TypeParam a[4] = {1, 2, 3, 4};
    for (int n : {0, -1, std::numeric_limits<int>::min()}) {
        expectRefused([&] { V::zero(nullptr, n); }, "n<=0", name<TypeParam>("Zero"), "vsqvec");
        expectRefused([&] { V::set(1, nullptr, n); }, "n<=0", name<TypeParam>("Set"), "vsqvec");
        expectRefused([&] { V::copy(nullptr, nullptr, n); }, "n<=0", name<TypeParam>("Copy"),
                      "vsqvec");
    }
    expectRefused([&] { V::zero(nullptr, 1); }, "dst==0", name<TypeParam>("Zero"), "vsqvec");
    expectRefused([&] { V::set(1, nullptr, 1); }, "dst==0", name<TypeParam>("Set"), "vsqvec");
    expectRefused([&] { V::copy(nullptr, nullptr, 1); }, "src==0", name<TypeParam>("Copy"),
                  "vsqvec");
    expectRefused([&] { V::copy(a, nullptr, 1); }, "dst==0", name<TypeParam>("Copy"), "vsqvec");
    EXPECT_EQ(a[0], TypeParam(1));
}

TEST(KernelCall, WithALengthOfZeroEndsTheProcessWithExitCodeOne) {
    float a = 0;
    EXPECT_EXIT(vsqsbZero(&a, 0), testing::ExitedWithCode(1), "^$");
}

} // namespace
