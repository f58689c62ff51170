// The default handler's message boxes, read and answered by a second thread, and the fatal exit
// behind them.
#include "frame/KT_ERROR.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>

#define WIN32_LEAN_AND_MEAN
#include <windows.h>

namespace {

struct Shown {
    std::string caption;
    std::string text;
};

std::string windowText(HWND window) {
    char text[2048] = {};
    GetWindowTextA(window, text, sizeof text);
    return text;
}

// Answers the boxes of this process, one after the other, with the ids of buttons.
class User {
public:
    explicit User(int button) : thread([this, button] { answer(button); }) {}
    ~User() {
        done = true;
        thread.join();
    }
    Shown shown; // of the last box

private:
    static HWND findBox() {
        for (HWND box = nullptr;
             (box = FindWindowExA(nullptr, box, "#32770", nullptr)) != nullptr;) {
            DWORD process;
            GetWindowThreadProcessId(box, &process);
            if (process == GetCurrentProcessId() && GetDlgItem(box, 0xFFFF) != nullptr) return box;
        }
        return nullptr;
    }

    void answer(int button) {
        while (!done) {
            if (HWND box = findBox()) {
                shown = {windowText(box), windowText(GetDlgItem(box, 0xFFFF))};
                PostMessageA(box, WM_COMMAND, static_cast<WPARAM>(button), 0);
                while (!done && IsWindow(box))
                    Sleep(1);
            }
            Sleep(1);
        }
    }

    std::atomic<bool> done = false;
    std::thread thread;
};

// The box that a report shows, answered with `button`, which continues.
Shown answered(int mode, int button, int status, const char* function, const char* message,
               const char* source, int line) {
    Shown shown;
    KTSetErrMode(mode);
    {
        User user(button);
        EXPECT_EQ(KTWinError(status, function, message, source, line), status);
        shown = user.shown;
    }
    KTSetErrMode(KT_ErrorModeLeaf);
    return shown;
}

// A user who answers the first box with `button` and dismisses the fatal exit's one, telling what
// that says.
class EndingUser {
public:
    explicit EndingUser(int button) {
        std::thread([button] {
            for (int id : {button, IDOK})
                answerNext(id);
        }).detach();
    }

private:
    static void answerNext(int button) {
        for (;; Sleep(1))
            for (HWND box = nullptr;
                 (box = FindWindowExA(nullptr, box, "#32770", nullptr)) != nullptr;) {
                DWORD process;
                GetWindowThreadProcessId(box, &process);
                HWND text = GetDlgItem(box, 0xFFFF);
                if (process != GetCurrentProcessId() || text == nullptr) continue;
                std::fprintf(stderr, "<%s>", windowText(text).c_str());
                std::fflush(stderr);
                PostMessageA(box, WM_COMMAND, static_cast<WPARAM>(button), 0);
                while (IsWindow(box))
                    Sleep(1);
                return;
            }
    }
};

void sayThatExitHandlersRan() {
    std::fputs("exit handlers ran", stderr);
}

[[noreturn]] void reportAndContinue(int mode, int button) {
    const EndingUser user(button);
    KTSetErrMode(mode);
    std::atexit(sayThatExitHandlersRan);
    KTWinError(-5, "f", "m", "src", 3);
    _exit(42);
}

bool processEnded(int exitCode) {
    return exitCode !=
           // that code says that the report returned; what the system's fatal exit uses is its own
           42;
}

constexpr const char* leafTail = "\n\nErrMode=KT_ErrorModeLeaf\n\nTerminate the application?";
constexpr const char* parentTail = "\n\nErrMode=KT_ErrorModeParent\n\nContinue?";

} // namespace

TEST(Box, LeafModeAsksWhetherToTerminateAndNoContinues) {
    KTSetStatus(-5);
    const Shown shown = answered(KT_ErrorModeLeaf, IDNO, -5, "f", "m", "src", 3);
    EXPECT_EQ(shown.caption, "KTL Error: Bad argument");
    EXPECT_EQ(shown.text, "in function\n[src:3]:f():\nm" + std::string(leafTail));
}

TEST(Box, ParentModeAsksWhetherToContinueAndOkDoes) {
    KTSetStatus(-4);
    const Shown shown = answered(KT_ErrorModeParent, IDOK, -1, "f", "", "src", 3);
    EXPECT_EQ(shown.caption, "KTL Error: Out of memory"); // the stored status, not the marker
    EXPECT_EQ(shown.text, "called from\n[src:3]:f():\n " + std::string(parentTail));
}

TEST(Box, AnAutotraceShowsTheMessageAsArguments) {
    KTSetStatus(-7);
    const Shown shown = answered(KT_ErrorModeParent, IDOK, -8, "f", "1, 2", "src", 3);
    EXPECT_EQ(shown.caption, "KTL Error: Iteration convergence failed");
    EXPECT_EQ(shown.text, "called from\n[src:3]:f(1, 2)" + std::string(parentTail));
}

TEST(Box, NullTextsAndANegativeLineHaveSubstitutes) {
    KTSetStatus(-9);
    const Shown shown = answered(KT_ErrorModeParent, IDOK, -5, nullptr, nullptr, nullptr, -9);
    EXPECT_EQ(shown.caption, "KTL Error: Unknown error code -9");
    EXPECT_EQ(shown.text, "in function\n[:0]:<unknown>():\n" + std::string(parentTail));
}

TEST(Box, ALongMessageIsCutOffAt999Characters) {
    const std::string message(5000, 'x');
    const std::string whole = "in function\n[src:3]:f():\n" + message;
    EXPECT_EQ(answered(KT_ErrorModeParent, IDOK, -5, "f", message.c_str(), "src", 3).text,
              whole.substr(0, 999));
}

TEST(Box, YesEndsTheProcessInLeafMode) {
    EXPECT_EXIT(reportAndContinue(KT_ErrorModeLeaf, IDYES), processEnded,
                "Terminate the application\\?><KTL:\\s+terminating the application>");
}

TEST(Box, CancelEndsTheProcessInParentMode) {
    EXPECT_EXIT(reportAndContinue(KT_ErrorModeParent, IDCANCEL), processEnded,
                "Continue\\?><KTL:\\s+terminating the application>");
}
