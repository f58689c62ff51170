#include "KT_CONTEXT.h"

KTContext* KTGetContext() {
    static thread_local KTContext context{.errHandler = KTWinError};
    return &context;
}
