#include "support/reports.h"
#include "support/stderr_text.h"

#include "frame/KT_ERROR.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <utility>

namespace {

using testing::ExitedWithCode;

// Everything that `body` writes to standard error.
template <class Body>
std::string written(Body body) {
    testing::internal::CaptureStderr();
    body();
    std::fflush(stderr);
    return testing::internal::GetCapturedStderr();
}

// The thread's settings as the test wants them, and the defaults again behind it.
struct Settings {
    Settings(int mode, int status, KTErrorHandler handler = KTWinError) {
        KTSetErrMode(mode);
        KTSetStatus(status);
        KTRedirectError(handler);
    }
    ~Settings() {
        KTSetErrMode(KT_ErrorModeLeaf);
        KTSetStatus(0);
        KTRedirectError(nullptr);
    }
};

int doublingHandler(int status, const char*, const char*, const char*, int) {
    return 2 * status;
}

void sayThatExitHandlersRan() {
    std::fputs("exit handlers ran\n", stderr);
}

} // namespace

// ---- texts ----

TEST(ErrorStr, KnowsTheElevenCodes) {
    const std::pair<int, const char*> texts[] = {
        {0, "No Error"},
        {-1, "Backtrace"},
        {-2, "Unknown error"},
        {-3, "Internal error (bad state)"},
        {-4, "Out of memory"},
        {-5, "Bad argument"},
        {-6, "Unsupported function"},
        {-7, "Iteration convergence failed"},
        {-8, "Autotrace call"},
        {-20, "Overflow occured"},
        {-21, "Underflow occured"},
    };
    for (const auto& [status, text] : texts) {
        EXPECT_STREQ(KTErrorStr(status), text);
        EXPECT_EQ(KTErrorStr(status), KTErrorStr(status)); // constant
    }
}

TEST(ErrorStr, ValuesOutsideTheTableAreUnknownErrorsOrStatuses) {
    EXPECT_STREQ(KTErrorStr(-9), "Unknown error code -9");
    EXPECT_STREQ(KTErrorStr(3), "Unknown status code 3");
    for (int status = -19; status <= -9; ++status)
        EXPECT_EQ(KTErrorStr(status), "Unknown error code " + std::to_string(status));
    EXPECT_STREQ(KTErrorStr(-22), "Unknown error code -22");
    EXPECT_STREQ(KTErrorStr(INT_MIN), "Unknown error code -2147483648");
    EXPECT_STREQ(KTErrorStr(INT_MAX), "Unknown status code 2147483647");
}

TEST(ErrorStr, OneBufferServesAllUnknownCodes) {
    const char* first = KTErrorStr(-9);
    EXPECT_EQ(KTErrorStr(3), first);
    EXPECT_STREQ(first, "Unknown status code 3");
}

// ---- state ----

TEST(State, StatusStaysUntilAnotherIsStored) {
    const Settings settings(KT_ErrorModeParent, -5);
    EXPECT_EQ(KTGetStatus(), -5);
    EXPECT_EQ(KTGetStatus(), -5);
    KTSetStatus(1234);
    EXPECT_EQ(KTGetStatus(), 1234);
}

TEST(State, ModeIsNotChecked) {
    const Settings settings(INT_MIN, 0);
    EXPECT_EQ(KTGetErrMode(), INT_MIN);
    KTSetErrMode(77);
    EXPECT_EQ(KTGetErrMode(), 77);
}

TEST(State, RedirectReturnsThePreviousHandlerAndNullMeansTheDefault) {
    const Settings settings(KT_ErrorModeParent, 0);
    EXPECT_EQ(KTRedirectError(doublingHandler), &KTWinError);
    EXPECT_EQ(KTRedirectError(nullptr), &doublingHandler);
    EXPECT_EQ(KTRedirectError(KTNulDevReport), &KTWinError);
    EXPECT_EQ(KTSetStdError(), &KTNulDevReport);
    EXPECT_EQ(KTSetWinError(), &KTStdError);
    EXPECT_EQ(KTSetWinError(), &KTWinError);
}

