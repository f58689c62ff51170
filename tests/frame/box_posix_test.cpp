// The default handler where there is no window system: on a terminal, and where nobody can be
// asked.
#include "support/stderr_text.h"

#include "frame/KT_ERROR.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
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

// A child whose standard streams are a terminal, and the user who sits at it.
class Session {
public:
    explicit Session(const std::function<int()>& report)
        : child(forkpty(&terminal, nullptr, nullptr, nullptr)) {
        EXPECT_NE(child, -1) << std::strerror(errno);
        if (child != 0) return;
        char go;
        // the typed text comes after the child stands
        if (read(STDIN_FILENO, &go, 1) != 1) _exit(99);
        std::atexit([] { std::fputs("exit handlers ran", stderr); });
        _exit(report());
    }
    ~Session() { close(terminal); }

    void type(const std::string& text) const {
        EXPECT_EQ(write(terminal, text.data(), text.size()), static_cast<ssize_t>(text.size()));
    }
    // Reads what the terminal shows, line ends as '\n', up to and with `end`.
    void awaitText(const std::string& end) {
        while (!shown.ends_with(end) && readCharacter()) {
        }
        EXPECT_TRUE(shown.ends_with(end)) << shown;
    }
    void signal(int number) const { EXPECT_EQ(kill(child, number), 0); }

    Outcome atTheEnd() {
        while (readCharacter()) {
        }
        int status;
        EXPECT_EQ(waitpid(child, &status, 0), child);
        return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, shown};
    }

private:
    bool readCharacter() {
        char c;
        if (read(terminal, &c, 1) != 1) return false;
        if (c != '\r') shown += c;
        return true;
    }

    int terminal = -1;
    pid_t child;
    std::string shown;
};

// Why no terminal can be made here, where that is so.
std::string missingTerminal() {
    int terminal, user;
    if (openpty(&terminal, &user, nullptr, nullptr, nullptr) != 0)
        return std::string("no terminal can be made: ") + std::strerror(errno);
    close(terminal);
    close(user);
    return "";
}

// Tests that need a terminal, which a container without /dev/pts has not.
class Terminal : public testing::Test {
protected:
    void SetUp() override {
        const std::string reason = missingTerminal();
        if (!reason.empty()) GTEST_SKIP() << reason;
    }
};

// Runs `report` at a terminal at which the user has typed `typed`.
Outcome onTerminal(const std::string& typed, const std::function<int()>& report) {
    Session session(report);
    session.type("\n" + typed);
    return session.atTheEnd();
}

Outcome answer(const std::string& typed, int mode) {
    return onTerminal(typed, [mode] {
        KTSetErrMode(mode);
        return KTError(-5, "f", "m", "src", 3) == -5 ? returned : 1;
    });
}

// Runs the report without a terminal: standard input is empty, standard error is the death test's
// pipe.
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

support::StderrIs boxReads(const std::string& caption, const std::string& text,
                           const std::string& tail) {
    return support::StderrIs(caption + "\n" + text + tail);
}

} // namespace

TEST_F(Terminal, LeafModeAsksWithCaptionTextAndBothAnswers) {
    const Outcome outcome = answer("n\n", KT_ErrorModeLeaf);
    EXPECT_EQ(outcome.exitCode, returned);
    EXPECT_NE(outcome.shown.find("KTL Error: Bad argument\nin function\n[src:3]:f():\nm" +
                                 std::string(leafTail) + "[Y]es / [N]o: "),
              std::string::npos)
        << outcome.shown;
}

TEST_F(Terminal, ParentModeAsksWithCaptionTextAndBothAnswers) {
    const Outcome outcome = answer("o\n", KT_ErrorModeParent);
    EXPECT_EQ(outcome.exitCode, returned);
    EXPECT_NE(outcome.shown.find("KTL Error: Bad argument\nin function\n[src:3]:f():\nm" +
                                 std::string(parentTail) + "[O]K / [C]ancel: "),
              std::string::npos)
        << outcome.shown;
}

TEST_F(Terminal, YesEndsTheProcessAndNoContinuesInLeafMode) {
    for (const char* yes : {"y\n", "Yes\n", "  YES\n", "\n"}) {
        const Outcome outcome = answer(yes, KT_ErrorModeLeaf);
        EXPECT_EQ(outcome.exitCode, 1) << yes;
        EXPECT_NE(outcome.shown.find(ending), std::string::npos);
        EXPECT_EQ(outcome.shown.find("exit handlers ran"), std::string::npos);
    }
    for (const char* no : {"n\n", "No\n"})
        EXPECT_EQ(answer(no, KT_ErrorModeLeaf).exitCode, returned) << no;
}

