// The default handler where there is no window system: on a terminal, and where nobody can be asked.
#include "support/stderr_text.h"

#include "frame/KT_ERROR.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <functional>
#include <string>

#include <fcntl.h>
#include <pty.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using testing::ExitedWithCode;

constexpr int returned = 42; // exit code of a child whose report returned its status

struct Outcome {
    int exitCode;
    std::string shown;
};

// What the terminal shows until the child ends, line ends as '\n'.
std::string readAll(int terminal) {
    std::string shown;
    char c;
    while (read(terminal, &c, 1) == 1)
        if (c != '\r') shown += c;
    return shown;
}

// Runs `report` in a child whose standard streams are a terminal, at which the user has typed `typed`.
Outcome onTerminal(const std::string& typed, const std::function<int()>& report) {
    int terminal;
    const pid_t child = forkpty(&terminal, nullptr, nullptr, nullptr);
    if (child == 0) {
        char go;
        if (read(STDIN_FILENO, &go, 1) != 1) _exit(99); // the typed text comes after the child stands
        std::atexit([] { std::fputs("exit handlers ran", stderr); });
        const int result = report();
        _exit(result);
    }
    const std::string input = "\n" + typed;
    EXPECT_EQ(write(terminal, input.data(), input.size()), static_cast<ssize_t>(input.size()));
    Outcome outcome{-1, readAll(terminal)};
    int status;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    if (WIFEXITED(status)) outcome.exitCode = WEXITSTATUS(status);
    close(terminal);
    return outcome;
}

Outcome answer(const std::string& typed, int mode) {
    return onTerminal(typed, [mode] {
        KTSetErrMode(mode);
        return KTError(-5, "f", "m", "src", 3) == -5 ? returned : 1;
    });
}

// Runs the report without a terminal: standard input is empty, standard error is the death test's pipe.
[[noreturn]] void unattended(int mode, int status, const char* function, const char* message,
                             const char* source, int line) {
    const int nothing = open("/dev/null", O_RDONLY);
    dup2(nothing, STDIN_FILENO);
    KTSetErrMode(mode);
    std::atexit([] { std::fputs("exit handlers ran", stderr); });
    _exit(KTWinError(status, function, message, source, line) == status ? returned : 2);
}

constexpr const char* leafTail = "\n\nErrMode=KT_ErrorModeLeaf\n\nTerminate the application?\n";
constexpr const char* parentTail = "\n\nErrMode=KT_ErrorModeParent\n\nContinue?\n";
constexpr const char* ending = "KTL:\nterminating the application\n";

support::StderrIs boxReads(const std::string& caption, const std::string& text, const std::string& tail) {
    return support::StderrIs(caption + "\n" + text + tail);
}

} // namespace

TEST(Terminal, LeafModeAsksWithCaptionTextAndBothAnswers) {
    const Outcome outcome = answer("n\n", KT_ErrorModeLeaf);
    EXPECT_EQ(outcome.exitCode, returned);
    EXPECT_NE(outcome.shown.find("KTL Error: Bad argument\nin function\n[src:3]:f():\nm" +
                                 std::string(leafTail) + "[Y]es / [N]o: "),
              std::string::npos)
        << outcome.shown;
}

TEST(Terminal, ParentModeAsksWithCaptionTextAndBothAnswers) {
    const Outcome outcome = answer("o\n", KT_ErrorModeParent);
    EXPECT_EQ(outcome.exitCode, returned);
    EXPECT_NE(outcome.shown.find("KTL Error: Bad argument\nin function\n[src:3]:f():\nm" +
                                 std::string(parentTail) + "[O]K / [C]ancel: "),
              std::string::npos)
        << outcome.shown;
}

TEST(Terminal, YesEndsTheProcessAndNoContinuesInLeafMode) {
    for (const char* yes : {"y\n", "Yes\n", "  YES\n", "\n"}) {
        const Outcome outcome = answer(yes, KT_ErrorModeLeaf);
        EXPECT_EQ(outcome.exitCode, 1) << yes;
        EXPECT_NE(outcome.shown.find(ending), std::string::npos);
        EXPECT_EQ(outcome.shown.find("exit handlers ran"), std::string::npos);
    }
    for (const char* no : {"n\n", "No\n"})
        EXPECT_EQ(answer(no, KT_ErrorModeLeaf).exitCode, returned) << no;
}

TEST(Terminal, OkContinuesAndCancelEndsTheProcessInParentMode) {
    for (const char* ok : {"o\n", "OK\n", "\n"})
        EXPECT_EQ(answer(ok, KT_ErrorModeParent).exitCode, returned) << ok;
    for (const char* cancel : {"c\n", "Cancel\n"}) {
        const Outcome outcome = answer(cancel, KT_ErrorModeParent);
        EXPECT_EQ(outcome.exitCode, 1) << cancel;
        EXPECT_NE(outcome.shown.find(ending), std::string::npos);
    }
}