// ---- the dispatcher ----

TEST(Dispatcher, PassesAllArgumentsUnchangedAndReturnsTheHandlersResult) {
    support::CapturedReports reports;
    EXPECT_EQ(KTError(-5, "KTsSomething", "a message", "..\\_LIBSRC\\KT_CEPS", -12), -5);
    KTError(7, nullptr, nullptr, nullptr, INT_MIN);
    ASSERT_EQ(reports.count(), 2u);
    EXPECT_EQ(reports[0].status, -5);
    EXPECT_EQ(reports[0].function, "KTsSomething");
    EXPECT_EQ(reports[0].message, "a message");
    EXPECT_EQ(reports[0].source, "..\\_LIBSRC\\KT_CEPS");
    EXPECT_EQ(reports[0].line, -12);
    EXPECT_EQ(reports[1].function, "(null)");
    EXPECT_EQ(reports[1].line, INT_MIN);
    EXPECT_EQ(KTGetStatus(), 7);

    const Settings settings(KT_ErrorModeLeaf, 0, doublingHandler);
    EXPECT_EQ(KTError(-5, "f", "", "", 1), -10);
}

TEST(Dispatcher, ZeroClearsTheStatusCallsNoHandlerAndReturnsZero) {
    support::CapturedReports reports;
    KTSetStatus(-4);
    EXPECT_EQ(KTError(0, "f", "m", "s", 1), 0);
    EXPECT_EQ(KTGetStatus(), 0);
    EXPECT_EQ(reports.count(), 0u);
}

TEST(Dispatcher, TraceMarkersLeaveTheStatusAndReachTheHandler) {
    support::CapturedReports reports;
    KTSetStatus(-4);
    EXPECT_EQ(KTError(-1, "f", "", "s", 1), -1);
    EXPECT_EQ(KTError(-8, "f", "", "s", 2), -8);
    EXPECT_EQ(KTGetStatus(), -4);
    ASSERT_EQ(reports.count(), 2u);
    EXPECT_EQ(reports[0].status, -1);
    EXPECT_EQ(reports[1].status, -8);
}

TEST(Module, ReportsWithItsNameAndThePlaceOfTheCall) {
    static constexpr ktl::Module module{"..\\_LIBSRC\\KT_CEPS"};
    support::CapturedReports reports;
    const int line = __LINE__ + 1;
    EXPECT_EQ(module.report(KT_StsBadArg, "why"), -5);
    EXPECT_EQ(module.backtrace("KTOther", 9), -1);
    ASSERT_EQ(reports.count(), 2u);
    EXPECT_EQ(reports[0].function, "TestBody");
    EXPECT_EQ(reports[0].source, "..\\_LIBSRC\\KT_CEPS");
    EXPECT_EQ(reports[0].line, line);
    EXPECT_EQ(reports[1].status, -1);
    EXPECT_EQ(reports[1].function, "KTOther");
    EXPECT_EQ(reports[1].message, "");
    EXPECT_EQ(reports[1].line, 9);
}

// ---- KTNulDevReport ----

TEST(NulDevReport, InLeafModeEndsTheProcessThroughExitAndWithoutText) {
    EXPECT_EXIT(
        {
            std::atexit(sayThatExitHandlersRan);
            KTNulDevReport(-5, "f", "m", "s", 1);
        },
        ExitedWithCode(1), support::StderrIs("exit handlers ran\n"));
}

TEST(NulDevReport, InOtherModesReturnsTheStatusAndWritesNothing) {
    for (int mode : {1, 2, 3, -1}) {
        const Settings settings(mode, -4);
        EXPECT_EQ(written([] { EXPECT_EQ(KTNulDevReport(-5, "f", "m", "s", 1), -5); }), "");
        EXPECT_EQ(KTGetStatus(), -4);
    }
}

