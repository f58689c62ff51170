// The kernel layer's status, error mode and handler. They are one per process, in relaxed atomics.
#include "context/vsqcontext.h"

#include <cstdlib>

namespace vsq {
namespace {

constinit vsqContext theContext;

struct StatusText {
    int status;
    const char* text;
};

// The layer's own copy of the status texts, spelled as the recognition layer spells them.
constexpr StatusText statusTexts[] = {
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

} // namespace

vsqContext& context() {
    return theContext;
}

} // namespace vsq

using vsq::context;

// The words are independent of each other and guard no other data, hence the relaxed order
// throughout.

int vsqGetStatus(void) {
    return context().status.load(std::memory_order_relaxed);
}

void vsqSetStatus(int status) {
    context().status.store(status, std::memory_order_relaxed);
}

int vsqGetErrMode(void) {
    return context().errMode.load(std::memory_order_relaxed);
}

int vsqError(int status, const char* funcName, const char* message, const char* sourceName,
             int line) {
    if (status != vsq::stsBacktrace && status != vsq::stsAutotrace) {
        vsqSetStatus(status);
        if (status == vsq::stsOk) return vsq::stsOk;
    }
    const vsqErrorHandler handler = context().handler.load(std::memory_order_relaxed);
    return handler(status, funcName, message, sourceName, line);
}

int vsqNulDevReport(int status, const char*, const char*, const char*, int) {
    if (vsqGetErrMode() == 0) std::exit(1);
    return status;
}

const char* vsqErrorStr(int status) {
    for (const auto& entry : vsq::statusTexts)
        if (entry.status == status) return entry.text;
    return "Unknown error or status code";
}
