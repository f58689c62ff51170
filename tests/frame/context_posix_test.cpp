#include "support/alloc_faults.h"
#include "support/stderr_text.h"

#include "frame/context.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <thread>

#include <pthread.h>

TEST(Context, ExhaustionAtTheFirstCallEndsTheProcess) {
    const auto firstCallWithoutMemory = [] {
        std::atexit([] { std::fputs("exit handlers ran", stderr); });
        std::thread([] {
            support::alloc::arm(1);
            KTGetStatus();
        }).join();
    };
    EXPECT_EXIT(firstCallWithoutMemory(), testing::ExitedWithCode(1),
                support::StderrIs("KTlib. Problem to allocate memory for TLS KTL context.\n"));
}

TEST(Context, ThatTheSystemCouldNotBeAskedForComesWithALaterCall) {
    std::thread([] {
        support::alloc::arm(1);
        EXPECT_EQ(platform::startThread({sizeof(KTContext), [](void*) {}}), nullptr);
        support::alloc::disarm();
        EXPECT_EQ(platform::threadRecord(), nullptr);
        EXPECT_EQ(KTGetErrMode(), 0);
        EXPECT_NE(platform::threadRecord(), nullptr);
    }).join();
}

TEST(Context, TheEndOfAThreadReleasesTheRecordItself) {
    std::thread([] { KTGetStatus(); }).join();
    const long before = support::alloc::liveBlocksOfProcess();
    for (int i = 0; i < 100; ++i)
        std::thread([] { KTGetStatus(); }).join();
    EXPECT_EQ(support::alloc::liveBlocksOfProcess(), before);
}

// The end of a thread does not know the owners of what its record points to: its models stay, and
// here another thread takes them over and releases them.
TEST(Context, LiveModelsOfAThreadStayWhenItEnds) {
    KTGetStatus();
    const long before = support::alloc::liveBlocksOfProcess();
    KTContext left{};
    std::thread([&left] {
        const float half[2] = {0.5f, 0.5f};
        const float* const rows[2] = {half, half};
        EXPECT_GT(KTsInitHMMServer(rows, rows, half, 2, 2, KT_HMM_EXPONENTIAL), 0);
        left = *KTGetContext();
    }).join();
    EXPECT_EQ(left.nHMMServers, 1);
    EXPECT_GT(support::alloc::liveBlocksOfProcess(), before);
    std::thread([&left] {
        const int status = KTGetContext()->status;
        *KTGetContext() = left;
        int nStates = 0;
        EXPECT_EQ(KTGetHMMParm(1, &nStates, nullptr, nullptr, nullptr, nullptr), 0);
        EXPECT_EQ(nStates, 2);
        KTHMMFreeAll();
        EXPECT_EQ(KTGetStatus(), status);
    }).join();
    EXPECT_EQ(support::alloc::liveBlocksOfProcess(), before);
}

namespace {

struct LateCaller {
    pthread_key_t key;
    int roundsLeft;
};

// A destructor of the application's own, which runs beside the library's and may run after it.
void callLate(void* argument) {
    auto* caller = static_cast<LateCaller*>(argument);
    EXPECT_LE(KTGetStatus(), 0);
    KTSetStatus(-5);
    if (--caller->roundsLeft > 0) pthread_setspecific(caller->key, caller);
}

} // namespace

TEST(Context, ACallFromAnotherDestructorOfTheThreadIsSafeAndLeavesNothing) {
    const long before = support::alloc::liveBlocksOfProcess();
    LateCaller late{{}, 3};
    ASSERT_EQ(pthread_key_create(&late.key, callLate), 0);
    std::thread([&] {
        KTSetStatus(-3);
        pthread_setspecific(late.key, &late);
    }).join();
    EXPECT_EQ(late.roundsLeft, 0);
    EXPECT_EQ(support::alloc::liveBlocksOfProcess(), before);
    pthread_key_delete(late.key);
}
