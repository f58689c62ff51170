#include "KT_CONTEXT.h"

namespace {

KTContext freshContext() {
    KTContext context{};
    context.errHandler = KTWinError;
    return context;
}

} // namespace

KTContext* KTGetContext() {
    static thread_local KTContext context = freshContext();
    return &context;
}
