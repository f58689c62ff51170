#include "support/every_level.h"
#include "support/guarded.h"

#include <gtest/gtest.h>

TEST(Arith, ScaleMultipliesEveryElementOnEveryLevel) {
    support::onEveryLevel([] {
        for (int n = 0; n < 70; ++n) {
            support::Guarded<float> a(std::size_t(n), 3.0f);
            vsq::kernels().arith->scale(0.5f, a.data(), n);
            EXPECT_EQ(a.values(), std::vector<float>(std::size_t(n), 1.5f));
            EXPECT_TRUE(a.intact());
        }
    });
}
