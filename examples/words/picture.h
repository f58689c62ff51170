// Pictures for a page: a plot with axes, as SVG.
#pragma once

#include "matrix.h"

#include <string>
#include <vector>

namespace words {

/// Text as it may stand in a page.
std::string escaped(const std::string& text);

/// A mark on an axis, and where it is: 0 at the left or at the bottom, 1 at the other end.
struct Tick {
    double place = 0.0;
    std::string label;
};

struct Axis {
    std::string title; ///< with its unit
    std::vector<Tick> ticks;
};

/// Round numbers from 0 to `end`, five or fewer steps.
std::vector<Tick> roundTicks(double end);

/// What is drawn inside a plot, in units of the page.
inline constexpr int plotWidth = 290;

// / A picture of the class `name` with axes around `content`, which fills a rectangle of plotWidth
// and `height`.
std::string plot(const std::string& name, const std::string& content, int height, const Axis& x,
                 const Axis& y, const std::string& caption);

// / A table in shades, one column of the picture a row of the table, the first element at the
// bottom; and beside it what the / shades stand for.
std::string heatMap(const Matrix<float>& values, int height);

} // namespace words