TEST(Terminal, AsksAgainUntilTheAnswerIsOneOfTheTwo) {
    EXPECT_EQ(answer("what?\nn\n", KT_ErrorModeLeaf).exitCode, returned);
    EXPECT_EQ(answer("y\nc\n", KT_ErrorModeParent).exitCode, 1); // Yes is no answer here
}

TEST(Terminal, TheEndOfTheInputCountsAsTheFirstButton) {
    EXPECT_EQ(answer("\x04", KT_ErrorModeLeaf).exitCode, 1);
    EXPECT_EQ(answer("\x04", KT_ErrorModeParent).exitCode, returned);
}

TEST(Terminal, SilentModeAsksNothing) {
    const Outcome outcome = answer("", KT_ErrorModeSilent);
    EXPECT_EQ(outcome.exitCode, returned);
    EXPECT_EQ(outcome.shown.find("KTL"), std::string::npos);
}

TEST(Unattended, LeafModeShowsTheReportAndEndsTheProcess) {
    EXPECT_EXIT(
        {
            KTSetStatus(-4);
            unattended(KT_ErrorModeLeaf, -4, "KTsAlloc2", "The table can not be allocated",
                       "..\\_LIBSRC\\KT_ALLOC", 60);
        },
        ExitedWithCode(1),
        boxReads("KTL Error: Out of memory",
                 "in function\n[..\\_LIBSRC\\KT_ALLOC:60]:KTsAlloc2():\nThe table can not be allocated",
                 std::string(leafTail) + ending));
}

TEST(Unattended, ParentModeShowsTheReportAndContinues) {
    EXPECT_EXIT(unattended(KT_ErrorModeParent, -5, "f", "m", "src", 3), ExitedWithCode(returned),
                boxReads("KTL Error: No Error", "in function\n[src:3]:f():\nm", parentTail));
}

TEST(Unattended, ABacktraceIsCaptionedWithTheStoredStatus) {
    EXPECT_EXIT(
        {
            KTSetStatus(-4);
            unattended(KT_ErrorModeParent, -1, "f", "", "src", 3);
        },
        ExitedWithCode(returned),
        boxReads("KTL Error: Out of memory", "called from\n[src:3]:f():\n ", parentTail));
}

TEST(Unattended, AnAutotraceShowsTheMessageAsArguments) {
    EXPECT_EXIT(
        {
            KTSetStatus(-7);
            unattended(KT_ErrorModeParent, -8, "f", "1, 2", "src", 3);
        },
        ExitedWithCode(returned),
        boxReads("KTL Error: Iteration convergence failed", "called from\n[src:3]:f(1, 2)", parentTail));
}

TEST(Unattended, NullTextsAndANegativeLineHaveSubstitutes) {
    EXPECT_EXIT(unattended(KT_ErrorModeParent, -5, nullptr, nullptr, nullptr, -9), ExitedWithCode(returned),
                boxReads("KTL Error: No Error", "in function\n[:0]:<unknown>():\n", parentTail));
}

TEST(Unattended, AnUnknownStoredStatusIsNamedInTheCaption) {
    EXPECT_EXIT(
        {
            KTSetStatus(-9);
            unattended(KT_ErrorModeParent, -5, "f", "m", "src", 3);
        },
        ExitedWithCode(returned),
        boxReads("KTL Error: Unknown error code -9", "in function\n[src:3]:f():\nm", parentTail));
}

TEST(Unattended, ALongMessageIsCutOffAt999Characters) {
    const std::string message(5000, 'x');
    const std::string whole = "in function\n[src:3]:f():\n" + message;
    EXPECT_EXIT(unattended(KT_ErrorModeParent, -5, "f", message.c_str(), "src", 3), ExitedWithCode(returned),
                boxReads("KTL Error: No Error", whole.substr(0, 999), "\n"));
}

TEST(Unattended, ATerminalForOnlyOneOfTheTwoStreamsIsNotAsked) {
    const Outcome outcome = onTerminal("n\n", [] {
        const int nothing = open("/dev/null", O_RDONLY);
        dup2(nothing, STDIN_FILENO);
        return KTError(-5, "f", "m", "src", 3) == -5 ? returned : 2;
    });
    EXPECT_EQ(outcome.exitCode, 1); // the first button, not the typed answer
    EXPECT_EQ(outcome.shown.find("[Y]es"), std::string::npos);
}
