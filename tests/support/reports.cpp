#include "support/reports.h"

namespace support {
namespace {

thread_local std::vector<Report> captured;

int capture(int status, const char* funcName, const char* message, const char* sourceName,
            int line) {
    captured.push_back({status, funcName ? funcName : "(null)", message ? message : "(null)",
                        sourceName ? sourceName : "(null)", line});
    return status;
}

} // namespace

CapturedReports::CapturedReports()
    : previousHandler(KTRedirectError(capture)), previousMode(KTGetErrMode()),
      previousStatus(KTGetStatus()) {
    captured.clear();
    KTSetErrMode(KT_ErrorModeParent);
    KTSetStatus(KT_StsOk);
}

CapturedReports::~CapturedReports() {
    KTRedirectError(previousHandler);
    KTSetErrMode(previousMode);
    KTSetStatus(previousStatus);
}

const std::vector<Report>& CapturedReports::all() const {
    return captured;
}

void CapturedReports::clear() {
    captured.clear();
    KTSetStatus(KT_StsOk);
}

} // namespace support
