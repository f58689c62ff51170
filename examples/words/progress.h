// A line on the terminal that tells how far long work has come; nothing where the error stream is
// no terminal.
#pragma once

#include <chrono>
#include <string>

namespace words {

class Progress {
public:
    Progress();
    ~Progress() { clear(); }
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;

    void show(const std::string& work, int done, int total);
    void clear();

private:
    bool terminal;
    bool shown = false;
    std::chrono::steady_clock::time_point last;
};

} // namespace words
