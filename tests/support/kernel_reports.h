// Reads the refusals of the kernel layer, which would otherwise end the process without a text.
#pragma once

#include "context/vsqcontext.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace support {

struct KernelReport {
    int status;
    std::string function;
    std::string message;
    std::string source;
    int line;
};

// For its lifetime the kernel layer's reports are kept here and the refused call returns to its
// caller; the layer's handler and status come back afterwards. One at a time, since the layer has
// one handler for the process.
class KernelReports {
public:
    KernelReports() : previousHandler(vsq::context().handler), previousStatus(vsqGetStatus()) {
        kept().clear();
        vsq::context().handler = keep;
        vsqSetStatus(vsq::stsOk);
    }
    ~KernelReports() {
        vsq::context().handler = previousHandler;
        vsqSetStatus(previousStatus);
    }
    KernelReports(const KernelReports&) = delete;
    KernelReports& operator=(const KernelReports&) = delete;

    const std::vector<KernelReport>& all() const { return kept(); }
    // The message of the one report since the last call, or what else happened; forgets it.
    std::string takeMessage() {
        const std::vector<KernelReport> reports = kept();
        kept().clear();
        return reports.size() == 1 ? reports[0].message
                                   : std::to_string(reports.size()) + " reports";
    }

private:
    static std::vector<KernelReport>& kept() {
        static std::vector<KernelReport> reports;
        return reports;
    }
    static int keep(int status, const char* funcName, const char* message, const char* sourceName,
                    int line) {
        kept().push_back({status, funcName ? funcName : "(null)", message ? message : "(null)",
                          sourceName ? sourceName : "(null)", line});
        return status;
    }

    vsqErrorHandler previousHandler;
    int previousStatus;
};

// Expects that `call` is refused with this one report, status -5, and that under the layer's own
// handler it ends the process with exit code 1 and no text.
template <class Call>
void expectRefused(Call call, const std::string& message, const std::string& function,
                   const std::string& source) {
    {
        KernelReports reports;
        call();
        ASSERT_EQ(reports.all().size(), 1u) << message;
        EXPECT_EQ(reports.all()[0].status, -5);
        EXPECT_EQ(reports.all()[0].message, message);
        EXPECT_EQ(reports.all()[0].function, function);
        EXPECT_EQ(reports.all()[0].source, source);
        EXPECT_EQ(vsqGetStatus(), -5);
    }
    EXPECT_EXIT(call(), testing::ExitedWithCode(1), "^$") << message;
}

} // namespace support
