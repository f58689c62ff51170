// Captures the reports of the calling thread instead of asking anybody.
#pragma once

#include "ktlp6.h"

#include <string>
#include <vector>

namespace support {

struct Report {
    int status;
    std::string function;
    std::string message;
    std::string source;
    int line;
};

// For its lifetime reports of this thread are kept here, the error mode is KT_ErrorModeParent and
// the status starts at 0; handler, mode and status come back afterwards.
class CapturedReports {
public:
    CapturedReports();
    ~CapturedReports();
    CapturedReports(const CapturedReports&) = delete;
    CapturedReports& operator=(const CapturedReports&) = delete;

    const std::vector<Report>& all() const;
    std::size_t count() const { return all().size(); }
    const Report& operator[](std::size_t i) const { return all().at(i); }
    void clear(); // forgets the reports and sets the status to 0

private:
    KTErrorHandler previousHandler;
    int previousMode;
    int previousStatus;
};

} // namespace support
