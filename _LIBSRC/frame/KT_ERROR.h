// Reports from inside the library.
#pragma once

#include "frame/context.h"

namespace ktl {

// A source module, by the name that its reports carry. Each module has one:
//     constexpr ktl::Module module{"..\\_LIBSRC\\KT_CEPS"};
// and reports with module.report(KT_StsNoMem, "insufficiency of memory for pointer  vec"). The
// function's name and the line are those of the call; where a report carries another function's
// name or a line of its own, they are written out.
struct Module {
    const char* sourceName;

    int report(int status, const char* message, const char* funcName = __builtin_FUNCTION(),
               int line = __builtin_LINE()) const {
        return KTError(status, funcName, message, sourceName, line);
    }

    // "called from": a callee has already reported.
    int backtrace(const char* funcName = __builtin_FUNCTION(), int line = __builtin_LINE()) const {
        return KTError(KT_StsBacktrace, funcName, "", sourceName, line);
    }
};

} // namespace ktl