// ---- KTStdError ----

TEST(StdError, AFirstReportReadsInThreeLinesAndTheMessage) {
    const Settings settings(KT_ErrorModeParent, 0);
    const std::string text = written([] {
        EXPECT_EQ(KTStdError(-4, "KTsCepstralMFCC",
                             "insufficiency of memory for pointer  pKTcontext->Ceps.fftOut",
                             "..\\_LIBSRC\\KT_CEPS", 123),
                  -4);
    });
    EXPECT_EQ(text, "KTL Error: Out of memory \n"
                    "\tin function\n"
                    "\t[..\\_LIBSRC\\KT_CEPS:123]:KTsCepstralMFCC():\n"
                    "\tinsufficiency of memory for pointer  pKTcontext->Ceps.fftOut\n");
    EXPECT_EQ(KTGetStatus(), -4);
}

TEST(StdError, ABacktraceReadsCalledFromAndKeepsTheStatus) {
    const Settings settings(KT_ErrorModeParent, -4);
    EXPECT_EQ(written([] {
                  EXPECT_EQ(KTStdError(-1, "KTwMFCCInit", "", "..\\_LIBSRC\\KT_CEPS", 7), -1);
              }),
              "\tcalled from\n\t[..\\_LIBSRC\\KT_CEPS:7]:KTwMFCCInit():\n\t\n");
    EXPECT_EQ(KTGetStatus(), -4);
}

TEST(StdError, AnAutotraceShowsTheMessageAsArguments) {
    const Settings settings(KT_ErrorModeParent, -4);
    EXPECT_EQ(written([] { EXPECT_EQ(KTStdError(-8, "f", "1, 2", "src", 7), -8); }),
              "\tcalled from\n\t[src:7]:f(1, 2)\n");
    EXPECT_EQ(KTGetStatus(), -4);
}

TEST(StdError, NullTextsHaveSubstitutesOrAreLeftOut) {
    const Settings settings(KT_ErrorModeParent, 0);
    EXPECT_EQ(written([] { KTStdError(-5, nullptr, nullptr, "src", 7); }),
              "KTL Error: Bad argument \n\tin function\n\t[src:7]:<unknown>\n");
    EXPECT_EQ(written([] { KTStdError(-8, nullptr, nullptr, "src", 7); }),
              "\tcalled from\n\t[src:7]:<unknown>\n");
}

TEST(StdError, LineZeroAndANullSourceOmitTheBrackets) {
    const Settings settings(KT_ErrorModeParent, 0);
    EXPECT_EQ(written([] { KTStdError(-5, "f", "m", nullptr, 0); }),
              "KTL Error: Bad argument \n\tin function\n:f():\n\tm\n");
    EXPECT_EQ(written([] { KTStdError(-5, "f", "m", nullptr, -3); }),
              "KTL Error: Bad argument \n\tin function\n:f():\n\tm\n");
}

TEST(StdError, EitherALineOrASourceShowsTheBrackets) {
    const Settings settings(KT_ErrorModeParent, 0);
    EXPECT_EQ(written([] { KTStdError(-5, "f", "m", "", 0); }),
              "KTL Error: Bad argument \n\tin function\n\t[:0]:f():\n\tm\n");
    EXPECT_EQ(written([] { KTStdError(-5, "f", "m", nullptr, 4); }),
              "KTL Error: Bad argument \n\tin function\n\t[(null):4]:f():\n\tm\n");
}

TEST(StdError, ANegativeLineWithASourceIsPrintedAsItStands) {
    const Settings settings(KT_ErrorModeParent, 0);
    EXPECT_EQ(written([] { KTStdError(-5, "f", "m", "src", -3); }),
              "KTL Error: Bad argument \n\tin function\n\t[src:-3]:f():\n\tm\n");
}

