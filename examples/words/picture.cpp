#include "picture.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>

namespace words {
namespace {

constexpr int left = 42;   // for the numbers of the vertical axis and its title
constexpr int right = 46;  // for the shades of a heat map
constexpr int top = 8;     // half a line
constexpr int bottom = 28; // for the numbers of the horizontal axis and its title
constexpr int nShades = 16;

/// From dark blue to yellow.
std::string colour(int shade) {
    const double x = static_cast<double>(shade) / (nShades - 1);
    return fmt::format("rgb({:.0f},{:.0f},{:.0f})", 255 * std::pow(x, 0.9),
                       230 * std::pow(x, 1.3) + 10, 90 + 60 * std::sin(3.14 * x) - 60 * x);
}

std::string label(double x, double y, const char* anchor, const std::string& text) {
    return fmt::format("<text x=\"{:.1f}\" y=\"{:.1f}\" text-anchor=\"{}\">{}</text>", x, y, anchor,
                       escaped(text));
}

std::string axes(int height, const Axis& x, const Axis& y) {
    std::string text = fmt::format("<path class=\"axis\" d=\"M{0} {1}V{2}H{3}", left, top,
                                   top + height, left + plotWidth);
    for (const Tick& tick : x.ticks)
        text += fmt::format("M{:.1f} {}v4", left + plotWidth * tick.place, top + height);
    for (const Tick& tick : y.ticks)
        text += fmt::format("M{} {:.1f}h-4", left, top + height * (1.0 - tick.place));
    text += "\"/>";
    for (const Tick& tick : x.ticks)
        text += label(left + plotWidth * tick.place, top + height + 13, "middle", tick.label);
    for (const Tick& tick : y.ticks)
        text += label(left - 6, top + height * (1.0 - tick.place) + 3, "end", tick.label);
    text += label(left + plotWidth / 2.0, top + height + 25, "middle", x.title);
    return text +
           fmt::format(
               "<text transform=\"translate(9 {}) rotate(-90)\" text-anchor=\"middle\">{}</text>",
               top + height / 2, escaped(y.title));
}

/// The shades and the values at both ends, right of the plot.
std::string key(float low, float high, int height) {
    std::string text;
    const double step = static_cast<double>(height) / nShades;
    for (int shade = 0; shade < nShades; ++shade)
        text += fmt::format("<path fill=\"{}\" d=\"M{} {:.2f}h8v{:.2f}h-8z\"/>", colour(shade),
                            plotWidth + 8, height - step * (shade + 1), step);
    return text + label(plotWidth + 19, 6, "start", fmt::format("{:.1f}", high)) +
           label(plotWidth + 19, height, "start", fmt::format("{:.1f}", low));
}

} // namespace

std::string escaped(const std::string& text) {
    std::string result;
    for (const char c : text)
        if (c == '<')
            result += "&lt;";
        else if (c == '>')
            result += "&gt;";
        else if (c == '&')
            result += "&amp;";
        else if (c == '"')
            result += "&quot;";
        else
            result += c;
    return result;
}

std::vector<Tick> roundTicks(double end) {
    double step = std::pow(10.0, std::floor(std::log10(end)) - 1.0);
    for (const double factor : {2.0, 2.5, 2.0, 2.0, 2.5, 2.0}) // 1, 2, 5, 10, 20, 50, 100
        if (end / step > 5.0) step *= factor;
    std::vector<Tick> ticks;
    for (int i = 0; step * i <= end * 1.000001; ++i)
        ticks.push_back({step * i / end, fmt::format("{:.3g}", step * i)});
    return ticks;
}

std::string plot(const std::string& name, const std::string& content, int height, const Axis& x,
                 const Axis& y, const std::string& caption) {
    return fmt::format(
        "<figure><svg class=\"{}\" viewBox=\"0 0 {} {}\" role=\"img\" aria-label=\"{}\">"
        "<g transform=\"translate({} {})\">{}</g>{}</svg><figcaption>{}</figcaption></figure>\n",
        name, left + plotWidth + right, top + height + bottom, escaped(caption), left, top, content,
        axes(height, x, y), escaped(caption));
}

std::string heatMap(const Matrix<float>& values, int height) {
    const int nRows = values.rows(), nColumns = values.columns();
    float low = values.row(0)[0], high = low;
    for (int t = 0; t < nRows; ++t) {
        const auto [least, most] = std::minmax_element(values.row(t), values.row(t) + nColumns);
        low = std::min(low, *least);
        high = std::max(high, *most);
    }
    std::vector<std::string> paths(nShades); // one path a shade keeps the page small
    for (int t = 0; t < nRows; ++t)
        for (int i = 0; i < nColumns; ++i) {
            const float place = high > low ? (values.row(t)[i] - low) / (high - low) : 0.0f;
            const int shade = std::min(nShades - 1, static_cast<int>(place * nShades));
            paths[static_cast<std::size_t>(shade)] +=
                fmt::format("M{} {}h1v1h-1z", t, nColumns - 1 - i);
        }
    std::string text = fmt::format("<svg width=\"{}\" height=\"{}\" viewBox=\"0 0 {} {}\" "
                                   "preserveAspectRatio=\"none\" shape-rendering=\"crispEdges\">",
                                   plotWidth, height, nRows, nColumns);
    for (int shade = 0; shade < nShades; ++shade)
        text += fmt::format("<path fill=\"{}\" d=\"{}\"/>", colour(shade),
                            paths[static_cast<std::size_t>(shade)]);
    return text + "</svg>" + key(low, high, height);
}

} // namespace words
