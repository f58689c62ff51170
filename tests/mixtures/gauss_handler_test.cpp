// Handlers that clean up while an operation fails: they may release the source of the operation and
// the thread's tables, and nothing of them is touched afterwards.
#include "mixtures/mixtures.h"
#include "support/alloc_faults.h"

#include <gtest/gtest.h>

using namespace mixtures;

namespace {

GaussMixServer* source = nullptr; // what the handler releases

int releaseAll(int status, const char*, const char*, const char*, int) {
    KTsFreeGaussMixServer(source);
    source = nullptr;
    KTFreeGaussTbls();
    KTSetStatus(0); // as if nothing had happened
    return status;
}

class GaussHandler : public testing::Test {
protected:
    ~GaussHandler() override {
        KTRedirectError(previous);
        KTSetErrMode(mode);
        KTFreeGaussTbls();
    }

    // Lets each allocation of the operation fail; `make` gives its source anew.
    template <class Make, class Operation>
    void failEach(Make make, Operation operation) {
        for (int n = 1;; ++n) {
            KTFreeGaussTbls();
            source = make().release();
            support::alloc::arm(n);
            const Server result(operation(source));
            const bool failed = support::alloc::failed();
            support::alloc::disarm();
            EXPECT_EQ(result == nullptr, failed) << n;
            KTsFreeGaussMixServer(source);
            source = nullptr;
            if (!failed) return;
        }
    }

    std::mt19937 random{91};
    Mixture<float> floats = randomMixture(random, 5, 3, true);
    Mixture<short> words = randomFixedMixture(random, 5, 3, true);
    float a[5] = {1, 2, 3, 4, 5}, b[5] = {5, 3, 1, 0, 2}, *rows[2] = {a, b};
    const int mode = KTGetErrMode();
    const KTErrorHandler previous = (KTSetErrMode(KT_ErrorModeParent), KTRedirectError(releaseAll));
};

} // namespace

TEST_F(GaussHandler, MayReleaseTheSourceOfAConversion) {
    failEach([&] { return floats.server(); },
             [](GaussMixServer* s) { return KTswConvertGaussMixServer(s, -14, -10, -10); });
    failEach([&] { return words.server(KT_GAUSS_NORMALIZE); },
             [](GaussMixServer* s) { return KTwsConvertGaussMixServer(s, 14, 10, 10); });
}

TEST_F(GaussHandler, MayReleaseTheEstimateThatIsTrained) {
    failEach([&] { return Server(KTsBuildGaussMixServer(rows, 2, 5, KT_GAUSS_FULL)); },
             [&](GaussMixServer* s) { return KTsTrainGaussMixServer(s, rows, 2, 5); });
}

// The work table's own failure releases the source already; the table stands here.
TEST_F(GaussHandler, MayReleaseTheSourceOfAnInversion) {
    source = floats.server().release();
    Server(KTsInvertGaussianCovMatrix(source, 0));
    support::alloc::arm(1);
    EXPECT_EQ(KTsInvertGaussianCovMatrix(source, KT_GAUSS_NORMALIZE), nullptr);
    support::alloc::disarm();
    EXPECT_EQ(source, nullptr);
}
