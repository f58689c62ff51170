// A product of many factors in double precision, as if the exponent's range were a wider one.
#pragma once

namespace vsq {

// Where the product leaves the middle of a double's range its size is kept apart, in steps of
// 2^400, so that no order of factors overflows or underflows on the way. Factors are floats once,
// up to 2^149 in size either way; 0, infinity and NaN stay themselves. For level sources
// too: nothing here is ever a function of its own, not even a constructor.
struct ScaledProduct {
    double part; // of the empty product: 1
    int steps;   // 0

    [[gnu::always_inline]] inline void times(double factor) {
        part *= factor;
        const double magnitude = __builtin_fabs(part);
        if (magnitude > 1 / step && magnitude < step) return;
        if (magnitude >= step && magnitude < __builtin_inf()) {
            part *= 1 / step;
            ++steps;
        } else if (magnitude > 0 && magnitude <= 1 / step) {
            part *= step;
            --steps;
        }
    }

    // Rounded to double once, at the end.
    [[gnu::always_inline]] inline double value() const {
        double result = part;
        for (int i = steps; i > 0 && result - result == 0; --i)
            result *= step;
        for (int i = steps; i < 0 && result != 0; ++i)
            result *= 1 / step;
        return result;
    }

    static constexpr double step = 0x1p400;
};

} // namespace vsq