TEST(StdError, UnknownCodesAndPercentSignsPrintAsTheyAre) {
    const Settings settings(KT_ErrorModeParent, 0);
    EXPECT_EQ(written([] { EXPECT_EQ(KTStdError(-9, "%s", "100%d", "%n", 1), -9); }),
              "KTL Error: Unknown error code -9 \n\tin function\n\t[%n:1]:%s():\n\t100%d\n");
    EXPECT_EQ(KTGetStatus(), -9);
}

TEST(StdError, AModeOutsideTheThreeReportsAndContinues) {
    const Settings settings(3, 0);
    EXPECT_EQ(written([] { EXPECT_EQ(KTStdError(-5, "f", "m", "src", 1), -5); }),
              "KTL Error: Bad argument \n\tin function\n\t[src:1]:f():\n\tm\n");
}

TEST(StdError, InLeafModeEndsTheProcessThroughExitAfterTheReport) {
    EXPECT_EXIT(
        {
            std::atexit(sayThatExitHandlersRan);
            KTStdError(-5, "f", "m", "src", 1);
        },
        ExitedWithCode(1),
        support::StderrIs("KTL Error: Bad argument \n\tin function\n\t[src:1]:f():\n\tm\n"
                          "KTL: terminating the application\nexit handlers ran\n"));
}

TEST(StdError, InLeafModeATraceMarkerEndsTheProcessToo) {
    EXPECT_EXIT(
        KTStdError(-1, "f", "", "src", 1), ExitedWithCode(1),
        support::StderrIs("\tcalled from\n\t[src:1]:f():\n\t\nKTL: terminating the application\n"));
}

TEST(StdError, InSilentModeStoresAllButBacktracesAndWritesNothing) {
    const Settings settings(KT_ErrorModeSilent, -4);
    EXPECT_EQ(written([] {
                  EXPECT_EQ(KTStdError(-1, "f", "m", "src", 1), -1);
                  EXPECT_EQ(KTGetStatus(), -4);
                  EXPECT_EQ(KTStdError(-8, "f", "m", "src", 1), -8);
                  EXPECT_EQ(KTGetStatus(), -8);
                  EXPECT_EQ(KTStdError(-5, "f", "m", "src", 1), -5);
                  EXPECT_EQ(KTGetStatus(), -5);
              }),
              "");
}

TEST(StdError, AChainReadsAsOneInFunctionAndACalledFromPerLevel) {
    const Settings settings(KT_ErrorModeParent, 0, KTStdError);
    EXPECT_EQ(written([] {
                  KTError(-4, "inner", "m", "A", 1);
                  KTError(-1, "middle", "", "B", 2);
                  KTError(-1, "outer", "", "C", 3);
              }),
              "KTL Error: Out of memory \n\tin function\n\t[A:1]:inner():\n\tm\n"
              "\tcalled from\n\t[B:2]:middle():\n\t\n"
              "\tcalled from\n\t[C:3]:outer():\n\t\n");
    EXPECT_EQ(KTGetStatus(), -4);
}

// ---- KTWinError where no box is shown ----

TEST(WinError, InSilentModeReturnsTheStatusAndStoresAndShowsNothing) {
    const Settings settings(KT_ErrorModeSilent, -4);
    EXPECT_EQ(written([] { EXPECT_EQ(KTWinError(-8, "f", "m", "s", 1), -8); }), "");
    EXPECT_EQ(KTGetStatus(), -4);
    EXPECT_EQ(written([] { EXPECT_EQ(KTError(-5, "f", "m", "s", 1), -5); }), "");
    EXPECT_EQ(KTGetStatus(), -5); // what the dispatcher stored
}

TEST(WinError, InAModeOutsideTheThreeShowsNoBox) {
    for (int mode : {3, -1}) {
        const Settings settings(mode, -4);
        EXPECT_EQ(written([] { EXPECT_EQ(KTWinError(-5, "f", "m", "s", 1), -5); }), "");
        EXPECT_EQ(KTGetStatus(), -4);
    }
}
