#include "KT_ERROR.h"

int KTGetStatus(void) { return KTGetContext()->status; }
void KTSetStatus(int status) { KTGetContext()->status = status; }
int KTGetErrMode(void) { return KTGetContext()->errMode; }
void KTSetErrMode(int mode) { KTGetContext()->errMode = mode; }

int KTError(int status, const char* funcName, const char* message, const char* sourceName, int line) {
    KTContext* context = KTGetContext();
    if (status != KT_StsBacktrace && status != KT_StsAutotrace) {
        context->status = status;
        if (status == KT_StsOk)
            return KT_StsOk;
    }
    return context->errHandler(status, funcName, message, sourceName, line);
}

int KTWinError(int status, const char*, const char*, const char*, int) { return status; }

KTErrorHandler KTRedirectError(KTErrorHandler handler) {
    KTContext* context = KTGetContext();
    const KTErrorHandler previous = context->errHandler;
    context->errHandler = handler != nullptr ? handler : KTWinError;
    return previous;
}