TEST_F(Terminal, OkContinuesAndCancelEndsTheProcessInParentMode) {
    for (const char* ok : {"o\n", "OK\n", "\n"})
        EXPECT_EQ(answer(ok, KT_ErrorModeParent).exitCode, returned) << ok;
    for (const char* cancel : {"c\n", "Cancel\n"}) {
        const Outcome outcome = answer(cancel, KT_ErrorModeParent);
        EXPECT_EQ(outcome.exitCode, 1) << cancel;
        EXPECT_NE(outcome.shown.find(ending), std::string::npos);
    }
}

TEST_F(Terminal, AsksAgainUntilTheAnswerIsOneOfTheTwo) {
    EXPECT_EQ(answer("what?\nn\n", KT_ErrorModeLeaf).exitCode, returned);
    EXPECT_EQ(answer("y\nc\n", KT_ErrorModeParent).exitCode, 1); // Yes is no answer here
}

TEST_F(Terminal, TheEndOfTheInputCountsAsTheFirstButton) {
    EXPECT_EQ(answer("\x04", KT_ErrorModeLeaf).exitCode, 1);
    EXPECT_EQ(answer("\x04", KT_ErrorModeParent).exitCode, returned);
}

namespace {

int reportInLeafMode() {
    KTSetErrMode(KT_ErrorModeLeaf);
    return KTError(-5, "f", "m", "src", 3) == -5 ? returned : 1;
}

// Without SA_RESTART: a wait that the signal finds ends with EINTR.
void handleSignals() {
    struct sigaction action {};
    action.sa_handler = [](int) {
        if (write(STDERR_FILENO, "!", 1) != 1) _exit(98);
    };
    sigaction(SIGUSR1, &action, nullptr);
}

} // namespace

TEST_F(Terminal, ASignalDuringTheQuestionIsNoAnswer) {
    Session session([] {
        handleSignals();
        return reportInLeafMode();
    });
    session.type("\n");
    session.awaitText("[Y]es / [N]o: ");
    for (int i = 0; i < 3; ++i) { // the first may come before the child waits
        usleep(20000);
        session.signal(SIGUSR1);
        session.awaitText("!");
    }
    session.type("n\n");
    EXPECT_EQ(session.atTheEnd().exitCode, returned);
}

TEST_F(Terminal, WaitsForAnAnswerWhereTheApplicationReadsWithoutWaiting) {
    Session session([] {
        EXPECT_EQ(fcntl(STDIN_FILENO, F_SETFL, O_RDWR | O_NONBLOCK), 0);
        return reportInLeafMode();
    });
    session.type("\n");
    session.awaitText("[Y]es / [N]o: ");
    usleep(20000);
    session.type("n\n");
    EXPECT_EQ(session.atTheEnd().exitCode, returned);
}

TEST_F(Terminal, SilentModeAsksNothing) {
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
        boxReads(
            "KTL Error: Out of memory",
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
        boxReads("KTL Error: Iteration convergence failed", "called from\n[src:3]:f(1, 2)",
                 parentTail));
}

TEST(Unattended, NullTextsAndANegativeLineHaveSubstitutes) {
    EXPECT_EXIT(unattended(KT_ErrorModeParent, -5, nullptr, nullptr, nullptr, -9),
                ExitedWithCode(returned),
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
    EXPECT_EXIT(unattended(KT_ErrorModeParent, -5, "f", message.c_str(), "src", 3),
                ExitedWithCode(returned),
                boxReads("KTL Error: No Error", whole.substr(0, 999), "\n"));
}

TEST_F(Terminal, IsNotAskedWhereItIsOnlyOneOfTheTwoStreams) {
    const Outcome outcome = onTerminal("n\n", [] {
        const int nothing = open("/dev/null", O_RDONLY);
        dup2(nothing, STDIN_FILENO);
        return KTError(-5, "f", "m", "src", 3) == -5 ? returned : 2;
    });
    EXPECT_EQ(outcome.exitCode, 1); // the first button, not the typed answer
    EXPECT_EQ(outcome.shown.find("[Y]es"), std::string::npos);
}
