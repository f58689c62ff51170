// How long something takes; for ratios of times, of which the least of some tries is asked for.
#pragma once

#include <chrono>

namespace support {

template <class Operation>
double secondsOf(Operation operation) {
    using Clock = std::chrono::steady_clock;
    const auto start = Clock::now();
    operation();
    return std::chrono::duration<double>(Clock::now() - start).count();
}

} // namespace support
