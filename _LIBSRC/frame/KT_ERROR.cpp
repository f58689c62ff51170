// The way of a report: from the module that makes it to the thread's handler, and the three
// handlers of the library. Status, mode and handler are the thread's own. A handler may do
// anything, so that nothing here is touched after it was called.
#include "frame/KT_ERROR.h"

#include <cstdio>
#include <cstdlib>

namespace {

struct StatusText {
    int status;
    const char* text;
};

// "occured" is how these two texts are spelled; applications compare them.
constexpr StatusText statusTexts[] = {
    {KT_StsOk, "No Error"},
    {KT_StsBacktrace, "Backtrace"},
    {KT_StsUnknownErr, "Unknown error"},
    {KT_StsBadState, "Internal error (bad state)"},
    {KT_StsNoMem, "Out of memory"},
    {KT_StsBadArg, "Bad argument"},
    {KT_StsUnsupported, "Unsupported function"},
    {KT_StsNoConverge, "Iteration convergence failed"},
    {KT_StsAutotrace, "Autotrace call"},
    {KT_StsOverflow, "Overflow occured"},
    {KT_StsUnderflow, "Underflow occured"},
};

constexpr const char* unknownFunction = "<unknown>";

bool isTraceMarker(int status) {
    return status == KT_StsBacktrace || status == KT_StsAutotrace;
}

const char* orElse(const char* text, const char* substitute) {
    return text != nullptr ? text : substitute;
}

} // namespace

// ---- state ----

int KTGetStatus(void) {
    return KTGetContext()->status;
}

void KTSetStatus(int status) {
    KTGetContext()->status = status;
}

int KTGetErrMode(void) {
    return KTGetContext()->errMode;
}

void KTSetErrMode(int mode) {
    KTGetContext()->errMode = mode;
}

KTErrorHandler KTRedirectError(KTErrorHandler handler) {
    KTContext* context = KTGetContext();
    const KTErrorHandler previous = context->errHandler;
    context->errHandler = handler != nullptr ? handler : KTWinError;
    return previous;
}

KTErrorHandler KTSetStdError(void) {
    return KTRedirectError(KTStdError);
}

KTErrorHandler KTSetWinError(void) {
    return KTRedirectError(KTWinError);
}

const char* KTErrorStr(int status) {
    static char
        // shared by all threads, as documented: the text of one thread's call may be another's
        unknown[64];
    for (const StatusText& known : statusTexts)
        if (known.status == status) return known.text;
    std::snprintf(unknown, sizeof unknown, "Unknown %s code %d", status >= 0 ? "status" : "error",
                  status);
    return unknown;
}

// ---- the dispatcher ----

int KTError(int status, const char* funcName, const char* message, const char* sourceName,
            int line) {
    KTContext* context = KTGetContext();
    if (!isTraceMarker(status)) {
        context->status = status;
        if (status == KT_StsOk) return KT_StsOk;
    }
    return context->errHandler(status, funcName, message, sourceName, line);
}

// ---- the handlers ----

int KTNulDevReport(int status, const char*, const char*, const char*, int) {
    if (KTGetErrMode() == KT_ErrorModeLeaf) std::exit(EXIT_FAILURE);
    return status;
}

namespace {

// The place and the message of a report on the error stream; the null source name of a report that
// has only a line reads as the C library's own text for it.
void printReport(int status, const char* funcName, const char* message, const char* sourceName,
                 int line) {
    if (line > 0 || sourceName != nullptr)
        std::fprintf(stderr, "\t[%s:%d]", orElse(sourceName, "(null)"), line);
    std::fprintf(stderr, ":%s", orElse(funcName, unknownFunction));
    if (message != nullptr)
        std::fprintf(stderr, status == KT_StsAutotrace ? "(%s)" : "():\n\t%s", message);
    std::fputs("\n", stderr);
}

} // namespace

int KTStdError(int status, const char* funcName, const char* message, const char* sourceName,
               int line) {
    KTContext* context = KTGetContext();
    if (context->errMode == KT_ErrorModeSilent) {
        if (status != KT_StsBacktrace)
            context->status = status; // -8 too, which the dispatcher does not store
        return status;
    }
    if (isTraceMarker(status)) {
        std::fputs("\tcalled from\n", stderr);
    } else {
        context->status = status;
        std::fprintf(stderr, "KTL Error: %s \n\tin function\n", KTErrorStr(status));
    }
    printReport(status, funcName, message, sourceName, line);
    if (context->errMode == KT_ErrorModeLeaf) {
        std::fprintf(stderr, "KTL: %s\n", "terminating the application");
        std::exit(EXIT_FAILURE);
    }
    return status;
}

namespace {

// The question at the end of a box; a mode outside the three has none, and no box.
const char* questionOf(int errMode) {
    switch (errMode) {
    case KT_ErrorModeLeaf:
        return "\n\nErrMode=KT_ErrorModeLeaf\n\nTerminate the application?";
    case KT_ErrorModeParent:
        return "\n\nErrMode=KT_ErrorModeParent\n\nContinue?";
    default:
        return "";
    }
}

// What a box shows. Texts that are longer are cut off at the end.
struct Box {
    char text[1000];
    char caption[100];
};

void fillBox(Box& box, int status, const char* funcName, const char* message,
             const char* sourceName, int line) {
    const char* question = questionOf(KTGetErrMode());
    const char* format = "in function\n[%s:%d]:%s():\n%s%s";
    if (status == KT_StsBacktrace) format = "called from\n[%s:%d]:%s():\n %s%s";
    if (status == KT_StsAutotrace) format = "called from\n[%s:%d]:%s(%s)%s";
    platform::formatText(box.text, sizeof box.text, format, sourceName, line, funcName, message,
                         question);
    // The stored status: a backtrace names the error that began the chain.
    platform::formatText(box.caption, sizeof box.caption, "KTL Error: %s",
                         KTErrorStr(KTGetStatus()));
}

// Whether the user, asked as the mode has it, wants the application to end.
bool userEnds(const Box& box, int errMode) {
    using platform::BoxAnswer;
    using platform::BoxButtons;
    if (errMode == KT_ErrorModeParent)
        return platform::messageBox(box.text, box.caption, BoxButtons::okCancel) ==
               BoxAnswer::cancel;
    if (errMode == KT_ErrorModeLeaf)
        return platform::messageBox(box.text, box.caption, BoxButtons::yesNo) == BoxAnswer::yes;
    return false;
}

} // namespace

int KTWinError(int status, const char* funcName, const char* message, const char* sourceName,
               int line) {
    const int errMode = KTGetErrMode();
    if (errMode == KT_ErrorModeSilent) return status;
    Box box;
    fillBox(box, status, orElse(funcName, unknownFunction), orElse(message, ""),
            orElse(sourceName, ""), line < 0 ? 0 : line);
    if (userEnds(box, errMode)) platform::fatalExit("KTL:\nterminating the application");
    return status;
}
