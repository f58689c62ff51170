#include "frame/context.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstddef>
#include <cstdlib>
#include <thread>
#include <vector>

namespace {

int otherHandler(int status, const char*, const char*, const char*, int) {
    return status + 100;
}

template <class Body>
void onNewThread(Body body) {
    std::thread(body).join();
}

void expectDefaults(const KTContext& context) {
    EXPECT_EQ(context.status, 0);
    EXPECT_EQ(context.errMode, KT_ErrorModeLeaf);
    EXPECT_EQ(context.errHandler, &KTWinError);
    EXPECT_EQ(context.hmmMode, 0u);
    EXPECT_EQ(context.Ceps.melMul, 0.0f);
    EXPECT_EQ(context.Ceps.melDiv, 0.0f);
}

// The offsets that every field has where pointers are 32 bits wide, in words: the position in the
// record less one.
template <bool narrow = sizeof(void*) == 4>
constexpr bool fieldsStandInOrder() {
    if constexpr (narrow) {
        return offsetof(KTContext, errHandler) == 4 * 2 && offsetof(KTContext, buff) == 4 * 4 &&
               offsetof(KTContext, LP.wLPTwiddle) == 4 * 5 &&
               offsetof(KTContext, LP.sBufferOrder) == 4 * 14 &&
               offsetof(KTContext, LP.arrCovariance) == 4 * 20 &&
               offsetof(KTContext, Ceps.filterOutput) == 4 * 21 &&
               offsetof(KTContext, Ceps.melMul) == 4 * 32 &&
               offsetof(KTContext, Ceps.nCeps) == 4 * 36 &&
               offsetof(KTContext, hmmMode) == 4 * 37 &&
               offsetof(KTContext, hmmServerCursor) == 4 * 42 &&
               offsetof(KTContext, hmmScalesLen) == 4 * 46 &&
               offsetof(KTContext, nFixedPatterns) == 4 * 47 &&
               offsetof(KTContext, gaussBufferLen) == 4 * 51 &&
               offsetof(KTContext, trainBuffer) == 4 * 54 && sizeof(KTContext) == 220;
    }
    return true;
}
static_assert(fieldsStandInOrder());

} // namespace

TEST(Context, StartsAllZeroButForTheHandler) {
    onNewThread([] {
        const KTContext& context = *KTGetContext();
        expectDefaults(context);
        EXPECT_EQ(context.buff, nullptr);
        EXPECT_EQ(context.LP.arrAutocorr, nullptr);
        EXPECT_EQ(context.Ceps.fftOut, nullptr);
        EXPECT_EQ(context.hmmServerList, nullptr);
        EXPECT_EQ(context.nHMMServers, 0);
        EXPECT_EQ(context.wPatternList, nullptr);
        EXPECT_EQ(context.trainBuffer, nullptr);
    });
}

TEST(Context, IsTheSameRecordOnEveryCall) {
    KTContext* const first = KTGetContext();
    EXPECT_EQ(KTGetContext(), first);
    onNewThread([=] {
        KTContext* const theirs = KTGetContext();
        EXPECT_NE(theirs, first);
        EXPECT_EQ(KTGetContext(), theirs);
    });
    EXPECT_EQ(KTGetContext(), first);
}

TEST(Context, ANewThreadStartsFromTheDefaultsAndNotFromItsCreatorsSettings) {
    const int mode = KTGetErrMode();
    const KTErrorHandler handler = KTRedirectError(otherHandler);
    KTSetErrMode(KT_ErrorModeSilent);
    KTSetStatus(-5);
    onNewThread([] { expectDefaults(*KTGetContext()); });
    KTRedirectError(handler);
    KTSetErrMode(mode);
    KTSetStatus(0);
}

TEST(Context, SettingsOfOneThreadLeaveOthersUnchanged) {
    std::atomic<int> step = 0;
    std::thread other([&] {
        KTGetContext();
        step = 1;
        while (step != 2)
            std::this_thread::yield();
        expectDefaults(*KTGetContext());
    });
    while (step != 1)
        std::this_thread::yield();
    const KTErrorHandler handler = KTRedirectError(otherHandler);
    KTSetErrMode(KT_ErrorModeParent);
    KTSetStatus(-3);
    step = 2;
    other.join();
    EXPECT_EQ(KTGetStatus(), -3);
    EXPECT_EQ(KTRedirectError(handler), &otherHandler);
    KTSetErrMode(KT_ErrorModeLeaf);
    KTSetStatus(0);
}

TEST(Context, ManyThreadsAtOnceEachHaveTheirOwn) {
    std::vector<std::thread> threads;
    for (int i = 1; i <= 16; ++i)
        threads.emplace_back([i] {
            for (int round = 0; round < 1000; ++round) {
                KTSetStatus(-i);
                ASSERT_EQ(KTGetStatus(), -i);
            }
        });
    for (std::thread& thread : threads)
        thread.join();
}

// The end of a thread does not know the owners of what its record points to.
TEST(Context, WhatTheRecordPointsToStaysWhenTheThreadEnds) {
    float* buffer = nullptr;
    onNewThread([&] {
        KTContext* context = KTGetContext();
        context->buff = buffer = static_cast<float*>(std::calloc(8, sizeof(float)));
        context->buffLen = 8;
    });
    buffer[7] = 1.0f;
    EXPECT_EQ(buffer[0] + buffer[7], 1.0f);
    std::free(buffer);
}

TEST(Version, IsConstantAndComplete) {
    const KTLibVersion* version = KTGetLibVersion();
    ASSERT_NE(version, nullptr);
    EXPECT_EQ(KTGetLibVersion(), version);
    EXPECT_EQ(version->major, 4);
    EXPECT_EQ(version->minor, 0);
    EXPECT_EQ(version->build, 18);
    EXPECT_STREQ(version->fileName, "ktlp6.dll");
    EXPECT_STREQ(version->versionText, "Version 4.1 Beta Release");
    EXPECT_STREQ(version->internalVersion, "[4.00.18, 01/21/99]");
    EXPECT_STREQ(version->buildDate, "Jan 26 1999");
    EXPECT_STREQ(version->linkage, "DLL");
    onNewThread([=] { EXPECT_EQ(KTGetLibVersion(), version); });
}
