// Status and reports of the kernel layer, and the one line that a check costs in a kernel.
#pragma once

#include "vsq.h"

#include <atomic>

namespace vsq {

// Status codes, with the values of the recognition layer's.
inline constexpr int stsOk = 0;
inline constexpr int stsBacktrace = -1;
inline constexpr int stsNoMem = -4;
inline constexpr int stsBadArg = -5;
inline constexpr int stsAutotrace = -8;

// The layer's one record, shared by all threads and never locked. The words are atomic so that
// threads which report at the same time do not race in the language's sense; which of their
// statuses stays is open. The tables of the transforms are kept beside it, in the modules that make
// them.
struct vsqContext {
    std::atomic<int> status{stsOk};
    std::atomic<int> errMode{0}; // 0: the handler ends the process; no call changes it
    std::atomic<vsqErrorHandler> handler{vsqNulDevReport};
};

// Nothing exported changes mode or handler; only tests reach in here, to read the texts of
// refusals.
vsqContext& context();

// A source module, by the name that its reports carry. Each module has one,
//     constexpr vsq::Module module{"vsqdct"};
// and a kernel opens with its checks, in their order:
//     if (module.refuses(n <= 0, "n<=0") || module.refuses(dst == nullptr, "dst==0"))
//         return;
// The function's name and the line are those of the call; a helper that checks for its caller hands
// the name on.
struct Module {
    const char* sourceName;

    int report(int status, const char* message, const char* funcName = __builtin_FUNCTION(),
               int line = __builtin_LINE()) const {
        return vsqError(status, funcName, message, sourceName, line);
    }

    // Whether the argument is bad; if so that has been reported with status -5.
    bool refuses(bool isBad, const char* message, const char* funcName = __builtin_FUNCTION(),
                 int line = __builtin_LINE()) const {
        if (isBad) [[unlikely]]
            vsqError(stsBadArg, funcName, message, sourceName, line);
        return isBad;
    }
};

} // namespace vsq
