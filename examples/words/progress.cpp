#include "progress.h"

#include <fmt/format.h>

#include <cstdio>
#include <unistd.h>

namespace words {

Progress::Progress() : terminal(isatty(STDERR_FILENO) == 1) {
}

void Progress::show(const std::string& work, int done, int total) {
    const auto now = std::chrono::steady_clock::now();
    if (!terminal || (shown && now - last < std::chrono::milliseconds(100))) return;
    fmt::print(stderr, "\r\x1b[K{}: {} of {}", work, done, total);
    std::fflush(stderr);
    shown = true;
    last = now;
}

void Progress::clear() {
    if (shown) fmt::print(stderr, "\r\x1b[K");
    shown = false;
}

} // namespace words
