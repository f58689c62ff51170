#include "support/kernel_reports.h"

#include <gtest/gtest.h>

namespace {

constexpr vsq::Module module{"vsqtest"};

class KernelStatus : public testing::Test {
protected:
    void TearDown() override { vsqSetStatus(0); }
};

TEST_F(KernelStatus, StartsCleanWithTheSilentHandlerInForce) {
    EXPECT_EQ(vsqGetStatus(), 0);
    EXPECT_EQ(vsqGetErrMode(), 0);
    EXPECT_EQ(vsq::context().handler.load(), vsqNulDevReport);
}

TEST_F(KernelStatus, IsStoredAndReadWithoutBeingCleared) {
    vsqSetStatus(-7);
    EXPECT_EQ(vsqGetStatus(), -7);
    EXPECT_EQ(vsqGetStatus(), -7);
}

TEST_F(KernelStatus, AReportEndsTheProcessWithCodeOneAndNoText) {
    EXPECT_EXIT(vsqError(-5, "f", "text", "vsqtest", 3), testing::ExitedWithCode(1), "^$");
    EXPECT_EXIT(vsqError(-1, "f", "", "vsqtest", 3), testing::ExitedWithCode(1), "^$");
    EXPECT_EXIT(vsqNulDevReport(-5, nullptr, nullptr, nullptr, 0), testing::ExitedWithCode(1),
                "^$");
}

TEST_F(KernelStatus, ReportingZeroClearsTheStatusAndCallsNoHandler) {
    vsqSetStatus(-4);
    // a handler call would have ended the test
    EXPECT_EQ(vsqError(0, "f", "text", "vsqtest", 3), 0);
    EXPECT_EQ(vsqGetStatus(), 0);
}

TEST_F(KernelStatus, AReportIsStoredAndHandedOnUnchanged) {
    support::KernelReports reports;
    EXPECT_EQ(vsqError(-4, "f", "text", "vsqtest", 3), -4);
    EXPECT_EQ(vsqGetStatus(), -4);
    ASSERT_EQ(reports.all().size(), 1u);
    EXPECT_EQ(reports.all()[0].function, "f");
    EXPECT_EQ(reports.all()[0].message, "text");
    EXPECT_EQ(reports.all()[0].source, "vsqtest");
    EXPECT_EQ(reports.all()[0].line, 3);
}

TEST_F(KernelStatus, TraceMarkersLeaveTheStatusAsItWas) {
    support::KernelReports reports;
    vsqSetStatus(-4);
    EXPECT_EQ(vsqError(-1, "f", "", "vsqtest", 3), -1);
    EXPECT_EQ(vsqError(-8, "f", "", "vsqtest", 3), -8);
    EXPECT_EQ(vsqGetStatus(), -4);
    EXPECT_EQ(reports.all().size(), 2u);
}

TEST_F(KernelStatus, TheSilentHandlerReturnsTheStatusInOtherModes) {
    vsq::context().errMode = 1;
    EXPECT_EQ(vsqNulDevReport(-5, "f", "text", "vsqtest", 3), -5);
    vsq::context().errMode = 0;
}

TEST_F(KernelStatus, HasTheTextsOfTheElevenCodes) {
    EXPECT_STREQ(vsqErrorStr(0), "No Error");
    EXPECT_STREQ(vsqErrorStr(-1), "Backtrace");
    EXPECT_STREQ(vsqErrorStr(-2), "Unknown error");
    EXPECT_STREQ(vsqErrorStr(-3), "Internal error (bad state)");
    EXPECT_STREQ(vsqErrorStr(-4), "Out of memory");
    EXPECT_STREQ(vsqErrorStr(-5), "Bad argument");
    EXPECT_STREQ(vsqErrorStr(-6), "Unsupported function");
    EXPECT_STREQ(vsqErrorStr(-7), "Iteration convergence failed");
    EXPECT_STREQ(vsqErrorStr(-8), "Autotrace call");
    EXPECT_STREQ(vsqErrorStr(-20), "Overflow occured");
    EXPECT_STREQ(vsqErrorStr(-21), "Underflow occured");
    for (int status : {1, 3, -9, -19, -22, -2147483647 - 1, 2147483647})
        EXPECT_STREQ(vsqErrorStr(status), "Unknown error or status code") << status;
}

void checked(int n) {
    if (module.refuses(n < 0, "n<0") || module.refuses(n > 9, "n>9")) return;
    vsqSetStatus(n);
}

TEST_F(KernelStatus, AModuleRefusesInTheNameOfTheFunctionThatChecks) {
    support::KernelReports reports;
    checked(3);
    EXPECT_EQ(vsqGetStatus(), 3);
    checked(10);
    EXPECT_EQ(vsqGetStatus(), -5);
    ASSERT_EQ(reports.all().size(), 1u);
    EXPECT_EQ(reports.all()[0].function, "checked");
    EXPECT_EQ(reports.all()[0].message, "n>9");
    EXPECT_EQ(reports.all()[0].source, "vsqtest");
}

} // namespace
